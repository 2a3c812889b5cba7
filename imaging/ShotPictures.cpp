#include "imaging/ShotPictures.h"

#include <QFileInfo>
#include <QHash>

#include "imaging/OscilloscopePlot.h"
#include "imaging/ShotDescription.h"

namespace korux {

const QString kPngCreationTimeKey = QStringLiteral("Creation Time");

const QString kPngAnatomyKey = QStringLiteral("Anatomy");

DicomIdentity shotIdentity(const DicomUnit& unit, const QDateTime& acquired, const PictureOptions& options)
{
    return DicomSession::instance().nextShot(
        options.patient.id, options.patient.name, options.studyUid, unit.boardSerial, acquired);
}

DicomUnit unitFromDescription(const QString& description, const QString& firmware)
{
    const DescriptionSection sensor = parseDescription(description).value(QStringLiteral("SENSOR"));
    DicomUnit unit;
    unit.model = sensor.value(QStringLiteral("Type"));
    unit.boardSerial = sensor.value(QStringLiteral("HardwareSerial"));
    unit.sensorSerial = sensor.value(QStringLiteral("SensorSerial"));
    unit.technology = sensor.value(QStringLiteral("Technology"));
    unit.firmware = firmware;
    return unit;
}

PngText shotPngText(const DicomUnit& unit, const QDateTime& acquired, const DicomIdentity& identity,
    const DicomAnatomy& anatomy)
{
    PngText text;
    text.insert(QStringLiteral("Software"), QStringLiteral("korux"));
    QString source = QString::fromLatin1(kDicomManufacturer);
    if (!unit.model.isEmpty())
        source += QLatin1Char(' ') + unit.model;
    if (!unit.boardSerial.isEmpty())
        source += QStringLiteral(", board %1").arg(unit.boardSerial);
    if (!unit.sensorSerial.isEmpty())
        source += QStringLiteral(", sensor %1").arg(unit.sensorSerial);
    text.insert(QStringLiteral("Source"), source);
    if (acquired.isValid())
        text.insert(
            kPngCreationTimeKey, acquired.toOffsetFromUtc(acquired.offsetFromUtc()).toString(Qt::ISODate));
    if (!unit.firmware.isEmpty())
        text.insert(kPngFirmwareKey, unit.firmware);
    if (identity.isValid())
        identityToPngText(identity, &text);
    if (!anatomy.isEmpty())
        text.insert(kPngAnatomyKey, anatomyText(anatomy));
    return text;
}

QStringList shotPictureNames(const QString& stem, const QString& description, const PictureOptions& options)
{
    QStringList names { stem + QStringLiteral("-preview.png") };
    OscilloscopeFigures figures;
    QString error;
    if (oscilloscopeFromDescription(description, &figures, &error) && !figures.samples.isEmpty())
        names << stem + QStringLiteral("-oscilloscope.png");
    if (options.dicom)
        names << stem + QStringLiteral(".dcm");
    if (options.dicom && options.presentation)
        names << stem + QStringLiteral("-presentation.dcm");
    return names;
}

bool shotPictureFiles(const QString& stem, const QImage& image, const QString& description,
    const DicomUnit& unit, const QDateTime& acquired, const DicomIdentity& identity,
    const PictureOptions& options, QVector<ShotFile>* files, QString* error)
{
    ShotFile preview { stem + QStringLiteral("-preview.png"), encodePreviewPng(image, error) };
    if (preview.bytes.isEmpty())
        return false;
    files->append(preview);

    OscilloscopeFigures figures;
    if (!oscilloscopeFromDescription(description, &figures, error))
        return false;
    figures.title = QStringLiteral("Oscilloscope of %1").arg(QFileInfo(stem).fileName());
    const QImage plot = plotOscilloscope(figures);
    if (!plot.isNull()) {
        ShotFile file { stem + QStringLiteral("-oscilloscope.png"), encodePng(plot, false, error) };
        if (file.bytes.isEmpty())
            return false;
        files->append(file);
    }

    if (options.dicom) {
        DicomShot shot;
        shot.raw = rawArea(image);
        shot.description = description;
        shot.acquired = acquired;
        shot.unit = unit;
        shot.patient = options.patient;
        shot.identity = identity;
        shot.anatomy = options.anatomy;
        ShotFile processing { stem + QStringLiteral(".dcm"),
            encodeDicom(shot, DicomIntent::ForProcessing, error) };
        if (processing.bytes.isEmpty())
            return false;
        files->append(processing);
        if (options.presentation) {
            ShotFile presentation { stem + QStringLiteral("-presentation.dcm"),
                encodeDicom(shot, DicomIntent::ForPresentation, error) };
            if (presentation.bytes.isEmpty())
                return false;
            files->append(presentation);
        }
    }
    return true;
}

} // namespace korux

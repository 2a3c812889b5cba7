// korux's side of a shot's picture files: the options that ask for them,
// writing them, and korux dicom for a shot saved before.
#include "tools/ShotOutput.h"

#include <QFile>
#include <QFileInfo>

#include <cstdio>

#include "tools/ExitCodes.h"
#include "tools/KeepFile.h"
#include "tools/ShotDescription.h"

namespace korux {

namespace {

QtMessageHandler qtHandler = nullptr;

void filterMessages(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    if (qtHandler)
        qtHandler(type, context, message);
    else
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

} // namespace

void prepareHeadlessGui()
{
    qputenv("QT_QPA_PLATFORM", "minimal:enable_fonts");
    qtHandler = qInstallMessageHandler(filterMessages);
}

PictureOptions pictureOptions(const CommandLine& line)
{
    PictureOptions options;
    options.presentation
        = line.has(QStringLiteral("--dicom-presentation")) || line.has(QStringLiteral("--presentation"));
    options.dicom = options.presentation || line.has(QStringLiteral("--dicom"));
    options.patient.name = line.value(QStringLiteral("--patient-name"));
    options.patient.id = line.value(QStringLiteral("--patient-id"));
    options.patient.study = line.value(QStringLiteral("--study"));
    return options;
}

bool writeShotFile(Session& session, const ShotFile& file, bool replace)
{
    QString error;
    if (!keepFile(file.path, file.bytes, replace, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return false;
    }
    session.console.out(QStringLiteral("wrote %1").arg(file.path));
    return true;
}

// korux dicom SHOT.png: the DICOM files of a shot saved before, from its PNG
// and the description beside it.
int runDicom(Session& session, const CommandLine& line)
{
    const QString png = line.positional.first();
    if (!png.endsWith(QLatin1String(".png"), Qt::CaseInsensitive)) {
        session.console.error(QStringLiteral("korux: dicom takes a shot's PNG (SHOT.png), not %1").arg(png));
        return kExitUsage;
    }
    const QString stem = png.left(png.size() - 4);
    QFile pngFile(png);
    if (!pngFile.open(QIODevice::ReadOnly)) {
        session.console.error(QStringLiteral("korux: cannot read %1: %2").arg(png, pngFile.errorString()));
        return kExitFailure;
    }
    QString error;
    PngText text;
    const QImage readout = decodeSensorPng(pngFile.readAll(), &text, &error);
    if (readout.isNull()) {
        session.console.error(QStringLiteral("korux: %1: %2").arg(png, error));
        return kExitFailure;
    }
    QFile textFile(stem + QStringLiteral(".txt"));
    if (!textFile.open(QIODevice::ReadOnly)) {
        session.console.error(QStringLiteral("korux: cannot read %1, the description of %2: %3")
                                  .arg(textFile.fileName(), png, textFile.errorString()));
        return kExitFailure;
    }
    const QString description = QString::fromUtf8(textFile.readAll());
    if (!parseDescription(description).contains(QStringLiteral("SENSOR"))) {
        session.console.error(
            QStringLiteral("korux: %1 is no acquisition description (it has no [SENSOR] section)")
                .arg(textFile.fileName()));
        return kExitFailure;
    }
    const QImage raw = rawArea(readout);
    if (raw.isNull()) {
        session.console.error(QStringLiteral("korux: %1 is %2x%3 pixels, too small for a read-out")
                                  .arg(png)
                                  .arg(readout.width())
                                  .arg(readout.height()));
        return kExitFailure;
    }
    QDateTime acquired = QDateTime::fromString(text.value(kPngCreationTimeKey), Qt::ISODate);
    if (!acquired.isValid())
        acquired = QFileInfo(png).lastModified();

    PictureOptions options = pictureOptions(line);
    DicomShot shot;
    shot.raw = raw;
    shot.description = description;
    shot.acquired = acquired;
    shot.unit = unitFromDescription(description, text.value(kPngFirmwareKey));
    shot.patient = options.patient;
    QVector<ShotFile> files;
    files.append({ stem + QStringLiteral(".dcm"), encodeDicom(shot, DicomIntent::ForProcessing, &error) });
    if (!files.last().bytes.isEmpty() && options.presentation)
        files.append({ stem + QStringLiteral("-presentation.dcm"),
            encodeDicom(shot, DicomIntent::ForPresentation, &error) });
    if (files.last().bytes.isEmpty()) {
        session.console.error(QStringLiteral("korux: %1: %2").arg(png, error));
        return kExitFailure;
    }
    const bool replace = line.has(QStringLiteral("--overwrite"));
    for (const ShotFile& file : files)
        if (!writeShotFile(session, file, replace))
            return kExitFailure;
    return kExitOk;
}

} // namespace korux

#include "imaging/DicomExport.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dcostrmb.h>
#include <dcmtk/dcmdata/dcsequen.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QRegularExpression>
#include <QStringList>

#include <cstring>
#include <vector>

#include "imaging/ImageFiles.h"

namespace korux {

const char* const kDicomManufacturer = "TAVEN";
const char* const kDicomAnonymousName = "ANONYMOUS^";
const char* const kDicomAnonymousId = "ANONYMOUS";

namespace {

// Image Comments is a long text: 10,240 characters at most.
constexpr int kLongTextLimit = 10240;

// The description as Image Comments holds it: whole when it fits; else the
// oscilloscope samples (the only long value) are cut, and the line says so.
QString commentsText(const QString& description)
{
    if (description.size() <= kLongTextLimit)
        return description;
    static const QRegularExpression oscillo(QStringLiteral("(Oscillo=)([0-9A-Fa-f]*)"));
    const QRegularExpressionMatch match = oscillo.match(description);
    const QString marker = QStringLiteral("... (cut; the whole text is in the shot's .txt)");
    if (match.hasMatch()) {
        const int excess = description.size() - kLongTextLimit + marker.size();
        const int keep = std::max(0, match.capturedLength(2) - excess) / 4 * 4;
        QString text = description;
        text.replace(match.capturedStart(2), match.capturedLength(2), match.captured(2).left(keep) + marker);
        if (text.size() <= kLongTextLimit)
            return text;
    }
    return description.left(kLongTextLimit - marker.size()) + marker;
}

// String values: at most limit characters (64 for a long string, 16 for a
// short one), no backslash (it separates values).
OFString stringValue(const QString& text, int limit)
{
    QString value = text;
    value.replace(QLatin1Char('\\'), QLatin1Char('/'));
    return OFString(value.left(limit).toUtf8().constData());
}

OFString longString(const QString& text)
{
    return stringValue(text, 64);
}

OFString detectorType(const QString& technology)
{
    // Caesium iodide and gadolinium oxysulfide are scintillators; the CCD
    // sensors of this kind see the X-rays through one too.
    if (technology.compare(QLatin1String("CsI"), Qt::CaseInsensitive) == 0
        || technology.compare(QLatin1String("Gadox"), Qt::CaseInsensitive) == 0
        || technology.compare(QLatin1String("CCD"), Qt::CaseInsensitive) == 0)
        return "SCINTILLATOR";
    return "";
}

class Writer {
public:
    explicit Writer(DcmItem* item)
        : item_(item)
    {
    }

    Writer& put(const DcmTagKey& tag, const OFString& value)
    {
        check(item_->putAndInsertOFStringArray(tag, value), tag);
        return *this;
    }

    Writer& put(const DcmTagKey& tag, const QString& value)
    {
        return put(tag, OFString(value.toUtf8().constData()));
    }

    Writer& put(const DcmTagKey& tag, Uint16 value)
    {
        check(item_->putAndInsertUint16(tag, value), tag);
        return *this;
    }

    Writer& put(const DcmTagKey& tag, Sint16 value)
    {
        check(item_->putAndInsertSint16(tag, value), tag);
        return *this;
    }

    // Appends a coded entry (value, scheme, meaning) to a sequence; its item
    // for what goes inside it, null on failure.
    DcmItem* code(const DcmTagKey& sequence, const char* value, const char* scheme, const char* meaning)
    {
        DcmItem* entry = nullptr;
        OFCondition status = item_->findOrCreateSequenceItem(sequence, entry, -2);
        if (status.good() && entry) {
            Writer inner(entry);
            inner.put(DCM_CodeValue, OFString(value))
                .put(DCM_CodingSchemeDesignator, OFString(scheme))
                .put(DCM_CodeMeaning, OFString(meaning));
            if (!inner.ok())
                status = EC_IllegalCall;
        }
        check(status, sequence);
        return status.good() ? entry : nullptr;
    }

    Writer& emptySequence(const DcmTagKey& tag)
    {
        check(item_->insertEmptyElement(tag), tag);
        return *this;
    }

    bool ok() const { return error_.isEmpty(); }
    const QString& error() const { return error_; }

private:
    void check(const OFCondition& status, const DcmTagKey& tag)
    {
        if (status.bad() && error_.isEmpty())
            error_
                = QStringLiteral("cannot set %1: %2")
                      .arg(QString::fromLatin1(DcmTag(tag).getTagName()), QString::fromLatin1(status.text()));
    }

    DcmItem* item_;
    QString error_;
};

} // namespace

QString newDicomUid()
{
    char uid[100] = {};
    dcmGenerateUniqueIdentifier(uid, SITE_INSTANCE_UID_ROOT);
    return QString::fromLatin1(uid);
}

QByteArray encodeDicom(const DicomShot& shot, DicomIntent intent, QString* error)
{
    if (shot.raw.isNull()) {
        *error = QStringLiteral("no image to export");
        return QByteArray();
    }
    const QImage raw = shot.raw.format() == QImage::Format_Grayscale16
        ? shot.raw
        : shot.raw.convertToFormat(QImage::Format_Grayscale16);
    const bool presentation = intent == DicomIntent::ForPresentation;
    const QDateTime when = shot.acquired.isValid() ? shot.acquired : QDateTime::currentDateTime();
    const QString date = when.toString(QStringLiteral("yyyyMMdd"));
    const QString time = when.toString(QStringLiteral("HHmmss"));
    const QString studyUid = shot.series.studyUid.isEmpty() ? newDicomUid() : shot.series.studyUid;
    const QString seriesUid = shot.series.seriesUid.isEmpty() ? newDicomUid() : shot.series.seriesUid;
    // The sensor's 14 bits, unless a pixel needs more (an image from a file).
    int bits = kSensorBits;
    for (int y = 0; y < raw.height() && bits == kSensorBits; ++y) {
        const auto* row = reinterpret_cast<const quint16*>(raw.constScanLine(y));
        for (int x = 0; x < raw.width(); ++x)
            if (row[x] >> kSensorBits)
                bits = 16;
    }

    DcmFileFormat file;
    DcmDataset* data = file.getDataset();
    Writer w(data);
    // SOP Common
    w.put(DCM_SpecificCharacterSet, OFString("ISO_IR 192"))
        .put(DCM_SOPClassUID,
            OFString(presentation ? UID_DigitalIntraOralXRayImageStorageForPresentation
                                  : UID_DigitalIntraOralXRayImageStorageForProcessing))
        .put(DCM_SOPInstanceUID, newDicomUid())
        .put(DCM_InstanceCreationDate, date)
        .put(DCM_InstanceCreationTime, time);
    // Patient
    w.put(DCM_PatientName,
         shot.patient.name.isEmpty() ? QString::fromLatin1(kDicomAnonymousName) : shot.patient.name.left(64))
        .put(DCM_PatientID,
            shot.patient.id.isEmpty() ? QString::fromLatin1(kDicomAnonymousId) : shot.patient.id.left(64))
        .put(DCM_PatientBirthDate, OFString())
        .put(DCM_PatientSex, OFString());
    // General Study
    w.put(DCM_StudyInstanceUID, studyUid)
        .put(DCM_StudyDate, date)
        .put(DCM_StudyTime, time)
        .put(DCM_ReferringPhysicianName, OFString())
        .put(DCM_StudyID, OFString("1"))
        .put(DCM_AccessionNumber, OFString());
    if (!shot.patient.study.isEmpty())
        w.put(DCM_StudyDescription, longString(shot.patient.study));
    // General, DX and Intra-oral Series
    w.put(DCM_Modality, OFString("IO"))
        .put(DCM_SeriesInstanceUID, seriesUid)
        .put(DCM_SeriesNumber, QString::number(shot.series.seriesNumber))
        .put(DCM_SeriesDate, date)
        .put(DCM_SeriesTime, time)
        .put(DCM_PresentationIntentType, OFString(presentation ? "FOR PRESENTATION" : "FOR PROCESSING"));
    // General Equipment
    w.put(DCM_Manufacturer, OFString(kDicomManufacturer))
        .put(DCM_ManufacturerModelName, longString(shot.unit.model))
        .put(DCM_DeviceSerialNumber, longString(shot.unit.boardSerial));
    if (!shot.unit.firmware.isEmpty())
        w.put(DCM_SoftwareVersions, longString(shot.unit.firmware));
    // General Image, DX Image, Intra-oral Image
    w.put(DCM_InstanceNumber, QString::number(shot.instanceNumber))
        .put(DCM_PatientOrientation, OFString("A\\F"))
        .put(DCM_ContentDate, date)
        .put(DCM_ContentTime, time)
        .put(DCM_AcquisitionDateTime, when.toString(QStringLiteral("yyyyMMddHHmmss")))
        .put(DCM_ImageType, OFString("ORIGINAL\\PRIMARY"))
        .put(DCM_ImageComments, commentsText(shot.description))
        .put(DCM_BurnedInAnnotation, OFString("NO"))
        .put(DCM_LossyImageCompression, OFString("00"))
        .put(DCM_PixelIntensityRelationship, OFString("LIN"))
        .put(DCM_PixelIntensityRelationshipSign, Sint16(1))
        .put(DCM_RescaleIntercept, OFString("0"))
        .put(DCM_RescaleSlope, OFString("1"))
        .put(DCM_RescaleType, OFString("US"))
        .put(DCM_ImageLaterality, OFString("R"))
        .put(DCM_PositionerType, OFString("NONE"))
        .put(DCM_PresentationLUTShape, OFString("INVERSE"))
        .emptySequence(DCM_AcquisitionContextSequence);
    // What the picture shows: the sensor cannot know, so the virtual
    // sensor's phantom is described (right lower premolars, crowns up, seen
    // from the cheek); a clinical host sets these from its examination.
    w.code(DCM_AnatomicRegionSequence, "T-11180", "SRT", "Mandible");
    w.code(DCM_PrimaryAnatomicStructureSequence, "T-54480", "SRT", "Mandibular right first premolar tooth");
    w.code(DCM_PrimaryAnatomicStructureSequence, "T-54490", "SRT", "Mandibular right second premolar tooth");
    if (presentation) {
        const Window window = autoWindow(raw);
        w.put(DCM_WindowCenter, QString::number(window.centre(), 'f', 1))
            .put(DCM_WindowWidth, QString::number(window.width()))
            .put(DCM_WindowCenterWidthExplanation, OFString("0.5 % to 99.5 % of the image"));
    }
    // DX Detector
    w.put(DCM_DetectorType, detectorType(shot.unit.technology))
        .put(DCM_DetectorID, stringValue(shot.unit.sensorSerial, 16)) // a short string
        .put(DCM_DetectorDescription, longString(shot.unit.technology))
        .put(DCM_ImagerPixelSpacing, OFString("0.020\\0.020"));
    // Image Pixel
    w.put(DCM_SamplesPerPixel, Uint16(1))
        .put(DCM_PhotometricInterpretation, OFString("MONOCHROME1"))
        .put(DCM_Rows, Uint16(raw.height()))
        .put(DCM_Columns, Uint16(raw.width()))
        .put(DCM_BitsAllocated, Uint16(16))
        .put(DCM_BitsStored, Uint16(bits))
        .put(DCM_HighBit, Uint16(bits - 1))
        .put(DCM_PixelRepresentation, Uint16(0));
    if (!w.ok()) {
        *error = w.error();
        return QByteArray();
    }
    std::vector<Uint16> pixels(static_cast<size_t>(raw.width()) * raw.height());
    for (int y = 0; y < raw.height(); ++y)
        std::memcpy(&pixels[static_cast<size_t>(y) * raw.width()], raw.constScanLine(y),
            static_cast<size_t>(raw.width()) * 2);
    OFCondition status = data->putAndInsertUint16Array(
        DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    if (status.bad()) {
        *error = QStringLiteral("cannot set the pixel data: %1").arg(QString::fromLatin1(status.text()));
        return QByteArray();
    }

    // Into memory, a buffer at a time.
    QByteArray bytes;
    std::vector<char> buffer(1 << 20);
    DcmOutputBufferStream stream(buffer.data(), static_cast<offile_off_t>(buffer.size()));
    file.transferInit();
    do {
        status = file.write(stream, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr, EGL_recalcGL,
            EPD_withoutPadding, 0, 0, 0, EWM_createNewMeta);
        void* chunk = nullptr;
        offile_off_t length = 0;
        stream.flushBuffer(chunk, length);
        if (length > 0)
            bytes.append(static_cast<const char*>(chunk), static_cast<int>(length));
    } while (status == EC_StreamNotifyClient);
    file.transferEnd();
    if (status.bad()) {
        *error = QStringLiteral("cannot encode the DICOM file: %1").arg(QString::fromLatin1(status.text()));
        return QByteArray();
    }
    return bytes;
}

} // namespace korux

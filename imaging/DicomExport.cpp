#include "imaging/DicomExport.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcostrmb.h>
#include <dcmtk/dcmdata/dcsequen.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QRegularExpression>
#include <QStringList>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "imaging/ImageFiles.h"
#include "imaging/ShotDescription.h"

namespace korux {

const char* const kDicomManufacturer = "TAVEN";

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

// String values: at most limit bytes of UTF-8 (64 for a long string, 16 for
// a short one; what dciodvfy counts), cut between characters, no backslash
// (it separates values).
OFString stringValue(const QString& text, int limit)
{
    QString value = text;
    value.replace(QLatin1Char('\\'), QLatin1Char('/'));
    while (value.toUtf8().size() > limit)
        value.chop(1);
    return OFString(value.toUtf8().constData());
}

bool isControl(QChar c)
{
    return c.category() == QChar::Other_Control;
}

// DICOM dates and times in local time, and the local offset from UTC.
OFString dicomDate(const QDateTime& when)
{
    return OFString(when.toString(QStringLiteral("yyyyMMdd")).toLatin1().constData());
}

OFString dicomTime(const QDateTime& when)
{
    return OFString(when.toString(QStringLiteral("HHmmss")).toLatin1().constData());
}

OFString utcOffset(const QDateTime& when)
{
    const int minutes = when.offsetFromUtc() / 60;
    const int magnitude = std::abs(minutes);
    return OFString(QStringLiteral("%1%2%3")
                        .arg(minutes < 0 ? QLatin1Char('-') : QLatin1Char('+'))
                        .arg(magnitude / 60, 2, 10, QLatin1Char('0'))
                        .arg(magnitude % 60, 2, 10, QLatin1Char('0'))
                        .toLatin1()
                        .constData());
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
    DcmItem* code(const DcmTagKey& sequence, const DicomCode& code)
    {
        DcmItem* entry = nullptr;
        OFCondition status = item_->findOrCreateSequenceItem(sequence, entry, -2);
        if (status.good() && entry) {
            Writer inner(entry);
            inner.put(DCM_CodeValue, code.value)
                .put(DCM_CodingSchemeDesignator, OFString("SCT"))
                .put(DCM_CodeMeaning, code.meaning);
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

bool checkLongString(const QString& value, QString* error)
{
    for (const QChar c : value) {
        if (c == QLatin1Char('\\') || isControl(c)) {
            *error = QStringLiteral("cannot hold a backslash or a control character");
            return false;
        }
    }
    const int bytes = value.toUtf8().size();
    if (bytes > kDicomLongValue) {
        *error = QStringLiteral("takes %1 bytes at most (DICOM, as UTF-8), not %2")
                     .arg(kDicomLongValue)
                     .arg(bytes);
        return false;
    }
    return true;
}

bool checkPersonName(const QString& name, QString* error)
{
    for (const QChar c : name) {
        if (c == QLatin1Char('\\') || isControl(c)) {
            *error = QStringLiteral("cannot hold a backslash or a control character");
            return false;
        }
    }
    const QStringList groups = name.split(QLatin1Char('='));
    if (groups.size() > 3) {
        *error = QStringLiteral("has %1 '=': a DICOM person name has at most two (three forms of the name)")
                     .arg(groups.size() - 1);
        return false;
    }
    for (const QString& group : groups) {
        const int carets = group.count(QLatin1Char('^'));
        if (carets > 4) {
            *error = QStringLiteral("has %1 '^' in \"%2\": a DICOM person name has at most four (five parts: "
                                    "family^given^middle^prefix^suffix)")
                         .arg(carets)
                         .arg(group);
            return false;
        }
        const int bytes = group.toUtf8().size();
        if (bytes > kDicomLongValue) {
            *error
                = QStringLiteral("takes %1 bytes at most for each form of the name (DICOM, as UTF-8), not %2")
                      .arg(kDicomLongValue)
                      .arg(bytes);
            return false;
        }
    }
    return true;
}

DicomGenerator generatorFromDescription(const QString& description)
{
    const Description sections = parseDescription(description);
    DicomGenerator generator;
    if (sections.value(QStringLiteral("SENSOR")).value(QStringLiteral("Inside")) != QLatin1String("yes"))
        return generator;
    const DescriptionSection settings = sections.value(QStringLiteral("INSIDE_SETTINGS"));
    const DescriptionSection measured = sections.value(QStringLiteral("INSIDE_MEASURED"));
    generator.kV = std::max(0, settings.value(QStringLiteral("kV")).toInt());
    generator.mA = std::max(0, settings.value(QStringLiteral("mA")).toInt());
    // What the generator gave, else what it was set to (milliseconds).
    generator.exposureMs = std::max(0, measured.value(QStringLiteral("TimeDone")).toInt());
    if (generator.exposureMs == 0)
        generator.exposureMs = std::max(0, settings.value(QStringLiteral("TimeSet")).toInt());
    return generator;
}

QByteArray encodeDicom(const DicomShot& shot, DicomIntent intent, QString* error)
{
    if (shot.raw.isNull()) {
        *error = QStringLiteral("no image to export");
        return QByteArray();
    }
    if (!shot.identity.isValid() || !shot.acquired.isValid()) {
        *error = QStringLiteral("the shot has no study, series or acquisition time");
        return QByteArray();
    }
    QString nameError;
    if (!checkPersonName(shot.identity.patientName, &nameError)) {
        *error = QStringLiteral("the patient name %1").arg(nameError);
        return QByteArray();
    }
    const QImage raw = shot.raw.format() == QImage::Format_Grayscale16
        ? shot.raw
        : shot.raw.convertToFormat(QImage::Format_Grayscale16);
    const bool presentation = intent == DicomIntent::ForPresentation;
    const DicomSeriesIdentity& series = presentation ? shot.identity.presentation : shot.identity.processing;
    const QDateTime& when = shot.acquired;
    const DicomAnatomy anatomy = completedAnatomy(shot.anatomy);
    const DicomGenerator generator = generatorFromDescription(shot.description);
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
        .put(DCM_SOPInstanceUID, series.instanceUid)
        .put(DCM_InstanceCreationDate, dicomDate(when))
        .put(DCM_InstanceCreationTime, dicomTime(when))
        .put(DCM_TimezoneOffsetFromUTC, utcOffset(when));
    // Patient: type 2 values left empty when not known.
    w.put(DCM_PatientName, shot.identity.patientName)
        .put(DCM_PatientID, stringValue(shot.identity.patientId, kDicomLongValue))
        .put(DCM_PatientBirthDate, OFString())
        .put(DCM_PatientSex, OFString());
    // General Study: the date and time of its first shot.
    w.put(DCM_StudyInstanceUID, shot.identity.studyUid)
        .put(DCM_StudyDate, dicomDate(shot.identity.studyStarted))
        .put(DCM_StudyTime, dicomTime(shot.identity.studyStarted))
        .put(DCM_ReferringPhysicianName, OFString())
        .put(DCM_StudyID, stringValue(shot.identity.studyId, 16))
        .put(DCM_AccessionNumber, OFString());
    if (!shot.patient.study.isEmpty())
        w.put(DCM_StudyDescription, longString(shot.patient.study));
    // General, DX and Intra-oral Series: For Processing and For Presentation
    // are series of their own (a series has one Presentation Intent Type).
    w.put(DCM_Modality, OFString("IO"))
        .put(DCM_SeriesInstanceUID, series.uid)
        .put(DCM_SeriesNumber, QString::number(series.number))
        .put(DCM_SeriesDate, dicomDate(series.started))
        .put(DCM_SeriesTime, dicomTime(series.started))
        .put(DCM_PresentationIntentType, OFString(presentation ? "FOR PRESENTATION" : "FOR PROCESSING"));
    // General Equipment
    w.put(DCM_Manufacturer, OFString(kDicomManufacturer))
        .put(DCM_ManufacturerModelName, longString(shot.unit.model))
        .put(DCM_DeviceSerialNumber, longString(shot.unit.boardSerial));
    if (!shot.unit.firmware.isEmpty())
        w.put(DCM_SoftwareVersions, longString(shot.unit.firmware));
    // General Image, DX Image, Intra-oral Image
    w.put(DCM_InstanceNumber, QString::number(series.instance))
        .put(DCM_ContentDate, dicomDate(when))
        .put(DCM_ContentTime, dicomTime(when))
        .put(DCM_AcquisitionDateTime,
            when.toString(QStringLiteral("yyyyMMddHHmmss")) + QString::fromLatin1(utcOffset(when).c_str()))
        .put(DCM_ImageType, OFString("ORIGINAL\\PRIMARY"))
        .put(DCM_ImageComments, commentsText(shot.description))
        .put(DCM_BurnedInAnnotation, OFString("NO"))
        .put(DCM_LossyImageCompression, OFString("00"))
        .put(DCM_PixelIntensityRelationship, OFString("LIN"))
        .put(DCM_PixelIntensityRelationshipSign, Sint16(1))
        .put(DCM_RescaleIntercept, OFString("0"))
        .put(DCM_RescaleSlope, OFString("1"))
        .put(DCM_RescaleType, OFString("US"))
        .put(DCM_PositionerType, OFString("NONE"))
        .put(DCM_PresentationLUTShape, OFString("INVERSE"))
        .emptySequence(DCM_AcquisitionContextSequence);
    // What the picture shows, only as the user (or the virtual sensor's
    // phantom) gives it: the sensor cannot know.
    w.put(DCM_PatientOrientation, patientOrientation(anatomy));
    if (!anatomy.laterality.isEmpty())
        w.put(DCM_ImageLaterality, anatomy.laterality);
    if (!anatomy.region.isEmpty()) {
        DcmItem* region = w.code(DCM_AnatomicRegionSequence, regionCode(anatomy.region));
        if (region && anatomy.teeth.isEmpty())
            Writer(region).code(DCM_AnatomicRegionModifierSequence, lateralityCode(anatomy.laterality));
    }
    for (const QString& tooth : anatomy.teeth)
        w.code(DCM_PrimaryAnatomicStructureSequence, toothCode(tooth));
    // The generator's settings, from a sensor built into it.
    if (generator.kV > 0)
        w.put(DCM_KVP, QString::number(generator.kV));
    if (generator.mA > 0)
        w.put(DCM_XRayTubeCurrent, QString::number(generator.mA));
    if (generator.exposureMs > 0)
        w.put(DCM_ExposureTime, QString::number(generator.exposureMs));
    if (presentation) {
        // The window on the image's 0.5 % and 99.5 % points, through a
        // sigmoid rather than a straight line (VOI LUT Function SIGMOID,
        // DICOM PS3.3 C.11.2.1.3): contrast where the teeth are, a gentle
        // roll-off at the ends.
        const Window window = autoWindow(raw);
        w.put(DCM_WindowCenter, QString::number(window.centre(), 'f', 1))
            .put(DCM_WindowWidth, QString::number(window.width()))
            .put(DCM_WindowCenterWidthExplanation, OFString("0.5 % to 99.5 % of the image"))
            .put(DCM_VOILUTFunction, OFString("SIGMOID"));
    }
    // DX Detector
    w.put(DCM_DetectorType, detectorType(shot.unit.technology));
    if (!shot.unit.sensorSerial.isEmpty() && shot.unit.sensorSerial != QLatin1String("UNKNOWN"))
        w.put(DCM_DetectorID, stringValue(shot.unit.sensorSerial, 16)); // a short string
    if (!shot.unit.technology.isEmpty() && shot.unit.technology != QLatin1String("Unknown"))
        w.put(DCM_DetectorDescription, longString(shot.unit.technology));
    w.put(DCM_ImagerPixelSpacing, OFString("0.020\\0.020"));
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

    // The meta header as the toolkit makes it, but naming korux's own
    // implementation; written as it stands (the toolkit would put its own
    // back), its group length counted again.
    status = file.validateMetaInfo(EXS_LittleEndianExplicit, EWM_createNewMeta);
    DcmMetaInfo* metaInfo = file.getMetaInfo();
    Writer meta(metaInfo);
    meta.put(DCM_ImplementationClassUID, OFString(kKoruxImplementationClassUid))
        .put(DCM_ImplementationVersionName, OFString(kKoruxImplementationVersionName));
    if (status.good() && meta.ok()) {
        DcmElement* groupLength = nullptr;
        Uint32 length = 0;
        for (DcmObject* element = metaInfo->nextInContainer(nullptr); element;
             element = metaInfo->nextInContainer(element))
            if (element->getTag() != DCM_FileMetaInformationGroupLength)
                length += element->calcElementLength(EXS_LittleEndianExplicit, EET_ExplicitLength);
        if (metaInfo->findAndGetElement(DCM_FileMetaInformationGroupLength, groupLength).good())
            status = groupLength->putUint32(length);
    }
    if (status.bad() || !meta.ok()) {
        *error = QStringLiteral("cannot make the meta header: %1")
                     .arg(status.bad() ? QString::fromLatin1(status.text()) : meta.error());
        return QByteArray();
    }

    // Into memory, a buffer at a time.
    QByteArray bytes;
    std::vector<char> buffer(1 << 20);
    DcmOutputBufferStream stream(buffer.data(), static_cast<offile_off_t>(buffer.size()));
    file.transferInit();
    do {
        status = file.write(stream, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr, EGL_recalcGL,
            EPD_withoutPadding, 0, 0, 0, EWM_dontUpdateMeta);
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

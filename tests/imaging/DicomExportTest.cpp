// The DICOM intra-oral export: both classes pass dciodvfy without an error,
// and DCMTK reads back the raw area's pixels, the unit's identity, the
// patient and study, and the description.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <gtest/gtest.h>

#include "sim/Phantom.h"
#include "imaging/DicomExport.h"
#include "imaging/ImageFiles.h"

using namespace korux;

namespace {

const QString kDescription = QStringLiteral(
    "\r\n[ACQUISITION]\r\nEnergy=31244\r\nExposition=120\r\nOscillo=01ad01f4\r\nPixelHeight=20\r\n"
    "PixelWidth=20\r\nResolution=High\r\ndirectUnarmed=false\r\n[SENSOR]\r\nHardwareSerial=1904001\r\n"
    "Inside=no\r\nSensorSerial=S-77\r\nSerial=1904001\r\nSize=1\r\nTechnology=CsI\r\nType=KORUX-KORUX2 "
    "Series\r\n");

QImage phantomRaw()
{
    const std::vector<uint16_t> pixels
        = vbridge::renderPhantom(1000, 1506, vbridge::phantom::kReferenceDose, 5, 1);
    QImage readout(1000, 1506, QImage::Format_Grayscale16);
    for (int y = 0; y < 1506; ++y)
        std::memcpy(readout.scanLine(y), &pixels[static_cast<size_t>(y) * 1000], 2000);
    return rawArea(readout);
}

DicomShot shot(const QImage& raw)
{
    DicomShot s;
    s.raw = raw;
    s.description = kDescription;
    s.acquired = QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12));
    s.unit.model = QStringLiteral("KORUX-KORUX2 Series");
    s.unit.boardSerial = QStringLiteral("1904001");
    s.unit.sensorSerial = QStringLiteral("S-77");
    s.unit.firmware = QStringLiteral("2A");
    s.unit.technology = QStringLiteral("CsI");
    s.identity = DicomSession::instance().nextShot(
        QStringLiteral("P-42"), QStringLiteral("Doe^Jane"), QString(), s.unit.boardSerial, s.acquired);
    s.anatomy.teeth = QStringList { QStringLiteral("44"), QStringLiteral("45") };
    return s;
}

class DicomExport : public ::testing::Test {
protected:
    QString save(const QByteArray& bytes, const QString& name)
    {
        const QString path = directory_.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return path;
    }

    // dciodvfy's error lines for the file (none: it validates).
    QStringList validationErrors(const QString& path)
    {
        const QString tool = QStandardPaths::findExecutable(QStringLiteral("dciodvfy"));
        if (tool.isEmpty()) {
            ADD_FAILURE() << "dciodvfy is not installed (scripts/test installs dicom3tools)";
            return {};
        }
        QProcess process;
        process.start(tool, { path });
        EXPECT_TRUE(process.waitForFinished(60000));
        const QString output
            = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
        QStringList errors;
        for (const QString& line : output.split(QLatin1Char('\n')))
            if (line.startsWith(QLatin1String("Error")))
                errors << line;
        if (output.isEmpty())
            errors << QStringLiteral("dciodvfy said nothing");
        return errors;
    }

    static std::string text(DcmItem* data, const DcmTagKey& tag)
    {
        OFString value;
        data->findAndGetOFStringArray(tag, value);
        return value.c_str();
    }

    QTemporaryDir directory_;
};

} // namespace

TEST_F(DicomExport, BothClassesValidateWithoutAnError)
{
    const QImage raw = phantomRaw();
    for (DicomIntent intent : { DicomIntent::ForProcessing, DicomIntent::ForPresentation }) {
        QString error;
        const QByteArray bytes = encodeDicom(shot(raw), intent, &error);
        ASSERT_FALSE(bytes.isEmpty()) << error.toStdString();
        EXPECT_EQ(bytes.mid(128, 4), QByteArray("DICM"));
        const QString path = save(bytes, intent == DicomIntent::ForProcessing ? "p.dcm" : "q.dcm");
        const QStringList errors = validationErrors(path);
        EXPECT_TRUE(errors.isEmpty()) << errors.join('\n').toStdString();
    }
}

TEST_F(DicomExport, ReadBackGivesTheRawPixelsAndTheListedAttributes)
{
    const QImage raw = phantomRaw();
    ASSERT_EQ(raw.size(), QSize(1000, 1496));
    DicomShot s = shot(raw);
    s.patient.study = QStringLiteral("Check-up");
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "shot.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();

    EXPECT_EQ(text(data, DCM_SOPClassUID), UID_DigitalIntraOralXRayImageStorageForProcessing);
    EXPECT_EQ(text(data, DCM_Modality), "IO");
    EXPECT_EQ(text(data, DCM_PresentationIntentType), "FOR PROCESSING");
    EXPECT_EQ(text(data, DCM_Manufacturer), "TAVEN");
    EXPECT_EQ(text(data, DCM_ManufacturerModelName), "KORUX-KORUX2 Series");
    EXPECT_EQ(text(data, DCM_DeviceSerialNumber), "1904001");
    EXPECT_EQ(text(data, DCM_DetectorID), "S-77");
    EXPECT_EQ(text(data, DCM_SoftwareVersions), "2A");
    EXPECT_EQ(text(data, DCM_DetectorType), "SCINTILLATOR");
    EXPECT_EQ(text(data, DCM_ImagerPixelSpacing), "0.020\\0.020");
    EXPECT_EQ(text(data, DCM_PatientName), "Doe^Jane");
    EXPECT_EQ(text(data, DCM_PatientID), "P-42");
    EXPECT_EQ(text(data, DCM_StudyDescription), "Check-up");
    EXPECT_EQ(text(data, DCM_AcquisitionDateTime).substr(0, 14), "20260304101112");
    EXPECT_EQ(text(data, DCM_AcquisitionDateTime).size(), 19u); // with its offset from UTC
    EXPECT_EQ(text(data, DCM_ImageComments), kDescription.toStdString());
    EXPECT_FALSE(text(data, DCM_StudyInstanceUID).empty());
    EXPECT_FALSE(text(data, DCM_SOPInstanceUID).empty());

    Uint16 rows = 0, columns = 0, bitsStored = 0;
    data->findAndGetUint16(DCM_Rows, rows);
    data->findAndGetUint16(DCM_Columns, columns);
    data->findAndGetUint16(DCM_BitsStored, bitsStored);
    EXPECT_EQ(rows, 1496);
    EXPECT_EQ(columns, 1000);
    EXPECT_EQ(bitsStored, 14);
    const Uint16* pixels = nullptr;
    unsigned long count = 0;
    ASSERT_TRUE(data->findAndGetUint16Array(DCM_PixelData, pixels, &count).good());
    ASSERT_EQ(count, 1000ul * 1496ul);
    for (int y = 0; y < 1496; ++y)
        ASSERT_EQ(std::memcmp(pixels + static_cast<size_t>(y) * 1000, raw.constScanLine(y), 2000), 0)
            << "row " << y;
}

TEST_F(DicomExport, WithoutPatientDataTheStudyHasAnAnonymousPatientOfItsOwn)
{
    DicomShot s = shot(phantomRaw());
    s.identity
        = DicomSession::instance().nextShot(QString(), QString(), QString(), QStringLiteral("B"), s.acquired);
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "anon.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    EXPECT_EQ(text(file.getDataset(), DCM_PatientName), kDicomAnonymousName);
    const std::string id = text(file.getDataset(), DCM_PatientID);
    EXPECT_EQ(id.rfind("KORUX-ANON-", 0), 0u) << id;
    EXPECT_EQ(id.size(), 23u) << id;
    EXPECT_TRUE(validationErrors(path).isEmpty());
}

TEST_F(DicomExport, PresentationCarriesTheWindow)
{
    const QImage raw = phantomRaw();
    QString error;
    const QString path = save(encodeDicom(shot(raw), DicomIntent::ForPresentation, &error), "view.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();
    EXPECT_EQ(text(data, DCM_SOPClassUID), UID_DigitalIntraOralXRayImageStorageForPresentation);
    EXPECT_EQ(text(data, DCM_PresentationIntentType), "FOR PRESENTATION");
    const Window window = autoWindow(raw);
    EXPECT_EQ(QString::fromStdString(text(data, DCM_WindowWidth)).toInt(), window.width());
    EXPECT_NEAR(QString::fromStdString(text(data, DCM_WindowCenter)).toDouble(), window.centre(), 0.5);
    EXPECT_EQ(text(data, DCM_PresentationLUTShape), "INVERSE");
}

TEST_F(DicomExport, LongOscilloscopeIsCutToFitTheComments)
{
    DicomShot s = shot(phantomRaw());
    QString samples;
    for (int i = 0; i < 5000; ++i)
        samples += QStringLiteral("01f4");
    s.description.replace(QStringLiteral("Oscillo=01ad01f4"), QStringLiteral("Oscillo=") + samples);
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "long.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    const std::string comments = text(file.getDataset(), DCM_ImageComments);
    EXPECT_LE(comments.size(), 10240u);
    EXPECT_NE(comments.find("Type=KORUX-KORUX2 Series"), std::string::npos);
    EXPECT_NE(comments.find("(cut; the whole text is in the shot's .txt)"), std::string::npos);
    EXPECT_TRUE(validationErrors(path).isEmpty());
}

TEST_F(DicomExport, NoImageNoFile)
{
    QString error;
    EXPECT_TRUE(encodeDicom(DicomShot(), DicomIntent::ForProcessing, &error).isEmpty());
    EXPECT_EQ(error, QStringLiteral("no image to export"));
}

TEST_F(DicomExport, AnatomyIsTheUsersInSnomedCtCodes)
{
    DicomShot s = shot(phantomRaw());
    s.anatomy.teeth = QStringList { QStringLiteral("36") };
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "36.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();
    EXPECT_EQ(text(data, DCM_ImageLaterality), "L");
    EXPECT_EQ(text(data, DCM_PatientOrientation), "P\\F");
    DcmItem* region = nullptr;
    ASSERT_TRUE(data->findAndGetSequenceItem(DCM_AnatomicRegionSequence, region, 0).good());
    EXPECT_EQ(text(region, DCM_CodeValue), "91609006");
    EXPECT_EQ(text(region, DCM_CodingSchemeDesignator), "SCT");
    DcmItem* tooth = nullptr;
    ASSERT_TRUE(data->findAndGetSequenceItem(DCM_PrimaryAnatomicStructureSequence, tooth, 0).good());
    EXPECT_EQ(text(tooth, DCM_CodeValue), "89625000");
    EXPECT_EQ(text(tooth, DCM_CodeMeaning), "Mandibular left first molar tooth");
    EXPECT_FALSE(data->findAndGetSequenceItem(DCM_PrimaryAnatomicStructureSequence, tooth, 1).good());
    EXPECT_TRUE(validationErrors(path).isEmpty());
}

TEST_F(DicomExport, RegionWithoutTeethCarriesItsSideAsModifier)
{
    DicomShot s = shot(phantomRaw());
    s.anatomy = DicomAnatomy { {}, QStringLiteral("maxilla"), QStringLiteral("R") };
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForPresentation, &error), "region.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmItem* region = nullptr;
    ASSERT_TRUE(file.getDataset()->findAndGetSequenceItem(DCM_AnatomicRegionSequence, region, 0).good());
    DcmItem* modifier = nullptr;
    ASSERT_TRUE(region->findAndGetSequenceItem(DCM_AnatomicRegionModifierSequence, modifier, 0).good());
    EXPECT_EQ(text(modifier, DCM_CodeValue), "24028007");
    const QStringList errors = validationErrors(path);
    EXPECT_TRUE(errors.isEmpty()) << errors.join('\n').toStdString();
}

TEST_F(DicomExport, NoAnatomyGivenNoneWritten)
{
    DicomShot s = shot(phantomRaw());
    s.anatomy = DicomAnatomy();
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "none.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();
    EXPECT_FALSE(data->tagExists(DCM_AnatomicRegionSequence));
    EXPECT_FALSE(data->tagExists(DCM_PrimaryAnatomicStructureSequence));
    EXPECT_FALSE(data->tagExists(DCM_ImageLaterality));
    EXPECT_EQ(text(data, DCM_PatientOrientation), "");
}

TEST_F(DicomExport, NoPlaceholdersNoDeprecatedCodesAndKoruxsOwnImplementation)
{
    DicomShot s = shot(phantomRaw());
    s.unit.sensorSerial = QStringLiteral("UNKNOWN");
    QString error;
    const QByteArray bytes = encodeDicom(s, DicomIntent::ForPresentation, &error);
    EXPECT_FALSE(bytes.contains("SRT"));
    EXPECT_FALSE(bytes.contains("UNKNOWN"));
    const QString path = save(bytes, "meta.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    OFString value;
    file.getMetaInfo()->findAndGetOFString(DCM_ImplementationClassUID, value);
    EXPECT_EQ(value, kKoruxImplementationClassUid);
    file.getMetaInfo()->findAndGetOFString(DCM_ImplementationVersionName, value);
    EXPECT_EQ(value, kKoruxImplementationVersionName);
    DcmDataset* data = file.getDataset();
    EXPECT_FALSE(data->tagExists(DCM_DetectorID));
    EXPECT_EQ(text(data, DCM_TimezoneOffsetFromUTC).size(), 5u);
    EXPECT_EQ(text(data, DCM_VOILUTFunction), "SIGMOID");
    EXPECT_EQ(text(data, DCM_SOPInstanceUID), s.identity.presentation.instanceUid.toStdString());
    EXPECT_EQ(text(data, DCM_SeriesInstanceUID), s.identity.presentation.uid.toStdString());
    EXPECT_EQ(text(data, DCM_SOPInstanceUID).rfind("2.25.", 0), 0u);
    // A stand-alone sensor knows no generator.
    EXPECT_FALSE(data->tagExists(DCM_KVP));
}

TEST_F(DicomExport, TimesAreTheStudysAndSeriesFirstAndTheOffsetFromUtc)
{
    DicomShot s = shot(phantomRaw());
    s.acquired = QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12), Qt::OffsetFromUTC, -5 * 3600 - 1800);
    s.identity.studyStarted = s.acquired.addSecs(-3600);
    s.identity.processing.started = s.acquired.addSecs(-60);
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "times.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();
    EXPECT_EQ(text(data, DCM_TimezoneOffsetFromUTC), "-0530");
    EXPECT_EQ(text(data, DCM_StudyTime), "091112");
    EXPECT_EQ(text(data, DCM_SeriesTime), "101012");
    EXPECT_EQ(text(data, DCM_ContentTime), "101112");
    EXPECT_EQ(text(data, DCM_AcquisitionDateTime), "20260304101112-0530");
}

TEST_F(DicomExport, InsideGeneratorGivesKvMaAndExposureTime)
{
    DicomShot s = shot(phantomRaw());
    s.description = QStringLiteral(
        "\r\n[ACQUISITION]\r\nEnergy=31244\r\n[INSIDE_MEASURED]\r\nTimeDone=124\r\n[INSIDE_SETTINGS]\r\n"
        "TimeSet=125\r\nkV=70\r\nmA=7\r\n[SENSOR]\r\nInside=yes\r\nSize=1\r\n");
    QString error;
    const QString path = save(encodeDicom(s, DicomIntent::ForProcessing, &error), "inside.dcm");
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(path.toStdString().c_str()).good());
    DcmDataset* data = file.getDataset();
    EXPECT_EQ(text(data, DCM_KVP), "70");
    EXPECT_EQ(text(data, DCM_XRayTubeCurrent), "7");
    EXPECT_EQ(text(data, DCM_ExposureTime), "124");
    EXPECT_TRUE(validationErrors(path).isEmpty());
}

TEST_F(DicomExport, ABadPersonNameIsRefused)
{
    DicomShot s = shot(phantomRaw());
    s.identity.patientName = QStringLiteral("a^b^c^d^e^f^g=x=y=z");
    QString error;
    EXPECT_TRUE(encodeDicom(s, DicomIntent::ForProcessing, &error).isEmpty());
    EXPECT_TRUE(error.startsWith(QStringLiteral("the patient name has"))) << error.toStdString();
}

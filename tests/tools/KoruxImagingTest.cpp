// korux's picture files on the virtual bridge's default machine: beside each
// shot's 16-bit PNG the preview and the oscilloscope plot, the DICOM files
// with --dicom, and korux dicom for a shot saved before.
#include <QDir>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <gtest/gtest.h>

#include "imaging/ImageFiles.h"
#include "tools/KoruxRunner.h"
#include "imaging/OscilloscopePlot.h"

using namespace korux_test;

namespace {

QStringList writtenFiles(const QString& out)
{
    QStringList files;
    static const QRegularExpression wrote(
        QStringLiteral("^wrote (.+)$"), QRegularExpression::MultilineOption);
    auto matches = wrote.globalMatch(out);
    while (matches.hasNext())
        files << matches.next().captured(1);
    return files;
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path;
    return file.readAll();
}

std::string dicomText(DcmDataset* data, const DcmTagKey& tag)
{
    OFString value;
    data->findAndGetOFStringArray(tag, value);
    return value.c_str();
}

class KoruxImaging : public Korux {
protected:
    // The "Error" lines dciodvfy gives for the file.
    QStringList validationErrors(const QString& file)
    {
        const QString tool = QStandardPaths::findExecutable(QStringLiteral("dciodvfy"));
        if (tool.isEmpty()) {
            ADD_FAILURE() << "dciodvfy is not installed (scripts/test installs dicom3tools)";
            return {};
        }
        QProcess process;
        process.start(tool, { file });
        EXPECT_TRUE(process.waitForFinished(60000));
        const QString output
            = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
        QStringList errors
            = output.split(QLatin1Char('\n')).filter(QRegularExpression(QStringLiteral("^Error")));
        if (!output.contains(QStringLiteral("IntraoralImage")))
            errors << QStringLiteral("not seen as an intra-oral image: ") + output;
        return errors;
    }
};

} // namespace

TEST_F(KoruxImaging, AcquireWritesThePreviewAndThePlotBesideThePng)
{
    const KoruxRun run
        = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.err.isEmpty()) << run.err;
    const QStringList files = writtenFiles(run.out);
    ASSERT_EQ(files.size(), 4) << run.out;
    // Named as every shot file is: board serial, then the shot counter after
    // the shot.
    ASSERT_TRUE(files.at(0).endsWith(QStringLiteral("shots/59881DA3846E4A89-001235.png"))) << files.at(0);
    const QString stem = files.at(0).left(files.at(0).size() - 4);
    EXPECT_EQ(files.mid(1),
        (QStringList { stem + QStringLiteral(".txt"), stem + QStringLiteral("-preview.png"),
            stem + QStringLiteral("-oscilloscope.png") }));

    // The 16-bit PNG: its pixel size, and the sensor's values through sBIT.
    QImage png(path(files.at(0)));
    EXPECT_EQ(png.dotsPerMeterX(), 50000);
    EXPECT_EQ(png.format(), QImage::Format_Grayscale16);
    QString error;
    korux::PngText text;
    const QImage values = korux::decodeSensorPng(readAll(path(files.at(0))), &text, &error);
    ASSERT_FALSE(values.isNull()) << error;
    EXPECT_EQ(text.value(QStringLiteral("Software")), QStringLiteral("korux"));
    const quint16 middle = reinterpret_cast<const quint16*>(values.constScanLine(750))[500];
    EXPECT_LT(middle, 16384);
    EXPECT_EQ(
        reinterpret_cast<const quint16*>(png.constScanLine(750))[500], quint16(middle << 2 | middle >> 12));

    // The preview looks like an X-ray image in any viewer: the raw area,
    // without the covered rows.
    const QImage preview = QImage(path(stem + QStringLiteral("-preview.png")));
    ASSERT_EQ(preview.format(), QImage::Format_Grayscale8);
    ASSERT_EQ(preview.size(), QSize(png.width(), png.height() - 10));
    double sum = 0;
    QSet<int> levels;
    for (int y = 0; y < preview.height(); ++y) {
        for (int x = 0; x < preview.width(); ++x) {
            sum += preview.constScanLine(y)[x];
            levels.insert(preview.constScanLine(y)[x]);
        }
    }
    EXPECT_GT(sum / (preview.width() * preview.height()), 60);
    EXPECT_LT(sum / (preview.width() * preview.height()), 190);
    EXPECT_GE(levels.size(), 100);

    const QImage plot(path(stem + QStringLiteral("-oscilloscope.png")));
    EXPECT_EQ(plot.size(), korux::kOscilloscopePlotSize);
    // korux draws the heading's text (its fonts are there without a display).
    int ink = 0;
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < plot.width(); ++x)
            ink += qGray(plot.pixel(x, y)) < 100;
    EXPECT_GT(ink, 500);
}

// The pictures are files of the shot like its PNG: a taken name sends the
// whole shot to the next free name, unless --overwrite. The sensor of a
// scenario without a flash image starts at the same counter every run.
TEST_F(KoruxImaging, ThePicturesFollowTheShotsNamingAndOverwriteRules)
{
    const QString sameCounter = QStringLiteral(R"({"sensors": [{}]})");
    const QStringList acquire { QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots"),
        QStringLiteral("--dicom-presentation") };
    const KoruxRun first = koruxOn(acquire, sameCounter);
    ASSERT_EQ(first.exitCode, 0) << first.err;
    const QString stem = QStringLiteral("shots/59881DA3846E4A89-001235");
    EXPECT_EQ(writtenFiles(first.out),
        (QStringList { stem + QStringLiteral(".png"), stem + QStringLiteral(".txt"),
            stem + QStringLiteral("-preview.png"), stem + QStringLiteral("-oscilloscope.png"),
            stem + QStringLiteral(".dcm"), stem + QStringLiteral("-presentation.dcm") }));

    // Only a picture is left of that shot: its name is still taken.
    for (const char* suffix : { ".png", ".txt", "-preview.png", "-oscilloscope.png", ".dcm" })
        ASSERT_TRUE(QFile::remove(path(stem + QLatin1String(suffix))));
    const QByteArray kept = readAll(path(stem + QStringLiteral("-presentation.dcm")));
    const KoruxRun second = koruxOn(acquire, sameCounter);
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_TRUE(
        second.err.contains(QStringLiteral("%1.png was taken; the shot of unit 0 (59881DA3846E4A89) is "
                                           "written as %2.png")
                                .arg(stem, stem + QStringLiteral("-2"))))
        << second.err;
    EXPECT_EQ(writtenFiles(second.out).size(), 6) << second.out;
    EXPECT_TRUE(QFile::exists(path(stem + QStringLiteral("-2-presentation.dcm"))));
    EXPECT_FALSE(QFile::exists(path(stem + QStringLiteral(".png"))));
    EXPECT_EQ(readAll(path(stem + QStringLiteral("-presentation.dcm"))), kept);

    const KoruxRun third = koruxOn(acquire + QStringList { QStringLiteral("--overwrite") }, sameCounter);
    EXPECT_EQ(third.exitCode, 0) << third.err;
    EXPECT_EQ(writtenFiles(third.out).size(), 6) << third.out;
    EXPECT_NE(readAll(path(stem + QStringLiteral("-presentation.dcm"))), kept);
    EXPECT_TRUE(QDir(path(QStringLiteral("shots")))
                    .entryList({ QStringLiteral(".*.tmp-*") }, QDir::Files | QDir::Hidden)
                    .isEmpty());
}

// Patient and study options go to DICOM files only, and each is one DICOM
// value; a bad one is refused before anything runs.
TEST_F(KoruxImaging, PatientOptionsAreCheckedBeforeAnythingRuns)
{
    const KoruxRun noDicom = koruxOn(
        { QStringLiteral("acquire"), QStringLiteral("--patient-name"), QStringLiteral("Doe^Jane") });
    EXPECT_EQ(noDicom.exitCode, 2);
    EXPECT_EQ(noDicom.err,
        QStringLiteral("korux: acquire --patient-name describes the patient, study or anatomy of DICOM "
                       "files; add --dicom\n"));
    EXPECT_FALSE(noDicom.out.contains(QStringLiteral("statusArming"))) << noDicom.out;

    const KoruxRun tooLong = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom"),
        QStringLiteral("--patient-id"), QString(65, QLatin1Char('7')) });
    EXPECT_EQ(tooLong.exitCode, 2);
    EXPECT_TRUE(tooLong.err.contains(QStringLiteral("--patient-id takes 64 bytes at most"))) << tooLong.err;

    const KoruxRun backslash = korux({ QStringLiteral("dicom"), QStringLiteral("--study"),
        QStringLiteral("a\\b"), QStringLiteral("shot.png") });
    EXPECT_EQ(backslash.exitCode, 2);
    EXPECT_EQ(backslash.err.count(QLatin1Char('\n')), 1) << backslash.err;
    EXPECT_TRUE(backslash.err.contains(QStringLiteral("dicom --study cannot hold a backslash")))
        << backslash.err;

    const KoruxRun noShot = korux({ QStringLiteral("dicom") });
    EXPECT_EQ(noShot.exitCode, 2);
    EXPECT_TRUE(noShot.err.startsWith(QStringLiteral("korux: wrong arguments for dicom"))) << noShot.err;
}

TEST_F(KoruxImaging, AcquireWithDicomWritesBothClassesThatValidate)
{
    const KoruxRun run = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom-presentation"),
        QStringLiteral("--patient-name"), QStringLiteral("Doe^Jane"), QStringLiteral("--patient-id"),
        QStringLiteral("P-7"), QStringLiteral("--study"), QStringLiteral("Bitewings") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QStringList dicom = writtenFiles(run.out).filter(QRegularExpression(QStringLiteral("\\.dcm$")));
    ASSERT_EQ(dicom.size(), 2) << run.out;
    EXPECT_TRUE(dicom.at(1).endsWith(QStringLiteral("-presentation.dcm"))) << dicom.at(1);
    for (const QString& file : dicom) {
        const QStringList errors = validationErrors(path(file));
        EXPECT_TRUE(errors.isEmpty()) << file << ": " << errors.join('\n');
        DcmFileFormat format;
        ASSERT_TRUE(format.loadFile(path(file).toStdString().c_str()).good()) << file;
        DcmDataset* data = format.getDataset();
        EXPECT_EQ(dicomText(data, DCM_PatientName), "Doe^Jane");
        EXPECT_EQ(dicomText(data, DCM_PatientID), "P-7");
        EXPECT_EQ(dicomText(data, DCM_StudyDescription), "Bitewings");
        EXPECT_EQ(dicomText(data, DCM_Manufacturer), "TAVEN");
        EXPECT_EQ(dicomText(data, DCM_ManufacturerModelName), "KORUX-KORUX2 Series");
        EXPECT_FALSE(dicomText(data, DCM_DeviceSerialNumber).empty());
    }
}

TEST_F(KoruxImaging, DicomOfASavedShotHoldsItsRawAreaAndDescription)
{
    const KoruxRun run = koruxOn({ QStringLiteral("acquire") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QString png = writtenFiles(run.out).value(0);
    ASSERT_TRUE(png.endsWith(QStringLiteral(".png"))) << run.out;
    const QString stem = png.left(png.size() - 4);

    const KoruxRun dicom = korux({ QStringLiteral("dicom"), png });
    ASSERT_EQ(dicom.exitCode, 0) << dicom.out << dicom.err;
    EXPECT_EQ(writtenFiles(dicom.out), QStringList { stem + QStringLiteral(".dcm") });
    EXPECT_TRUE(validationErrors(path(stem + QStringLiteral(".dcm"))).isEmpty());

    QString error;
    const QImage raw = korux::rawArea(korux::decodeSensorPng(readAll(path(png)), nullptr, &error));
    ASSERT_EQ(raw.size(), QSize(1000, 1496)) << error;
    DcmFileFormat format;
    ASSERT_TRUE(format.loadFile(path(stem + QStringLiteral(".dcm")).toStdString().c_str()).good());
    DcmDataset* data = format.getDataset();
    const Uint16* pixels = nullptr;
    unsigned long count = 0;
    ASSERT_TRUE(data->findAndGetUint16Array(DCM_PixelData, pixels, &count).good());
    ASSERT_EQ(count, 1000ul * 1496ul);
    for (int y = 0; y < raw.height(); ++y)
        ASSERT_EQ(std::memcmp(pixels + static_cast<size_t>(y) * 1000, raw.constScanLine(y), 2000), 0) << y;
    EXPECT_EQ(dicomText(data, DCM_ImageComments), readAll(path(stem + QStringLiteral(".txt"))).toStdString());
    EXPECT_EQ(dicomText(data, DCM_PatientName), "ANONYMOUS^");

    // The file is there now: kept, unless --overwrite.
    const KoruxRun again = korux({ QStringLiteral("dicom"), png });
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(again.err.contains(QStringLiteral("exists already"))) << again.err;
    EXPECT_EQ(korux({ QStringLiteral("dicom"), QStringLiteral("--overwrite"), png }).exitCode, 0);
}

TEST_F(KoruxImaging, DicomOfWhatIsNoShotSaysWhy)
{
    const KoruxRun notPng = korux({ QStringLiteral("dicom"), QStringLiteral("shot.txt") });
    EXPECT_EQ(notPng.exitCode, 2);
    EXPECT_TRUE(notPng.err.contains(QStringLiteral("dicom takes a shot's PNG"))) << notPng.err;

    const KoruxRun missing = korux({ QStringLiteral("dicom"), QStringLiteral("none.png") });
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.contains(QStringLiteral("cannot read none.png"))) << missing.err;

    QImage image(20, 30, QImage::Format_Grayscale16);
    image.fill(1000);
    ASSERT_TRUE(image.save(path(QStringLiteral("lone.png"))));
    const KoruxRun noText = korux({ QStringLiteral("dicom"), QStringLiteral("lone.png") });
    EXPECT_EQ(noText.exitCode, 1);
    EXPECT_TRUE(noText.err.contains(QStringLiteral("cannot read lone.txt, the description of lone.png")))
        << noText.err;
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("lone.dcm"))));
}

TEST_F(KoruxImaging, DemoScriptWritesEveryFile)
{
    // What scripts/demo runs.
    const KoruxRun run
        = koruxOn({ QStringLiteral("run"), QStringLiteral(KORUX_SOURCE_DIR "/examples/acquisition.korux") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    QStringList names = QDir(path(QStringLiteral("images"))).entryList(QDir::Files);
    for (QString& name : names)
        name.remove(QRegularExpression(QStringLiteral("^[^-]+-\\d+")));
    names.sort();
    EXPECT_EQ(names,
        (QStringList { QStringLiteral("-oscilloscope.png"), QStringLiteral("-presentation.dcm"),
            QStringLiteral("-preview.png"), QStringLiteral(".dcm"), QStringLiteral(".png"),
            QStringLiteral(".txt") }));
}

// How korux's DICOM files fit together, judged by dcentvfy and dciodvfy:
// one study per patient and session, For Processing and For Presentation in
// series of their own, korux dicom giving acquire's own files again, the
// anatomy only where it is known; and the inputs korux refuses.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "imaging/ImageFiles.h"
#include "imaging/ShotPictures.h"
#include "tools/DicomSessionCheck.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

QStringList written(const QString& out, const QString& suffix)
{
    QStringList files;
    static const QRegularExpression wrote(
        QStringLiteral("^wrote (.+)$"), QRegularExpression::MultilineOption);
    auto matches = wrote.globalMatch(out);
    while (matches.hasNext()) {
        const QString file = matches.next().captured(1);
        if (file.endsWith(suffix))
            files << file;
    }
    return files;
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

class KoruxDicomSession : public Korux {
protected:
    // A shot with both DICOM files, in a folder of its own; its PNG's path.
    QString shoot(const QStringList& options = {})
    {
        const QString folder = QStringLiteral("shot%1").arg(++shots_);
        const KoruxRun run
            = koruxOn(QStringList { QStringLiteral("acquire"), QStringLiteral("--dicom-presentation"),
                          QStringLiteral("--out"), folder }
                + options);
        EXPECT_EQ(run.exitCode, 0) << run.out.toStdString() << run.err.toStdString();
        return written(run.out, QStringLiteral(".png")).value(0);
    }

    int shots_ = 0;
};

} // namespace

TEST_F(KoruxDicomSession, TwoPatientsInOneScriptAreTwoStudiesThatDcentvfyAccepts)
{
    writeFile(QStringLiteral("session.korux"),
        "acquire --out shots --dicom-presentation --patient-id PAT-A --patient-name Able^Ann --count 2\n"
        "acquire --out shots --dicom-presentation --patient-id PAT-B --patient-name Baker^Bob\n");
    const KoruxRun run = koruxOn({ QStringLiteral("run"), path(QStringLiteral("session.korux")) });
    ASSERT_EQ(run.exitCode, 0) << run.out.toStdString() << run.err.toStdString();
    QStringList files;
    for (const QString& file : written(run.out, QStringLiteral(".dcm")))
        files << path(file);
    ASSERT_EQ(files.size(), 6) << run.out.toStdString();

    const SessionLayout layout = readSession(files);
    ASSERT_TRUE(layout.error.isEmpty()) << layout.error.toStdString();
    EXPECT_EQ(layout.patients,
        (QMap<QString, int> { { QStringLiteral("PAT-A"), 1 }, { QStringLiteral("PAT-B"), 1 } }));
    // Each study: a For Processing and a For Presentation series.
    EXPECT_EQ(layout.studies.size(), 2);
    for (const StudyLayout& study : layout.studies) {
        EXPECT_EQ(study.series.size(), 2);
        EXPECT_EQ(study.intents,
            (QSet<QString> { QStringLiteral("FOR PROCESSING"), QStringLiteral("FOR PRESENTATION") }));
        EXPECT_EQ(study.seriesNumbers.size(), 2) << "series numbers repeat";
        for (const auto& instances : study.series)
            EXPECT_EQ(QSet<QString>(instances.begin(), instances.end()).size(), instances.size())
                << "instance numbers repeat";
    }
    EXPECT_EQ(layout.instancesOf(QStringLiteral("PAT-A")), 4);
    EXPECT_EQ(layout.instancesOf(QStringLiteral("PAT-B")), 2);

    // The judges: no entity error over the session, no module error in a file.
    const QStringList entityErrors = dcentvfyErrors(files);
    EXPECT_TRUE(entityErrors.isEmpty()) << entityErrors.join('\n').toStdString();
    for (const QString& file : files) {
        const QStringList errors = dciodvfyErrors(file);
        EXPECT_TRUE(errors.isEmpty()) << file.toStdString() << ": " << errors.join('\n').toStdString();
    }
}

TEST_F(KoruxDicomSession, ASeparateRunIsANewStudyUnlessStudyUidJoinsIt)
{
    const QString first = shoot({ QStringLiteral("--patient-id"), QStringLiteral("PAT-C") });
    const QString second = shoot({ QStringLiteral("--patient-id"), QStringLiteral("PAT-C") });
    const QString firstStudy = dicomValue(path(first.left(first.size() - 4) + ".dcm"), DCM_StudyInstanceUID);
    const QString secondStudy
        = dicomValue(path(second.left(second.size() - 4) + ".dcm"), DCM_StudyInstanceUID);
    EXPECT_NE(firstStudy, secondStudy);
    const QString joined = shoot({ QStringLiteral("--patient-id"), QStringLiteral("PAT-C"),
        QStringLiteral("--study-uid"), firstStudy });
    EXPECT_EQ(dicomValue(path(joined.left(joined.size() - 4) + ".dcm"), DCM_StudyInstanceUID), firstStudy);
}

TEST_F(KoruxDicomSession, DicomOfASavedShotGivesAcquiresOwnFiles)
{
    const QString png = shoot({ QStringLiteral("--patient-id"), QStringLiteral("PAT-D") });
    const QString stem = png.left(png.size() - 4);
    const QByteArray processing = contents(path(stem + ".dcm"));
    const QByteArray presentation = contents(path(stem + "-presentation.dcm"));
    ASSERT_TRUE(QFile::remove(path(stem + ".dcm")));
    ASSERT_TRUE(QFile::remove(path(stem + "-presentation.dcm")));
    const KoruxRun dicom = korux({ QStringLiteral("dicom"), QStringLiteral("--presentation"), png });
    ASSERT_EQ(dicom.exitCode, 0) << dicom.err.toStdString();
    EXPECT_EQ(contents(path(stem + ".dcm")), processing);
    EXPECT_EQ(contents(path(stem + "-presentation.dcm")), presentation);

    // Another patient: another study, not the shot's.
    const KoruxRun other = korux({ QStringLiteral("dicom"), QStringLiteral("--overwrite"),
        QStringLiteral("--patient-id"), QStringLiteral("PAT-E"), png });
    ASSERT_EQ(other.exitCode, 0) << other.err.toStdString();
    EXPECT_EQ(dicomValue(path(stem + ".dcm"), DCM_PatientID), QStringLiteral("PAT-E"));
    EXPECT_NE(contents(path(stem + ".dcm")), processing);

    // --study-uid: into that study.
    const QString study = QStringLiteral("2.25.1234567890");
    const KoruxRun joined = korux({ QStringLiteral("dicom"), QStringLiteral("--overwrite"),
        QStringLiteral("--study-uid"), study, png });
    ASSERT_EQ(joined.exitCode, 0) << joined.err.toStdString();
    EXPECT_EQ(dicomValue(path(stem + ".dcm"), DCM_StudyInstanceUID), study);
    EXPECT_EQ(dicomValue(path(stem + ".dcm"), DCM_PatientID), QStringLiteral("PAT-D"));
}

TEST_F(KoruxDicomSession, AnatomyIsThePhantomsOnTheVirtualSensorAndNoneOnAPattern)
{
    const QString phantom = shoot();
    const QString phantomFile = path(phantom.left(phantom.size() - 4) + ".dcm");
    EXPECT_EQ(dicomValue(phantomFile, DCM_ImageLaterality), QStringLiteral("R"));
    EXPECT_EQ(dicomValue(phantomFile, DCM_PatientOrientation), QStringLiteral("A\\F"));

    const QString scenario = QStringLiteral(R"({ "sensors": [ { "image": { "source": "pattern" } } ] })");
    KoruxRun run = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom"), QStringLiteral("--out"),
                               QStringLiteral("plain") },
        scenario);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QString plain = path(written(run.out, QStringLiteral(".dcm")).value(0));
    DcmFileFormat file;
    ASSERT_TRUE(file.loadFile(plain.toStdString().c_str()).good());
    EXPECT_FALSE(file.getDataset()->tagExists(DCM_AnatomicRegionSequence));
    EXPECT_FALSE(file.getDataset()->tagExists(DCM_PrimaryAnatomicStructureSequence));
    EXPECT_FALSE(file.getDataset()->tagExists(DCM_ImageLaterality));

    run = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom"), QStringLiteral("--out"),
                      QStringLiteral("given"), QStringLiteral("--teeth"), QStringLiteral("21,22") },
        scenario);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QString given = path(written(run.out, QStringLiteral(".dcm")).value(0));
    EXPECT_EQ(dicomValue(given, DCM_ImageLaterality), QStringLiteral("L"));
    EXPECT_EQ(dicomValue(given, DCM_PatientOrientation), QStringLiteral("L\\F"));
    EXPECT_TRUE(dciodvfyErrors(given).isEmpty());
}

TEST_F(KoruxDicomSession, BadNamesAndAnatomyAreRefusedBeforeAnythingRuns)
{
    const QList<QStringList> cases {
        { QStringLiteral("--patient-name"), QStringLiteral("a^b^c^d^e^f^g=x=y=z") },
        { QStringLiteral("--patient-name"), QString(40, QChar(0xE9)) },
        { QStringLiteral("--teeth"), QStringLiteral("19") },
        { QStringLiteral("--teeth"), QStringLiteral("14,44") },
        { QStringLiteral("--region"), QStringLiteral("maxilla") },
        { QStringLiteral("--study-uid"), QStringLiteral("1.2.abc") },
        { QStringLiteral("--send"), QStringLiteral("pacs") },
        { QStringLiteral("--send"), QStringLiteral("127.0.0.1:104"), QStringLiteral("--called-ae"),
            QString(17, QLatin1Char('A')) },
    };
    for (const QStringList& options : cases) {
        const KoruxRun run
            = koruxOn(QStringList { QStringLiteral("acquire"), QStringLiteral("--dicom") } + options);
        EXPECT_EQ(run.exitCode, 2) << options.join(' ').toStdString();
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << run.err.toStdString();
        EXPECT_FALSE(run.out.contains(QStringLiteral("statusArming"))) << run.out.toStdString();
    }
    const KoruxRun noDicom
        = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--send"), QStringLiteral("h:104") });
    EXPECT_EQ(noDicom.exitCode, 2);
    EXPECT_TRUE(noDicom.err.contains(QStringLiteral("add --dicom"))) << noDicom.err.toStdString();
}

TEST_F(KoruxDicomSession, DicomRefusesWhatIsNoShot)
{
    const QString png = shoot();
    const QString stem = png.left(png.size() - 4);
    const QString description = path(stem + ".txt");

    // The preview, beside a copy of the description: 8 bits.
    ASSERT_TRUE(QFile::copy(description, path(stem + "-preview.txt")));
    KoruxRun run = korux({ QStringLiteral("dicom"), stem + "-preview.png" });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("is a 8-bit grey PNG, not a shot's 16-bit")))
        << run.err.toStdString();

    // A description whose Size is the other sensor's.
    QByteArray text = contents(description);
    text.replace("Size=1", "Size=2");
    writeFile(QStringLiteral("large.txt"), text);
    ASSERT_TRUE(QFile::copy(path(png), path(QStringLiteral("large.png"))));
    run = korux({ QStringLiteral("dicom"), QStringLiteral("large.png") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("is 1000x1506 pixels; its description large.txt gives Size=2")))
        << run.err.toStdString();

    // A tiny PNG that declares 16384 x 16384 16-bit pixels: refused from its
    // header, nothing allocated.
    QByteArray huge("\x89PNG\r\n\x1a\n", 8);
    huge += QByteArray::fromHex("0000000d49484452000040000000400010000000") + QByteArray(4, '\0');
    huge += QByteArray::fromHex("0000000049454e44ae426082");
    writeFile(QStringLiteral("huge.png"), huge);
    writeFile(QStringLiteral("huge.txt"), contents(description));
    run = korux({ QStringLiteral("dicom"), QStringLiteral("huge.png") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("is 16384x16384 pixels"))) << run.err.toStdString();
    EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << run.err.toStdString();

    // A PNG that does not say when the shot was taken.
    korux::PngText chunks;
    QString error;
    const QImage image = korux::decodeSensorPng(contents(path(png)), &chunks, &error);
    chunks.remove(korux::kPngCreationTimeKey);
    writeFile(QStringLiteral("untimed.png"), korux::encodeSensorPng(image, chunks, &error));
    writeFile(QStringLiteral("untimed.txt"), contents(description));
    run = korux({ QStringLiteral("dicom"), QStringLiteral("untimed.png") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("does not say when the shot was taken")))
        << run.err.toStdString();
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("untimed.dcm"))));
}

TEST_F(KoruxDicomSession, SendSaysInOneLineWhyNothingWasStored)
{
    const QString png = shoot();
    const QString file = png.left(png.size() - 4) + ".dcm";

    // Nobody listens on the port.
    const int closed = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(closed, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(closed, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ::close(closed);
    const QString closedPeer = QStringLiteral("127.0.0.1:%1").arg(ntohs(address.sin_port));
    KoruxRun run = korux({ QStringLiteral("send"), QStringLiteral("--peer"), closedPeer, file });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << run.err.toStdString();
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("korux: no DICOM association with ") + closedPeer))
        << run.err.toStdString();

    // A peer that takes the connection and never answers: the time-out.
    const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
    address.sin_port = 0;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent, 4), 0);
    length = sizeof address;
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const QString silentPeer = QStringLiteral("127.0.0.1:%1").arg(ntohs(address.sin_port));
    run = korux({ QStringLiteral("send"), QStringLiteral("--peer"), silentPeer, QStringLiteral("--timeout"),
        QStringLiteral("1"), file });
    ::close(silent);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << run.err.toStdString();
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("korux: no DICOM association with ") + silentPeer))
        << run.err.toStdString();

    // What is no DICOM file is not sent.
    run = korux({ QStringLiteral("send"), QStringLiteral("--peer"), closedPeer, png });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("is no DICOM file"))) << run.err.toStdString();
    run = korux({ QStringLiteral("send"), file });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("send needs --peer HOST:PORT"))) << run.err.toStdString();
}

TEST_F(KoruxDicomSession, ASensorInsideAGeneratorGivesItsKvMaAndExposureTime)
{
    const KoruxRun run = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom") },
        QStringLiteral(
            R"({ "sensors": [ { "inside": true, "generator": { "kV": 65, "mA": 6, "timeDone": 99 } } ] })"));
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QString file = path(written(run.out, QStringLiteral(".dcm")).value(0));
    EXPECT_EQ(dicomValue(file, DCM_KVP), QStringLiteral("65"));
    EXPECT_EQ(dicomValue(file, DCM_XRayTubeCurrent), QStringLiteral("6"));
    EXPECT_EQ(dicomValue(file, DCM_ExposureTime), QStringLiteral("99"));
    EXPECT_TRUE(dciodvfyErrors(file).isEmpty());
}

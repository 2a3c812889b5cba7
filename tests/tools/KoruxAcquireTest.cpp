// korux acquire on the virtual bridge: the family brought to arming from
// where it stands, the exposure followed, the files written.
#include <QDir>
#include <QImage>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

// "wrote <path>" lines of korux's output, in order: the image, black image
// and description files (the preview, plot and DICOM files beside them are
// KoruxImagingTest's).
QStringList writtenFiles(const QString& out)
{
    QStringList files;
    static const QRegularExpression wrote(QStringLiteral("^wrote (.+)$"), QRegularExpression::MultilineOption);
    static const QRegularExpression pictures(QStringLiteral("(-preview\\.png|-oscilloscope\\.png|\\.dcm)$"));
    auto matches = wrote.globalMatch(out);
    while (matches.hasNext()) {
        const QString file = matches.next().captured(1);
        if (!pictures.match(file).hasMatch())
            files << file;
    }
    return files;
}

// Width and height of each "image unit ..." line.
QVector<QSize> imageSizes(const QString& out)
{
    QVector<QSize> sizes;
    static const QRegularExpression line(QStringLiteral("^image unit .* (\\d+)x(\\d+)$"),
        QRegularExpression::MultilineOption);
    auto matches = line.globalMatch(out);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        sizes << QSize(match.captured(1).toInt(), match.captured(2).toInt());
    }
    return sizes;
}

class KoruxAcquire : public Korux {
protected:
    KoruxRun acquire(const QStringList& arguments, const QString& scenario = QString())
    {
        return koruxOn(arguments, scenario);
    }
};

} // namespace

TEST_F(KoruxAcquire, WritesASixteenBitPngAndItsDescription)
{
    const KoruxRun run = acquire({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusArmed (21)\n"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusAcquired (27)\n"))) << run.out;

    const QStringList files = writtenFiles(run.out);
    ASSERT_EQ(files.size(), 2) << run.out;
    EXPECT_TRUE(files.at(0).startsWith(QStringLiteral("shots/"))) << files.at(0);
    // Named after the board serial and the sensor's counter after the shot
    // (the default sensor's flash counts 1234 shots).
    EXPECT_TRUE(files.at(0).endsWith(QStringLiteral("-001235.png"))) << files.at(0);
    EXPECT_TRUE(files.at(1).endsWith(QStringLiteral("-001235.txt"))) << files.at(1);

    const QImage image(path(files.at(0)));
    ASSERT_FALSE(image.isNull());
    EXPECT_EQ(image.format(), QImage::Format_Grayscale16);
    const QVector<QSize> sizes = imageSizes(run.out);
    ASSERT_EQ(sizes.size(), 1);
    EXPECT_EQ(image.size(), sizes.first());
    // The sensor's picture, not a blank: the pixels differ.
    const quint16* row = reinterpret_cast<const quint16*>(image.constScanLine(image.height() / 2));
    bool varies = false;
    for (int x = 1; x < image.width() && !varies; ++x)
        varies = row[x] != row[0];
    EXPECT_TRUE(varies);

    QFile description(path(files.at(1)));
    ASSERT_TRUE(description.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(description.readAll());
    EXPECT_TRUE(text.contains(QStringLiteral("[ACQUISITION]"))) << text;
    EXPECT_TRUE(text.contains(QStringLiteral("Type=KORUX-KORUX2 Series"))) << text;
}

TEST_F(KoruxAcquire, RepeatedShotsAdvanceTheCounterByTheirNumber)
{
    const QString script = writeFile(QStringLiteral("shots.korux"), "counter\nacquire --count 3 --out s\ncounter\n");
    const KoruxRun run = acquire({ QStringLiteral("run"), script });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QVector<uint> counters = counterValues(run.out);
    ASSERT_GE(counters.size(), 2) << run.out;
    EXPECT_EQ(counters.last(), counters.first() + 3) << run.out;
    for (const char* name : { "-001235.png", "-001236.png", "-001237.png" })
        EXPECT_EQ(writtenFiles(run.out).filter(QLatin1String(name)).size(), 1) << name << run.out;
    // Between shots the family goes from statusAcquired back to statusReady.
    EXPECT_EQ(run.out.count(QStringLiteral("status statusReady (9)\n")), 2) << run.out;
}

TEST_F(KoruxAcquire, LargeSensorGivesTheLargeImage)
{
    const KoruxRun run = acquire({ QStringLiteral("acquire") }, QStringLiteral(R"({"sensors": [{"size": 2}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QStringList files = writtenFiles(run.out);
    ASSERT_FALSE(files.isEmpty());
    const QImage image(path(files.first()));
    EXPECT_EQ(image.width(), 1300);
    EXPECT_EQ(image.size(), imageSizes(run.out).value(0));
}

TEST_F(KoruxAcquire, WithoutAnExposureTheShotTimesOutAndTheFamilyStops)
{
    const KoruxRun run
        = acquire({ QStringLiteral("acquire"), QStringLiteral("--timeout"), QStringLiteral("1") },
            QStringLiteral(R"({"sensors": [{"exposure": {"auto": false}}]})"));
    EXPECT_EQ(run.exitCode, 6) << run.out << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: no image within 1 s; stopping"))) << run.err;
    EXPECT_TRUE(inOrder(run.out, { "status statusStopping (18)\n", "status statusStopped (19)\n" }))
        << run.out;
    EXPECT_TRUE(writtenFiles(run.out).isEmpty()) << run.out;
}

TEST_F(KoruxAcquire, AnUnconfiguredFpgaIsProgrammedOnTheWayToArming)
{
    const KoruxRun run = acquire({ QStringLiteral("-v"), QStringLiteral("acquire") },
        QStringLiteral(R"({"sensors": [{"fpga": {"configured": false}}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nKORUX3 is now flashed!\n"))) << run.out;
    EXPECT_EQ(writtenFiles(run.out).size(), 2) << run.out;
}

TEST_F(KoruxAcquire, FpgaUpdateThenAcquireInOneSession)
{
    const QString script = writeFile(QStringLiteral("update.korux"), "fpga-update\nacquire\n");
    const KoruxRun run = acquire({ QStringLiteral("-v"), QStringLiteral("run"), script },
        QStringLiteral(R"({"sensors": [{"fpga": {"configured": false}}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nKORUX3 is now flashed!\n"))) << run.out;
    EXPECT_EQ(writtenFiles(run.out).filter(QStringLiteral(".png")).size(), 1) << run.out;
}

TEST_F(KoruxAcquire, TwoSensorsDeliverTwoImages)
{
    const KoruxRun run = acquire({ QStringLiteral("acquire") }, QStringLiteral(R"({"sensors": [{}, {}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QStringList images = writtenFiles(run.out).filter(QStringLiteral(".png"));
    ASSERT_EQ(images.size(), 2) << run.out;
    EXPECT_NE(images.at(0), images.at(1));
}

TEST_F(KoruxAcquire, OscilloscopeModeDeliversTheImageToo)
{
    const KoruxRun run = acquire({ QStringLiteral("-v"), QStringLiteral("acquire"), QStringLiteral("--oscilloscope") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    // The polling of the oscilloscope slot names itself in the detailed log.
    EXPECT_TRUE(run.out.contains(QStringLiteral("waitForOscilloscope"))) << run.out;
    EXPECT_EQ(writtenFiles(run.out).filter(QStringLiteral(".png")).size(), 1) << run.out;
}

TEST_F(KoruxAcquire, CountBelowOneIsAUsageError)
{
    const KoruxRun run = acquire({ QStringLiteral("acquire"), QStringLiteral("--count"), QStringLiteral("0") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("--count takes a number of 1 or more"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("status"))) << run.out;
}

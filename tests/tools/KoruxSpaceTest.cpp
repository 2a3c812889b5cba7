// No exposure thrown away: every folder korux writes is checked before the
// sensor is armed, and a shot that cannot be written where asked goes to the
// rescue folder in the user's state directory.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxSpace : public Korux {
protected:
    void TearDown() override
    {
        if (mounted_)
            QProcess::execute(QStringLiteral("umount"), { disk() });
    }

    QString disk() const { return path(QStringLiteral("disk")); }

    // A small file system of its own at disk(), when this test may mount
    // one (root); false otherwise.
    bool mountSmallDisk(const QString& size)
    {
        QDir().mkpath(disk());
        if (geteuid() != 0)
            return false;
        mounted_ = QProcess::execute(QStringLiteral("mount"),
                       { QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"),
                           QStringLiteral("size=") + size, QStringLiteral("tmpfs"), disk() })
            == 0;
        return mounted_;
    }

    bool mounted_ = false;
};

} // namespace

// A folder without room for the shot is refused before the sensor is armed.
TEST_F(KoruxSpace, AFullDiskIsRefusedBeforeArming)
{
    const QStringList acquire { QStringLiteral("acquire"), QStringLiteral("--out"),
        disk() + QStringLiteral("/shots") };
    KoruxRun run;
    if (mountSmallDisk(QStringLiteral("2m"))) {
        run = koruxOn(acquire);
    } else {
        // No mount here: the free space korux sees is given.
        qputenv("KORUX_TEST_FREE_BYTES", "2000000");
        run = koruxOn(acquire);
        qunsetenv("KORUX_TEST_FREE_BYTES");
    }
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: acquire --out: %1/shots has ").arg(disk())))
        << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("free; the files need about"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("statusArming"))) << run.out;
}

// The disk filled while the sensor waited for X-rays: the shot is kept in
// the rescue folder, named on stderr, exit status 1. --overwrite is for the
// folder asked for: a shot rescued before keeps its name.
TEST_F(KoruxSpace, AShotThatCannotBeWrittenGoesToTheRescueFolder)
{
    if (!mountSmallDisk(QStringLiteral("32m")))
        GTEST_SKIP() << "needs a small file system of its own (root)";
    const QString rescue = path(QStringLiteral("home/state/korux/rescue"));
    ASSERT_TRUE(QDir().mkpath(rescue));
    const QString earlier = writeFile(QStringLiteral("home/state/korux/rescue/59881DA3846E4A89-001235.png"), "earlier");
    QProcess process;
    startKorux(process,
        argumentsOn({ QStringLiteral("acquire"), QStringLiteral("--out"), disk(), QStringLiteral("--overwrite") },
            QStringLiteral(R"({"sensors": [{"exposure": {"delayMs": 1500}}]})")));
    QString out;
    QElapsedTimer timer;
    timer.start();
    while (!out.contains(QStringLiteral("waiting for the exposure")) && timer.elapsed() < 20000) {
        process.waitForReadyRead(50);
        out += QString::fromUtf8(process.readAllStandardOutput());
    }
    ASSERT_TRUE(out.contains(QStringLiteral("waiting for the exposure"))) << out;
    // Fill the disk to its last byte.
    QFile filler(disk() + QStringLiteral("/filler"));
    ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
    const QByteArray block(1 << 16, 'x');
    while (filler.write(block) > 0 && filler.flush()) { }
    filler.close();
    ASSERT_TRUE(process.waitForFinished(60000));
    out += QString::fromUtf8(process.readAllStandardOutput());
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_EQ(process.exitCode(), 1) << err;
    EXPECT_TRUE(
        err.contains(QStringLiteral("korux: the shot of unit 0 (59881DA3846E4A89) is kept in the rescue "
                                    "folder as %1/59881DA3846E4A89-001235-2.png: it could not be written to %2")
                         .arg(rescue, disk())))
        << err;
    EXPECT_TRUE(QFile::exists(rescue + QStringLiteral("/59881DA3846E4A89-001235-2.png")));
    EXPECT_TRUE(QFile::exists(rescue + QStringLiteral("/59881DA3846E4A89-001235-2.txt")));
    QFile kept(earlier);
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), QByteArray("earlier"));
}

// Every command that makes the plug-in write in the family directory
// checks it first; a folder is created only under one that exists.
TEST_F(KoruxSpace, TheFamilyDirectoryIsCheckedForEveryCommandThatWritesIt)
{
    const QString file = writeFile(QStringLiteral("afile"), "x");
    for (const char* command : { "acquire", "fpga-update", "flash-files" }) {
        const KoruxRun run = korux({ QStringLiteral("--dir"), file, QStringLiteral("--time-scale"),
            QStringLiteral("0"), QString::fromLatin1(command) });
        EXPECT_EQ(run.exitCode, 2) << command;
        EXPECT_TRUE(run.err.contains(
            QStringLiteral("korux: the family directory (--dir): %1 is not a directory").arg(file)))
            << command << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("statusArming"))) << run.out;
        EXPECT_FALSE(run.out.contains(QStringLiteral("statusFpgaUpdating"))) << run.out;
    }
    const QString deep = path(QStringLiteral("no/such/folder"));
    const KoruxRun run = korux({ QStringLiteral("--dir"), deep, QStringLiteral("--time-scale"),
        QStringLiteral("0"), QStringLiteral("acquire") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(
        QStringLiteral("%1 cannot be created: %2 does not exist").arg(deep, path(QStringLiteral("no/such")))))
        << run.err;
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("no"))));

    const KoruxRun out = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), deep });
    EXPECT_EQ(out.exitCode, 2);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("no"))));
}

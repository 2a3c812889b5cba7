// What korux leaves on the disk whatever happens to it: files whole under
// their names or not there, nothing replaced without being asked, a full
// disk or a closed pipe told, Ctrl-C and kill at any moment, and one flash
// image shared by many processes.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QThread>

#include <memory>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

constexpr qint64 kFlashSize = 16 * 1024 * 1024;
const QString kImageScenario = QStringLiteral(R"({"sensors": [{"flash": {"image": "flash.bin"}}]})");
// A sensor that arms and then waits for an exposure that never comes.
const QString kNoExposure = QStringLiteral(R"({"sensors": [{"exposure": {"auto": false}}]})");

// The temporary files of unfinished writes: ".<name>.tmp-XXXXXX".
QStringList temporaryFiles(const QString& directory)
{
    return QDir(directory).entryList({ QStringLiteral(".*.tmp-*") }, QDir::Files | QDir::Hidden);
}

// A PNG file that was written to its end: it decodes, and its last chunk is
// IEND.
bool wholePng(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    static const QByteArray iend = QByteArray::fromHex("0000000049454e44ae426082");
    return bytes.endsWith(iend) && !QImage::fromData(bytes, "png").isNull();
}

class KoruxFiles : public Korux {
protected:
    // Waits until korux has printed text on stdout; false when it ended or
    // the time ran out first. Everything read is kept in output.
    bool waitForOutput(QProcess& process, const QString& text, int timeoutMs = 20000)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            process.waitForReadyRead(50);
            output_ += QString::fromUtf8(process.readAllStandardOutput());
            if (output_.contains(text))
                return true;
            if (process.state() == QProcess::NotRunning)
                return false;
        }
        return false;
    }

    // Takes the lock of flash.bin as another process would, naming this one
    // as its holder; the descriptor, or -1.
    int holdFlashImage()
    {
        const QString lockPath = path(QStringLiteral("flash.bin.lock"));
        const int fd = ::open(QFile::encodeName(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0 || flock(fd, LOCK_EX) != 0)
            return -1;
        const QByteArray holder = QByteArray::number(getpid()) + " holder\n";
        if (write(fd, holder.constData(), static_cast<size_t>(holder.size())) != holder.size())
            return -1;
        return fd;
    }

    // Starts korux counter --increase on flash.bin and waits until it says it
    // waits for the image; what it said on stderr.
    QString startWaitingCounterStep(QProcess& process)
    {
        startKorux(
            process, argumentsOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario));
        QElapsedTimer timer;
        timer.start();
        QString err;
        while (!err.contains(QStringLiteral("waiting for it")) && timer.elapsed() < 20000) {
            process.waitForReadyRead(50);
            err += QString::fromUtf8(process.readAllStandardError());
        }
        return err;
    }

    KoruxRun finished(QProcess& process)
    {
        KoruxRun run;
        EXPECT_TRUE(process.waitForFinished(60000));
        run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        run.out = output_ + QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        output_.clear();
        return run;
    }

    // The counter of the sensor whose flash is flash.bin, as a new korux
    // reads it; fails the test when that image does not load.
    uint imageCounter()
    {
        const KoruxRun run = koruxOn({ QStringLiteral("counter") }, kImageScenario);
        EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
        const QVector<uint> values = counterValues(run.out);
        EXPECT_FALSE(values.isEmpty()) << run.out;
        return values.value(values.size() - 1);
    }

    QString output_;
};

} // namespace

TEST_F(KoruxFiles, OutputToAFullDiskIsAFailure)
{
    QProcess process;
    process.setStandardOutputFile(QStringLiteral("/dev/full"));
    startKorux(process, argumentsOn({ QStringLiteral("list") }));
    const KoruxRun run = finished(process);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("korux: cannot write to standard output: No space left on device")))
        << run.err;
}

TEST_F(KoruxFiles, TranscriptOnAFullDiskIsAFailureAndNothingRuns)
{
    const KoruxRun run = koruxOn({ QStringLiteral("--transcript"), QStringLiteral("/dev/full"),
                                     QStringLiteral("counter"), QStringLiteral("--increase") },
        kImageScenario);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("cannot write /dev/full: No space left on device")))
        << run.err;
    // The command it could not record did not run.
    EXPECT_EQ(imageCounter(), 1234u);
}

TEST_F(KoruxFiles, TranscriptTakesItsNameOnlyWhenComplete)
{
    writeFile(QStringLiteral("t.jsonl"), "old\n");
    QProcess process;
    startKorux(process,
        argumentsOn(
            { QStringLiteral("--overwrite"), QStringLiteral("--transcript"), QStringLiteral("t.jsonl"),
                QStringLiteral("acquire"), QStringLiteral("--timeout"), QStringLiteral("1") },
            kNoExposure));
    ASSERT_TRUE(waitForOutput(process, QStringLiteral("status statusArmed (21)")));
    QFile during(path(QStringLiteral("t.jsonl")));
    ASSERT_TRUE(during.open(QIODevice::ReadOnly));
    EXPECT_EQ(during.readAll(), QByteArray("old\n"));
    const KoruxRun run = finished(process);
    EXPECT_EQ(run.exitCode, 6) << run.err;
    const QVector<QJsonObject> lines = readTranscript(QStringLiteral("t.jsonl"));
    ASSERT_FALSE(lines.isEmpty());
    EXPECT_EQ(lines.last().value(QStringLiteral("event")).toString(), QStringLiteral("result"));
    EXPECT_TRUE(temporaryFiles(directory_.path()).isEmpty());
}

// A shot whose name is taken (here a sensor that starts at the same counter
// every run) takes the next free name; the file there is kept.
TEST_F(KoruxFiles, AShotNeverReplacesAnExistingFile)
{
    const QString sameCounter = QStringLiteral(R"({"sensors": [{}]})");
    const QStringList acquire { QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") };
    const KoruxRun first = koruxOn(acquire, sameCounter);
    ASSERT_EQ(first.exitCode, 0) << first.err;
    const QString image = path(QStringLiteral("shots/59881DA3846E4A89-001235.png"));
    QFile before(image);
    ASSERT_TRUE(before.open(QIODevice::ReadOnly));
    const QByteArray kept = before.readAll();

    const KoruxRun second = koruxOn(acquire, sameCounter);
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_TRUE(second.err.contains(
        QStringLiteral("shots/59881DA3846E4A89-001235.png was taken; the shot of unit "
                       "0 (59881DA3846E4A89) is written as shots/59881DA3846E4A89-001235-2.png")))
        << second.err;
    EXPECT_TRUE(second.out.contains(QStringLiteral("wrote shots/59881DA3846E4A89-001235-2.png")))
        << second.out;
    QFile after(image);
    ASSERT_TRUE(after.open(QIODevice::ReadOnly));
    EXPECT_EQ(after.readAll(), kept);

    const KoruxRun third = koruxOn(acquire + QStringList { QStringLiteral("--overwrite") }, sameCounter);
    EXPECT_EQ(third.exitCode, 0) << third.err;
    EXPECT_TRUE(third.out.contains(QStringLiteral("wrote shots/59881DA3846E4A89-001235.png"))) << third.out;
    EXPECT_TRUE(temporaryFiles(path(QStringLiteral("shots"))).isEmpty());
}

// The default machine keeps its flash in the user's state directory, as a
// sensor keeps its own: two acquisitions in a row, two rising counters.
TEST_F(KoruxFiles, TheDefaultMachineKeepsItsCounterAcrossRuns)
{
    for (const char* name : { "shots/59881DA3846E4A89-001235.png", "shots/59881DA3846E4A89-001236.png" }) {
        const KoruxRun run
            = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") });
        EXPECT_EQ(run.exitCode, 0) << run.err;
        EXPECT_TRUE(run.out.contains(QStringLiteral("wrote %1").arg(name))) << run.out;
    }
    EXPECT_TRUE(QFile::exists(path(QStringLiteral("home/state/korux/default-flash.bin"))));
}

TEST_F(KoruxFiles, ShotsOfAPersistentSensorGetNewNamesRunAfterRun)
{
    for (const char* name : { "shots/59881DA3846E4A89-001235.png", "shots/59881DA3846E4A89-001236.png" }) {
        const KoruxRun run = koruxOn(
            { QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") }, kImageScenario);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        EXPECT_TRUE(run.out.contains(QStringLiteral("wrote %1").arg(name))) << run.out;
    }
}

TEST_F(KoruxFiles, AnOutputFolderThatCannotBeWrittenIsRefusedBeforeArming)
{
    writeFile(QStringLiteral("afile"), "x");
    for (const QString& out : { QStringLiteral("afile"), QStringLiteral("/proc/self") }) {
        const KoruxRun run = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), out });
        EXPECT_EQ(run.exitCode, 2) << out;
        EXPECT_TRUE(run.err.contains(QStringLiteral("korux: acquire --out: %1").arg(out))) << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("statusArming"))) << run.out;
    }
}

TEST_F(KoruxFiles, CtrlCWhileArmedStopsTheFamilyAndSaysSo)
{
    QProcess process;
    startKorux(process,
        argumentsOn(
            { QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") }, kNoExposure));
    ASSERT_TRUE(waitForOutput(process, QStringLiteral("status statusArmed (21)")));
    kill(static_cast<pid_t>(process.processId()), SIGINT);
    const KoruxRun run = finished(process);
    EXPECT_EQ(run.exitCode, 130);
    EXPECT_TRUE(run.err.endsWith(QStringLiteral("korux: interrupted\n"))) << run.err;
    EXPECT_TRUE(inOrder(run.out, { "status statusArmed (21)\n", "status statusStopping (18)\n" })) << run.out;
    EXPECT_TRUE(QDir(path(QStringLiteral("shots"))).entryList(QDir::Files | QDir::Hidden).isEmpty());
}

TEST_F(KoruxFiles, TermWhileArmedEndsWith143)
{
    QProcess process;
    startKorux(process, argumentsOn({ QStringLiteral("acquire") }, kNoExposure));
    ASSERT_TRUE(waitForOutput(process, QStringLiteral("status statusArmed (21)")));
    process.terminate();
    const KoruxRun run = finished(process);
    EXPECT_EQ(run.exitCode, 143);
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: interrupted"))) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusStopping (18)"))) << run.out;
}

// Ctrl-C or kill at any moment of an acquisition: the images under their
// names are whole, and an interrupted korux leaves no temporary file.
TEST_F(KoruxFiles, InterruptedOrKilledAcquisitionsLeaveOnlyWholeImages)
{
    const QString shots = path(QStringLiteral("shots"));
    for (int signal : { SIGINT, SIGKILL }) {
        for (int delayMs : { 300, 900, 1150, 1300 }) {
            QProcess process;
            startKorux(process,
                argumentsOn({ QStringLiteral("acquire"), QStringLiteral("--out"), shots,
                    QStringLiteral("--overwrite"), QStringLiteral("--dicom") }));
            ASSERT_TRUE(process.waitForStarted());
            QThread::msleep(static_cast<unsigned long>(delayMs));
            kill(static_cast<pid_t>(process.processId()), signal);
            const KoruxRun run = finished(process);
            if (signal == SIGINT) {
                EXPECT_TRUE(run.exitCode == 130 || run.exitCode == 0) << run.exitCode << run.err;
                if (run.exitCode == 130) {
                    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: interrupted"))) << run.err;
                }
                EXPECT_TRUE(temporaryFiles(shots).isEmpty()) << temporaryFiles(shots).join(' ');
            }
            for (const QString& name : QDir(shots).entryList({ QStringLiteral("*.png") }, QDir::Files))
                EXPECT_TRUE(wholePng(QDir(shots).filePath(name))) << name << " after " << delayMs << " ms";
        }
    }
}

// Killed at any moment of a counter step, the flash image holds the counter
// before or after it, and loads.
TEST_F(KoruxFiles, KilledCounterStepsLeaveALoadableImage)
{
    uint last = 1234;
    for (int signal : { SIGKILL, SIGINT }) {
        for (int delayMs : { 100, 250, 350, 450 }) {
            QProcess process;
            startKorux(process,
                argumentsOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario));
            ASSERT_TRUE(process.waitForStarted());
            QThread::msleep(static_cast<unsigned long>(delayMs));
            kill(static_cast<pid_t>(process.processId()), signal);
            finished(process);
            if (QFile::exists(path(QStringLiteral("flash.bin")))) {
                EXPECT_EQ(QFileInfo(path(QStringLiteral("flash.bin"))).size(), kFlashSize);
            }
            const uint now = imageCounter();
            EXPECT_TRUE(now == last || now == last + 1)
                << last << " then " << now << " after " << delayMs << " ms";
            last = now;
        }
    }
}

TEST_F(KoruxFiles, TwentyParallelCounterStepsOnOneImageAddTwenty)
{
    ASSERT_EQ(imageCounter(), 1234u);
    std::vector<std::unique_ptr<QProcess>> processes;
    const QStringList arguments
        = argumentsOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario);
    for (int i = 0; i < 20; ++i) {
        processes.emplace_back(new QProcess);
        startKorux(*processes.back(), arguments);
    }
    for (auto& process : processes) {
        ASSERT_TRUE(process->waitForFinished(180000));
        EXPECT_EQ(process->exitCode(), 0) << QString::fromUtf8(process->readAllStandardError());
    }
    EXPECT_EQ(imageCounter(), 1254u);
}

TEST_F(KoruxFiles, AHeldFlashImageIsWaitedForAndItsHolderNamed)
{
    const int fd = holdFlashImage();
    ASSERT_GE(fd, 0);
    QProcess process;
    const QString err = startWaitingCounterStep(process);
    EXPECT_TRUE(err.contains(
        QStringLiteral("flash.bin is in use by process %1 (holder); waiting for it").arg(getpid())))
        << err;
    EXPECT_EQ(process.state(), QProcess::Running);
    close(fd);
    const KoruxRun run = finished(process);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(imageCounter(), 1235u);
}

TEST_F(KoruxFiles, CtrlCEndsTheWaitForAHeldFlashImage)
{
    const int fd = holdFlashImage();
    ASSERT_GE(fd, 0);
    QProcess process;
    QString err = startWaitingCounterStep(process);
    ASSERT_TRUE(err.contains(QStringLiteral("waiting for it"))) << err;
    kill(static_cast<pid_t>(process.processId()), SIGINT);
    // Well before the wait's own end (two minutes), with the lock still held.
    const bool ended = process.waitForFinished(10000);
    close(fd);
    ASSERT_TRUE(ended);
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 130);
    err += QString::fromUtf8(process.readAllStandardError());
    // One line for the engineer, no scenario error beside it.
    EXPECT_TRUE(err.endsWith(QStringLiteral("waiting for it\nkorux: interrupted\n"))) << err;
    EXPECT_EQ(imageCounter(), 1234u);
}

TEST_F(KoruxFiles, AClosedPipeEndsTheOutputQuietlyAndTheWorkGoesOn)
{
    QProcess shell;
    shell.setWorkingDirectory(directory_.path());
    shell.setProcessEnvironment(koruxEnvironment());
    QStringList words;
    for (const QString& word :
        argumentsOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") }))
        words << QStringLiteral("'%1'").arg(word);
    shell.start(QStringLiteral("bash"),
        { QStringLiteral("-c"),
            QStringLiteral("KORUX_TIMING=instant '%1' %2 2>err.txt | head -1 >/dev/null; echo ${PIPESTATUS[0]}")
                .arg(koruxPath(), words.join(' ')) });
    ASSERT_TRUE(shell.waitForFinished(60000));
    EXPECT_EQ(QString::fromUtf8(shell.readAllStandardOutput()).trimmed(), QStringLiteral("141"));
    QFile err(path(QStringLiteral("err.txt")));
    ASSERT_TRUE(err.open(QIODevice::ReadOnly));
    EXPECT_EQ(err.readAll(), QByteArray());
    // The acquisition went on without its reader: the shot is on the disk.
    EXPECT_TRUE(wholePng(path(QStringLiteral("shots/59881DA3846E4A89-001235.png"))));
    EXPECT_TRUE(temporaryFiles(path(QStringLiteral("shots"))).isEmpty());
}

// Two korux at once into one folder, their sensors at the same counter: one
// takes the name, the other the next free one.
TEST_F(KoruxFiles, TwoProcessesCannotTakeTheSameName)
{
    QProcess first;
    QProcess second;
    // Sensors that start at the same counter: the same name for both shots.
    const QStringList arguments
        = argumentsOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") },
            QStringLiteral(R"({"sensors": [{}]})"));
    startKorux(first, arguments);
    startKorux(second, arguments);
    const KoruxRun one = finished(first);
    const KoruxRun two = finished(second);
    const QString image = QStringLiteral("shots/59881DA3846E4A89-001235.png");
    const QString next = QStringLiteral("shots/59881DA3846E4A89-001235-2.png");
    EXPECT_EQ((one.out + two.out).count(QStringLiteral("wrote %1\n").arg(image)), 1) << one.out << two.out;
    EXPECT_EQ((one.out + two.out).count(QStringLiteral("wrote %1\n").arg(next)), 1) << one.out << two.out;
    EXPECT_EQ(one.exitCode + two.exitCode, 0) << one.err << two.err;
    EXPECT_TRUE(wholePng(path(image)));
    EXPECT_TRUE(wholePng(path(next)));
}

// The virtual sensor's flash image that cannot be saved (its folder made
// immutable: no new file there, for root too) is a write error like any.
TEST_F(KoruxFiles, AFlashImageThatCannotBeSavedIsAFailure)
{
    ASSERT_EQ(imageCounter(), 1234u);
    const QString folder = directory_.path();
    auto chattr = [&](const char* flag) {
        return QProcess::execute(QStringLiteral("chattr"), { QString::fromLatin1(flag), folder }) == 0;
    };
    if (!chattr("+i"))
        GTEST_SKIP() << "chattr +i is not possible here (not root, or not ext2/3/4)";
    const KoruxRun run = koruxOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario);
    ASSERT_TRUE(chattr("-i"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral(
        "korux: the virtual bridge: cannot write the flash image %1: cannot create a temporary file in %2")
                                     .arg(path(QStringLiteral("flash.bin")), folder)))
        << run.err;
}

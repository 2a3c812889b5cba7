// korux --record and the replay of what it recorded: a session replays with
// the same log and image, a session that departs is reported at the call
// where it does, a recording killed halfway replays up to the cut, and the
// recording works in front of a library found as the vendor's is.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>

#include <csignal>

#include "record/Trace.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxRecord : public Korux {
protected:
    // korux in the test's directory with the fixture's clean environment,
    // changed by set (NAME=VALUE) first.
    KoruxRun run(const QStringList& arguments, const QStringList& set = {})
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("KORUX_SCENARIO"));
        environment.remove(QStringLiteral("LD_PRELOAD"));
        environment.remove(QStringLiteral("LD_LIBRARY_PATH"));
        environment.insert(QStringLiteral("KORUX_TIMING"), QStringLiteral("instant"));
        environment.insert(QStringLiteral("HOME"), directory_.path());
        environment.insert(QStringLiteral("XDG_STATE_HOME"), directory_.filePath(QStringLiteral("state")));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), directory_.filePath(QStringLiteral("data")));
        for (const QString& assignment : set) {
            const int equals = assignment.indexOf('=');
            environment.insert(assignment.left(equals), assignment.mid(equals + 1));
        }
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(directory_.path());
        process.start(koruxPath(), arguments);
        KoruxRun result;
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
            ADD_FAILURE() << "korux did not finish";
            return result;
        }
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    // Each session starts with a family directory and output folder of its
    // own, under the same names, as a second visit to the site would.
    void freshSession()
    {
        QDir(path(QStringLiteral("family"))).removeRecursively();
        QDir(path(QStringLiteral("images"))).removeRecursively();
    }

    QStringList session(const QStringList& arguments) const
    {
        return QStringList { QStringLiteral("--dir"), QStringLiteral("family"),
            QStringLiteral("--time-scale"), QStringLiteral("0") }
        + arguments;
    }

    QString replayScenario(const QString& trace)
    {
        return writeFile(
            QStringLiteral("replay.json"), QStringLiteral("{\"replay\": \"%1\"}").arg(trace).toUtf8());
    }

    ktrace::Trace readTrace(const QString& name)
    {
        ktrace::Trace trace;
        std::string error;
        EXPECT_TRUE(ktrace::readTraceFile(path(name).toStdString(), &trace, &error)) << error;
        return trace;
    }

    std::string traceText(const QString& name)
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        std::string text;
        bool cut = false;
        std::string error;
        EXPECT_TRUE(ktrace::decompress(file.readAll().toStdString(), &text, &cut, &error)) << error;
        return text;
    }

    // The index of the first call where two sessions part, as a replay
    // compares them.
    static uint64_t firstDifference(const ktrace::Trace& a, const ktrace::Trace& b)
    {
        for (size_t i = 0; i < a.calls.size() && i < b.calls.size(); ++i) {
            const ktrace::TraceCall& x = a.calls[i];
            const ktrace::TraceCall& y = b.calls[i];
            if (x.function != y.function || x.handle != y.handle || x.args != y.args || x.text != y.text
                || x.written != y.written)
                return i + 1;
        }
        return std::min(a.calls.size(), b.calls.size()) + 1;
    }

    QByteArray readAll(const QString& name)
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        return file.readAll();
    }

    static QStringList lines(const QString& text) { return text.split('\n', Qt::SkipEmptyParts); }
};

// The plug-in's log without what it reads from the clock: the time of day of
// each status call, the sleep calibration, the durations it measures.
QString withoutClockReadings(QString log)
{
    static const QRegularExpression readings(
        QStringLiteral("(read in \\d+ms|status call time: \\[[0-9:.]+\\]|CyclesForHundred_us: \\d+)"));
    return log.replace(readings, QStringLiteral("(clock)"));
}

} // namespace

// The session is recorded in front of the virtual bridge standing in for the
// vendor's library (found by the library path, as the vendor's is), and
// replayed by the virtual bridge.
TEST_F(KoruxRecord, ARecordedShotReplaysWithTheSameLogAndImage)
{
    freshSession();
    const KoruxRun recorded
        = run(session({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("-v"),
                  QStringLiteral("--record"), QStringLiteral("shot.trace"), QStringLiteral("acquire"),
                  QStringLiteral("--out"), QStringLiteral("images") }),
            { QStringLiteral("LD_LIBRARY_PATH=") + buildDirectory() + QStringLiteral("/lib/virtual") });
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    EXPECT_TRUE(recorded.err.contains(
        QStringLiteral("bridge traffic recorded to ") + path(QStringLiteral("shot.trace"))))
        << recorded.err;
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("shot.trace.partial"))));
    const ktrace::Trace trace = readTrace(QStringLiteral("shot.trace"));
    EXPECT_TRUE(trace.complete);
    EXPECT_GT(trace.calls.size(), 100u);
    const QStringList files = QDir(path(QStringLiteral("images"))).entryList(QDir::Files, QDir::Name);
    ASSERT_FALSE(files.isEmpty());
    QMap<QString, QByteArray> shot;
    for (const QString& file : files)
        shot[file] = readAll(QStringLiteral("images/") + file);

    freshSession();
    const KoruxRun replayed = run(session(
        { QStringLiteral("-v"), QStringLiteral("--scenario"), replayScenario(QStringLiteral("shot.trace")),
            QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("images") }));
    ASSERT_EQ(replayed.exitCode, 0) << replayed.err;
    EXPECT_EQ(withoutClockReadings(replayed.out), withoutClockReadings(recorded.out));
    EXPECT_EQ(QDir(path(QStringLiteral("images"))).entryList(QDir::Files, QDir::Name), files);
    for (const QString& file : files) {
        const QByteArray again = readAll(QStringLiteral("images/") + file);
        const QByteArray first = shot[file];
        if (file.endsWith(QLatin1String(".png"))) {
            // The pictures hold the same pixels; their text chunks also carry
            // the time they were written and the DICOM identity of the run.
            const QImage firstImage = QImage::fromData(first, "PNG");
            ASSERT_FALSE(firstImage.isNull()) << file;
            EXPECT_TRUE(firstImage == QImage::fromData(again, "PNG")) << file;
        } else {
            EXPECT_TRUE(first == again) << file;
        }
    }
}

TEST_F(KoruxRecord, AnotherCommandIsReportedAtTheCallWhereItDeparts)
{
    freshSession();
    ASSERT_EQ(
        run(session({ QStringLiteral("--record"), QStringLiteral("list.trace"), QStringLiteral("list") }))
            .exitCode,
        0);
    freshSession();
    ASSERT_EQ(run(session({ QStringLiteral("--record"), QStringLiteral("voltages.trace"),
                      QStringLiteral("voltages") }))
                  .exitCode,
        0);
    const uint64_t departs = firstDifference(
        readTrace(QStringLiteral("list.trace")), readTrace(QStringLiteral("voltages.trace")));

    freshSession();
    const KoruxRun replayed = run(session({ QStringLiteral("--scenario"),
        replayScenario(QStringLiteral("list.trace")), QStringLiteral("voltages") }));
    EXPECT_NE(replayed.exitCode, 0);
    EXPECT_EQ(replayed.err.count(QStringLiteral("replay diverges")), 1) << replayed.err;
    const QStringList errors = lines(replayed.err);
    ASSERT_FALSE(errors.isEmpty());
    EXPECT_TRUE(errors.last().startsWith(QStringLiteral("korux: replay diverges at call %1: ").arg(departs)))
        << replayed.err;
    EXPECT_TRUE(errors.last().contains(QStringLiteral(", came "))) << replayed.err;
}

TEST_F(KoruxRecord, AnotherParameterIsReportedAtTheCallThatWritesIt)
{
    freshSession();
    ASSERT_EQ(run(session({ QStringLiteral("--record"), QStringLiteral("page.trace"),
                      QStringLiteral("flash-page"), QStringLiteral("0x1000") }))
                  .exitCode,
        0);
    freshSession();
    ASSERT_EQ(run(session({ QStringLiteral("--record"), QStringLiteral("other.trace"),
                      QStringLiteral("flash-page"), QStringLiteral("0x2000") }))
                  .exitCode,
        0);
    const ktrace::Trace page = readTrace(QStringLiteral("page.trace"));
    const uint64_t departs = firstDifference(page, readTrace(QStringLiteral("other.trace")));
    ASSERT_LE(departs, page.calls.size());
    // The address goes out in the bytes written.
    EXPECT_FALSE(page.calls[departs - 1].written.empty());

    freshSession();
    const KoruxRun replayed
        = run(session({ QStringLiteral("--scenario"), replayScenario(QStringLiteral("page.trace")),
            QStringLiteral("flash-page"), QStringLiteral("0x2000") }));
    EXPECT_NE(replayed.exitCode, 0);
    const QStringList errors = lines(replayed.err);
    ASSERT_FALSE(errors.isEmpty());
    EXPECT_TRUE(errors.last().startsWith(
        QStringLiteral("korux: replay diverges at call %1: other bytes written").arg(departs)))
        << replayed.err;
}

TEST_F(KoruxRecord, AKilledRecordingReplaysUpToTheCut)
{
    freshSession();
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORUX_SCENARIO"));
    environment.remove(QStringLiteral("LD_LIBRARY_PATH"));
    environment.insert(QStringLiteral("KORUX_TIMING"), QStringLiteral("instant"));
    environment.insert(QStringLiteral("HOME"), directory_.path());
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(directory_.path());
    process.start(koruxPath(),
        session({ QStringLiteral("--record"), QStringLiteral("killed.trace"), QStringLiteral("shell") }));
    ASSERT_TRUE(process.waitForStarted());
    process.write("list\n");
    QString out;
    for (int i = 0; i < 300 && !out.contains(QStringLiteral("family KORUX")); ++i) {
        process.waitForReadyRead(100);
        out += QString::fromUtf8(process.readAllStandardOutput());
    }
    ASSERT_TRUE(out.contains(QStringLiteral("family KORUX"))) << out;
    // The recording flushes what it has within a fifth of a second.
    QThread::msleep(800);
    ::kill(static_cast<pid_t>(process.processId()), SIGKILL);
    process.waitForFinished();

    EXPECT_FALSE(QFile::exists(path(QStringLiteral("killed.trace"))));
    const ktrace::Trace trace = readTrace(QStringLiteral("killed.trace.partial"));
    EXPECT_FALSE(trace.complete);
    ASSERT_GT(trace.calls.size(), 10u);

    // The session as it went on: the enumeration replays whole, the command
    // after it finds the recording ended.
    freshSession();
    writeFile(QStringLiteral("again.txt"), "list\nvoltages\n");
    const KoruxRun replayed
        = run(session({ QStringLiteral("--scenario"), replayScenario(QStringLiteral("killed.trace.partial")),
            QStringLiteral("run"), QStringLiteral("again.txt") }));
    const QString unit = out.mid(out.indexOf(QStringLiteral("unit 0:")));
    EXPECT_TRUE(replayed.out.contains(unit.left(unit.indexOf('\n')))) << replayed.out;
    EXPECT_NE(replayed.exitCode, 0);
    EXPECT_TRUE(replayed.err.contains(
        QStringLiteral("the recording ends after call %1 (it was cut short)").arg(trace.calls.size())))
        << replayed.err;
}

TEST_F(KoruxRecord, RecordsInFrontOfABridgeFoundAsTheVendorsIs)
{
    // The virtual bridge stands in for the vendor's library: korux finds it
    // by the library path, as it would find the vendor's.
    const QString virtualDirectory = buildDirectory() + QStringLiteral("/lib/virtual");
    const KoruxRun recorded
        = run(session({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("-v"),
                  QStringLiteral("--record"), QStringLiteral("vendor.trace"), QStringLiteral("list") }),
            { QStringLiteral("LD_LIBRARY_PATH=") + virtualDirectory });
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    const QString library = QFileInfo(virtualDirectory + QStringLiteral("/libft4222.so")).absoluteFilePath();
    EXPECT_TRUE(recorded.out.contains(QStringLiteral("bridge %1").arg(library))) << recorded.out;
    const ktrace::Trace trace = readTrace(QStringLiteral("vendor.trace"));
    EXPECT_TRUE(trace.complete);
    EXPECT_EQ(QString::fromStdString(trace.meta.at("library")), library);
    EXPECT_TRUE(std::any_of(trace.calls.begin(), trace.calls.end(),
        [](const ktrace::TraceCall& call) { return call.function == "FT_OpenEx" && call.status == 0; }));
}

TEST_F(KoruxRecord, AnyHostGetsTheRecordingBridgeByTheLibraryPath)
{
    // Under the sanitizers, LeakSanitizer's own tracer crashes at exit on the
    // dynamic thread-local storage of a library found through the library
    // path (it reads a stale entry); the child runs with every other check.
    const QString sanitizerOptions
        = qEnvironmentVariable("ASAN_OPTIONS") + QStringLiteral(":detect_leaks=0");
    const KoruxRun recorded
        = run(session({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("list") }),
            { QStringLiteral("ASAN_OPTIONS=") + sanitizerOptions,
                QStringLiteral("LD_LIBRARY_PATH=") + buildDirectory() + QStringLiteral("/lib/record"),
                QStringLiteral("KORUX_RECORD_LIBRARY=") + buildDirectory()
                    + QStringLiteral("/lib/virtual/libft4222.so"),
                QStringLiteral("KORUX_RECORD_FILE=") + path(QStringLiteral("host.trace")) });
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    const ktrace::Trace trace = readTrace(QStringLiteral("host.trace"));
    EXPECT_TRUE(trace.complete);
    EXPECT_GT(trace.calls.size(), 10u);
}

TEST_F(KoruxRecord, TheRecordingBridgeWithoutItsLibrarySaysSo)
{
    const KoruxRun run1
        = run(session({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("list") }),
            { QStringLiteral("LD_LIBRARY_PATH=") + buildDirectory() + QStringLiteral("/lib/record"),
                QStringLiteral("KORUX_RECORD_FILE=") + path(QStringLiteral("host.trace")) });
    EXPECT_NE(run1.exitCode, 0);
    EXPECT_TRUE(run1.err.contains(
        QStringLiteral("korux-record: KORUX_RECORD_LIBRARY does not name the bridge library to record")))
        << run1.err;
}

TEST_F(KoruxRecord, MaskedSerialsLeaveTheSiteAsStandIns)
{
    freshSession();
    const KoruxRun plain = run(session({ QStringLiteral("list") }));
    ASSERT_TRUE(plain.out.contains(QStringLiteral("board 59881DA3846E4A89, port A KX0001A"))) << plain.out;
    freshSession();
    ASSERT_EQ(run(session({ QStringLiteral("--record"), QStringLiteral("masked.trace"),
                      QStringLiteral("--record-mask-serials"), QStringLiteral("list") }))
                  .exitCode,
        0);
    const std::string text = traceText(QStringLiteral("masked.trace"));
    EXPECT_EQ(text.find("KX0001"), std::string::npos);
    EXPECT_EQ(text.find("59881da3846e4a89"), std::string::npos); // the board's, in the bytes read
    EXPECT_NE(text.find("meta masked yes"), std::string::npos);
    EXPECT_NE(text.find("S00001A"), std::string::npos);

    freshSession();
    const KoruxRun replayed = run(session({ QStringLiteral("--scenario"),
        replayScenario(QStringLiteral("masked.trace")), QStringLiteral("list") }));
    EXPECT_EQ(replayed.exitCode, 0) << replayed.err;
    EXPECT_TRUE(replayed.out.contains(QStringLiteral("board 5A5A5A5A5A5A5A01, port A S00001A")))
        << replayed.out;
}

TEST_F(KoruxRecord, ATraceThatCannotBeWrittenStopsBeforeTheCommand)
{
    const KoruxRun result = run(session({ QStringLiteral("--record"),
        QStringLiteral("/nonexistent/korux/x.trace"), QStringLiteral("list") }));
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err.trimmed(),
        QStringLiteral(
            "korux: --record /nonexistent/korux/x.trace: the folder /nonexistent/korux cannot be written"));
    EXPECT_TRUE(result.out.isEmpty()) << result.out;
}

TEST_F(KoruxRecord, TheRecordingBridgeDoesNotRecordItself)
{
    const QString recorder = buildDirectory() + QStringLiteral("/lib/record/libft4222.so");
    const KoruxRun result
        = run(session({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("list") }),
            { QStringLiteral("LD_LIBRARY_PATH=") + buildDirectory() + QStringLiteral("/lib/record"),
                QStringLiteral("KORUX_RECORD_LIBRARY=") + recorder,
                QStringLiteral("KORUX_RECORD_FILE=") + path(QStringLiteral("self.trace")) });
    EXPECT_NE(result.exitCode, 0);
    EXPECT_TRUE(result.err.contains(QStringLiteral("is the recording bridge itself, not the one to record")))
        << result.err;
}

TEST_F(KoruxRecord, ACommandWithoutBridgeCallsSaysThatNothingIsRecorded)
{
    const KoruxRun result
        = run({ QStringLiteral("--record"), QStringLiteral("help.trace"), QStringLiteral("help") });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.err.contains(
        QStringLiteral("korux: --record: help makes no bridge calls; no trace is written")))
        << result.err;
    EXPECT_FALSE(QFile::exists(path(QStringLiteral("help.trace"))));
}

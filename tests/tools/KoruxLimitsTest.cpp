// What korux refuses and how: values out of range, an unreadable
// environment, a transcript that would replace a file, and the leftovers of
// a killed korux, cleared by the next one.
#include <QDir>
#include <QFile>
#include <QProcess>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxLimits : public Korux {
protected:
    // korux with variables added to (or, with an empty value, removed from)
    // its environment.
    KoruxRun koruxWith(const QStringList& arguments, const QMap<QString, QString>& variables)
    {
        QProcess process;
        QProcessEnvironment environment = koruxEnvironment();
        for (auto variable = variables.begin(); variable != variables.end(); ++variable)
            environment.insert(variable.key(), variable.value());
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(directory_.path());
        process.start(koruxPath(), arguments);
        KoruxRun run;
        EXPECT_TRUE(process.waitForFinished(60000));
        run.exitCode = process.exitCode();
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        return run;
    }

    // A file dated seconds ago (ahead, for a negative number).
    QString agedFile(const QString& name, int seconds)
    {
        const QString file = writeFile(name, "partial");
        const time_t then = time(nullptr) - seconds;
        utimbuf times { then, then };
        EXPECT_EQ(utime(QFile::encodeName(file).constData(), &times), 0);
        return file;
    }
};

} // namespace

TEST_F(KoruxLimits, TimeScaleIsANumberFromZeroToAHundred)
{
    for (const char* value : { "nan", "inf", "-inf", "1e9", "101", "-1" }) {
        const KoruxRun run
            = korux({ QStringLiteral("--time-scale"), QString::fromLatin1(value), QStringLiteral("list") });
        EXPECT_EQ(run.exitCode, 2) << value;
        EXPECT_EQ(run.err,
            QStringLiteral(
                "korux: --time-scale takes a number from 0 to 100, not \"%1\"\nkorux: see korux help\n")
                .arg(QString::fromLatin1(value)));
    }
    const KoruxRun hundred
        = koruxOn({ QStringLiteral("--time-scale"), QStringLiteral("100"), QStringLiteral("help") });
    EXPECT_EQ(hundred.exitCode, 0) << hundred.err;
}

// A usage error is one line and where to read on, not the whole help.
TEST_F(KoruxLimits, AUsageErrorIsOneLineAndThePlaceOfTheHelp)
{
    const KoruxRun run = korux({ QStringLiteral("acquire"), QStringLiteral("--bogus") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(
        run.err, QStringLiteral("korux: acquire has no option \"--bogus\"\nkorux: see korux help acquire\n"));
    const KoruxRun unknown = korux({ QStringLiteral("bogus") });
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.err, QStringLiteral("korux: unknown command \"bogus\"\nkorux: see korux help\n"));
}

TEST_F(KoruxLimits, TheShellReadsLinesOfAnyLength)
{
    const QString note(10000, QLatin1Char('x'));
    QProcess process;
    startKorux(process, argumentsOn({ QStringLiteral("shell") }));
    process.write(QStringLiteral("set --string Note %1\n").arg(note).toUtf8());
    process.closeWriteChannel();
    ASSERT_TRUE(process.waitForFinished(60000));
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_EQ(process.exitCode(), 0) << err;
    EXPECT_TRUE(out.contains(QStringLiteral("Note = %1 (QString)\n").arg(note))) << out.left(300);
    EXPECT_TRUE(err.isEmpty()) << err.left(300);
}

TEST_F(KoruxLimits, ATranscriptReplacesNoFileUnlessTold)
{
    const QString kept = writeFile(QStringLiteral("t.jsonl"), "kept\n");
    const KoruxRun refused = koruxOn({ QStringLiteral("--transcript"), kept, QStringLiteral("list") });
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_TRUE(refused.err.contains(
        QStringLiteral("--transcript %1 exists already; --overwrite replaces it").arg(kept)))
        << refused.err;
    QFile file(kept);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("kept\n"));
    file.close();

    // After the command, --overwrite is the command's (its pictures) alone.
    const KoruxRun commands = koruxOn(
        { QStringLiteral("--transcript"), kept, QStringLiteral("acquire"), QStringLiteral("--overwrite") });
    EXPECT_EQ(commands.exitCode, 2) << commands.err;
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("kept\n"));
    file.close();

    const KoruxRun replaced = koruxOn(
        { QStringLiteral("--overwrite"), QStringLiteral("--transcript"), kept, QStringLiteral("list") });
    EXPECT_EQ(replaced.exitCode, 0) << replaced.err;
    EXPECT_FALSE(readTranscript(QStringLiteral("t.jsonl")).isEmpty());
}

TEST_F(KoruxLimits, ATranscriptNeverTakesThePlaceOfTheScenarioOrTheFlashImage)
{
    const QString scenario = QStringLiteral(R"({"sensors": [{"flash": {"image": "flash.bin"}}]})");
    ASSERT_EQ(koruxOn({ QStringLiteral("counter") }, scenario).exitCode, 0);
    const QByteArray flash = [&] {
        QFile file(path(QStringLiteral("flash.bin")));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }();
    for (const QString& target :
        { path(QStringLiteral("scenario.json")), path(QStringLiteral("flash.bin")) }) {
        const KoruxRun run = koruxOn(
            { QStringLiteral("--overwrite"), QStringLiteral("--transcript"), target, QStringLiteral("list") },
            scenario);
        EXPECT_EQ(run.exitCode, 2) << target;
        EXPECT_TRUE(run.err.contains(QStringLiteral("is the virtual machine's"))) << run.err;
    }
    QFile file(path(QStringLiteral("flash.bin")));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), flash);
    // The default machine's files in the state directory as much.
    ASSERT_EQ(koruxOn({ QStringLiteral("list") }).exitCode, 0);
    const KoruxRun state = koruxOn({ QStringLiteral("--overwrite"), QStringLiteral("--transcript"),
        path(QStringLiteral("home/state/korux/default-flash.bin")), QStringLiteral("list") });
    EXPECT_EQ(state.exitCode, 2) << state.err;
}

TEST_F(KoruxLimits, TheEnvironmentIsCheckedAsTheCommandLineIs)
{
    const KoruxRun scenario = koruxWith({ QStringLiteral("list") },
        { { QStringLiteral("KORUX_SCENARIO"), path(QStringLiteral("missing.json")) } });
    EXPECT_EQ(scenario.exitCode, 2);
    EXPECT_TRUE(scenario.err.contains(QStringLiteral("missing.json: cannot be read"))) << scenario.err;
    const KoruxRun timing = koruxWith(
        { QStringLiteral("list") }, { { QStringLiteral("KORUX_TIMING"), QStringLiteral("fast") } });
    EXPECT_EQ(timing.exitCode, 2);
    EXPECT_EQ(timing.err, QStringLiteral("korux: KORUX_TIMING takes instant or realistic, not \"fast\"\n"));
    EXPECT_TRUE(timing.out.isEmpty()) << timing.out;
}

// A flash without files: korux says so in its own lines, Qt says nothing.
TEST_F(KoruxLimits, NoQtMessageReachesStandardError)
{
    const KoruxRun run = koruxOn(
        { QStringLiteral("flash-files") }, QStringLiteral(R"({"sensors": [{"flash": {"erased": true}}]})"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("the flash holds no BTS file at 0xf00000 (no data to be read!)")))
        << run.err;
    EXPECT_FALSE(run.err.contains(QStringLiteral("QString"))) << run.err;
    for (const QString& line : run.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        EXPECT_TRUE(line.startsWith(QStringLiteral("korux: "))) << line;
}

// What a killed korux left: removed by the next one that writes in that
// folder, unless its writer still runs (it holds its lock) or it is new.
TEST_F(KoruxLimits, TheNextKoruxRemovesWhatAKilledOneLeft)
{
    QDir().mkpath(path(QStringLiteral("shots")));
    const QString abandoned = agedFile(QStringLiteral("shots/.59881DA3846E4A89-000001.png.tmp-AbCdEf"), 60);
    const QString held = agedFile(QStringLiteral("shots/.59881DA3846E4A89-000002.png.tmp-GhIjKl"), 60);
    // Dated ahead: a file a writer made a moment ago is never taken.
    const QString fresh = agedFile(QStringLiteral("shots/.59881DA3846E4A89-000003.png.tmp-MnOpQr"), -60);
    const int fd = ::open(QFile::encodeName(held).constData(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    const KoruxRun run
        = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") });
    close(fd);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_FALSE(QFile::exists(abandoned));
    EXPECT_TRUE(QFile::exists(held));
    EXPECT_TRUE(QFile::exists(fresh));
}

// In a script --overwrite is a command's option; before the command it would
// be korux's own, which belongs on korux's command line.
TEST_F(KoruxLimits, AScriptLineTakesOverwriteOnlyAsTheCommandsOption)
{
    const KoruxRun run
        = koruxOn({ QStringLiteral("run"), writeFile(QStringLiteral("s.korux"), "--overwrite acquire\n") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("only --serial may be given in a script"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("statusArming"))) << run.out;
}

// Writes that cannot be undone: the shot counter set (it never goes down
// again) and the flash format go to one named sensor, and only when a
// person or --yes confirms them.
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

const QString kImageScenario = QStringLiteral(R"({"sensors": [{"flash": {"image": "flash.bin"}}]})");
const QString kTwoSensors = QStringLiteral(R"({"sensors": [{}, {}]})");

class KoruxIntent : public Korux {
protected:
    // korux on a terminal (script(1) gives it one), answering answer.
    KoruxRun onTerminal(const QStringList& arguments, const QByteArray& answer)
    {
        QStringList quoted;
        for (const QString& word : QStringList { koruxPath() } + arguments)
            quoted << QStringLiteral("'%1'").arg(word);
        QProcess process;
        process.setWorkingDirectory(directory_.path());
        process.setProcessEnvironment(koruxEnvironment());
        process.start(QStringLiteral("script"),
            { QStringLiteral("-qec"), quoted.join(' '), QStringLiteral("/dev/null") });
        process.write(answer);
        process.closeWriteChannel();
        KoruxRun run;
        EXPECT_TRUE(process.waitForFinished(60000));
        run.exitCode = process.exitCode();
        // The terminal carries both streams.
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        return run;
    }

    uint counter()
    {
        const KoruxRun run = koruxOn({ QStringLiteral("counter") }, kImageScenario);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        return counterValues(run.out).value(0);
    }
};

} // namespace

TEST_F(KoruxIntent, WithSeveralSensorsASerialIsNeeded)
{
    for (const QStringList& command : { QStringList { QStringLiteral("counter"), QStringLiteral("--set"),
                                            QStringLiteral("0x10000"), QStringLiteral("--yes") },
             QStringList { QStringLiteral("format-flash"), QStringLiteral("--yes") } }) {
        const KoruxRun run = koruxOn(command, kTwoSensors);
        EXPECT_EQ(run.exitCode, 2) << command.join(' ');
        EXPECT_TRUE(run.err.contains(QStringLiteral("would write to all 2 sensors; name one with --serial")))
            << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("ShootCounter"))) << run.out;
    }
}

TEST_F(KoruxIntent, WithoutATerminalOnlyYesConfirms)
{
    const KoruxRun refused = koruxOn(
        { QStringLiteral("counter"), QStringLiteral("--set"), QStringLiteral("5000") }, kImageScenario);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_TRUE(refused.err.contains(QStringLiteral("counter --set cannot be undone; confirm it with --yes")))
        << refused.err;
    EXPECT_EQ(counter(), 1234u);

    const KoruxRun format = koruxOn({ QStringLiteral("format-flash") }, kImageScenario);
    EXPECT_EQ(format.exitCode, 2);
    EXPECT_TRUE(format.err.contains(QStringLiteral("format-flash cannot be undone; confirm it with --yes")))
        << format.err;

    const KoruxRun confirmed = koruxOn({ QStringLiteral("counter"), QStringLiteral("--set"),
                                           QStringLiteral("5000"), QStringLiteral("--yes") },
        kImageScenario);
    EXPECT_EQ(confirmed.exitCode, 0) << confirmed.err;
    EXPECT_EQ(counter(), 5000u);
}

TEST_F(KoruxIntent, OnATerminalThePersonIsAsked)
{
    const QStringList command = argumentsOn(
        { QStringLiteral("counter"), QStringLiteral("--set"), QStringLiteral("5000") }, kImageScenario);
    const KoruxRun no = onTerminal(command, "n\n");
    EXPECT_EQ(no.exitCode, 1);
    EXPECT_TRUE(
        no.out.contains(QStringLiteral("Set the shot counter to 5000 (it can never be set lower again) on "
                                       "unit 0 (59881DA3846E4A89)? This cannot be undone. [y/N]")))
        << no.out;
    EXPECT_TRUE(no.out.contains(QStringLiteral("korux: not confirmed; nothing written"))) << no.out;
    EXPECT_EQ(counter(), 1234u);

    const KoruxRun yes = onTerminal(command, "y\n");
    EXPECT_EQ(yes.exitCode, 0) << yes.out;
    EXPECT_EQ(counter(), 5000u);
}

namespace {

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path;
    return file.readAll();
}

} // namespace

// A value at or below the counter would be ANDed into the next slot and
// leave the counter stuck: it is refused before anything reaches the flash.
TEST_F(KoruxIntent, ACounterAtOrBelowTheCountIsRefusedBeforeAnyWrite)
{
    ASSERT_EQ(counter(), 1234u);
    const QByteArray before = fileBytes(path(QStringLiteral("flash.bin")));
    for (const QString& value : { QStringLiteral("1000"), QStringLiteral("1234"), QStringLiteral("0") }) {
        const KoruxRun run
            = koruxOn({ QStringLiteral("counter"), QStringLiteral("--set"), value, QStringLiteral("--yes") },
                kImageScenario);
        EXPECT_EQ(run.exitCode, 2) << value;
        EXPECT_TRUE(
            run.err.contains(QStringLiteral("the counter reads 1234; it can only be set above that, not "
                                            "to %1; nothing written")
                                 .arg(value)))
            << run.err;
        EXPECT_EQ(fileBytes(path(QStringLiteral("flash.bin"))), before) << value;
    }
    const KoruxRun increase
        = koruxOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario);
    EXPECT_EQ(increase.exitCode, 0) << increase.err;
    EXPECT_EQ(counterValues(increase.out), QVector<uint> { 1235 }) << increase.out;
}

// A counter step that does not add one (here a next slot already holding
// stray bits) is said, not passed over.
TEST_F(KoruxIntent, AnIncreaseThatDoesNotAddOneFails)
{
    ASSERT_EQ(counter(), 1234u);
    {
        QFile flash(path(QStringLiteral("flash.bin")));
        ASSERT_TRUE(flash.open(QIODevice::ReadWrite));
        ASSERT_TRUE(flash.seek(0xFA0004));
        ASSERT_EQ(flash.write(QByteArray::fromHex("000000c0")), 4);
    }
    const KoruxRun run = koruxOn({ QStringLiteral("counter"), QStringLiteral("--increase") }, kImageScenario);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("the counter went from 1234 to 1234, not to 1235")))
        << run.err;
}

// goto with a command that writes the flash keeps the rules of the command
// named for it.
TEST_F(KoruxIntent, GotoOfAFlashWriteNeedsTheSameConfirmation)
{
    for (const QString& command :
        { QStringLiteral("1009"), QStringLiteral("2000"), QStringLiteral("commandFormatFlash") }) {
        const KoruxRun several
            = koruxOn({ QStringLiteral("goto"), command, QStringLiteral("--yes") }, kTwoSensors);
        EXPECT_EQ(several.exitCode, 2) << command;
        EXPECT_TRUE(
            several.err.contains(QStringLiteral("would write to all 2 sensors; name one with --serial")))
            << several.err;
    }
    ASSERT_EQ(counter(), 1234u);
    const QByteArray before = fileBytes(path(QStringLiteral("flash.bin")));
    for (const QString& command : { QStringLiteral("1009"), QStringLiteral("2000") }) {
        const KoruxRun unconfirmed = koruxOn({ QStringLiteral("goto"), command }, kImageScenario);
        EXPECT_EQ(unconfirmed.exitCode, 2) << command;
        EXPECT_TRUE(unconfirmed.err.contains(QStringLiteral("cannot be undone; confirm it with --yes")))
            << unconfirmed.err;
        EXPECT_EQ(fileBytes(path(QStringLiteral("flash.bin"))), before) << command;
    }
    const KoruxRun confirmed = koruxOn(
        { QStringLiteral("goto"), QStringLiteral("1009"), QStringLiteral("--yes") }, kImageScenario);
    EXPECT_EQ(confirmed.exitCode, 0) << confirmed.err;
    EXPECT_EQ(counter(), 1235u);
}

// goto 1003 to 1006 copies into the family directory: it must be one that
// can be written, as for flash-files.
TEST_F(KoruxIntent, GotoOfAFlashCopyChecksTheFamilyDirectory)
{
    const QString file = writeFile(QStringLiteral("plain-file"), "x");
    for (const QString& command : { QStringLiteral("1003"), QStringLiteral("1006") }) {
        const KoruxRun run = korux({ QStringLiteral("--dir"), file, QStringLiteral("--time-scale"),
            QStringLiteral("0"), QStringLiteral("goto"), command });
        EXPECT_EQ(run.exitCode, 2) << command;
        EXPECT_TRUE(run.err.contains(QStringLiteral("the family directory (--dir)"))) << run.err;
    }
}

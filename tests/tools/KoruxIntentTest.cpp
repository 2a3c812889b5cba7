// Writes that cannot be undone: the shot counter set (it never goes down
// again) and the flash format go to one named sensor, and only when a
// person or --yes confirms them.
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

// Bad input gets one clear line and exit status 2 before anything happens:
// time-outs, scenarios, flash addresses, command values, parameter ranges,
// script quoting, and the commands that mean nothing on their own.
#include <QProcess>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxValidation : public Korux {
protected:
    KoruxRun script(const QByteArray& text)
    {
        return koruxOn({ QStringLiteral("run"), writeFile(QStringLiteral("script.korux"), text) });
    }

    // korux with text on its standard input.
    KoruxRun withInput(const QStringList& arguments, const QByteArray& text)
    {
        QProcess process;
        startKorux(process, argumentsOn(arguments));
        process.write(text);
        process.closeWriteChannel();
        KoruxRun run;
        EXPECT_TRUE(process.waitForFinished(60000));
        run.exitCode = process.exitCode();
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        return run;
    }
};

} // namespace

TEST_F(KoruxValidation, TimeoutsOutsideOneSecondToADayAreRefused)
{
    for (const char* timeout : { "nan", "inf", "-inf", "-1", "0", "0.5", "86401", "1e9", "soon" }) {
        const KoruxRun run = koruxOn(
            { QStringLiteral("acquire"), QStringLiteral("--timeout"), QString::fromLatin1(timeout) });
        EXPECT_EQ(run.exitCode, 2) << timeout;
        EXPECT_TRUE(run.err.contains(
            QStringLiteral("korux: acquire --timeout takes a number of seconds from 1 to 86400, not \"%1\"")
                .arg(QString::fromLatin1(timeout))))
            << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("status"))) << run.out;
    }
}

TEST_F(KoruxValidation, ScenariosOfMoreThanOneMebibyteAreRefused)
{
    QByteArray big(1024 * 1024 + 1, ' ');
    big[0] = '{';
    big[big.size() - 1] = '}';
    const QString file = writeFile(QStringLiteral("big.json"), big);
    for (const QString& scenario : { file, QStringLiteral("/dev/zero") }) {
        const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("list") });
        EXPECT_EQ(run.exitCode, 2) << scenario;
        EXPECT_TRUE(run.err.contains(QStringLiteral("scenario %1: larger than 1 MiB").arg(scenario)))
            << run.err;
    }
}

TEST_F(KoruxValidation, MoreThanSixteenSensorsAreRefused)
{
    QStringList sensors;
    for (int i = 0; i < 17; ++i)
        sensors << QStringLiteral("{}");
    const KoruxRun run
        = koruxOn({ QStringLiteral("list") }, QStringLiteral(R"({"sensors": [%1]})").arg(sensors.join(',')));
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(
        QStringLiteral("\"sensors\" lists 17 sensors; at most 16 are allowed (the plug-in uses four)")))
        << run.err;
}

TEST_F(KoruxValidation, FlashPagesBeyondTheFlashAreRefused)
{
    for (const char* address : { "16777216", "0xFFFF01", "-1" }) {
        const KoruxRun run = koruxOn({ QStringLiteral("flash-page"), QString::fromLatin1(address) });
        EXPECT_EQ(run.exitCode, 2) << address;
        EXPECT_TRUE(run.err.contains(QStringLiteral("flash-page takes an address from 0 to 0xFFFF00")))
            << run.err;
    }
    const KoruxRun last = koruxOn({ QStringLiteral("flash-page"), QStringLiteral("0xFFFF00") });
    EXPECT_EQ(last.exitCode, 0) << last.err;
    EXPECT_TRUE(last.out.contains(QStringLiteral("\"address\": 16776960"))) << last.out;
}

TEST_F(KoruxValidation, GotoOfAnUnknownValueIsRefused)
{
    const KoruxRun run = koruxOn({ QStringLiteral("goto"), QStringLiteral("99999") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: \"99999\" is no hardwareStatus the framework knows")))
        << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("status"))) << run.out;
}

TEST_F(KoruxValidation, KnownParametersAreCheckedAgainstWhatThePlugInReads)
{
    for (const char* line : { "set PhdTreshold -999999\n", "set PhdTreshold 4096\n", "set ACECoeff 10\n",
             "set ACEValue 0\n", "set ACEValueInside 2000000\n", "set FlashAddress 0x1000000\n" }) {
        const KoruxRun run = script(line);
        EXPECT_EQ(run.exitCode, 2) << line;
        EXPECT_TRUE(run.err.contains(QStringLiteral("set --force sends it anyway"))) << run.err;
    }
    const KoruxRun forced = script("set --force PhdTreshold -999999\nreport\n");
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_TRUE(forced.out.contains(QStringLiteral("\"PhdTreshold\": -999999"))) << forced.out;
    const KoruxRun edge = script("set PhdTreshold 4095\nset ACECoeff 9\nset ACEValue 1864135\n");
    EXPECT_EQ(edge.exitCode, 0) << edge.err;
}

TEST_F(KoruxValidation, ScriptLinesAreSplitAsAShellSplitsThem)
{
    const KoruxRun run = script(R"(set --string A 'it''s'
set --string B a\ b
set --string C "say \"hi\" \\ \n"
set --string D 'a#b'  # a comment
set --string E ""
report
)");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"A\": \"its\""))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"B\": \"a b\""))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral(R"("C": "say \"hi\" \\ \\n")"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"D\": \"a#b\""))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"E\": \"\""))) << run.out;
}

TEST_F(KoruxValidation, AnUnterminatedQuoteIsNamedWithFileAndLine)
{
    const KoruxRun run = script("report\nset --string X 'open\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("script.korux:2: the quote ' opened at column 16 is not closed")))
        << run.err;
    // Nothing ran: the first line waits for the whole script to be checked.
    EXPECT_FALSE(run.out.contains(QStringLiteral("korux> report"))) << run.out;
}

TEST_F(KoruxValidation, CommandsThatNeedALastingFamilySayWhereToUseThem)
{
    for (const QStringList& command : { QStringList { QStringLiteral("arm") },
             QStringList { QStringLiteral("stop") }, QStringList { QStringLiteral("abort") },
             QStringList { QStringLiteral("set"), QStringLiteral("ACEValue"), QStringLiteral("1000") } }) {
        const KoruxRun run = koruxOn(command);
        EXPECT_EQ(run.exitCode, 2) << command.join(' ');
        EXPECT_TRUE(run.err.contains(
            QStringLiteral("korux: %1 takes effect only in a family that lives on: use it in "
                           "a script (korux run) or in korux shell")
                .arg(command.first())))
            << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("status"))) << run.out;
    }
}

TEST_F(KoruxValidation, RunReadsTheScriptFromStandardInput)
{
    const KoruxRun run
        = withInput({ QStringLiteral("run"), QStringLiteral("-") }, "set ACECoeff 9\nreport\n");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"ACECoeff\": 9"))) << run.out;
}

TEST_F(KoruxValidation, TheShellKeepsOneFamilyAcrossLinesAndGoesOnAfterAnError)
{
    const KoruxRun run
        = withInput({ QStringLiteral("shell") }, "set ACECoeff 9\nset ACECoeff 99\nbogus\nreport\nexit\n");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: unknown command \"bogus\""))) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: ACECoeff takes 1 to 9"))) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"ACECoeff\": 9"))) << run.out;
}

TEST_F(KoruxValidation, AValueOutOfRangeOnTheLastLineStopsTheScriptBeforeItsFirst)
{
    for (const char* last : { "acquire --timeout nan\n", "flash-page 0x1000000\n", "goto 99999\n",
             "set ACECoeff 10\n", "counter --set -1 --yes\n" }) {
        const KoruxRun run = script(QByteArray("report\n") + last);
        EXPECT_EQ(run.exitCode, 2) << last;
        EXPECT_TRUE(run.err.contains(QStringLiteral("script.korux:2: "))) << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("korux> report"))) << run.out;
    }
}

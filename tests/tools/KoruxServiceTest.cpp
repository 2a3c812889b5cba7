// korux's service commands and single-command cycle steps on the virtual
// bridge: reports, the unit chosen by --serial, typed parameters, exit
// statuses.
#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxService : public Korux {
protected:
    KoruxRun service(const QStringList& arguments, const QString& scenario = QString())
    {
        return koruxOn(arguments, scenario);
    }

    KoruxRun script(const QByteArray& text, const QString& scenario = QString())
    {
        return service({ QStringLiteral("run"), writeFile(QStringLiteral("script.korux"), text) }, scenario);
    }
};

QStringList boardSerials(const QString& out)
{
    QStringList serials;
    static const QRegularExpression member(QStringLiteral("\"serialNumber\": \"([0-9A-F]{16})\""));
    auto matches = member.globalMatch(out);
    while (matches.hasNext()) {
        const QString serial = matches.next().captured(1);
        if (!serials.contains(serial))
            serials << serial;
    }
    return serials;
}

} // namespace

TEST_F(KoruxService, VoltagesReportEveryUnit)
{
    const KoruxRun run = service({ QStringLiteral("voltages") }, QStringLiteral(R"({"sensors": [{}, {}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_EQ(run.out.count(QRegularExpression(QStringLiteral("\"KORUX-KORUX2 Series [0-9A-F]*\""))), 2)
        << run.out;
}

TEST_F(KoruxService, SerialOptionChoosesOneUnit)
{
    const QString twoSensors = QStringLiteral(R"({"sensors": [{}, {}]})");
    const QStringList serials = boardSerials(service({ QStringLiteral("serial") }, twoSensors).out);
    ASSERT_EQ(serials.size(), 2);
    const KoruxRun run = service({ QStringLiteral("--serial"), serials.at(1), QStringLiteral("voltages") }, twoSensors);
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"KORUX-KORUX2 Series %1\"").arg(serials.at(1)))) << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("\"KORUX-KORUX2 Series %1\"").arg(serials.at(0)))) << run.out;
}

// Serials are hexadecimal: the case they are typed in does not matter.
TEST_F(KoruxService, SerialInAnotherCaseMatchesItsUnit)
{
    const QStringList serials = boardSerials(service({ QStringLiteral("serial") }).out);
    ASSERT_EQ(serials.size(), 1);
    const KoruxRun run = service({ QStringLiteral("--serial"), serials.first().toLower(), QStringLiteral("params") });
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"KORUX-KORUX2 Series %1\"").arg(serials.first())))
        << run.out;
}

TEST_F(KoruxService, SerialDoesNotApplyToFamilyCommands)
{
    const KoruxRun run = service({ QStringLiteral("--serial"), QStringLiteral("X"), QStringLiteral("enumerate") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("enumerate acts on the whole family"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("status"))) << run.out;
}

TEST_F(KoruxService, CounterIncreaseAddsOne)
{
    const KoruxRun run = script("counter\ncounter --increase\n");
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QVector<uint> values = counterValues(run.out);
    ASSERT_GE(values.size(), 2) << run.out;
    EXPECT_EQ(values.first(), 1234u);
    EXPECT_EQ(values.last(), 1235u);
}

TEST_F(KoruxService, CounterIsSetUpwardsOnly)
{
    const KoruxRun up = service({ QStringLiteral("counter"), QStringLiteral("--set"), QStringLiteral("5000"),
        QStringLiteral("--yes") });
    EXPECT_EQ(up.exitCode, 0) << up.out << up.err;
    EXPECT_EQ(counterValues(up.out).value(counterValues(up.out).size() - 1), 5000u) << up.out;

    const KoruxRun down = service({ QStringLiteral("counter"), QStringLiteral("--set"), QStringLiteral("77"),
        QStringLiteral("--yes") });
    EXPECT_EQ(down.exitCode, 2);
    EXPECT_TRUE(
        down.err.contains(QStringLiteral("it can only be set above that, not to 77; nothing written")))
        << down.err;
}

TEST_F(KoruxService, CounterIncreaseAndSetTogetherIsAUsageError)
{
    const KoruxRun run = service(
        { QStringLiteral("counter"), QStringLiteral("--increase"), QStringLiteral("--set"), QStringLiteral("9") });
    EXPECT_EQ(run.exitCode, 2);
}

TEST_F(KoruxService, FlashFilesLandInTheFamilyDirectory)
{
    const KoruxRun run = service({ QStringLiteral("flash-files"), QStringLiteral("--all") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("files in %1").arg(QDir(familyDirectory()).absolutePath())))
        << run.out;
    QStringList suffixes;
    for (const QFileInfo& file : QDir(familyDirectory()).entryInfoList(QDir::Files))
        suffixes << file.suffix();
    suffixes.sort();
    EXPECT_EQ(suffixes, (QStringList { "ASS", "BLK", "BTS", "DPL", "FFC", "PRD" }));
}

TEST_F(KoruxService, FlashPageReportsTheAddressAsked)
{
    const KoruxRun run = service({ QStringLiteral("flash-page"), QStringLiteral("0x1000") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"address\": 4096"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"flashPage\": \""))) << run.out;

    const KoruxRun bad = service({ QStringLiteral("flash-page"), QStringLiteral("page") });
    EXPECT_EQ(bad.exitCode, 2);
}

TEST_F(KoruxService, FormatFlashFailureIsReported)
{
    // The chip erase is sent only when write enable fails: on a working
    // sensor the plug-in reports that it could not format.
    const KoruxRun run = service({ QStringLiteral("format-flash"), QStringLiteral("--yes") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: format-flash failed: unit 0 (59881DA3846E4A89): ")))
        << run.err;
}

TEST_F(KoruxService, SetIsTypedAsTheDefaults)
{
    const KoruxRun run = script("set Oscilloscope true\nset ACEValue 0x10\nset --string X 12\nset Y 3\nreport\n");
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"Oscilloscope\": true"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"ACEValue\": 16"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"X\": \"12\""))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"Y\": 3"))) << run.out;
}

TEST_F(KoruxService, SetRefusesAValueOfAnotherType)
{
    const KoruxRun run = script("set PhdTreshold high\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("PhdTreshold is a int"))) << run.err;
}

TEST_F(KoruxService, NoSensorHasItsOwnExitStatus)
{
    const KoruxRun run = service({ QStringLiteral("voltages") }, QStringLiteral(R"({"sensors": []})"));
    EXPECT_EQ(run.exitCode, 3);
    EXPECT_TRUE(run.err.contains(QStringLiteral("korux: no sensor found"))) << run.err;
}

TEST_F(KoruxService, ArmingRightAfterTheEnumerationIsRefused)
{
    const KoruxRun run = script("arm\n");
    EXPECT_EQ(run.exitCode, 5);
    EXPECT_TRUE(run.out.endsWith(QStringLiteral("status statusSensorFound (4)\nrejected\n"))) << run.out;
    EXPECT_TRUE(run.err.contains(QStringLiteral("refused the command in statusSensorFound (4)"))) << run.err;
}

TEST_F(KoruxService, GotoTakesANumberOrAName)
{
    const KoruxRun byName = service({ QStringLiteral("goto"), QStringLiteral("NoOpBegin") });
    EXPECT_EQ(byName.exitCode, 0) << byName.err;
    EXPECT_TRUE(byName.out.endsWith(QStringLiteral("status statusNoOpBegin (13)\nstatus statusNoOpEnd (14)\n")))
        << byName.out;
    const KoruxRun byNumber = service({ QStringLiteral("goto"), QStringLiteral("1010") });
    EXPECT_EQ(byNumber.exitCode, 0) << byNumber.err;
    EXPECT_TRUE(byNumber.out.contains(QStringLiteral("\"PhdTreshold\": 440"))) << byNumber.out;
    const KoruxRun unknown = service({ QStringLiteral("goto"), QStringLiteral("Dancing") });
    EXPECT_EQ(unknown.exitCode, 2);
}

TEST_F(KoruxService, ArmThenStopEndsStoppedAndAcquireGoesOnFromThere)
{
    const KoruxRun run = script("fpga-update\narm\nstop\nacquire --out s\n");
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(inOrder(run.out, { "status statusStopping (18)\n", "status statusStopped (19)\n" }))
        << run.out;
    // An acquisition after the stop: the family is brought back to arming.
    EXPECT_TRUE(inOrder(run.out,
        { "status statusStopped (19)\n", "status statusArmed (21)\n", "status statusAcquired (27)\n" }))
        << run.out;
}

TEST_F(KoruxService, ArmThenAbortEndsAborted)
{
    const KoruxRun run = script("fpga-update\narm\nabort\n");
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(inOrder(run.out, { "status statusStopping (18)\n", "status statusAborted (6)\n" }))
        << run.out;
}

// A flash image file named by the scenario keeps the sensor's flash from one
// korux run to the next, as a real sensor's flash does.
TEST_F(KoruxService, CounterIncreasedByOneRunIsSeenByTheNext)
{
    const QString scenario = QStringLiteral(R"({"sensors": [{"flash": {"image": "kx0001-flash.bin"}}]})");
    const KoruxRun first = service({ QStringLiteral("counter"), QStringLiteral("--increase") }, scenario);
    ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
    EXPECT_EQ(counterValues(first.out).value(counterValues(first.out).size() - 1), 1235u) << first.out;
    EXPECT_TRUE(QFile::exists(path(QStringLiteral("kx0001-flash.bin"))));

    const KoruxRun second = service({ QStringLiteral("counter") }, scenario);
    ASSERT_EQ(second.exitCode, 0) << second.out << second.err;
    EXPECT_EQ(counterValues(second.out).value(0), 1235u) << second.out;
}

TEST_F(KoruxService, CounterOfOneUnitIsSetByItsSerial)
{
    const QString twoSensors = QStringLiteral(R"({"sensors": [{}, {}]})");
    const QStringList serials = boardSerials(service({ QStringLiteral("serial") }, twoSensors).out);
    ASSERT_EQ(serials.size(), 2);
    const KoruxRun run
        = service({ QStringLiteral("--serial"), serials.at(1), QStringLiteral("counter"),
                      QStringLiteral("--set"), QStringLiteral("0x1000"), QStringLiteral("--yes") },
            twoSensors);
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QVector<uint> values = counterValues(run.out);
    ASSERT_FALSE(values.isEmpty());
    EXPECT_EQ(values.last(), 4096u);
    // The other unit's counter is not touched, nor read.
    EXPECT_FALSE(run.out.contains(QStringLiteral("\"KORUX-KORUX2 Series %1\"").arg(serials.at(0)))) << run.out;
}

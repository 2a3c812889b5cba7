// What korux prints: by default the steps and results a person needs, with
// -q only results and errors, with -v everything; every failure ends in one
// line on stderr that names the plug-in's own cause; every report is headed
// by the unit that sent it.
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, ByDefaultAnAcquisitionPrintsItsStepsNotThePlugInsLog)
{
    const KoruxRun run
        = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--out"), QStringLiteral("shots") });
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.count(QStringLiteral("waiting for the exposure (60 s)\n")), 1) << run.out;
    EXPECT_TRUE(inOrder(run.out,
        { "status statusArmed (21)\n", "waiting for the exposure (60 s)\n",
            "image unit 0 (59881DA3846E4A89) 1000x1506\n", "wrote shots/" }))
        << run.out;
    for (const char* noise :
        { "Armed\n[", "GetDeviceInfoDetail", "KORUX3 solo detected", "ShootCounter", "[" })
        EXPECT_FALSE(run.out.contains(QString::fromLatin1(noise))) << noise << "\n" << run.out;
    EXPECT_LE(run.out.count('\n'), 16) << run.out;
    EXPECT_TRUE(run.err.isEmpty()) << run.err;
}

TEST_F(Korux, QuietPrintsOnlyResults)
{
    const KoruxRun counter = koruxOn({ QStringLiteral("-q"), QStringLiteral("counter") });
    ASSERT_EQ(counter.exitCode, 0) << counter.err;
    EXPECT_TRUE(counter.out.startsWith(QStringLiteral("unit 0 (59881DA3846E4A89):\n["))) << counter.out;
    EXPECT_FALSE(counter.out.contains(QStringLiteral("status"))) << counter.out;
    EXPECT_EQ(counterValues(counter.out), QVector<uint> { 1234 }) << counter.out;

    const KoruxRun acquire = koruxOn({ QStringLiteral("-q"), QStringLiteral("acquire"),
        QStringLiteral("--out"), QStringLiteral("shots") });
    ASSERT_EQ(acquire.exitCode, 0) << acquire.err;
    EXPECT_EQ(acquire.out,
        QStringLiteral("wrote shots/59881DA3846E4A89-001235.png\nwrote shots/59881DA3846E4A89-001235.txt\n"
                       "wrote shots/59881DA3846E4A89-001235-preview.png\n"
                       "wrote shots/59881DA3846E4A89-001235-oscilloscope.png\n"));
}

TEST_F(Korux, EveryReportIsHeadedByItsUnitAndBoardSerial)
{
    const KoruxRun run = koruxOn({ QStringLiteral("voltages") }, QStringLiteral(R"({"sensors": [{}, {}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    static const QRegularExpression heading(
        QStringLiteral("^unit ([01]) \\(([0-9A-F]{16})\\):\\n\\[\\n"), QRegularExpression::MultilineOption);
    QStringList units;
    auto matches = heading.globalMatch(run.out);
    while (matches.hasNext())
        units << matches.next().captured(1);
    EXPECT_EQ(units, (QStringList { "0", "1" })) << run.out;
}

TEST_F(Korux, ASensorThatNeverArmsSaysWhyOnStandardError)
{
    // The status word stays "ready": the armed flag never comes.
    const KoruxRun run = koruxOn(
        { QStringLiteral("acquire") }, QStringLiteral(R"({"sensors": [{"status": {"flags": 64}}]})"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err,
        QStringLiteral(
            "korux: acquire failed: the family ended in statusError (7): unit 0 (59881DA3846E4A89): "
            "Unable to arm sensor; -v shows the plug-in's log\n"));
}

TEST_F(Korux, AFailureNamesThePlugInsOwnLine)
{
    const KoruxRun run = koruxOn({ QStringLiteral("format-flash"), QStringLiteral("--yes") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err,
        QStringLiteral(
            "korux: format-flash failed: unit 0 (59881DA3846E4A89): Unable to formatFlash; -v shows "
            "the plug-in's log\n"));
}

TEST_F(Korux, OnlyTheCommandsOwnReportsArePrinted)
{
    // Finding the unit by its serial reads every serial on the way.
    const KoruxRun run = koruxOn({ QStringLiteral("--serial"), QStringLiteral("59881DA3846E4A89"),
        QStringLiteral("counter"), QStringLiteral("--increase") });
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.count(QStringLiteral("unit 0 (59881DA3846E4A89):\n")), 1) << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("serialNumber"))) << run.out;
    EXPECT_EQ(counterValues(run.out), QVector<uint> { 1235 }) << run.out;
}

TEST_F(Korux, ListTellsEachSensorsPortALocationSizeKindAndFpga)
{
    const KoruxRun run = koruxOn({ QStringLiteral("list") },
        QStringLiteral(R"({"sensors": [{"serial": "KX0001", "location": 4113},
            {"serial": "KX0002", "location": 8241, "inside": true, "size": 2},
            {"serial": "KX0003", "location": 12337, "fpga": {"configured": false}}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QRegularExpression(QStringLiteral(
        "^unit 0: board [0-9A-F]{16}, port A KX0001A, location 0x1011, size S1, stand-alone, FPGA configured, "),
        QRegularExpression::MultilineOption)))
        << run.out;
    EXPECT_TRUE(run.out.contains(QRegularExpression(QStringLiteral(
        "^unit 1: board [0-9A-F]{16}, port A KX0002A, location 0x2031, size S2, Inside, FPGA configured, "),
        QRegularExpression::MultilineOption)))
        << run.out;
    // An FPGA that waits for its design cannot tell the size.
    EXPECT_TRUE(run.out.contains(QRegularExpression(QStringLiteral(
        "^unit 2: board [0-9A-F]{16}, port A KX0003A, location 0x3031, size -, stand-alone, FPGA not configured, "),
        QRegularExpression::MultilineOption)))
        << run.out;
}

TEST_F(Korux, ListAsJsonGivesEachSensorsFields)
{
    const KoruxRun run = koruxOn({ QStringLiteral("--json"), QStringLiteral("list") },
        QStringLiteral(R"({"sensors": [{"serial": "KX0002", "location": 8241, "inside": true, "size": 2}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const QStringList lines = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << run.out;
    const QJsonObject unit = QJsonDocument::fromJson(lines.first().toUtf8()).object();
    EXPECT_EQ(unit.value(QStringLiteral("unit")).toInt(-1), 0);
    EXPECT_EQ(unit.value(QStringLiteral("portASerial")).toString(), QStringLiteral("KX0002A"));
    EXPECT_EQ(unit.value(QStringLiteral("location")).toInt(), 8241);
    EXPECT_EQ(unit.value(QStringLiteral("size")).toInt(), 2);
    EXPECT_EQ(unit.value(QStringLiteral("inside")), QJsonValue(true));
    EXPECT_EQ(unit.value(QStringLiteral("fpgaConfigured")), QJsonValue(true));
    EXPECT_EQ(unit.value(QStringLiteral("boardSerial")).toString().size(), 16);
}

TEST_F(Korux, ListNamesEachUnitsBoardSerial)
{
    const KoruxRun run = koruxOn({ QStringLiteral("list") }, QStringLiteral(R"({"sensors": [{}, {}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QRegularExpression(
        QStringLiteral("^unit 0: board [0-9A-F]{16}, "), QRegularExpression::MultilineOption)))
        << run.out;
    EXPECT_TRUE(run.out.contains(QRegularExpression(
        QStringLiteral("^unit 1: board [0-9A-F]{16}, "), QRegularExpression::MultilineOption)))
        << run.out;
}

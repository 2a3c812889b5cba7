// korux on the Linux driver's rules: the plug-in registers the series' USB ids
// itself, so a fresh process finds the sensor; without that registration the
// driver would list nothing.
#include "KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, ListOnTheLinuxDriverGoesThroughTheRegistration)
{
    const KoruxRun run = koruxOn({ QStringLiteral("list") }, QStringLiteral(R"({"driver": "linux", "sensors": [{}]})"));
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral(": 1 unit,"))) << run.out;
}

TEST_F(Korux, ListFindsNothingWhenTheRegistrationFails)
{
    const KoruxRun run = koruxOn({ QStringLiteral("list") },
        QStringLiteral(R"({"driver": "linux", "sensors": [{}], "faults": [{"call": "FT_SetVIDPID"}]})"));
    EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
}

TEST_F(Korux, ListFindsTheSensorWhoseTextsComeAsQuestionMarks)
{
    const KoruxRun run = koruxOn({ QStringLiteral("list") },
        QStringLiteral(R"({"driver": "linux", "nonAsciiAsQuestionMark": true, "sensors": [{}]})"));
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral(": 1 unit,"))) << run.out;
}

// Each command's default output ends with what came of it, not only with
// the statuses the family passed.
#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, FpgaUpdateSaysWhatItDid)
{
    const KoruxRun configured = koruxOn({ QStringLiteral("fpga-update") });
    EXPECT_EQ(configured.exitCode, 0) << configured.err;
    EXPECT_TRUE(configured.out.endsWith(QStringLiteral(
        "status statusFpgaUpdated (12)\nunit 0 (59881DA3846E4A89): FPGA already configured, nothing sent\n")))
        << configured.out;

    const KoruxRun blank = koruxOn({ QStringLiteral("fpga-update") },
        QStringLiteral(R"({"sensors": [{"fpga": {"configured": false}}]})"));
    EXPECT_EQ(blank.exitCode, 0) << blank.err;
    EXPECT_TRUE(blank.out.endsWith(
        QStringLiteral("unit 0 (59881DA3846E4A89): FPGA configured from the flash copy\n")))
        << blank.out;
}

TEST_F(Korux, CycleCommandsEndWithTheirResult)
{
    const KoruxRun enumerate = koruxOn({ QStringLiteral("enumerate") });
    EXPECT_EQ(enumerate.exitCode, 0) << enumerate.err;
    EXPECT_TRUE(
        enumerate.out.endsWith(QStringLiteral("enumerated: 1 unit, family in statusSensorFound (4)\n")))
        << enumerate.out;
    const KoruxRun script = koruxOn({ QStringLiteral("run"),
        writeFile(QStringLiteral("s.korux"), "fpga-update\narm\nstop\narm\nabort\nnoop\n") });
    EXPECT_EQ(script.exitCode, 0) << script.err;
    EXPECT_TRUE(inOrder(script.out,
        { "armed: 1 unit, family in statusArmed (21)\n", "stopped: 1 unit", "armed: 1 unit",
            "aborted: 1 unit", "no-op done: 1 unit, family in statusNoOpEnd (14)\n" }))
        << script.out;
}

// korux run as a user runs it: its exit statuses, its usage and its
// messages, and a listing on the virtual bridge.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLibrary>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <ostream>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, HelpPrintsTheUsageAndSucceeds)
{
    const KoruxRun run = korux({ QStringLiteral("help") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("usage: korux"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("list"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("--bridge"))) << run.out;
    EXPECT_TRUE(run.err.isEmpty()) << run.err;
}

TEST_F(Korux, HelpOptionPrintsTheUsage)
{
    const KoruxRun run = korux({ QStringLiteral("--help") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("usage: korux"))) << run.out;
}

TEST_F(Korux, HelpOfOneCommandGivesItsSynopsis)
{
    const KoruxRun run = korux({ QStringLiteral("help"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux [options] list"))) << run.out;
}

TEST_F(Korux, NoCommandIsAUsageError)
{
    const KoruxRun run = korux({});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("usage: korux"))) << run.err;
}

TEST_F(Korux, UnknownCommandIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("frobnicate") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("unknown command \"frobnicate\""))) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("usage: korux"))) << run.err;
    EXPECT_TRUE(run.out.isEmpty()) << run.out;
}

TEST_F(Korux, UnknownOptionIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("--frobnicate"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("unknown option \"--frobnicate\""))) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("usage: korux"))) << run.err;
}

TEST_F(Korux, OptionWithoutItsValueIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("list"), QStringLiteral("--bridge") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("--bridge needs a value"))) << run.err;
}

TEST_F(Korux, BadColorModeIsAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("--color=sometimes"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("sometimes"))) << run.err;
}

TEST_F(Korux, ExtraArgumentsAreAUsageError)
{
    const KoruxRun run = korux({ QStringLiteral("list"), QStringLiteral("now") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("usage: korux"))) << run.err;
}

TEST_F(Korux, MalformedScenarioIsNamedAndNothingStarts)
{
    const QString scenario = writeFile(QStringLiteral("broken.json"), "{ \"sensors\": [ ");
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("--dir"),
        familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(scenario)) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("status "))) << run.out;
}

TEST_F(Korux, MissingScenarioIsNamed)
{
    const QString scenario = directory_.filePath(QStringLiteral("absent.json"));
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(scenario)) << run.err;
}

TEST_F(Korux, VendorBridgeMissingIsExplained)
{
    {
        QLibrary vendor(QStringLiteral("libft4222.so"));
        if (vendor.load()) {
            vendor.unload();
            GTEST_SKIP() << "an FT4222 bridge library is installed on this machine";
        }
    }
    const KoruxRun run
        = korux({ QStringLiteral("--bridge"), QStringLiteral("vendor"), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 4);
    EXPECT_TRUE(run.err.contains(QStringLiteral("no FT4222 bridge library is installed on this machine")))
        << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("LibFT4222"))) << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("--bridge virtual"))) << run.err;
    EXPECT_TRUE(run.out.isEmpty()) << run.out;
}

TEST_F(Korux, BridgePathThatDoesNotLoadIsExplained)
{
    const QString path = directory_.filePath(QStringLiteral("libft4222.so"));
    const KoruxRun run = korux({ QStringLiteral("--bridge"), path, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 4);
    EXPECT_TRUE(run.err.contains(path)) << run.err;
}

TEST_F(Korux, PluginThatDoesNotLoadIsAFailure)
{
    const QString path = directory_.filePath(QStringLiteral("libnothing.so"));
    const KoruxRun run = korux({ QStringLiteral("--plugin"), path, QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(path)) << run.err;
}

TEST_F(Korux, ListFindsTheDefaultSensorOnTheVirtualBridge)
{
    const KoruxRun run = korux({ QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusEnumerating (1)\n"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusSensorFound (4)\n"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nunit 0 model "))) << run.out;
    EXPECT_TRUE(run.out.endsWith(QStringLiteral(": 1 unit, status statusSensorFound (4)\n"))) << run.out;
}

TEST_F(Korux, ListWithoutSensorsEndsInNoSensor)
{
    const QString scenario = writeFile(QStringLiteral("empty.json"), "{ \"sensors\": [] }");
    const KoruxRun run = korux({ QStringLiteral("--scenario"), scenario, QStringLiteral("--dir"),
        familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 3) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusNoSensor (3)\n"))) << run.out;
}

TEST_F(Korux, LogTagsAreKeptWhenNotColouring)
{
    const KoruxRun run = korux({ QStringLiteral("--color"), QStringLiteral("never"), QStringLiteral("-v"),
        QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\n[green]"))) << run.out;
    EXPECT_FALSE(run.out.contains(QChar(0x1b))) << run.out;
}

TEST_F(Korux, LogTagsBecomeColoursWhenAsked)
{
    const KoruxRun run = korux({ QStringLiteral("--color"), QStringLiteral("always"), QStringLiteral("-v"),
        QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("[green]"))) << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\033[32m"))) << run.out;
}

TEST_F(Korux, DetailedLogOnlyWithVerbose)
{
    const KoruxRun quiet = korux({ QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    const KoruxRun verbose
        = korux({ QStringLiteral("-v"), QStringLiteral("--dir"), familyDirectory(), QStringLiteral("list") });
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(verbose.exitCode, 0);
    EXPECT_GT(verbose.out.count('\n'), quiet.out.count('\n'));
    EXPECT_TRUE(verbose.out.startsWith(QStringLiteral("bridge "))) << verbose.out;
    EXPECT_TRUE(verbose.out.contains(QStringLiteral("(virtual)"))) << verbose.out;
}

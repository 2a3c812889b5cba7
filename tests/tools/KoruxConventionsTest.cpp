// korux's conventions: --version, help for one command with its options and
// defaults, the exit statuses, and the bash completion file.
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, VersionNamesKoruxAndThePlugIn)
{
    const KoruxRun run = korux({ QStringLiteral("--version") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux 0."))) << run.out;
    EXPECT_TRUE(
        run.out.contains(QStringLiteral("plug-in %1 (built ")
                             .arg(QFileInfo(buildDirectory() + QStringLiteral("/lib/libVeltraXRayKORUX.so"))
                                      .absoluteFilePath())))
        << run.out;
}

TEST_F(Korux, ACommandsHelpGivesItsOptionsAndDefaults)
{
    for (const QStringList& arguments : { QStringList { QStringLiteral("acquire"), QStringLiteral("--help") },
             QStringList { QStringLiteral("help"), QStringLiteral("acquire") } }) {
        const KoruxRun run = korux(arguments);
        EXPECT_EQ(run.exitCode, 0) << arguments.join(' ');
        EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux [options] acquire [--out DIR]"))) << run.out;
        EXPECT_TRUE(
            run.out.contains(QStringLiteral("seconds to wait for each exposure, 1 to 86400 (default 60)")))
            << run.out;
        EXPECT_FALSE(run.out.contains(QStringLiteral("commands:"))) << run.out;
    }
}

TEST_F(Korux, ExitCodesAreListed)
{
    const KoruxRun run = korux({ QStringLiteral("help"), QStringLiteral("exit-codes") });
    EXPECT_EQ(run.exitCode, 0);
    for (const char* status : { "\n  0 ", "\n  1 ", "\n  2 ", "\n  3 ", "\n  4 ", "\n  5 ", "\n  6 ",
             "\n  130 ", "\n  141 ", "\n  143 " })
        EXPECT_TRUE(run.out.contains(QString::fromLatin1(status))) << status << run.out;
}

TEST_F(Korux, BashCompletionOffersCommandsAndTheirOptions)
{
    QProcess bash;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"),
        QFileInfo(koruxPath()).absolutePath() + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));
    bash.setProcessEnvironment(environment);
    bash.start(QStringLiteral("bash"),
        { QStringLiteral("-c"),
            QStringLiteral("source '%1/tools/korux-completion.bash'; "
                           "COMP_WORDS=(korux fl); COMP_CWORD=1; _korux; echo \"${COMPREPLY[*]}\"; "
                           "COMP_WORDS=(korux acquire --ov); COMP_CWORD=2; _korux; echo \"${COMPREPLY[*]}\"")
                .arg(QStringLiteral(KORUX_SOURCE_DIR)) });
    ASSERT_TRUE(bash.waitForFinished(20000));
    EXPECT_EQ(QString::fromUtf8(bash.readAllStandardOutput()),
        QStringLiteral("flash-files flash-page\n--overwrite\n"))
        << QString::fromUtf8(bash.readAllStandardError());
}

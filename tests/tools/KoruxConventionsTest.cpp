// korux's conventions: --version, help for one command with its options and
// defaults, the exit statuses, and the bash completion file.
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

TEST_F(Korux, VersionNamesKoruxAndThePlugIn)
{
    const KoruxRun run = korux({ QStringLiteral("--version") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains(QRegularExpression(QStringLiteral("^korux [0-9]+\\.[0-9]+\\.[0-9]+\n"))))
        << run.out;
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

TEST_F(Korux, TheDicomCommandsHelpGivesItsOptions)
{
    const KoruxRun run = korux({ QStringLiteral("dicom"), QStringLiteral("--help") });
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.startsWith(QStringLiteral("korux [options] dicom [--presentation]"))) << run.out;
    for (const char* option : { "--patient-name NAME", "--patient-id ID", "--study TEXT", "--overwrite" })
        EXPECT_TRUE(run.out.contains(QLatin1String(option))) << option << run.out;
    EXPECT_TRUE(korux({ QStringLiteral("help"), QStringLiteral("acquire") })
                    .out.contains(QStringLiteral("--dicom-presentation")));
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
    QProcessEnvironment environment = koruxEnvironment();
    environment.insert(QStringLiteral("PATH"),
        QFileInfo(koruxPath()).absolutePath() + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));
    bash.setProcessEnvironment(environment);
    bash.start(QStringLiteral("bash"),
        { QStringLiteral("-c"),
            QStringLiteral(
                "source '%1/packaging/bash-completion/korux'; "
                "COMP_WORDS=(korux fl); COMP_CWORD=1; _korux; echo \"${COMPREPLY[*]}\"; "
                "COMP_WORDS=(korux acquire --ov); COMP_CWORD=2; _korux; echo \"${COMPREPLY[*]}\"; "
                "COMP_WORDS=(korux acquire --dic); COMP_CWORD=2; _korux; echo \"${COMPREPLY[*]}\"; "
                "COMP_WORDS=(korux dicom --pat); COMP_CWORD=2; _korux; echo \"${COMPREPLY[*]}\"; "
                "COMP_WORDS=(korux di); COMP_CWORD=1; _korux; echo \"${COMPREPLY[*]}\"")
                .arg(QStringLiteral(KORUX_SOURCE_DIR)) });
    ASSERT_TRUE(bash.waitForFinished(20000));
    EXPECT_EQ(QString::fromUtf8(bash.readAllStandardOutput()),
        QStringLiteral("flash-files flash-page\n--overwrite\n--dicom --dicom-presentation\n"
                       "--patient-id --patient-name\ndicom\n"))
        << QString::fromUtf8(bash.readAllStandardError());
}

// --json: standard output holds one JSON document a line and nothing else.
TEST_F(Korux, JsonGivesOneDocumentPerResultAndNothingElse)
{
    const QString script
        = writeFile(QStringLiteral("s.korux"), "list\ncounter\nset ACECoeff 9\nacquire --out shots\n");
    const KoruxRun run = koruxOn({ QStringLiteral("--json"), QStringLiteral("run"), script });
    ASSERT_EQ(run.exitCode, 0) << run.err;
    QVector<QJsonObject> documents;
    for (const QString& line : run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        ASSERT_TRUE(document.isObject()) << line;
        documents << document.object();
    }
    // list (unit, family), counter, set, and the shot's four files.
    ASSERT_EQ(documents.size(), 8) << run.out;
    EXPECT_EQ(
        documents.at(0).value(QStringLiteral("boardSerial")).toString(), QStringLiteral("59881DA3846E4A89"));
    EXPECT_EQ(documents.at(1).value(QStringLiteral("units")).toInt(), 1);
    EXPECT_EQ(documents.at(2)
                  .value(QStringLiteral("report"))
                  .toArray()
                  .at(0)
                  .toObject()
                  .value(QStringLiteral("KORUX-KORUX2 Series 59881DA3846E4A89"))
                  .toArray()
                  .at(0)
                  .toObject()
                  .value(QStringLiteral("ShootCounter"))
                  .toInt(),
        1234);
    EXPECT_EQ(documents.at(3).value(QStringLiteral("value")).toInt(), 9);
    EXPECT_EQ(documents.at(4).value(QStringLiteral("wrote")).toString(),
        QStringLiteral("shots/59881DA3846E4A89-001235.png"));
    EXPECT_EQ(documents.at(7).value(QStringLiteral("wrote")).toString(),
        QStringLiteral("shots/59881DA3846E4A89-001235-oscilloscope.png"));
}

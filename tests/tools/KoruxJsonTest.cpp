// --json everywhere: one JSON document for help, doctor and --version, and
// with -v the plug-in's log on standard error as JSON lines.
#include <QJsonArray>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

// Standard output as exactly one JSON object.
QJsonObject oneDocument(const QString& out)
{
    const QStringList lines = out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(lines.size(), 1) << out;
    const QJsonDocument document = QJsonDocument::fromJson(lines.value(0).toUtf8());
    EXPECT_TRUE(document.isObject()) << out;
    return document.object();
}

} // namespace

TEST_F(Korux, VersionAsJson)
{
    const KoruxRun run = korux({ QStringLiteral("--json"), QStringLiteral("--version") });
    EXPECT_EQ(run.exitCode, 0);
    const QJsonObject version = oneDocument(run.out);
    EXPECT_FALSE(version.value(QStringLiteral("korux")).toString().isEmpty());
    EXPECT_TRUE(version.value(QStringLiteral("pluginFound")).toBool());
    EXPECT_TRUE(
        version.value(QStringLiteral("plugin")).toString().endsWith(QStringLiteral("libVeltraXRayKORUX.so")));
}

TEST_F(Korux, HelpAsJson)
{
    const KoruxRun run = korux({ QStringLiteral("--json"), QStringLiteral("help") });
    EXPECT_EQ(run.exitCode, 0);
    const QJsonObject help = oneDocument(run.out);
    QStringList commands;
    for (const QJsonValue& command : help.value(QStringLiteral("commands")).toArray())
        commands << command.toObject().value(QStringLiteral("name")).toString();
    EXPECT_TRUE(commands.contains(QStringLiteral("acquire"))) << commands.join(' ');
    EXPECT_TRUE(commands.contains(QStringLiteral("doctor"))) << commands.join(' ');
    QStringList options;
    for (const QJsonValue& option : help.value(QStringLiteral("options")).toArray())
        options << option.toObject().value(QStringLiteral("option")).toString();
    for (const char* option : { "--bridge", "--time-scale", "--verbose", "--json", "--overwrite" })
        EXPECT_TRUE(options.contains(QString::fromLatin1(option)))
            << option << options.join(' ').toStdString();
    EXPECT_EQ(help.value(QStringLiteral("defaults")).toObject().value(QStringLiteral("bridge")).toString(),
        QStringLiteral("auto"));
    QVector<int> codes;
    for (const QJsonValue& code : help.value(QStringLiteral("exitCodes")).toArray())
        codes << code.toObject().value(QStringLiteral("status")).toInt();
    EXPECT_EQ(codes, (QVector<int> { 0, 1, 2, 3, 4, 5, 6, 130, 141, 143 }));

    const KoruxRun one
        = korux({ QStringLiteral("--json"), QStringLiteral("help"), QStringLiteral("counter") });
    EXPECT_EQ(oneDocument(one.out)
                  .value(QStringLiteral("command"))
                  .toObject()
                  .value(QStringLiteral("name"))
                  .toString(),
        QStringLiteral("counter"));
}

TEST_F(Korux, DoctorAsJson)
{
    const KoruxRun run = koruxOn({ QStringLiteral("--json"), QStringLiteral("doctor") });
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const QJsonObject report = oneDocument(run.out);
    const QJsonArray checks = report.value(QStringLiteral("checks")).toArray();
    ASSERT_FALSE(checks.isEmpty());
    for (const QJsonValue& check : checks) {
        const QJsonObject object = check.toObject();
        for (const char* key : { "name", "verdict", "detail", "fix" })
            EXPECT_TRUE(object.contains(QLatin1String(key))) << key;
    }
    EXPECT_EQ(
        checks.first().toObject().value(QStringLiteral("name")).toString(), QStringLiteral("bridge library"));
    EXPECT_EQ(report.value(QStringLiteral("exit")).toInt(), 0);
    EXPECT_TRUE(
        report.value(QStringLiteral("conclusion")).toString().contains(QStringLiteral("virtual bridge")));
}

TEST_F(Korux, VerboseJsonWritesTheLogToStandardErrorAsJsonLines)
{
    const KoruxRun run = koruxOn({ QStringLiteral("-v"), QStringLiteral("--json"), QStringLiteral("noop") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    const QStringList logLines = run.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_GT(logLines.size(), 5) << run.err;
    for (const QString& line : logLines)
        EXPECT_TRUE(QJsonDocument::fromJson(line.toUtf8()).object().contains(QStringLiteral("log"))) << line;
    for (const QString& line : run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        EXPECT_TRUE(QJsonDocument::fromJson(line.toUtf8()).isObject()) << line;
}

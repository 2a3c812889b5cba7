// korux run SCRIPT and --transcript: one family for a whole procedure, every
// line checked before the first runs, and a transcript whose statuses follow
// the family's status cycle.
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>

#include <gtest/gtest.h>

#include "sim/FlashContent.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxScript : public Korux {
protected:
    KoruxRun runScript(const QByteArray& text, const QStringList& extra = {})
    {
        const QString script = writeFile(QStringLiteral("procedure.korux"), text);
        return korux(
            QStringList { QStringLiteral("--bridge"), QStringLiteral("virtual"), QStringLiteral("--dir"),
                familyDirectory(), QStringLiteral("--time-scale"), QStringLiteral("0") }
            + extra + QStringList { QStringLiteral("run"), script });
    }
};

// The family statuses of the transcript, one list for each script line run.
struct CommandStatuses {
    QString command;
    QVector<int> statuses;
};

QVector<CommandStatuses> statusesByCommand(const QVector<QJsonObject>& lines)
{
    QVector<CommandStatuses> commands;
    for (const QJsonObject& line : lines) {
        const QString event = line.value(QStringLiteral("event")).toString();
        // The script's own lines carry their line number; "run" does not.
        if (event == QLatin1String("command") && line.contains(QStringLiteral("line")))
            commands.append({ line.value(QStringLiteral("command")).toString(), {} });
        else if (event == QLatin1String("status") && !commands.isEmpty())
            commands.last().statuses.append(line.value(QStringLiteral("status")).toInt());
    }
    return commands;
}

// True when statuses are a non-empty, strictly rising run of the statuses a
// unit's acquisition passes the family (24 to 27).
bool acquisitionRun(const QVector<int>& statuses, int last)
{
    if (statuses.isEmpty() || statuses.last() != last)
        return false;
    for (int i = 0; i < statuses.size(); ++i) {
        if (statuses.at(i) < 24 || statuses.at(i) > 27)
            return false;
        if (i > 0 && statuses.at(i) <= statuses.at(i - 1))
            return false;
    }
    return true;
}

} // namespace

TEST_F(KoruxScript, TranscriptOfTheWholeCycleFollowsTheStatusTable)
{
    QFile example(QStringLiteral(KORUX_SOURCE_DIR "/examples/cycle.korux"));
    ASSERT_TRUE(example.open(QIODevice::ReadOnly));
    const KoruxRun run = runScript(example.readAll(), { QStringLiteral("--transcript"), path("t.jsonl") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

    const QVector<QJsonObject> lines = readTranscript(QStringLiteral("t.jsonl"));
    const QVector<CommandStatuses> commands = statusesByCommand(lines);
    QStringList names;
    for (const CommandStatuses& command : commands)
        names << command.command;
    ASSERT_EQ(names,
        (QStringList { "enumerate", "flash-files", "fpga-update", "acquire", "enumerate", "arm", "stop", "params",
            "voltages", "serial", "counter", "flash-page", "report" }));

    // The enumeration korux's start-up runs comes before the first command.
    EXPECT_EQ(commands.at(0).statuses, (QVector<int> { 1, 4, 1, 4 }));
    EXPECT_TRUE(commands.at(1).statuses.isEmpty());
    EXPECT_EQ(commands.at(2).statuses, (QVector<int> { 11, 12 }));
    const QVector<int> acquire = commands.at(3).statuses;
    ASSERT_GE(acquire.size(), 3);
    EXPECT_EQ(acquire.mid(0, 2), (QVector<int> { 20, 21 }));
    EXPECT_TRUE(acquisitionRun(acquire.mid(2), 27));
    EXPECT_EQ(commands.at(4).statuses, (QVector<int> { 9 }));
    EXPECT_EQ(commands.at(5).statuses, (QVector<int> { 20, 21 }));
    // A stop makes the sensor run a short dummy integration whose statuses
    // reach the family after statusStopped.
    const QVector<int> stop = commands.at(6).statuses;
    ASSERT_GE(stop.size(), 2);
    EXPECT_EQ(stop.mid(0, 2), (QVector<int> { 18, 19 }));
    EXPECT_TRUE(stop.size() == 2 || acquisitionRun(stop.mid(2), 26));
    for (int i = 7; i < commands.size(); ++i)
        EXPECT_TRUE(commands.at(i).statuses.isEmpty()) << commands.at(i).command.toStdString();
}

TEST_F(KoruxScript, TranscriptLinesCarryTimeEventAndWhatHappened)
{
    const KoruxRun run = runScript("acquire\nvoltages\n", { QStringLiteral("--transcript"), path("t.jsonl") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const QVector<QJsonObject> lines = readTranscript(QStringLiteral("t.jsonl"));
    ASSERT_FALSE(lines.isEmpty());
    double previous = -1;
    QMap<QString, int> events;
    for (const QJsonObject& line : lines) {
        EXPECT_TRUE(line.value(QStringLiteral("time")).toString().endsWith(QLatin1Char('Z')));
        const double ms = line.value(QStringLiteral("ms")).toDouble(-1);
        EXPECT_GE(ms, previous);
        previous = ms;
        ++events[line.value(QStringLiteral("event")).toString()];
        if (line.value(QStringLiteral("event")) == QLatin1String("image")) {
            EXPECT_EQ(line.value(QStringLiteral("width")).toInt(), 1000);
            EXPECT_EQ(line.value(QStringLiteral("height")).toInt(), 1506);
            EXPECT_TRUE(line.value(QStringLiteral("description")).toString().contains(QStringLiteral("[SENSOR]")));
        }
        if (line.value(QStringLiteral("event")) == QLatin1String("report")) {
            // The report itself, parsed: a list of sections named after the family.
            const QJsonArray sections = line.value(QStringLiteral("report")).toArray();
            ASSERT_FALSE(sections.isEmpty()) << QJsonDocument(line).toJson().toStdString();
            EXPECT_TRUE(sections.first().toObject().keys().value(0).startsWith(QStringLiteral("KORUX-KORUX2 Series")));
        }
    }
    // run itself and its two lines.
    EXPECT_EQ(events.value(QStringLiteral("command")), 3);
    EXPECT_EQ(events.value(QStringLiteral("result")), 3);
    EXPECT_EQ(events.value(QStringLiteral("image")), 1);
    EXPECT_GE(events.value(QStringLiteral("report")), 1);
    EXPECT_GE(events.value(QStringLiteral("log")), 10);
    EXPECT_GE(events.value(QStringLiteral("unit-status")), 3);
}

TEST_F(KoruxScript, EveryLineIsCheckedBeforeTheFirstRuns)
{
    const KoruxRun run = runScript("noop   # a comment\n\nfrobnicate\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("procedure.korux:3: unknown command \"frobnicate\""))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("statusNoOpBegin"))) << run.out;
}

TEST_F(KoruxScript, SerialOnAFamilyCommandIsFoundBeforeTheFirstLineRuns)
{
    const KoruxRun run = runScript("noop\n--serial 0123456789ABCDEF enumerate\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("procedure.korux:2: enumerate acts on the whole family"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("statusNoOpBegin"))) << run.out;
}

TEST_F(KoruxScript, TheFirstFailingCommandEndsTheScript)
{
    const KoruxRun run = runScript("arm\nnoop\n");
    EXPECT_EQ(run.exitCode, 5);
    EXPECT_TRUE(run.err.contains(QStringLiteral("procedure.korux:1: arm ended with exit status 5"))) << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("statusNoOpBegin"))) << run.out;
}

TEST_F(KoruxScript, KeepGoingRunsTheRestAndKeepsTheFirstFailure)
{
    const QString script = writeFile(QStringLiteral("procedure.korux"), "arm\nnoop\n");
    const KoruxRun run = korux({ QStringLiteral("--time-scale"), QStringLiteral("0"), QStringLiteral("run"),
        QStringLiteral("--keep-going"), script });
    EXPECT_EQ(run.exitCode, 5);
    EXPECT_TRUE(run.out.contains(QStringLiteral("status statusNoOpEnd (14)"))) << run.out;
}

TEST_F(KoruxScript, KoruxOwnOptionsAreRefusedInAScript)
{
    const KoruxRun run = runScript("--bridge vendor list\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("procedure.korux:1: only --serial may be given"))) << run.err;
}

TEST_F(KoruxScript, AScriptDoesNotRunScripts)
{
    const KoruxRun run = runScript("run other.korux\n");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("a script cannot run another script"))) << run.err;
}

TEST_F(KoruxScript, MissingScriptIsNamed)
{
    const KoruxRun run = korux({ QStringLiteral("run"), path("nowhere.korux") });
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(QStringLiteral("cannot read the script"))) << run.err;
}

// The service engineer's case: a newer bitstream put beside the application
// is found by the plug-in's own search and sent to the FPGA.
TEST_F(KoruxScript, ApplicationBitstreamBesideKoruxIsUsedWhenNewer)
{
    QDir(path(QString())).mkpath(QStringLiteral("app/bin"));
    const QString program = path(QStringLiteral("app/bin/korux"));
    ASSERT_TRUE(QFile::copy(koruxPath(), program));
    vbridge::BitstreamHeader header;
    header.date = "Date: Tue, 03 Mar 2020 10:00:00 +0000";
    const std::vector<uint8_t> bitstream = vbridge::makeBitstream(header, 24000, 2);
    // Port A's serial is KX0001A: the file name takes its "01".
    writeFile(QStringLiteral("app/bin/KORUX_01.bit"),
        QByteArray(reinterpret_cast<const char*>(bitstream.data()), int(bitstream.size())));
    const QString scenario =
        writeFile(QStringLiteral("scenario.json"), R"({"sensors": [{"fpga": {"configured": false}}]})");

    const KoruxRun run = koruxAt(program,
        { QStringLiteral("--plugin"), buildDirectory() + QStringLiteral("/lib/libVeltraXRayKORUX.so"),
            QStringLiteral("--bridge"), buildDirectory() + QStringLiteral("/lib/virtual/libft4222.so"),
            QStringLiteral("--scenario"), scenario, QStringLiteral("--dir"), familyDirectory(),
            QStringLiteral("--time-scale"), QStringLiteral("0"), QStringLiteral("-v"),
            QStringLiteral("fpga-update") });
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("The NIVO bitstream is more recent than flash bitstream!\n")))
        << run.out;
    EXPECT_TRUE(run.out.contains(
        QStringLiteral("Use bitstream %1\n").arg(QFileInfo(path(QStringLiteral("app/bin/KORUX_01.bit"))).absoluteFilePath())))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\nKORUX3 is now flashed!\n"))) << run.out;
    EXPECT_TRUE(run.out.endsWith(QStringLiteral("): FPGA configured from KORUX_01.bit\n"))) << run.out;
}

TEST_F(KoruxScript, ListAfterAShotTakesTheSensorsStatusFromThePlugInsOwnRead)
{
    // The plug-in holds the ports open after the shot: korux cannot read the
    // status word itself, the plug-in's last read tells size and FPGA.
    const KoruxRun run = runScript("acquire --out shots\nlist\n");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral(", size S1, stand-alone, FPGA configured, status "))) << run.out;
    EXPECT_TRUE(run.err.isEmpty()) << run.err;
}

TEST_F(KoruxScript, ListAfterASerialReadSaysThePortIsInUse)
{
    // Reading the serial opens the ports but reads no status word.
    const KoruxRun run = runScript("serial\nlist\n");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral(", size -, stand-alone, FPGA unknown (port A is in use), "))) << run.out;
}

// Every script in examples/ runs as the README shows it, to exit status 0.
TEST_F(KoruxScript, EveryExampleRuns)
{
    const QDir examples(QStringLiteral(KORUX_SOURCE_DIR "/examples"));
    const QStringList scripts = examples.entryList({ QStringLiteral("*.korux") }, QDir::Files);
    ASSERT_FALSE(scripts.isEmpty());
    for (const QString& script : scripts) {
        const KoruxRun run = koruxOn({ QStringLiteral("run"), examples.filePath(script) });
        EXPECT_EQ(run.exitCode, 0) << script << run.out << run.err;
    }
}

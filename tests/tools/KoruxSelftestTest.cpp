// korux selftest: every step passes on a healthy sensor and the trace is
// recorded by default; on a failing machine the step that fails is named
// with its cause and fix, and korux exits non-zero.
#include <QDir>
#include <QJsonArray>

#include "record/Trace.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxSelftest : public Korux {
protected:
    KoruxRun selftest(const QStringList& extra, const QString& scenario = QString())
    {
        return korux(argumentsOn(QStringList { QStringLiteral("selftest") } + extra, scenario));
    }

    static QStringList resultLines(const QString& out)
    {
        QStringList lines;
        for (const QString& line : out.split('\n'))
            if (line.startsWith(QLatin1String("PASS  ")) || line.startsWith(QLatin1String("FAIL  "))
                || line.startsWith(QLatin1String("SKIP  ")))
                lines << line;
        return lines;
    }

    static QString lineOf(const QString& out, const QString& step)
    {
        for (const QString& line : resultLines(out))
            if (line.mid(6).startsWith(step + QLatin1Char(':')))
                return line;
        return QString();
    }
};

const QStringList kSteps { "bridge library", "device list", "ports A-D", "status word", "board serial",
    "information text", "flash file headers", "voltages", "FPGA state", "one shot" };

} // namespace

TEST_F(KoruxSelftest, AHealthySensorPassesEveryStepAndTheTrafficIsRecorded)
{
    const KoruxRun run = selftest({});
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const QStringList lines = resultLines(run.out);
    ASSERT_EQ(lines.size(), kSteps.size()) << run.out;
    for (int i = 0; i < kSteps.size(); ++i)
        EXPECT_TRUE(lines[i].mid(6).startsWith(kSteps[i] + ':')) << lines[i];
    for (int i = 0; i + 1 < kSteps.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(QLatin1String("PASS  "))) << lines[i];
    EXPECT_EQ(lineOf(run.out, QStringLiteral("one shot")),
        QStringLiteral("SKIP  one shot: no arming without --expose"));
    EXPECT_TRUE(lineOf(run.out, QStringLiteral("voltages")).contains(QStringLiteral("USB 4994 mV")))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("selftest: every step passed")));
    // The library behind the recording bridge, as korux loaded it.
    EXPECT_TRUE(lineOf(run.out, QStringLiteral("bridge library")).endsWith(QStringLiteral("/virtual/libft4222.so")))
        << run.out;
    // Nothing of the self-test lands in the family's folder.
    EXPECT_TRUE(QDir(familyDirectory()).entryList(QDir::Files).isEmpty());

    const QStringList traces
        = QDir(path(QStringLiteral("home/state/korux"))).entryList({ QStringLiteral("selftest-*.trace") });
    ASSERT_EQ(traces.size(), 1) << run.err;
    ktrace::Trace trace;
    std::string error;
    ASSERT_TRUE(ktrace::readTraceFile(
        path(QStringLiteral("home/state/korux/") + traces.first()).toStdString(), &trace, &error))
        << error;
    EXPECT_TRUE(trace.complete);
    // Read-only: the flash was read (port C), and nothing was programmed or
    // erased in it (no write enable, 06h).
    int flashCalls = 0;
    for (const ktrace::TraceCall& call : trace.calls) {
        if (call.port == 'C' && !call.written.empty()) {
            ++flashCalls;
            EXPECT_NE(call.written[0], 0x06) << call.index;
        }
    }
    EXPECT_GT(flashCalls, 0);
}

TEST_F(KoruxSelftest, ExposeTakesOneShot)
{
    const KoruxRun run = selftest({ QStringLiteral("--expose"), QStringLiteral("--no-trace") });
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_EQ(lineOf(run.out, QStringLiteral("one shot")), QStringLiteral("PASS  one shot: image delivered"));
    // --no-trace: no trace in the state directory, where the default
    // machine's flash image is kept all the same.
    EXPECT_TRUE(QFile::exists(path(QStringLiteral("home/state/korux/default-flash.bin"))));
    EXPECT_TRUE(QDir(path(QStringLiteral("home/state/korux")))
                    .entryList({ QStringLiteral("*.trace"), QStringLiteral("*.trace.*") }, QDir::Files)
                    .isEmpty());
}

TEST_F(KoruxSelftest, NoSensorFailsTheDeviceListAndSkipsTheRest)
{
    const KoruxRun run
        = selftest({ QStringLiteral("--no-trace") }, QStringLiteral(R"({"sensors": [{"plugged": false}]})"));
    EXPECT_EQ(run.exitCode, 3);
    EXPECT_TRUE(
        lineOf(run.out, QStringLiteral("device list")).startsWith(QLatin1String("FAIL  device list: ")))
        << run.out;
    EXPECT_TRUE(
        lineOf(run.out, QStringLiteral("device list")).contains(QStringLiteral("-- fix: plug the sensor")));
    EXPECT_EQ(lineOf(run.out, QStringLiteral("status word")), QStringLiteral("SKIP  status word: no sensor"));
    EXPECT_TRUE(run.out.contains(QStringLiteral("selftest: 1 step failed")));
}

TEST_F(KoruxSelftest, APortThatWillNotOpenFailsThePortStep)
{
    const KoruxRun run = selftest({ QStringLiteral("--no-trace") },
        QStringLiteral(R"({"sensors": [{}], "faults": [{"call": "FT_OpenEx", "nth": 2, "status": 3},
            {"call": "FT_OpenEx", "nth": 3, "status": 3}]})"));
    EXPECT_EQ(run.exitCode, 1);
    const QString ports = lineOf(run.out, QStringLiteral("ports A-D"));
    EXPECT_TRUE(ports.startsWith(QLatin1String("FAIL  ports A-D: "))) << run.out;
    EXPECT_TRUE(ports.contains(QStringLiteral("cannot be opened"))) << ports;
}

TEST_F(KoruxSelftest, AnUnconfiguredFpgaFailsTheFpgaStep)
{
    const KoruxRun run = selftest({ QStringLiteral("--no-trace") },
        QStringLiteral(R"({"sensors": [{"fpga": {"configured": false}}]})"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(lineOf(run.out, QStringLiteral("FPGA state")),
        QStringLiteral(
            "FAIL  FPGA state: not configured -- fix: korux fpga-update configures it from the bitstream "
            "installed with the plug-in"));
    EXPECT_TRUE(run.out.contains(QStringLiteral("selftest: 1 step failed"))) << run.out;
}

TEST_F(KoruxSelftest, ADeadConverterChannelFailsTheVoltages)
{
    const KoruxRun run = selftest(
        { QStringLiteral("--no-trace") }, QStringLiteral(R"({"sensors": [{"adc": [620, 0, 775, 560]}]})"));
    EXPECT_EQ(run.exitCode, 1);
    const QString voltages = lineOf(run.out, QStringLiteral("voltages"));
    EXPECT_TRUE(
        voltages.startsWith(QLatin1String("FAIL  voltages: FPGA Low reads 0 mV (limits 900 to 1100 mV)")))
        << run.out;
    EXPECT_TRUE(run.out.contains(QStringLiteral("selftest: 1 step failed"))) << run.out;
}

TEST_F(KoruxSelftest, JsonGivesOneObjectPerStepAndTheVerdict)
{
    const KoruxRun run = korux(
        argumentsOn({ QStringLiteral("--json"), QStringLiteral("selftest"), QStringLiteral("--no-trace") },
            QStringLiteral(R"({"sensors": [{"fpga": {"configured": false}}]})")));
    QStringList steps;
    QJsonObject verdict;
    for (const QString& line : run.out.split('\n', Qt::SkipEmptyParts)) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        ASSERT_TRUE(document.isObject()) << line;
        const QJsonObject object = document.object();
        if (object.contains(QStringLiteral("step")))
            steps << object.value(QStringLiteral("step")).toString() + '='
                    + object.value(QStringLiteral("result")).toString();
        if (object.contains(QStringLiteral("selftest")))
            verdict = object;
    }
    EXPECT_EQ(steps.size(), kSteps.size()) << run.out;
    EXPECT_TRUE(steps.contains(QStringLiteral("FPGA state=FAIL"))) << steps.join(' ');
    EXPECT_EQ(verdict.value(QStringLiteral("selftest")).toString(), QStringLiteral("FAIL"));
    EXPECT_EQ(verdict.value(QStringLiteral("failed")).toInt(), 1);
    EXPECT_EQ(run.exitCode, 1);
}

// korux on the default machine as it really runs: the sensor's own times and
// the plug-in's waits unshortened. Run with the realistic label (ctest -L
// realistic), which sets KORUX_TIMING=realistic; skipped otherwise.
#include <QElapsedTimer>
#include <QProcess>

#include <csignal>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

const QString kRealisticNoExposure
    = QStringLiteral(R"({"timing": "realistic", "sensors": [{"exposure": {"auto": false}}]})");

class KoruxRealistic : public Korux {
protected:
    void SetUp() override
    {
        Korux::SetUp();
        if (qEnvironmentVariable("KORUX_TIMING") != QLatin1String("realistic"))
            GTEST_SKIP() << "realistic timing: ctest -L realistic";
        defaultMachineTiming_ = QStringLiteral("realistic");
    }

    // korux's arguments on the machine of scenario, with no time scale.
    QStringList realArguments(const QStringList& arguments, const QString& scenario)
    {
        return QStringList { QStringLiteral("--dir"), familyDirectory(), QStringLiteral("--scenario"),
            writeFile(QStringLiteral("scenario.json"), scenario.toUtf8()) }
        + arguments;
    }
};

} // namespace

// On the default machine a stop arms once more with a threshold under the
// dark level, and reaches the sensor before its operator fires; the units end
// its dummy integration.
TEST_F(KoruxRealistic, ArmThenStopOrAbortEnds)
{
    for (const char* text : { "fpga-update\narm\nstop\narm\nabort\n", "fpga-update\narm\nabort\n" }) {
        const QString script = writeFile(QStringLiteral("s.korux"), text);
        const KoruxRun run = korux({ QStringLiteral("--bridge"), QStringLiteral("virtual"), QStringLiteral("--dir"),
            familyDirectory(), QStringLiteral("run"), script });
        EXPECT_EQ(run.exitCode, 0) << text << run.out << run.err;
        EXPECT_FALSE(run.err.contains(QStringLiteral("did not stop"))) << run.err;
    }
}

// Ctrl-C while armed: the stop is sent and korux is gone within a second of
// the signal, naming a unit it did not see stopped.
TEST_F(KoruxRealistic, CtrlCWhileArmedEndsWithinOneSecond)
{
    QProcess process;
    startKorux(process, realArguments({ QStringLiteral("acquire") }, kRealisticNoExposure));
    QString out;
    QElapsedTimer timer;
    timer.start();
    while (!out.contains(QStringLiteral("status statusArmed (21)")) && timer.elapsed() < 30000) {
        process.waitForReadyRead(50);
        out += QString::fromUtf8(process.readAllStandardOutput());
    }
    ASSERT_TRUE(out.contains(QStringLiteral("status statusArmed (21)"))) << out;
    QElapsedTimer stop;
    stop.start();
    kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(10000));
    const qint64 took = stop.elapsed();
    EXPECT_LT(took, 1000);
    EXPECT_EQ(process.exitCode(), 130);
    const QString err = QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(err.contains(QStringLiteral("korux: stopping the family"))) << err;
    EXPECT_TRUE(err.endsWith(QStringLiteral("korux: interrupted\n"))) << err;
}

// The bridge calls of the standard sequences, kept in tests/golden/ and
// compared line for line, so that any change of wire behaviour shows as a
// diff. KORUX_UPDATE_GOLDEN=1 rewrites the files after a deliberate change.
#include "support/PluginHarness.h"

#include <QFile>
#include <QTextStream>

using namespace testing_support;

namespace {

QString goldenPath(const QString& name)
{
    return QStringLiteral(KORUX_SOURCE_DIR "/tests/golden/") + name + QStringLiteral(".trace");
}

QStringList traceLines()
{
    QStringList lines;
    for (const vbridge::TraceEntry& entry : PluginHarness::bridge().trace())
        lines << QString::fromStdString(entry.toString());
    return lines;
}

void compareWithGolden(const QString& name, const QStringList& lines)
{
    QFile file(goldenPath(name));
    if (qEnvironmentVariableIntValue("KORUX_UPDATE_GOLDEN") == 1) {
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text));
        QTextStream(&file) << lines.join('\n') << '\n';
        return;
    }
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text)) << "missing " << goldenPath(name).toStdString();
    QStringList golden = QString::fromUtf8(file.readAll()).split('\n');
    if (!golden.isEmpty() && golden.last().isEmpty())
        golden.removeLast();
    const int common = std::min(golden.size(), lines.size());
    for (int i = 0; i < common; ++i)
        ASSERT_EQ(lines[i].toStdString(), golden[i].toStdString()) << name.toStdString() << " line " << i + 1;
    EXPECT_EQ(lines.size(), golden.size()) << name.toStdString();
}

class GoldenTrace : public ::testing::Test {
protected:
    PluginHarness host;

    void SetUp() override
    {
        vbridge::SensorConfig config;
        config.uniqueId = 0x0123456789ABCDEFull;
        host.bridge().addSensor(config);
        // The sensor logic answers at once, whatever the machine's timing:
        // ready since its power-on, armed with the frame. The traces are the
        // same on every machine.
        host.bridge().setSensorDelays(0, 0, 0, 0, config.readoutMs);
    }
};

}  // namespace

TEST_F(GoldenTrace, Enumeration)
{
    host.initialize();
    compareWithGolden("enumeration", traceLines());
}

TEST_F(GoldenTrace, FlashFileCopy)
{
    host.initialize();
    host.bridge().clearTrace();
    host.family().gotoStatus(commandReadAllFlashFiles);
    compareWithGolden("flash-file-copy", traceLines());
}

TEST_F(GoldenTrace, FpgaUpdateOfAnUnconfiguredSensor)
{
    host.bridge().setFpgaConfigured(0, false);
    host.initialize();
    host.bridge().clearTrace();
    host.family().gotoStatus(statusFpgaUpdating);
    ASSERT_TRUE(host.bridge().fpgaConfigured(0));
    compareWithGolden("fpga-update", traceLines());
}

TEST_F(GoldenTrace, ArmingAndImageReadOut)
{
    host.initialize();
    host.family().gotoStatus(statusFpgaUpdating);
    host.bridge().setAutoExposure(0, false);
    host.bridge().clearTrace();
    // Arming, then the read-out the polling makes once the image is there.
    ASSERT_TRUE(host.unit()->armSensor(true, false));
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    host.bridge().holdDarkImage(0);
    ASSERT_TRUE(unit->readImage(false));
    compareWithGolden("arm-and-read-out", traceLines());
}

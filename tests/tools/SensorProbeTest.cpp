// korux list's own reads: port A's record from the enumeration's log, the
// plug-in's status lines, and the status read korux makes on the bridge.
#include <gtest/gtest.h>

#include "sim/VirtualBridge.h"
#include "tools/SensorProbe.h"
#include "transport/BridgeApi.h"

using namespace korux;

namespace {

void feedDevice(EnumerationLog& log, int index, const char* location, const char* serial, const char* found)
{
    log.feed(QStringLiteral("GetDeviceInfoDetail of device %1.").arg(index));
    log.feed(QStringLiteral("Description of device: KORUX/KORUX\u00B2 Series A."));
    log.feed(QStringLiteral("Flags: 2 - Type: a - ID: 1ce60003 - LocId: %1").arg(QLatin1String(location)));
    log.feed(QStringLiteral("SerialNumber: %1").arg(QLatin1String(serial)));
    if (found)
        log.feed(QString::fromUtf8(found));
}

class Probe : public ::testing::Test {
protected:
    void SetUp() override
    {
        bridge().reset();
        // As the plug-in's enumeration leaves the driver: the series' ids registered.
        bridge().setRegisteredIds(0x1CE60003);
    }
    void TearDown() override { bridge().reset(); }

    static vbridge::VirtualBridge& bridge() { return vbridge::VirtualBridge::instance(); }

    static PortRecord portA(uint32_t location, const char* serial)
    {
        PortRecord record;
        record.location = location;
        record.serial = QString::fromLatin1(serial);
        record.known = true;
        return record;
    }

    static vbridge::SensorConfig sensor(const char* serial, uint32_t location, uint8_t sizeCode)
    {
        vbridge::SensorConfig config;
        config.serial = serial;
        config.location = location;
        config.sizeCode = sizeCode;
        return config;
    }
};

} // namespace

TEST(EnumerationLog, KeepsPortAOfEachSensorInTheOrderTheEnumerationFoundThem)
{
    EnumerationLog log;
    log.feed(QStringLiteral("enumKORUXPlugIn with "));
    feedDevice(log, 0, "1011", "KX0001A", "Find KORUX/KORUX² Series port A #1.");
    feedDevice(log, 1, "1012", "KX0001B", "Find KORUX/KORUX² Series port B #1.");
    feedDevice(log, 2, "2a31", "KX0002A", "Find KORUX/KORUX² Series port A #2.");
    EXPECT_TRUE(log.portA(0).known);
    EXPECT_EQ(log.portA(0).serial, QStringLiteral("KX0001A"));
    EXPECT_EQ(log.portA(0).location, 0x1011u);
    EXPECT_EQ(log.portA(1).serial, QStringLiteral("KX0002A"));
    EXPECT_EQ(log.portA(1).location, 0x2A31u);
    EXPECT_FALSE(log.portA(2).known);
    EXPECT_FALSE(log.portA(-1).known);
}

TEST(EnumerationLog, AnInterfaceTheEnumerationRefusedIsNoPortA)
{
    EnumerationLog log;
    feedDevice(log, 0, "1011", "OTHER0A", nullptr);
    log.feed(QStringLiteral("[red]Not a KORUX/KORUX² Series port!"));
    feedDevice(log, 1, "1021", "KX0001A", "Find KORUX/KORUX² Series port A #1.");
    EXPECT_EQ(log.portA(0).serial, QStringLiteral("KX0001A"));
    EXPECT_EQ(log.portA(0).location, 0x1021u);
}

TEST(EnumerationLog, ANewEnumerationForgetsTheLastOne)
{
    EnumerationLog log;
    feedDevice(log, 0, "1011", "KX0001A", "Find KORUX/KORUX² Series port A #1.");
    EXPECT_FALSE(log.feed(QStringLiteral("SerialNumber: KX0001B")));
    EXPECT_TRUE(log.feed(QStringLiteral("enumKORUXPlugIn with ")));
    EXPECT_FALSE(log.portA(0).known);
}

TEST(StatusLogLine, TellsSizeAndWhetherTheFpgaIsConfigured)
{
    struct Case {
        const char* line;
        bool configured;
        int size;
    };
    const Case cases[] = {
        { "getStatus Status=44 Size=2 Version=5 Diode=300", true, 2 },
        { "getStatus Status=40 Size=1 Version=15 Diode=0", true, 1 },
        // The unconfigured pattern says nothing of the size.
        { "getStatus Status=22 Size=2 Version=8 Diode=136", false, 0 },
        // One diode step away is a configured FPGA.
        { "getStatus Status=22 Size=2 Version=8 Diode=137", true, 2 },
        // A configured sensor that gives no size code.
        { "getStatus Status=44 Size=0 Version=5 Diode=300", true, 0 },
    };
    for (const Case& c : cases) {
        const StatusProbe status = statusOfLogLine(QString::fromLatin1(c.line));
        EXPECT_TRUE(status.read) << c.line;
        EXPECT_EQ(status.fpgaConfigured, c.configured) << c.line;
        EXPECT_EQ(status.sizeCode, c.size) << c.line;
    }
}

TEST(StatusLogLine, OtherLinesAreNoStatus)
{
    EXPECT_FALSE(statusOfLogLine(QStringLiteral("status call time: [10:00:00.000].")).read);
    EXPECT_FALSE(statusOfLogLine(QStringLiteral("[red]Unable to retrieve status.")).read);
    EXPECT_FALSE(statusOfLogLine(QStringLiteral("getStatus Status=44 Size=1 Version=5")).read);
}

TEST_F(Probe, ReadsTheStatusWordOnPortAAndClosesIt)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 2));
    bridge().clearTrace();
    const StatusProbe status = probeStatus(portA(0x1011, "KX0001A"));
    ASSERT_TRUE(status.read) << status.failure.toStdString();
    EXPECT_TRUE(status.fpgaConfigured);
    EXPECT_EQ(status.sizeCode, 2);

    const auto opens = bridge().trace("FT_OpenEx");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].port, 'A');
    const auto transfers = bridge().trace("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(transfers[0].written, (std::vector<uint8_t> { 0xA1, 0x80, 0xCA, 0xFE }));
    EXPECT_EQ(transfers[0].read.size(), 3u);
    EXPECT_EQ(bridge().trace("FT_Close").size(), 1u);
    // Nothing but port A was touched.
    for (const auto& entry : bridge().trace())
        EXPECT_TRUE(entry.port == 'A' || entry.port == 0) << entry.function;
}

TEST_F(Probe, TellsAnUnconfiguredFpga)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 1));
    bridge().setFpgaConfigured(0, false);
    const StatusProbe status = probeStatus(portA(0x1011, "KX0001A"));
    ASSERT_TRUE(status.read) << status.failure.toStdString();
    EXPECT_FALSE(status.fpgaConfigured);
    EXPECT_EQ(status.sizeCode, 0);
}

TEST_F(Probe, FallsBackToTheSerialWhenTheLocationDoesNotOpen)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 1));
    const StatusProbe status = probeStatus(portA(0x7777, "KX0001A"));
    ASSERT_TRUE(status.read) << status.failure.toStdString();
    const auto opens = bridge().trace("FT_OpenEx");
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[1].text, "KX0001A");
}

TEST_F(Probe, APortHeldOpenIsInUse)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 1));
    FT_HANDLE held = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("KX0001A"), FT_OPEN_BY_SERIAL_NUMBER, &held), FT_OK);
    const StatusProbe status = probeStatus(portA(0x1011, "KX0001A"));
    EXPECT_FALSE(status.read);
    EXPECT_EQ(status.failure, QStringLiteral("port A is in use"));
    FT_Close(held);
}

TEST_F(Probe, AnUnpluggedSensorGivesNoStatus)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 1));
    bridge().unplug(0);
    const StatusProbe status = probeStatus(portA(0x1011, "KX0001A"));
    EXPECT_FALSE(status.read);
    EXPECT_FALSE(status.failure.isEmpty());
}

TEST_F(Probe, AnUnknownPortIsNotOpened)
{
    bridge().addSensor(sensor("KX0001", 0x1011, 1));
    bridge().clearTrace();
    EXPECT_FALSE(probeStatus(PortRecord()).read);
    EXPECT_TRUE(bridge().trace("FT_OpenEx").empty());
}

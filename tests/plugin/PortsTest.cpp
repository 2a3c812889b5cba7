#include "support/PluginHarness.h"

using namespace testing_support;

namespace {

class PortsTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void SetUp() override
    {
        host.addSensors(1);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        unit = host.unit();
        host.bridge().clearTrace();
        host.seen().clear();
    }

    // Closes one port behind the unit's back, as if it had never been opened.
    void forgetPort(int port)
    {
        FT_DEVICE_LIST_INFO_NODE record = unit->portRecord(port);
        FT_Close(record.ftHandle);
        record.ftHandle = nullptr;
        unit->setInfoNode(port, &record);
    }

    static std::vector<std::string> openedDevices()
    {
        std::vector<std::string> devices;
        for (const vbridge::TraceEntry& entry : PluginHarness::calls("FT_OpenEx"))
            if (entry.status == FT_OK)
                devices.push_back(entry.device);
        return devices;
    }
};

}  // namespace

TEST_F(PortsTest, OpenPortsOpensAllFourByLocationAndSetsThemUp)
{
    ASSERT_TRUE(unit->openPorts());
    EXPECT_EQ(openedDevices(), (std::vector<std::string>{"KX0001A", "KX0001B", "KX0001C", "KX0001D"}));
    for (const vbridge::TraceEntry& entry : host.calls("FT_OpenEx"))
        EXPECT_EQ(entry.args.back(), FT_OPEN_BY_LOCATION);
    const auto timeouts = host.calls("FT_SetTimeouts");
    ASSERT_EQ(timeouts.size(), 4u);
    EXPECT_EQ(timeouts[0].args, (std::vector<int64_t>{900, 900}));
    const auto purges = host.calls("FT_Purge");
    ASSERT_EQ(purges.size(), 4u);
    EXPECT_EQ(purges[0].args, (std::vector<int64_t>{3}));
    EXPECT_EQ(host.calls("FT_ResetDevice").size(), 4u);
    EXPECT_EQ(unit->status(), statusReady);
    EXPECT_EQ(host.seen().unitStatuses, (std::vector<int>{statusOpeningPorts, statusReady}));
    EXPECT_TRUE(host.seen().hasAdvanced("[green]Port A is open by location"));
    EXPECT_TRUE(host.seen().hasAdvanced("Ports are now opened"));
    EXPECT_EQ(host.bridge().openHandleCount(), 4);
}

TEST_F(PortsTest, OpenPortsWithEveryPortOpenDoesNothing)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    host.seen().clear();
    EXPECT_TRUE(unit->openPorts());
    EXPECT_EQ(host.seen().all, (QStringList{"openPorts", "Ports already opened"}));
    EXPECT_TRUE(host.bridge().trace().empty());
    EXPECT_TRUE(host.seen().unitStatuses.empty());
}

TEST_F(PortsTest, OnlyTheClosedPortsAreOpened)
{
    ASSERT_TRUE(unit->openPorts());
    forgetPort(2);
    forgetPort(3);
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->openPorts());
    EXPECT_EQ(openedDevices(), (std::vector<std::string>{"KX0001C", "KX0001D"}));
}

TEST_F(PortsTest, LocationFailureFallsBackToTheSerialNumber)
{
    host.bridge().failCall("FT_OpenEx", 1, FT_DEVICE_NOT_FOUND);
    ASSERT_TRUE(unit->openPorts());
    const auto opens = host.calls("FT_OpenEx");
    ASSERT_GE(opens.size(), 2u);
    EXPECT_EQ(opens[1].args.back(), FT_OPEN_BY_SERIAL_NUMBER);
    EXPECT_EQ(opens[1].text, "KX0001A");
    const FT_DEVICE_LIST_INFO_NODE& a = unit->portRecord(0);
    EXPECT_TRUE(host.seen().hasAdvanced(
        QString("[yellow]Port A cannot be opened by location %1 [2]").arg(a.LocId)));
    EXPECT_TRUE(host.seen().hasAdvanced("[green]Port A is open by serial"));
    EXPECT_EQ(host.bridge().openHandleCount(), 4);
}

TEST_F(PortsTest, PortBOpenableNeitherWayClosesPortAAndStops)
{
    // Port A opens at the first try; port B fails by location and by serial.
    host.bridge().failCall("FT_OpenEx", 2, FT_DEVICE_NOT_FOUND);
    host.bridge().failCall("FT_OpenEx", 3, FT_DEVICE_NOT_OPENED);
    EXPECT_FALSE(unit->openPorts());
    EXPECT_EQ(host.calls("FT_OpenEx").size(), 3u);
    EXPECT_EQ(host.calls("FT_Close").size(), 1u);
    EXPECT_EQ(host.bridge().openHandleCount(), 0);
    EXPECT_EQ(unit->status(), statusError);
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Port B cannot be opened by serial KX0001B [3]"));
    for (int port = 0; port < 4; ++port)
        EXPECT_EQ(unit->portRecord(port).ftHandle, nullptr);
}

TEST_F(PortsTest, TimeoutFailureSkipsPurgeAndResetOfThatPortOnly)
{
    host.bridge().failCall("FT_SetTimeouts", 1, FT_IO_ERROR);
    ASSERT_TRUE(unit->openPorts());
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Timeouts cannot be set for Port A [4]"));
    EXPECT_EQ(host.calls("FT_Purge").size(), 3u);
    EXPECT_EQ(host.calls("FT_ResetDevice").size(), 3u);
    EXPECT_EQ(unit->status(), statusReady);
}

TEST_F(PortsTest, PurgeAndResetFailuresAreWarnings)
{
    host.bridge().failCall("FT_Purge", 2, FT_IO_ERROR);
    host.bridge().failCall("FT_ResetDevice", 3, FT_IO_ERROR);
    ASSERT_TRUE(unit->openPorts());
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Purge cannot be done for Port B [4]"));
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Reset cannot be done for Port D [4]"));
    EXPECT_EQ(host.calls("FT_ResetDevice").size(), 3u);
}

TEST_F(PortsTest, ClosePortsUninitializesAndClosesEveryOpenPort)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    host.seen().clear();
    EXPECT_TRUE(unit->closePorts());
    EXPECT_EQ(host.calls("FT4222_UnInitialize").size(), 4u);
    EXPECT_EQ(host.calls("FT_Close").size(), 4u);
    EXPECT_EQ(host.bridge().openHandleCount(), 0);
    EXPECT_EQ(host.seen().advanced.first(), "closePorts");
    EXPECT_EQ(host.seen().advanced.last(), "Ports are now closed");
    EXPECT_TRUE(host.seen().hasAdvanced("FT4222_UnInitialize return 0"));
    EXPECT_TRUE(host.seen().hasAdvanced("FT_Close return 0"));
}

TEST_F(PortsTest, UnitWithoutRecordsTreatsEveryPortAsClosed)
{
    QVeltraXRayKORUXPlugInUnit fresh(&host.family());
    for (int port = 0; port < 4; ++port)
        EXPECT_EQ(fresh.portRecord(port).ftHandle, nullptr);
    bool solo = false;
    EXPECT_FALSE(fresh.initPortA(false));
    EXPECT_FALSE(fresh.initPortD(&solo));
    EXPECT_TRUE(host.bridge().trace().empty());
}

TEST_F(PortsTest, PortSetUpWithoutHandleSaysSo)
{
    EXPECT_FALSE(unit->initPortB());
    EXPECT_TRUE(host.seen().hasLog("[red]Port B handle is invalid"));
    EXPECT_TRUE(host.bridge().trace().empty());
}

TEST_F(PortsTest, PortANormalModeIsFourLinesAt40MHz)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->initPortA(false));
    ASSERT_EQ(host.calls("FT4222_SetClock").size(), 1u);
    EXPECT_EQ(host.calls("FT4222_SetClock")[0].args, (std::vector<int64_t>{SYS_CLK_80}));
    ASSERT_EQ(host.calls("FT4222_SPIMaster_Init").size(), 1u);
    EXPECT_EQ(host.calls("FT4222_SPIMaster_Init")[0].args,
              (std::vector<int64_t>{SPI_IO_QUAD, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 1}));
    EXPECT_EQ(host.calls("FT4222_SPI_Reset").size(), 1u);
    EXPECT_EQ(host.calls("FT4222_SPI_SetDrivingStrength")[0].args,
              (std::vector<int64_t>{DS_8MA, DS_8MA, DS_8MA}));
}

TEST_F(PortsTest, PortAProgrammingModeIsOneLineAt20MHz)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->initPortA(true));
    EXPECT_EQ(host.calls("FT4222_SPIMaster_Init")[0].args,
              (std::vector<int64_t>{SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1}));
    EXPECT_TRUE(host.seen().hasAdvanced("initPortA with prog_mode 1"));
}

TEST_F(PortsTest, PortAMasterFailureFailsTheSetUp)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().failCall("FT4222_SPIMaster_Init", 1, FT4222_CLK_NOT_SUPPORTED);
    EXPECT_FALSE(unit->initPortA(false));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to init SPI Master port A CLK_NOT_SUPPORTED"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to init port A"));
}

TEST_F(PortsTest, PortAClockFailureIsOnlyLogged)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().failCall("FT4222_SetClock", 1, FT4222_CLK_NOT_SUPPORTED);
    EXPECT_TRUE(unit->initPortA(false));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to set Clock port A CLK_NOT_SUPPORTED"));
}

TEST_F(PortsTest, PortBIsOneLineAt1250kHzOnChipSelect4)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->initPortB());
    EXPECT_EQ(host.calls("FT4222_SPIMaster_Init")[0].args,
              (std::vector<int64_t>{SPI_IO_SINGLE, CLK_DIV_64, CLK_IDLE_LOW, CLK_LEADING, 4}));
}

TEST_F(PortsTest, PortCIsSetUpAlikeInBothModes)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->initPortC(false));
    std::vector<std::string> normal;
    for (const auto& entry : host.bridge().trace())
        normal.push_back(entry.toString());
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->initPortC(true));
    std::vector<std::string> programming;
    for (const auto& entry : host.bridge().trace())
        programming.push_back(entry.toString());
    EXPECT_EQ(normal.size(), 5u);
    auto stripSeq = [](std::vector<std::string> lines) {
        for (std::string& line : lines)
            line = line.substr(line.find(' ') + 1);
        return lines;
    };
    EXPECT_EQ(stripSeq(normal), stripSeq(programming));
    EXPECT_EQ(host.calls("FT4222_SPIMaster_Init")[0].args,
              (std::vector<int64_t>{SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2}));
}

TEST_F(PortsTest, GpioThreeHighMeansStandAlone)
{
    ASSERT_TRUE(unit->openPorts());
    bool solo = false;
    ASSERT_TRUE(unit->initPortD(&solo));
    EXPECT_TRUE(solo);
    EXPECT_FALSE(unit->generator()->isInside);
    EXPECT_TRUE(host.seen().hasLog("[yellow,italic]KORUX3 solo detected"));
    EXPECT_TRUE(host.seen().hasAdvanced("initPortD result OK"));
    const auto init = host.calls("FT4222_GPIO_Init");
    ASSERT_EQ(init.size(), 1u);
}

TEST_F(PortsTest, GpioThreeLowMeansInside)
{
    host.bridge().setInside(0, true);
    ASSERT_TRUE(unit->openPorts());
    bool solo = true;
    bool reported = false;
    QObject::connect(unit->generator(), &QVeltraGenerator::isInsideChanged,
                     [&](bool inside) { reported = inside; });
    ASSERT_TRUE(unit->initPortD(&solo));
    EXPECT_FALSE(solo);
    EXPECT_TRUE(unit->generator()->isInside);
    EXPECT_TRUE(reported);
    EXPECT_TRUE(host.seen().hasLog("[yellow,italic]KORUX3 Inside detected"));
}

TEST_F(PortsTest, GpioInitFailureMeansTheVersionCannotBeDetected)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().failCall("FT4222_GPIO_Init", 1, FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
    bool solo = false;
    EXPECT_FALSE(unit->initPortD(&solo));
    EXPECT_TRUE(host.seen().hasAdvanced("initPortD result GPIO_NOT_SUPPORTED_IN_THIS_MODE"));
    EXPECT_TRUE(host.seen().hasLog("[red,bold]Unable to detect KORUX3 version"));
    EXPECT_TRUE(host.calls("FT4222_GPIO_Read").empty());
}

TEST_F(PortsTest, GpioReadFailureAssumesStandAlone)
{
    host.bridge().setInside(0, true);
    ASSERT_TRUE(unit->openPorts());
    host.bridge().failCall("FT4222_GPIO_Read", 1, FT4222_IO_ERROR);
    bool solo = false;
    EXPECT_TRUE(unit->initPortD(&solo));
    EXPECT_TRUE(solo);
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to read GPIO port D3 IO_ERROR"));
}

TEST_F(PortsTest, PortDFreesGpioTwoAndThreeBeforeInitialisingThem)
{
    ASSERT_TRUE(unit->openPorts());
    host.bridge().clearTrace();
    bool solo = false;
    ASSERT_TRUE(unit->initPortD(&solo));
    std::vector<std::string> order;
    for (const auto& entry : host.bridge().trace())
        order.push_back(entry.function);
    EXPECT_EQ(order, (std::vector<std::string>{"FT4222_SetClock", "FT4222_SetSuspendOut",
                                               "FT4222_SetWakeUpInterrupt", "FT4222_GPIO_Init",
                                               "FT4222_GPIO_Read"}));
    EXPECT_EQ(host.calls("FT4222_SetSuspendOut")[0].args, (std::vector<int64_t>{0}));
}

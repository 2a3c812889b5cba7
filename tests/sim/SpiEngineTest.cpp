// The bridge's SPI interfaces are one SPI master with a chip select each:
// clock, line and mode settings made through one interface are the others'.
#include "SimSupport.h"

using namespace simtest;

namespace {

class VbSpiEngine : public VbTest {
protected:
    static int addSensorWith(bool shared)
    {
        vbridge::SensorConfig config;
        config.defaultFlash = false;
        config.sharedSpiEngine = shared;
        return bridge().addSensor(config);
    }

    static FT_HANDLE portWith(int port, int lines, int clock, int ssoMap)
    {
        FT_HANDLE handle = openPort(0, port);
        EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_OK);
        EXPECT_EQ(spiMasterInitFromC(handle, lines, clock, CLK_IDLE_LOW, CLK_LEADING, ssoMap), FT4222_OK);
        return handle;
    }

    // Channel 0 of the converter, raw.
    static int channelZero(FT_HANDLE handle)
    {
        std::vector<uint8_t> out = bytes({ 0x01, 0x80, 0x00 });
        uint8_t in[3] = {};
        uint16_t done = 0;
        EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, in, out.data(), 3, &done, 1), FT4222_OK);
        return ((in[1] << 8) | in[2]) & 0x3FF;
    }
};

} // namespace

TEST_F(VbSpiEngine, ClockSetThroughPortAIsPortBsToo)
{
    addSensorWith(true);
    FT_HANDLE converter = portWith(kPortB, SPI_IO_SINGLE, CLK_DIV_64, 4);
    EXPECT_EQ(channelZero(converter), 620);
    portWith(kPortA, SPI_IO_QUAD, CLK_DIV_2, 1);
    EXPECT_EQ(bridge().portSettings(0, kPortB).engineClockDivider, CLK_DIV_2);
    // 40 MHz is far beyond the converter: its answer comes out garbled.
    ASSERT_EQ(FT4222_SPIMaster_SetLines(converter, SPI_IO_SINGLE), FT4222_OK);
    EXPECT_NE(channelZero(converter), 620);
}

TEST_F(VbSpiEngine, LinesSetThroughPortAArePortCsToo)
{
    addSensorWith(true);
    FT_HANDLE flash = portWith(kPortC, SPI_IO_SINGLE, CLK_DIV_2, 2);
    FT_HANDLE logic = portWith(kPortA, SPI_IO_SINGLE, CLK_DIV_2, 1);
    ASSERT_EQ(FT4222_SPIMaster_SetLines(logic, SPI_IO_QUAD), FT4222_OK);
    std::vector<uint8_t> out = bytes({ 0x05, 0x00 });
    uint8_t in[2] = {};
    uint16_t done = 0;
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(flash, in, out.data(), 2, &done, 1), FT4222_IS_NOT_SPI_SINGLE_MODE);
}

TEST_F(VbSpiEngine, SeparateEnginesKeepTheirOwnSettings)
{
    addSensorWith(false);
    FT_HANDLE converter = portWith(kPortB, SPI_IO_SINGLE, CLK_DIV_64, 4);
    portWith(kPortA, SPI_IO_QUAD, CLK_DIV_2, 1);
    EXPECT_EQ(bridge().portSettings(0, kPortB).engineClockDivider, CLK_DIV_64);
    EXPECT_EQ(channelZero(converter), 620);
}

TEST_F(VbSpiEngine, ScenarioChoosesTheEngine)
{
    std::string error;
    ASSERT_TRUE(bridge().loadScenarioText(R"({"sensors": [{"spiEngine": "separate"}]})", "s.json", &error))
        << error;
    EXPECT_FALSE(bridge().sensorConfig(0).sharedSpiEngine);
    EXPECT_FALSE(bridge().loadScenarioText(R"({"sensors": [{"spiEngine": "two"}]})", "t.json", &error));
    EXPECT_NE(error.find("must be \"shared\" or \"separate\""), std::string::npos) << error;
}

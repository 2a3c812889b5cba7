// What the SPI settings of a port do to the device behind it: its SPI mode,
// its largest clock and its chip-select line.
#include "SimSupport.h"

using namespace simtest;

namespace {

class VbSpiSettings : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        addSensor();
    }

    static FT_HANDLE portWith(int port, int clock, int cpol, int cpha, int ssoMap)
    {
        FT_HANDLE handle = openPort(0, port);
        EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_OK);
        EXPECT_EQ(spiMasterInitFromC(handle, SPI_IO_SINGLE, clock, cpol, cpha, ssoMap), FT4222_OK);
        return handle;
    }

    static std::vector<uint8_t> exchange(FT_HANDLE handle, std::vector<uint8_t> out)
    {
        std::vector<uint8_t> in(out.size(), 0xEE);
        uint16_t done = 0;
        EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(
                      handle, in.data(), out.data(), static_cast<uint16>(out.size()), &done, 1),
            FT4222_OK);
        return in;
    }

    static std::string jedecId(FT_HANDLE handle)
    {
        const auto in = exchange(handle, bytes({ 0x9F, 0, 0, 0 }));
        return hex(in.data() + 1, 3);
    }

    // Channel 0 of the converter, raw.
    static int channelZero(FT_HANDLE handle)
    {
        const auto in = exchange(handle, bytes({ 0x01, 0x80, 0x00 }));
        return ((in[1] << 8) | in[2]) & 0x3FF;
    }
};

} // namespace

TEST_F(VbSpiSettings, FlashAnswersInModeThreeAsInModeZero)
{
    EXPECT_EQ(jedecId(portWith(kPortC, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2)), "ef 40 18");
    bridge().reset();
    addSensor();
    EXPECT_EQ(jedecId(portWith(kPortC, CLK_DIV_2, CLK_IDLE_HIGH, CLK_TRAILING, 2)), "ef 40 18");
}

// In mode 1 the flash takes every bit one edge late: 9F arrives as 3E, an
// instruction it does not know, and it leaves the line floating.
TEST_F(VbSpiSettings, WrongModeShiftsTheBits)
{
    EXPECT_EQ(jedecId(portWith(kPortC, CLK_DIV_2, CLK_IDLE_LOW, CLK_TRAILING, 2)), "ff ff ff");
}

TEST_F(VbSpiSettings, ConverterClockedAboveItsMaximumGarblesItsAnswer)
{
    bridge().setAdcRaw(0, { { 620, 310, 775, 560 } });
    EXPECT_EQ(channelZero(portWith(kPortB, CLK_DIV_64, CLK_IDLE_LOW, CLK_LEADING, 4)), 620);
    bridge().reset();
    addSensor();
    bridge().setAdcRaw(0, { { 620, 310, 775, 560 } });
    FT_HANDLE fast = portWith(kPortB, CLK_DIV_16, CLK_IDLE_LOW, CLK_LEADING, 4); // 5 MHz
    EXPECT_NE(channelZero(fast), 620);
}

// The board runs the converter at 3.3 V, where its datasheet assures
// 1.35 MHz, not the 3.6 MHz of a 5 V supply.
TEST_F(VbSpiSettings, ConverterAtTheBoardsSupplyTakesNoMoreThanItsLowVoltageClock)
{
    bridge().setAdcRaw(0, { { 620, 310, 775, 560 } });
    FT_HANDLE handle = portWith(kPortB, CLK_DIV_32, CLK_IDLE_LOW, CLK_LEADING, 4); // 2.5 MHz
    EXPECT_NE(channelZero(handle), 620);
}

TEST_F(VbSpiSettings, AnotherChipSelectLineReachesNoDevice)
{
    EXPECT_EQ(jedecId(portWith(kPortC, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 1)), "ff ff ff");
}

TEST_F(VbSpiSettings, ClockAboveTheRatedThirtyMegahertzIsMarkedAndStillWorksForTheLogic)
{
    FT_HANDLE handle = openPortA(); // 80 MHz / 2
    EXPECT_EQ(hex(command(handle, bytes({ 0xA1, 0x80, 0xCA, 0xFE }), 3)), "40 6b 09");
    const auto fast = bridge().trace("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(fast.size(), 1u);
    EXPECT_TRUE(fast[0].aboveRatedClock);

    ASSERT_EQ(FT4222_SPIMaster_Init(handle, SPI_IO_QUAD, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
    command(handle, bytes({ 0xA1, 0x80, 0xCA, 0xFE }), 3);
    EXPECT_FALSE(bridge().trace("FT4222_SPIMaster_MultiReadWrite").back().aboveRatedClock);
}

// The FPGA's configuration port behind port A in programming mode: its
// settling time after entering and leaving configuration, the PROGRAMN pulse
// it needs, and the status register after a bitstream.
#include "SimSupport.h"

#include <chrono>
#include <thread>

#include "sim/FlashContent.h"

using namespace simtest;

namespace {

class VbFpgaPort : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        addSensor();
        handle = openPort(0, kPortA);
        ASSERT_EQ(
            FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
    }

    void send(std::vector<uint8_t> frame, bool end = true)
    {
        uint16_t size = 0;
        ASSERT_EQ(FT4222_SPIMaster_SingleWrite(
                      handle, frame.data(), static_cast<uint16>(frame.size()), &size, end ? 1 : 0),
            FT4222_OK);
    }

    uint32_t classA(uint8_t opcode)
    {
        send(bytes({ opcode, 0, 0, 0 }), false);
        uint8_t answer[4] = {};
        uint16_t size = 0;
        EXPECT_EQ(FT4222_SPIMaster_SingleRead(handle, answer, 4, &size, 1), FT4222_OK);
        return (uint32_t(answer[0]) << 24) | (uint32_t(answer[1]) << 16) | (uint32_t(answer[2]) << 8)
            | answer[3];
    }

    void load(const std::vector<uint8_t>& bitstream)
    {
        send(bytes({ 0x7A, 0, 0, 0 }), false);
        send(bitstream, true);
    }

    FT_HANDLE handle = nullptr;
};

} // namespace

TEST_F(VbFpgaPort, CommandsRightAfterEnteringConfigurationAreIgnored)
{
    bridge().setFpgaDelays(0, 20000, 0);
    send(bytes({ 0xC6, 0, 0, 0 }));
    // Settling: the port drives nothing.
    EXPECT_EQ(classA(0xE0), 0xFFFFFFFFu);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(classA(0xE0), 0x412B4043u);
}

TEST_F(VbFpgaPort, GoodBitstreamSetsDone)
{
    send(bytes({ 0xC6, 0, 0, 0 }));
    load(vbridge::makeBitstream(vbridge::BitstreamHeader(), 4000, 1));
    EXPECT_EQ(classA(0x3C), 0x300u);
    send(bytes({ 0x26, 0, 0, 0 }));
    EXPECT_TRUE(bridge().fpgaConfigured(0));
}

TEST_F(VbFpgaPort, BitstreamForAnotherIdSetsFailWithTheIdError)
{
    vbridge::BitstreamHeader header;
    header.deviceId = 0x412B3043;
    send(bytes({ 0xC6, 0, 0, 0 }));
    load(vbridge::makeBitstream(header, 4000, 1));
    EXPECT_EQ(classA(0x3C), 0x00802200u);
    send(bytes({ 0x26, 0, 0, 0 }));
    EXPECT_FALSE(bridge().fpgaConfigured(0));
}

TEST_F(VbFpgaPort, TruncatedBitstreamSetsFailWithTheAbortError)
{
    send(bytes({ 0xC6, 0, 0, 0 }));
    std::vector<uint8_t> bitstream = vbridge::makeBitstream(vbridge::BitstreamHeader(), 4000, 1);
    bitstream.resize(3000);
    load(bitstream);
    EXPECT_EQ(classA(0x3C), 0x02802200u);
}

TEST_F(VbFpgaPort, ProgramPulseShorterThanTheMinimumIsIgnored)
{
    bridge().setFpgaDelays(0, 0, 20000);
    FT_HANDLE gpio = openPortD();
    ASSERT_TRUE(bridge().fpgaConfigured(0));
    ASSERT_EQ(FT4222_GPIO_Write(gpio, GPIO_PORT2, 0), FT4222_OK);
    ASSERT_EQ(FT4222_GPIO_Write(gpio, GPIO_PORT2, 1), FT4222_OK);
    EXPECT_TRUE(bridge().fpgaConfigured(0));
    ASSERT_EQ(FT4222_GPIO_Write(gpio, GPIO_PORT2, 0), FT4222_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_EQ(FT4222_GPIO_Write(gpio, GPIO_PORT2, 1), FT4222_OK);
    EXPECT_FALSE(bridge().fpgaConfigured(0));
}

// The configuration port drives its answer on one line: read on four, the
// master samples nibbles of which only IO1 carries the answer's bits.
TEST_F(VbFpgaPort, AnswerReadOnFourLinesIsNotTheIdentifier)
{
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_QUAD), FT4222_OK);
    std::vector<uint8_t> frame = bytes({ 0xE0, 0, 0, 0 });
    uint8_t answer[4] = {};
    uint32_t read = 0;
    ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 4, 0, 4, &read), FT4222_OK);
    // 0x41 = 0100 0001: its first bits on IO1 give nibbles 1101 and 1111.
    EXPECT_EQ(hex(answer, 4).substr(0, 2), "df");
    EXPECT_NE(hex(answer, 4), "41 2b 40 43");
}

TEST_F(VbFpgaPort, StatusWhileSettlingShowsBusyAndNotDone)
{
    bridge().setFpgaDelays(0, 20000, 0);
    send(bytes({ 0xC6, 0, 0, 0 }));
    // Entering configuration: Busy (bit 12) and ISC enabled, a defined value.
    EXPECT_EQ(classA(0x3C), 0x1200u);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(classA(0x3C), 0x200u);
    load(vbridge::makeBitstream(vbridge::BitstreamHeader(), 4000, 1));
    EXPECT_EQ(classA(0x3C), 0x300u);
    send(bytes({ 0x26, 0, 0, 0 }));
    // Leaving it: busy, and DONE only once the port has settled.
    EXPECT_EQ(classA(0x3C), 0x1000u);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(classA(0x3C), 0x100u);
}

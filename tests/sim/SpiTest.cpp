// The SPI master of an interface: its set-up, the vendor library's checks,
// and chip-select transactions that span several calls.
#include "SimSupport.h"

using namespace simtest;

namespace {

const std::vector<uint8_t> kStatusRequest = bytes({ 0xA1, 0x80, 0xCA, 0xFE });

class VbSpi : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        addSensor();
        vbridge::StatusWord word;
        word.flags = 0x44;
        word.diode = 75;
        word.version = 2;
        word.sizeCode = 1;
        bridge().setStatusWord(0, word);
    }

    // Port A initialised on one line.
    static FT_HANDLE singleLinePortA()
    {
        FT_HANDLE handle = openPort(0, kPortA);
        EXPECT_EQ(
            FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
        return handle;
    }
};

} // namespace

TEST_F(VbSpi, InitRecordsItsSettings)
{
    FT_HANDLE handle = openPort(0, kPortB);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_64, CLK_IDLE_HIGH, CLK_TRAILING, 4), FT4222_OK);
    const vbridge::PortSettings settings = bridge().portSettings(0, kPortB);
    EXPECT_TRUE(settings.spiMaster);
    EXPECT_EQ(settings.lines, SPI_IO_SINGLE);
    EXPECT_EQ(settings.clockDivider, CLK_DIV_64);
    EXPECT_EQ(settings.cpol, CLK_IDLE_HIGH);
    EXPECT_EQ(settings.cpha, CLK_TRAILING);
    EXPECT_EQ(settings.ssoMap, 4);
}

TEST_F(VbSpi, InitRejectsEachOutOfRangeArgument)
{
    FT_HANDLE handle = openPort(0, kPortA);
    struct Case {
        int ioLine, clock, cpol, cpha, ssoMap;
    };
    const Case cases[] = {
        { 0, 1, 0, 0, 1 },
        { 3, 1, 0, 0, 1 },
        { 8, 1, 0, 0, 1 },
        { 4, 0, 0, 0, 1 },
        { 4, 10, 0, 0, 1 },
        { 4, 1, 2, 0, 1 },
        { 4, 1, 0, 2, 1 },
        { 4, 1, 0, 0, 0 },
        { 4, 1, 0, 0, 16 },
    };
    for (const Case& c : cases)
        EXPECT_EQ(
            spiMasterInitFromC(handle, c.ioLine, c.clock, c.cpol, c.cpha, c.ssoMap), FT4222_INVALID_PARAMETER)
            << "ioLine " << c.ioLine << " clock " << c.clock << " cpol " << c.cpol << " cpha " << c.cpha
            << " ssoMap " << c.ssoMap;
    EXPECT_FALSE(bridge().portSettings(0, kPortA).spiMaster);
}

TEST_F(VbSpi, EveryTransferNeedsSpiMasterMode)
{
    FT_HANDLE handle = openPort(0, kPortA);
    uint8_t buffer[8] = {};
    uint16_t size16 = 0;
    uint32_t size32 = 0;
    EXPECT_EQ(FT4222_SPIMaster_SingleRead(handle, buffer, 3, &size16, 1), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(FT4222_SPIMaster_SingleWrite(handle, buffer, 3, &size16, 1), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(handle, buffer, buffer, 3, &size16, 1), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 4, 0, 3, &size32), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_QUAD), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(FT4222_SPI_Reset(handle), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(FT4222_SPI_ResetTransaction(handle, 0), FT4222_IS_NOT_SPI_MODE);
    EXPECT_EQ(FT4222_SPI_SetDrivingStrength(handle, DS_8MA, DS_8MA, DS_8MA), FT4222_IS_NOT_SPI_MODE);
}

TEST_F(VbSpi, SingleLineTransfersNeedSingleLines)
{
    FT_HANDLE handle = openPortA();
    uint8_t buffer[8] = {};
    uint16_t size = 0;
    EXPECT_EQ(FT4222_SPIMaster_SingleRead(handle, buffer, 3, &size, 1), FT4222_IS_NOT_SPI_SINGLE_MODE);
    EXPECT_EQ(FT4222_SPIMaster_SingleWrite(handle, buffer, 3, &size, 1), FT4222_IS_NOT_SPI_SINGLE_MODE);
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(handle, buffer, buffer, 3, &size, 1), FT4222_IS_NOT_SPI_SINGLE_MODE);
}

TEST_F(VbSpi, MultiReadWriteNeedsDualOrQuadLines)
{
    FT_HANDLE handle = singleLinePortA();
    uint8_t buffer[8] = {};
    uint32_t size = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 4, 0, 3, &size),
        FT4222_IS_NOT_SPI_MULTI_MODE);
}

TEST_F(VbSpi, MultiReadWriteWorksOnDualLines)
{
    FT_HANDLE handle = singleLinePortA();
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_DUAL), FT4222_OK);
    // The logic drives its answer (44 12 c9) on four lines; on two the master
    // takes IO1:IO0 of each nibble, two answer bytes a byte.
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "06 10 00");
}

TEST_F(VbSpi, SetLinesSwitchesBetweenSingleAndQuad)
{
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_SINGLE), FT4222_OK);
    EXPECT_EQ(bridge().portSettings(0, kPortA).lines, SPI_IO_SINGLE);
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_QUAD), FT4222_OK);
    EXPECT_EQ(bridge().portSettings(0, kPortA).lines, SPI_IO_QUAD);
}

TEST_F(VbSpi, SetLinesRejectsNoLines)
{
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_NONE), FT4222_INVALID_PARAMETER);
    EXPECT_EQ(bridge().portSettings(0, kPortA).lines, SPI_IO_QUAD);
}

TEST_F(VbSpi, MoreThanFifteenSingleLineBytesExceedTheMaximum)
{
    FT_HANDLE handle = openPortA();
    uint8_t buffer[32] = {};
    uint32_t size = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 16, 0, 3, &size),
        FT4222_EXCEEDED_MAX_TRANSFER_SIZE);
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 15, 0, 3, &size), FT4222_OK);
}

TEST_F(VbSpi, LargestMultiLineReadIsAccepted)
{
    FT_HANDLE handle = openPortA();
    std::vector<uint8_t> answer(65535);
    std::vector<uint8_t> frame = bytes({ 0xA0, 0x80, 0xCA, 0xFE });
    uint32_t read = 0;
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(handle, answer.data(), frame.data(), 4, 0, 65535, &read), FT4222_OK);
    EXPECT_EQ(read, 65535u);
}

TEST_F(VbSpi, MissingBuffersAreInvalidPointers)
{
    FT_HANDLE single = singleLinePortA();
    uint8_t buffer[8] = {};
    uint16_t size16 = 0;
    EXPECT_EQ(FT4222_SPIMaster_SingleRead(single, nullptr, 3, &size16, 1), FT4222_INVALID_POINTER);
    EXPECT_EQ(FT4222_SPIMaster_SingleRead(single, buffer, 3, nullptr, 1), FT4222_INVALID_POINTER);
    EXPECT_EQ(FT4222_SPIMaster_SingleWrite(single, nullptr, 3, &size16, 1), FT4222_INVALID_POINTER);
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(single, nullptr, buffer, 3, &size16, 1), FT4222_INVALID_POINTER);
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(single, buffer, nullptr, 3, &size16, 1), FT4222_INVALID_POINTER);
    ASSERT_EQ(FT4222_SPIMaster_SetLines(single, SPI_IO_QUAD), FT4222_OK);
    uint32_t size32 = 0;
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(single, buffer, nullptr, 4, 0, 3, &size32), FT4222_INVALID_POINTER);
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(single, nullptr, buffer, 4, 0, 3, &size32), FT4222_INVALID_POINTER);
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(single, buffer, buffer, 4, 0, 3, nullptr), FT4222_INVALID_POINTER);
}

TEST_F(VbSpi, MultiReadWriteWithoutReadNeedsNoReadBuffer)
{
    FT_HANDLE handle = openPortA();
    std::vector<uint8_t> frame = bytes({ 0xA1, 0x7F, 0xCA, 0xFE });
    uint32_t read = 99;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, nullptr, frame.data(), 4, 0, 0, &read), FT4222_OK);
    EXPECT_EQ(read, 0u);
}

TEST_F(VbSpi, EmptySingleLineTransferIsInvalidParameter)
{
    FT_HANDLE handle = singleLinePortA();
    uint8_t buffer[1];
    uint16_t size = 0;
    EXPECT_EQ(FT4222_SPIMaster_SingleRead(handle, buffer, 0, &size, 1), FT4222_INVALID_PARAMETER);
}

TEST_F(VbSpi, TransfersReportTheirSizes)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint8_t answer[3];
    uint16_t written = 0;
    uint16_t read = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &written, 0), FT4222_OK);
    ASSERT_EQ(FT4222_SPIMaster_SingleRead(handle, answer, 3, &read, 1), FT4222_OK);
    EXPECT_EQ(written, 4);
    EXPECT_EQ(read, 3);
}

TEST_F(VbSpi, HeldChipSelectCarriesTheCommandIntoTheNextTransfer)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint8_t answer[3] = {};
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &size, 0), FT4222_OK);
    EXPECT_TRUE(bridge().portSettings(0, kPortA).chipSelectAsserted);
    ASSERT_EQ(FT4222_SPIMaster_SingleRead(handle, answer, 3, &size, 1), FT4222_OK);
    // The answer 44 12 c9 comes on four lines; read on one, the master sees
    // IO1 only: bits 5 and 1 of four answer bytes a byte.
    EXPECT_EQ(hex(answer, 3), "10 00 00");
    EXPECT_FALSE(bridge().portSettings(0, kPortA).chipSelectAsserted);
}

TEST_F(VbSpi, EndedTransactionForgetsTheCommand)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint8_t answer[3] = { 0xEE, 0xEE, 0xEE };
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &size, 1), FT4222_OK);
    ASSERT_EQ(FT4222_SPIMaster_SingleRead(handle, answer, 3, &size, 1), FT4222_OK);
    // A read alone clocks out no command: the sensor logic answers nothing.
    EXPECT_EQ(hex(answer, 3), "00 00 00");
}

TEST_F(VbSpi, SingleReadWriteExchangesInOneTransfer)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> out = bytes({ 0xA1, 0x80, 0xCA, 0xFE, 0, 0, 0 });
    uint8_t in[7] = {};
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, in, out.data(), 7, &size, 1), FT4222_OK);
    // The status word, driven on four lines, as one line shows it.
    EXPECT_EQ(hex(in + 4, 3), "10 00 00");
}

TEST_F(VbSpi, MultiReadWriteContinuesAHeldTransactionAndEndsIt)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &size, 0), FT4222_OK);
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_QUAD), FT4222_OK);
    uint8_t answer[3] = {};
    uint32_t read = 0;
    ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, nullptr, 0, 0, 3, &read), FT4222_OK);
    EXPECT_EQ(hex(answer, 3), "44 12 c9");
    EXPECT_FALSE(bridge().portSettings(0, kPortA).chipSelectAsserted);
}

TEST_F(VbSpi, SpiResetReleasesAHeldChipSelect)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &size, 0), FT4222_OK);
    ASSERT_EQ(FT4222_SPI_Reset(handle), FT4222_OK);
    EXPECT_FALSE(bridge().portSettings(0, kPortA).chipSelectAsserted);
}

TEST_F(VbSpi, ResetTransactionReleasesAHeldChipSelect)
{
    FT_HANDLE handle = singleLinePortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frame.data(), 4, &size, 0), FT4222_OK);
    ASSERT_EQ(FT4222_SPI_ResetTransaction(handle, 0), FT4222_OK);
    EXPECT_FALSE(bridge().portSettings(0, kPortA).chipSelectAsserted);
}

TEST_F(VbSpi, ResetTransactionRejectsIndexAboveThree)
{
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(FT4222_SPI_ResetTransaction(handle, 4), FT4222_INVALID_PARAMETER);
}

TEST_F(VbSpi, DrivingStrengthIsKept)
{
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT4222_SPI_SetDrivingStrength(handle, DS_8MA, DS_12MA, DS_16MA), FT4222_OK);
    const auto strength = bridge().portSettings(0, kPortA).drivingStrength;
    EXPECT_EQ(strength, (std::array<int, 3> { { DS_8MA, DS_12MA, DS_16MA } }));
}

TEST_F(VbSpi, DrivingStrengthRejectsValueAboveSixteenMilliamps)
{
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(setDrivingStrengthFromC(handle, DS_8MA, 4, DS_8MA), FT4222_INVALID_PARAMETER);
}

TEST_F(VbSpi, UnInitializeDropsTheSpiMaster)
{
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT4222_UnInitialize(handle), FT4222_OK);
    EXPECT_FALSE(bridge().portSettings(0, kPortA).spiMaster);
    uint8_t buffer[3];
    uint32_t read = 0;
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 0, 0, 3, &read), FT4222_IS_NOT_SPI_MODE);
}

TEST_F(VbSpi, ClockIsSetAndReadBack)
{
    FT_HANDLE handle = openPort(0, kPortB);
    ASSERT_EQ(FT4222_SetClock(handle, SYS_CLK_48), FT4222_OK);
    FT4222_ClockRate clock = SYS_CLK_60;
    ASSERT_EQ(FT4222_GetClock(handle, &clock), FT4222_OK);
    EXPECT_EQ(clock, SYS_CLK_48);
}

TEST_F(VbSpi, ClockBelongsToTheWholeChip)
{
    FT_HANDLE a = openPort(0, kPortA);
    FT_HANDLE d = openPort(0, kPortD);
    ASSERT_EQ(FT4222_SetClock(a, SYS_CLK_80), FT4222_OK);
    FT4222_ClockRate clock = SYS_CLK_60;
    ASSERT_EQ(FT4222_GetClock(d, &clock), FT4222_OK);
    EXPECT_EQ(clock, SYS_CLK_80);
}

TEST_F(VbSpi, ClockRejectsUnknownRate)
{
    FT_HANDLE handle = openPort(0, kPortA);
    EXPECT_EQ(setClockFromC(handle, 4), FT4222_INVALID_PARAMETER);
}

TEST_F(VbSpi, GetClockWithoutPointerIsInvalidPointer)
{
    FT_HANDLE handle = openPort(0, kPortA);
    EXPECT_EQ(FT4222_GetClock(handle, nullptr), FT4222_INVALID_POINTER);
}

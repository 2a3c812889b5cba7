// Port C's NOR flash driven through the bridge as a host would: line modes per
// command, exact frames, mode bits, busy times, reset and power cuts.
#include "SimSupport.h"

#include <chrono>
#include <thread>

using namespace simtest;

namespace {

constexpr uint32_t kPage = 0x001000;
constexpr uint32_t kSector = 0x002000;

class VbNorFlash : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        addSensor();
        handle = openPort(0, kPortC);
        ASSERT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_OK);
        ASSERT_EQ(
            FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    }

    // One frame on one line, chip select released after it.
    std::vector<uint8_t> frame(std::vector<uint8_t> bytes)
    {
        std::vector<uint8_t> answer(bytes.size(), 0xEE);
        uint16_t done = 0;
        EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(
                      handle, answer.data(), bytes.data(), static_cast<uint16>(bytes.size()), &done, 1),
            FT4222_OK);
        return answer;
    }

    uint8_t status() { return frame(bytes({ 0x05, 0x00 }))[1]; }
    void writeEnable() { frame(bytes({ 0x06 })); }

    void waitReady()
    {
        for (int i = 0; i < 1000 && (status() & 0x01); ++i)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }

    // Instruction on one line, then the rest on four lines, then a read on four.
    std::vector<uint8_t> multi(std::vector<uint8_t> single, std::vector<uint8_t> quad, uint16_t readSize)
    {
        EXPECT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_QUAD), FT4222_OK);
        std::vector<uint8_t> out = single;
        out.insert(out.end(), quad.begin(), quad.end());
        std::vector<uint8_t> answer(readSize, 0xEE);
        uint32_t read = 0;
        EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer.data(), out.data(),
                      static_cast<uint8>(single.size()), static_cast<uint16>(quad.size()), readSize, &read),
            FT4222_OK);
        EXPECT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_SINGLE), FT4222_OK);
        return answer;
    }

    std::vector<uint8_t> quadRead(uint32_t address, uint16_t size, uint8_t mode = 0xF0)
    {
        return multi(bytes({ 0xEB }),
            bytes({ int(address >> 16) & 0xFF, int(address >> 8) & 0xFF, int(address) & 0xFF, mode, 0, 0 }),
            size);
    }

    void quadProgram(uint32_t address, std::vector<uint8_t> data)
    {
        writeEnable();
        multi(bytes({ 0x32, int(address >> 16) & 0xFF, int(address >> 8) & 0xFF, int(address) & 0xFF }), data,
            0);
        waitReady();
    }

    static std::vector<uint8_t> contents(uint32_t address, uint32_t size)
    {
        return bridge().flashContents(0, address, size);
    }

    static vbridge::FlashStats stats() { return bridge().flashStats(0); }

    FT_HANDLE handle = nullptr;
};

size_t countOf(const std::vector<uint8_t>& bytes, uint8_t value)
{
    return static_cast<size_t>(std::count(bytes.begin(), bytes.end(), value));
}

} // namespace

TEST_F(VbNorFlash, WriteEnableCountsOnlyWhenChipSelectRisesRightAfterItsByte)
{
    frame(bytes({ 0x06, 0x00 }));
    EXPECT_EQ(status() & 0x02, 0);
    EXPECT_EQ(stats().ignoredInexactFrames, 1u);
    writeEnable();
    EXPECT_EQ(status() & 0x02, 0x02);
}

TEST_F(VbNorFlash, WriteEnableHeldIntoTheNextTransferIsNoFrameOfItsOwn)
{
    uint16_t done = 0;
    uint8_t enable = 0x06;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, &enable, 1, &done, 0), FT4222_OK);
    uint8_t more = 0x05;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, &more, 1, &done, 1), FT4222_OK);
    EXPECT_EQ(status() & 0x02, 0);
}

TEST_F(VbNorFlash, SectorEraseWithAByteTooManyIsIgnored)
{
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(4096, 0x00));
    writeEnable();
    frame(bytes({ 0x20, 0x00, 0x20, 0x00, 0x00 }));
    EXPECT_EQ(countOf(contents(kSector, 4096), 0x00), 4096u);
    EXPECT_EQ(stats().ignoredInexactFrames, 1u);
    // The latch is still set: the chip did not take the frame at all.
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    waitReady();
    EXPECT_EQ(countOf(contents(kSector, 4096), 0xFF), 4096u);
}

TEST_F(VbNorFlash, SectorEraseWithoutWriteEnableIsIgnored)
{
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(16, 0x00));
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    EXPECT_EQ(countOf(contents(kSector, 16), 0x00), 16u);
    EXPECT_EQ(stats().ignoredWithoutWriteEnable, 1u);
}

TEST_F(VbNorFlash, ChipEraseNeedsItsByteAlone)
{
    bridge().setFlashContents(0, 0, std::vector<uint8_t>(16, 0x00));
    writeEnable();
    frame(bytes({ 0x60, 0x00 }));
    EXPECT_EQ(stats().chipErases, 0u);
    frame(bytes({ 0x60 }));
    waitReady();
    EXPECT_EQ(stats().chipErases, 1u);
    EXPECT_EQ(countOf(contents(0, 16), 0xFF), 16u);
}

TEST_F(VbNorFlash, SingleLinePageProgramTakesItsDataOnOneLine)
{
    writeEnable();
    frame(bytes({ 0x02, 0x00, 0x10, 0x00, 0x12, 0x34, 0x56 }));
    waitReady();
    EXPECT_EQ(hex(contents(kPage, 4)), "12 34 56 ff");
}

TEST_F(VbNorFlash, QuadPageProgramTakesItsDataOnFourLines)
{
    quadProgram(kPage, bytes({ 0x00, 0x00, 0x04, 0xD2 }));
    EXPECT_EQ(hex(contents(kPage, 5)), "00 00 04 d2 ff");
}

// Data meant for four lines sent on one: each byte's eight clocks carry one
// bit on IO0 while IO1 to IO3 float high, so the chip takes four bytes of
// 0xE or 0xF nibbles per byte sent.
TEST_F(VbNorFlash, QuadPageProgramWithDataOnOneLineProgramsOtherBytes)
{
    writeEnable();
    frame(bytes({ 0x32, 0x00, 0x10, 0x00, 0x00, 0x55 }));
    waitReady();
    EXPECT_EQ(hex(contents(kPage, 9)), "ee ee ee ee ef ef ef ef ff");
}

TEST_F(VbNorFlash, ProgramDataPastThePageEndWrapsToItsStart)
{
    writeEnable();
    frame(bytes({ 0x02, 0x00, 0x10, 0xFE, 0x01, 0x02, 0x03 }));
    waitReady();
    EXPECT_EQ(hex(contents(kPage + 0xFE, 2)), "01 02");
    EXPECT_EQ(hex(contents(kPage, 2)), "03 ff");
}

TEST_F(VbNorFlash, ProgramOnlyClearsBits)
{
    bridge().setFlashContents(0, kPage, bytes({ 0xF0 }));
    writeEnable();
    frame(bytes({ 0x02, 0x00, 0x10, 0x00, 0x0F }));
    waitReady();
    EXPECT_EQ(hex(contents(kPage, 1)), "00");
    EXPECT_EQ(stats().zeroToOneAttempts, 1u);
}

TEST_F(VbNorFlash, StatusRegisterTwoShowsTheFactoryQuadEnable)
{
    EXPECT_EQ(frame(bytes({ 0x35, 0x00 }))[1], 0x02);
}

TEST_F(VbNorFlash, QuadCommandsNeedTheQuadEnableBit)
{
    bridge().setFlashContents(0, kPage, bytes({ 0x11, 0x22 }));
    bridge().setFlashQuadEnable(0, false);
    EXPECT_EQ(frame(bytes({ 0x35, 0x00 }))[1], 0x00);
    EXPECT_EQ(hex(quadRead(kPage, 2)), "ff ff");
    quadProgram(kPage + 2, bytes({ 0x00 }));
    EXPECT_EQ(hex(contents(kPage, 3)), "11 22 ff");
}

TEST_F(VbNorFlash, QuadReadTakesAddressAndDataOnFourLines)
{
    bridge().setFlashContents(0, kPage, bytes({ 0xDE, 0xAD, 0xBE, 0xEF }));
    EXPECT_EQ(hex(quadRead(kPage, 4)), "de ad be ef");
}

// The address sent on one line reaches the chip as 0xEEEEEE (IO0 low, the
// other lines floating high) and the mode bits as 0xEE; four dummy clocks
// later the chip drives its data, of which the master sees only IO1.
TEST_F(VbNorFlash, QuadReadSentOnOneLineReadsFromAnotherAddress)
{
    bridge().setFlashContents(0, kPage, std::vector<uint8_t>(16, 0x5A));
    bridge().setFlashContents(0, 0xEEEEEE, std::vector<uint8_t>(64, 0x00));
    const auto answer = frame(bytes({ 0xEB, 0x00, 0x10, 0x00, 0xF0, 0x00, 0x00, 0x00 }));
    EXPECT_EQ(hex(answer), "ff ff f0 00 00 00 00 00");
}

TEST_F(VbNorFlash, ModeByteF0LeavesTheNextFrameAnInstruction)
{
    bridge().setFlashContents(0, kPage, bytes({ 0x01, 0x02 }));
    EXPECT_EQ(hex(quadRead(kPage, 2)), "01 02");
    EXPECT_EQ(hex(quadRead(kPage, 2)), "01 02");
    EXPECT_EQ(status(), 0x00);
}

// Mode bits 5-4 = 10 keep the chip in continuous-read mode: the next frame
// begins with the address, on four lines.
TEST_F(VbNorFlash, ModeBitsTenEnterContinuousRead)
{
    bridge().setFlashContents(0, kPage, bytes({ 0x01, 0x02, 0x03, 0x04 }));
    EXPECT_EQ(hex(quadRead(kPage, 2, 0x20)), "01 02");
    EXPECT_EQ(hex(multi({}, bytes({ 0x00, 0x10, 0x02, 0xF0, 0x00, 0x00 }), 2)), "03 04");
    // 0xF0 in that frame left the mode: instructions again.
    EXPECT_EQ(status(), 0x00);
}

TEST_F(VbNorFlash, UniqueIdFollowsFourDummyBytes)
{
    bridge().setUniqueId(0, 0x0123456789ABCDEFull);
    const auto answer = frame(bytes({ 0x4B, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }));
    EXPECT_EQ(hex(answer.data() + 5, 8), "01 23 45 67 89 ab cd ef");
}

TEST_F(VbNorFlash, BusyChipAnswersOnlyTheStatusRead)
{
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(16, 0x00));
    writeEnable();
    frame(bytes({ 0x02, 0x00, 0x10, 0x00, 0x00 }));
    // Instant timing: the first two status reads still see the busy bit.
    writeEnable();
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    EXPECT_EQ(hex(quadRead(kPage, 1)), "ff");
    EXPECT_EQ(stats().ignoredWhileBusy, 3u);
    // The write-enable latch stays set until the cycle ends.
    EXPECT_EQ(status(), 0x03);
    EXPECT_EQ(status(), 0x03);
    EXPECT_EQ(status(), 0x00);
    EXPECT_EQ(countOf(contents(kSector, 16), 0x00), 16u);
}

TEST_F(VbNorFlash, ProgramKeepsTheChipBusyForItsTimeOnTheClock)
{
    vbridge::FlashTiming timing;
    timing.busyPolls = 0;
    timing.programUs = vbridge::FlashTiming::kProgramMaxUs;
    bridge().setFlashTiming(0, timing);
    const auto start = std::chrono::steady_clock::now();
    writeEnable();
    frame(bytes({ 0x02, 0x00, 0x10, 0x00, 0x00 }));
    EXPECT_EQ(status() & 0x01, 0x01);
    waitReady();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(timing.programUs));
    EXPECT_EQ(status(), 0x00);
}

TEST_F(VbNorFlash, RealisticTimingUsesTheDatasheetTypicalFigures)
{
    const vbridge::FlashTiming realistic = vbridge::FlashTiming::realistic();
    EXPECT_EQ(realistic.busyPolls, 0u);
    EXPECT_EQ(realistic.programUs, 700u);
    EXPECT_EQ(realistic.eraseUs, 45000u);
    EXPECT_EQ(realistic.chipEraseUs, 25000000u);
    EXPECT_EQ(realistic.resetUs, 30u);
}

TEST_F(VbNorFlash, ResetAbortsAnEraseAndTakesItsRecoveryTime)
{
    vbridge::FlashTiming timing;
    timing.busyPolls = 0;
    timing.eraseUs = vbridge::FlashTiming::kEraseMaxUs;
    timing.resetUs = 20000; // long enough to see from a test
    bridge().setFlashTiming(0, timing);
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(4096, 0x00));
    writeEnable();
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    EXPECT_EQ(status() & 0x01, 0x01);
    frame(bytes({ 0x66 }));
    frame(bytes({ 0x99 }));
    // Recovering, the chip drives nothing: the read floats high.
    EXPECT_EQ(status(), 0xFF);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(status(), 0x00);
    EXPECT_EQ(stats().interrupted, 1u);
    const auto sector = contents(kSector, 4096);
    EXPECT_GT(countOf(sector, 0xFF), 0u);
    EXPECT_GT(countOf(sector, 0x00), 0u);
    EXPECT_LT(countOf(sector, 0xFF) + countOf(sector, 0x00), 4096u);
}

TEST_F(VbNorFlash, ResetWithoutResetEnableDoesNothing)
{
    writeEnable();
    frame(bytes({ 0x99 }));
    EXPECT_EQ(status() & 0x02, 0x02);
}

TEST_F(VbNorFlash, PowerCutDuringAProgramClearsOnlySomeOfItsBits)
{
    bridge().cutPowerAt(0, 1);
    writeEnable();
    std::vector<uint8_t> program = bytes({ 0x02, 0x00, 0x10, 0x00 });
    program.resize(program.size() + 256, 0x00);
    uint16_t done = 0;
    std::vector<uint8_t> answer(program.size());
    EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(
                  handle, answer.data(), program.data(), static_cast<uint16>(program.size()), &done, 1),
        FT4222_DEVICE_NOT_FOUND);
    EXPECT_FALSE(bridge().isPlugged(0));
    const auto page = contents(kPage, 256);
    EXPECT_LT(countOf(page, 0x00), 256u);
    EXPECT_LT(countOf(page, 0xFF), 256u);
    EXPECT_EQ(stats().interrupted, 1u);

    // Back on, the write-enable latch is clear.
    bridge().plug(0);
    handle = openPort(0, kPortC);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    EXPECT_EQ(status(), 0x00);
}

TEST_F(VbNorFlash, PowerCutDuringASectorEraseLeavesItPartlyErased)
{
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(4096, 0x00));
    bridge().cutPowerAt(0, 1);
    writeEnable();
    std::vector<uint8_t> answer(4);
    std::vector<uint8_t> erase = bytes({ 0x20, 0x00, 0x20, 0x00 });
    uint16_t done = 0;
    EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, answer.data(), erase.data(), 4, &done, 1),
        FT4222_DEVICE_NOT_FOUND);
    const auto sector = contents(kSector, 4096);
    EXPECT_GT(countOf(sector, 0xFF), 0u);
    EXPECT_GT(countOf(sector, 0x00), 0u);
    EXPECT_LT(countOf(sector, 0xFF), 4096u);
}

TEST_F(VbNorFlash, UnplugWhileBusyLeavesTheOperationHalfDone)
{
    bridge().setFlashContents(0, kSector, std::vector<uint8_t>(4096, 0x00));
    writeEnable();
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    bridge().unplug(0);
    EXPECT_EQ(stats().interrupted, 1u);
    EXPECT_LT(countOf(contents(kSector, 4096), 0xFF), 4096u);
}

TEST_F(VbNorFlash, ScenarioRefusesBusyTimesAboveTheDatasheetMaxima)
{
    std::string error;
    EXPECT_FALSE(bridge().loadScenarioText(
        R"({"sensors": [{"flash": {"timing": {"programUs": 3001}}}]})", "slow.json", &error));
    EXPECT_NE(error.find("programUs"), std::string::npos) << error;
    EXPECT_TRUE(bridge().loadScenarioText(
        R"({"sensors": [{"flash": {"timing": {"programUs": 3000, "eraseUs": 400000, "resetUs": 30}}}]})",
        "slowest.json", &error))
        << error;
}

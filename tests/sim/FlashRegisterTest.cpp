// Port C's NOR flash as its datasheet has it beyond reads and writes: the
// write-enable latch through a cycle, the reset pair, the status registers
// and their block protection, deep power-down, the time after power-up and
// busy times drawn between typical and largest.
#include "SimSupport.h"

#include <chrono>
#include <set>
#include <thread>

#include "sim/NorFlash.h"

using namespace simtest;

namespace {

constexpr uint32_t kSector = 0x002000;
constexpr uint32_t kTopSector = 0xFFF000;

class VbFlashRegisters : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        addSensor();
        start();
    }

    void start()
    {
        handle = openPort(0, kPortC);
        ASSERT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_OK);
        ASSERT_EQ(
            FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    }

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
    uint8_t status2() { return frame(bytes({ 0x35, 0x00 }))[1]; }
    void writeEnable() { frame(bytes({ 0x06 })); }

    void waitReady()
    {
        for (int i = 0; i < 10000 && (status() & 0x01); ++i)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }

    void eraseSector(uint32_t address)
    {
        writeEnable();
        frame(bytes({ 0x20, int(address >> 16) & 0xFF, int(address >> 8) & 0xFF, int(address) & 0xFF }));
    }

    void writeStatus(std::vector<uint8_t> registers)
    {
        writeEnable();
        registers.insert(registers.begin(), 0x01);
        frame(registers);
        waitReady();
    }

    bool erased(uint32_t address) { return bridge().flashContents(0, address, 1)[0] == 0xFF; }
    void fill(uint32_t address) { bridge().setFlashContents(0, address, std::vector<uint8_t>(4096, 0x00)); }

    static vbridge::FlashStats stats() { return bridge().flashStats(0); }

    FT_HANDLE handle = nullptr;
};

} // namespace

TEST_F(VbFlashRegisters, WriteEnableLatchClearsWhenTheCycleEnds)
{
    fill(kSector);
    eraseSector(kSector);
    // Instant timing: two status reads see the cycle; the latch is set in
    // both, and clear once the cycle is over.
    EXPECT_EQ(status(), 0x03);
    EXPECT_EQ(status(), 0x03);
    EXPECT_EQ(status(), 0x00);
    // A second erase needs a new write enable.
    fill(kSector);
    frame(bytes({ 0x20, 0x00, 0x20, 0x00 }));
    EXPECT_FALSE(erased(kSector));
}

TEST_F(VbFlashRegisters, ResetEnableIsCancelledByAnyOtherInstruction)
{
    vbridge::FlashTiming timing;
    timing.busyPolls = 0;
    timing.eraseUs = timing.eraseMaxUs = 300000;
    bridge().setFlashTiming(0, timing);
    fill(kSector);
    eraseSector(kSector);
    frame(bytes({ 0x66 }));
    // The JEDEC id read is refused while busy, but it is another instruction.
    frame(bytes({ 0x9F, 0, 0, 0 }));
    frame(bytes({ 0x99 }));
    EXPECT_EQ(stats().interrupted, 0u);
    EXPECT_EQ(status() & 0x01, 0x01);

    // Right after the enable, the reset stops the erase.
    frame(bytes({ 0x66 }));
    frame(bytes({ 0x99 }));
    EXPECT_EQ(stats().interrupted, 1u);
}

TEST_F(VbFlashRegisters, UnknownInstructionCancelsResetEnableToo)
{
    writeEnable();
    frame(bytes({ 0x66 }));
    frame(bytes({ 0xFF }));
    frame(bytes({ 0x99 }));
    // No reset: the write-enable latch is still set.
    EXPECT_EQ(status() & 0x02, 0x02);
}

TEST_F(VbFlashRegisters, WriteStatusSetsTheProtectionBitsAfterItsCycle)
{
    writeEnable();
    frame(bytes({ 0x01, 0x1C }));
    EXPECT_EQ(status(), 0x1F); // busy, latch, BP2-0
    EXPECT_EQ(status(), 0x1F);
    EXPECT_EQ(status(), 0x1C);
    EXPECT_EQ(stats().statusWrites, 1u);
    // BP = 111: the whole chip is protected.
    fill(kSector);
    eraseSector(kSector);
    EXPECT_FALSE(erased(kSector));
    EXPECT_EQ(stats().ignoredProtected, 1u);
    writeEnable();
    frame(bytes({ 0xC7 }));
    EXPECT_EQ(stats().chipErases, 0u);
}

TEST_F(VbFlashRegisters, WriteStatusNeedsWriteEnableAndAnExactFrame)
{
    frame(bytes({ 0x01, 0x1C }));
    EXPECT_EQ(status(), 0x00);
    writeEnable();
    frame(bytes({ 0x01, 0x1C, 0x02, 0x00 }));
    EXPECT_EQ(status(), 0x02);
    EXPECT_EQ(stats().ignoredInexactFrames, 1u);
}

TEST_F(VbFlashRegisters, UpperQuarterProtectionKeepsOnlyTheTopQuarter)
{
    writeStatus(bytes({ 0x14 })); // BP = 101
    fill(0xC00000);
    fill(0xBFF000);
    eraseSector(0xC00000);
    waitReady();
    eraseSector(0xBFF000);
    waitReady();
    EXPECT_FALSE(erased(0xC00000));
    EXPECT_TRUE(erased(0xBFF000));
}

TEST_F(VbFlashRegisters, TopAndSectorBitsProtectTheBottomFourKiB)
{
    writeStatus(bytes({ 0x64 })); // SEC, TB, BP = 001
    fill(0x000000);
    fill(0x001000);
    eraseSector(0x000000);
    waitReady();
    eraseSector(0x001000);
    waitReady();
    EXPECT_FALSE(erased(0x000000));
    EXPECT_TRUE(erased(0x001000));
}

TEST_F(VbFlashRegisters, ComplementProtectsTheRestAndKeepsQuadEnable)
{
    // Register 1 and 2 in one write: BP = 101 with CMP protects the lower
    // three quarters.
    writeStatus(bytes({ 0x14, 0x42 }));
    EXPECT_EQ(status2(), 0x42);
    fill(kSector);
    fill(kTopSector);
    eraseSector(kSector);
    waitReady();
    eraseSector(kTopSector);
    waitReady();
    EXPECT_FALSE(erased(kSector));
    EXPECT_TRUE(erased(kTopSector));
}

TEST_F(VbFlashRegisters, StatusRegisterTwoWriteCanClearQuadEnable)
{
    writeEnable();
    frame(bytes({ 0x31, 0x00 }));
    waitReady();
    EXPECT_EQ(status2(), 0x00);
}

TEST_F(VbFlashRegisters, WriteStatusTakesItsTimeOnTheClock)
{
    vbridge::FlashTiming timing;
    timing.busyPolls = 0;
    timing.writeStatusUs = timing.writeStatusMaxUs = 20000;
    bridge().setFlashTiming(0, timing);
    writeEnable();
    frame(bytes({ 0x01, 0x04 }));
    EXPECT_EQ(status() & 0x01, 0x01);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    EXPECT_EQ(status(), 0x04);
}

TEST_F(VbFlashRegisters, DeepPowerDownTakesOnlyTheRelease)
{
    frame(bytes({ 0xB9 }));
    EXPECT_TRUE(frame(bytes({ 0x05, 0x00 }))[1] == 0xFF);
    EXPECT_EQ(hex(frame(bytes({ 0x9F, 0, 0, 0 }))), "ff ff ff ff");
    writeEnable();
    EXPECT_EQ(stats().ignoredPoweredDown, 3u);
    // Release and read the device id: three dummy bytes, then 0x17.
    EXPECT_EQ(frame(bytes({ 0xAB, 0, 0, 0, 0 }))[4], 0x17);
    EXPECT_EQ(status(), 0x00);
    EXPECT_EQ(hex(frame(bytes({ 0x9F, 0, 0, 0 }))), "ff ef 40 18");
}

TEST_F(VbFlashRegisters, WriteInstructionsWaitForThePowerUpTime)
{
    vbridge::FlashTiming timing;
    timing.powerUpWriteUs = timing.powerUpWriteMaxUs = 300000;
    bridge().setFlashTiming(0, timing);
    bridge().unplug(0);
    bridge().plug(0);
    start();
    fill(kSector);
    eraseSector(kSector);
    EXPECT_FALSE(erased(kSector));
    EXPECT_EQ(stats().ignoredBeforePowerUpWrite, 1u);
}

TEST(FlashBusyTime, IsDrawnBetweenTypicalAndLargestAndRepeats)
{
    std::set<uint32_t> seen;
    uint32_t aboveTypical = 0;
    for (uint32_t key = 0; key < 200; ++key) {
        const uint32_t time = vbridge::drawBusyTime(45000, 400000, key);
        EXPECT_GE(time, 45000u);
        EXPECT_LE(time, 400000u);
        EXPECT_EQ(time, vbridge::drawBusyTime(45000, 400000, key));
        seen.insert(time);
        aboveTypical += time > 45000 * 11 / 10;
    }
    EXPECT_GT(seen.size(), 150u);
    // Most cycles take longer than the typical time plus a tenth.
    EXPECT_GT(aboveTypical, 100u);
    EXPECT_EQ(vbridge::drawBusyTime(700, 700, 5), 700u);
}

TEST_F(VbFlashRegisters, ADriverThatSleepsTheTypicalEraseTimeFindsTheChipBusy)
{
    vbridge::FlashTiming timing;
    timing.busyPolls = 0;
    timing.eraseUs = 2000;
    timing.eraseMaxUs = 100000;
    bridge().setFlashTiming(0, timing);
    int stillBusy = 0;
    for (int i = 0; i < 4; ++i) {
        eraseSector(kSector);
        std::this_thread::sleep_for(std::chrono::microseconds(timing.eraseUs));
        stillBusy += status() & 0x01;
        waitReady();
    }
    EXPECT_GT(stillBusy, 0);
}

TEST_F(VbFlashRegisters, RealisticTimingDrawsBetweenTheDatasheetFigures)
{
    const vbridge::FlashTiming t = vbridge::FlashTiming::realistic();
    EXPECT_EQ(t.programMaxUs, 3000u);
    EXPECT_EQ(t.eraseMaxUs, 400000u);
    EXPECT_EQ(t.writeStatusUs, 10000u);
    EXPECT_EQ(t.writeStatusMaxUs, 15000u);
    EXPECT_EQ(t.powerUpWriteMaxUs, 10000u);
}

// A 16 MiB serial NOR flash of the 25Q128 kind: 256-byte pages, 4 KiB
// sectors, 24-bit addresses, single and quad I/O.
//
// The chip is modelled clock by clock on its four data lines: it takes each
// phase of a command (instruction, address, mode bits, dummy clocks, data) on
// the lines its datasheet gives for that command, so a master that sends on
// other lines gets other bits in. Programming only clears bits; erase sets
// 0xFF; program, erase and status writes need the write-enable latch, which
// clears when their cycle ends, and take effect only when chip select rises
// at the end of a whole frame; while busy the chip answers nothing but status
// reads (and a reset, which aborts). The block-protect bits of the status
// registers keep areas from program and erase; in deep power-down the chip
// takes nothing but the release instruction.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/SpiDevice.h"
#include "sim/VirtualBridge.h"

namespace vbridge {

// A busy time between typical and largest, the same for the same key.
uint32_t drawBusyTime(uint32_t typical, uint32_t maximum, uint32_t key);

class NorFlash : public SpiDevice {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr uint32_t kSize = 16 * 1024 * 1024;
    static constexpr uint32_t kSectorSize = 4096;
    static constexpr uint32_t kPageSize = 256;

    NorFlash();

    void select() override;
    void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines) override;
    void deselect() override;

    std::vector<uint8_t>& memory() { return memory_; }
    const std::vector<uint8_t>& memory() const { return memory_; }
    uint64_t uniqueId = 0;
    FlashTiming timing;
    FlashStats stats;
    bool dirty = false;
    // Called after a program or erase has changed the array (the image file
    // that keeps it between runs follows at once).
    std::function<void()> onMemoryChanged;
    // Quad-enable bit of status register 2 (non-volatile; the sensor's
    // flash leaves the factory with it set). Clear: 0x32 and 0xEB are not
    // accepted.
    bool quadEnable = true;
    // The other non-volatile bits the status registers keep: of register 1
    // BP2-0, TB, SEC and SRP (bits 7-2), of register 2 SRL, LB3-1 and CMP.
    uint8_t status1Bits = 0;
    uint8_t status2Bits = 0;
    // Seed of what an interrupted program or erase leaves behind.
    uint32_t seed = 1;

    // Power loss: called when the countdown of program/erase operations ends;
    // the operation is left half done.
    int powerCutCountdown = 0;
    std::function<void()> onPowerCut;

    void resetStats();
    bool busy() const;
    // The status registers as a read would give them now.
    uint8_t statusRegister1() const;
    uint8_t statusRegister2() const;
    bool continuousRead() const { return continuous_; }
    bool poweredDown() const { return deepPowerDown_; }
    // Whether the block-protect bits keep this address from program and
    // erase, and whether they keep any of the chip.
    bool isProtected(uint32_t address) const;
    bool anyProtected() const;
    // Power gone: a program or erase in progress stops where it is.
    void powerDown();
    // Power-on: the latches are clear and nothing is in progress; the array
    // keeps its contents.
    void powerUp();

private:
    enum class Phase { Instruction, Address, Mode, Dummy, DataIn, Register, DataOut, Trailing, Ignored };

    // What the chip is doing after a program or erase started, until its busy
    // time is over: enough to leave it half done.
    struct Operation {
        bool active = false;
        uint32_t start = 0;
        std::vector<uint8_t> before; // contents before the operation
        bool erase = false;
    };

    void clockIn(uint8_t bits);
    uint8_t driveBits();
    void clockOut();
    void loadOutput();
    uint8_t outputByte(uint64_t index);
    void instructionDone();
    void phaseByteDone(uint8_t byte);
    bool acceptsWhileBusy(uint8_t instruction) const;
    void enterPhase(Phase phase, Lines lines);
    void memoryChanged();
    void startBusy(uint32_t microseconds, uint32_t polls);
    // A busy time between typical and largest, from the seed and the cycles
    // so far.
    uint32_t drawn(uint32_t typical, uint32_t maximum);
    // The write-enable latch clears when a cycle is over, not when it starts.
    bool cycleOver() const { return cycleRunning_ && !busy(); }
    void endCycle();
    bool writeAllowed();
    void writeStatus(size_t bytes);
    void program();
    void eraseSector(uint32_t address);
    void eraseChip();
    void interrupt();
    bool powerFailsNow();
    uint32_t address() const;

    std::vector<uint8_t> memory_;
    bool writeEnable_ = false;
    bool resetEnabled_ = false;
    bool continuous_ = false; // 0xEB continuous-read mode: the next frame starts at the address
    Clock::time_point busyUntil_ {};
    uint32_t busyPollsLeft_ = 0;
    Clock::time_point recoveringUntil_ {}; // after a software reset or a power-down change
    Operation operation_;
    bool cycleRunning_ = false; // a program, erase or status write began and may still run
    uint32_t cycles_ = 0; // busy times drawn so far
    Clock::time_point poweredAt_ {};
    uint32_t powerUpWriteUs_ = 0; // this power-up's tPUW
    uint32_t powerUps_ = 0;
    bool deepPowerDown_ = false;
    std::vector<uint8_t> registerBytes_; // data of a status write

    // One transaction.
    bool selected_ = false;
    uint8_t instruction_ = 0;
    Phase phase_ = Phase::Instruction;
    Lines phaseLines_ = Lines::Single;
    uint8_t shift_ = 0; // bits taken in the current byte
    int bitsIn_ = 0;
    uint64_t clocks_ = 0; // clocks since chip select fell
    int phaseBytes_ = 0; // bytes taken in the current phase
    uint8_t header_[3] = { 0, 0, 0 };
    uint8_t modeBits_ = 0;
    int dummyClocksLeft_ = 0;
    uint64_t outIndex_ = 0; // answer bytes begun
    uint8_t outByte_ = 0;
    bool outPending_ = true; // outByte_ is still to be made for outIndex_
    int outClock_ = 0;
    uint32_t readAddress_ = 0;
    std::vector<int16_t> pageBuffer_; // program data by page offset, -1 where none came
    size_t dataBytes_ = 0;
};

} // namespace vbridge

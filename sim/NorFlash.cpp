#include "sim/NorFlash.h"

#include "sim/Noise.h"

#include <algorithm>

#include "sim/SpiWire.h"

namespace vbridge {

namespace {

using wire::Direction;

constexpr uint8_t kReadStatus1 = 0x05;
constexpr uint8_t kReadStatus2 = 0x35;
constexpr uint8_t kWriteEnable = 0x06;
constexpr uint8_t kWriteDisable = 0x04;
constexpr uint8_t kSectorErase = 0x20;
constexpr uint8_t kQuadPageProgram = 0x32;
constexpr uint8_t kPageProgram = 0x02;
constexpr uint8_t kChipErase = 0x60;
constexpr uint8_t kChipEraseAlt = 0xC7;
constexpr uint8_t kResetEnable = 0x66;
constexpr uint8_t kReset = 0x99;
constexpr uint8_t kReadUniqueId = 0x4B;
constexpr uint8_t kReadJedecId = 0x9F;
constexpr uint8_t kRead = 0x03;
constexpr uint8_t kQuadIoFastRead = 0xEB;
constexpr uint8_t kWriteStatus1 = 0x01;
constexpr uint8_t kWriteStatus2 = 0x31;
constexpr uint8_t kPowerDown = 0xB9;
constexpr uint8_t kReleasePowerDown = 0xAB;

constexpr uint8_t kStatusBusy = 0x01;
constexpr uint8_t kStatusWriteEnable = 0x02;
constexpr uint8_t kStatus2QuadEnable = 0x02;
// Writable bits: BP2-0, TB, SEC, SRP of register 1; SRL, QE, LB3-1, CMP of
// register 2. LB3-1 are one-time: once set they stay.
constexpr uint8_t kStatus1Writable = 0xFC;
constexpr uint8_t kStatus2Writable = 0x7B;
constexpr uint8_t kStatus2LockBits = 0x38;
constexpr uint8_t kStatus2Complement = 0x40;
// 0xAB answers three dummy bytes, then the device id of the 128 Mbit part.
constexpr uint64_t kDeviceIdDummyBytes = 3;
constexpr uint8_t kDeviceId = 0x17;

// Mode bits M5-4 = 10 after the address of 0xEB keep the chip in
// continuous-read mode: the next frame starts with the address.
constexpr uint8_t kContinuousMask = 0x30;
constexpr uint8_t kContinuousBits = 0x20;
// 0xEB: four dummy clocks after the mode byte.
constexpr int kQuadReadDummyClocks = 4;
// 0x4B: four dummy bytes, then the 64-bit identifier.
constexpr uint64_t kUniqueIdDummyBytes = 4;
constexpr uint8_t kJedecId[3] = { 0xEF, 0x40, 0x18 };

// Clocks of a frame that is the instruction alone, and of a sector erase.
constexpr uint64_t kInstructionClocks = 8;
constexpr uint64_t kSectorEraseClocks = 32;

} // namespace

// The datasheets give only the typical and the largest time. We take most
// cycles near the typical time and a few towards the largest (the cube of an
// even draw), so that a driver that sleeps the typical time instead of
// polling the busy bit fails at once, while a whole update takes about as
// long as the typical figures say.
uint32_t drawBusyTime(uint32_t typical, uint32_t maximum, uint32_t key)
{
    if (maximum <= typical)
        return typical;
    const double u = (mix(key) & 0xFFFFFF) / double(1 << 24);
    return typical + static_cast<uint32_t>((maximum - typical) * u * u * u);
}

NorFlash::NorFlash()
    : memory_(kSize, 0xFF)
    , pageBuffer_(kPageSize, -1)
{
    stats.sectorErases.assign(kSize / kSectorSize, 0);
}

void NorFlash::resetStats()
{
    stats = FlashStats();
    stats.sectorErases.assign(kSize / kSectorSize, 0);
}

bool NorFlash::busy() const
{
    return busyPollsLeft_ > 0 || Clock::now() < busyUntil_;
}

uint8_t NorFlash::statusRegister1() const
{
    const bool latch = writeEnable_ && !cycleOver();
    return static_cast<uint8_t>(
        (busy() ? kStatusBusy : 0) | (latch ? kStatusWriteEnable : 0) | (status1Bits & kStatus1Writable));
}

uint8_t NorFlash::statusRegister2() const
{
    return static_cast<uint8_t>(
        (quadEnable ? kStatus2QuadEnable : 0) | (status2Bits & kStatus2Writable & ~kStatus2QuadEnable));
}

// The protected area of the block-protect bits (CMP = 0): none, the upper or
// lower (TB) 1/64 to 1/2 of the chip in 64 KiB blocks, the whole chip (BP =
// 111), or with SEC the top or bottom 4 to 32 KiB. CMP = 1 protects the rest
// instead.
bool NorFlash::isProtected(uint32_t address) const
{
    address %= kSize;
    const int bp = (status1Bits >> 2) & 7;
    const bool bottom = status1Bits & 0x20;
    const bool sectors = status1Bits & 0x40;
    uint32_t size = 0;
    if (bp == 7)
        size = kSize;
    else if (bp != 0 && !sectors)
        size = (kSize / 128) << bp; // 001: 256 KiB ... 110: 8 MiB
    else if (bp != 0)
        size = kSectorSize << std::min(bp - 1, 3); // 001: 4 KiB ... 1xx: 32 KiB
    const bool inside = bottom ? address < size : address >= kSize - size;
    const bool complement = status2Bits & kStatus2Complement;
    return complement ? !inside : inside;
}

bool NorFlash::anyProtected() const
{
    return isProtected(0) || isProtected(kSize - 1);
}

void NorFlash::powerDown()
{
    if (busy())
        interrupt();
    selected_ = false;
}

void NorFlash::powerUp()
{
    poweredAt_ = Clock::now();
    powerUpWriteUs_ = drawBusyTime(timing.powerUpWriteUs, timing.powerUpWriteMaxUs, seed ^ ++powerUps_);
    cycleRunning_ = false;
    deepPowerDown_ = false;
    writeEnable_ = false;
    resetEnabled_ = false;
    continuous_ = false;
    selected_ = false;
    busyPollsLeft_ = 0;
    busyUntil_ = {};
    recoveringUntil_ = {};
    operation_ = Operation();
}

// The array holds what a program or erase left: the keeper of the image file
// follows at once.
void NorFlash::memoryChanged()
{
    dirty = true;
    if (onMemoryChanged)
        onMemoryChanged();
}

void NorFlash::startBusy(uint32_t microseconds, uint32_t polls)
{
    cycleRunning_ = true;
    busyPollsLeft_ = polls;
    busyUntil_ = Clock::now() + std::chrono::microseconds(microseconds);
}

uint32_t NorFlash::drawn(uint32_t typical, uint32_t maximum)
{
    return drawBusyTime(typical, maximum, seed + 0x9E3779B9u * ++cycles_);
}

void NorFlash::endCycle()
{
    if (!cycleOver())
        return;
    cycleRunning_ = false;
    writeEnable_ = false;
}

// Write instructions need the latch, and are refused for tPUW after power-up.
bool NorFlash::writeAllowed()
{
    if (Clock::now() < poweredAt_ + std::chrono::microseconds(powerUpWriteUs_)) {
        ++stats.ignoredBeforePowerUpWrite;
        return false;
    }
    if (writeEnable_)
        return true;
    ++stats.ignoredWithoutWriteEnable;
    return false;
}

bool NorFlash::powerFailsNow()
{
    if (powerCutCountdown <= 0)
        return false;
    return --powerCutCountdown == 0;
}

uint32_t NorFlash::address() const
{
    return (uint32_t(header_[0]) << 16) | (uint32_t(header_[1]) << 8) | header_[2];
}

void NorFlash::enterPhase(Phase phase, Lines lines)
{
    phase_ = phase;
    phaseLines_ = lines;
    phaseBytes_ = 0;
    shift_ = 0;
    bitsIn_ = 0;
    if (phase == Phase::Dummy)
        dummyClocksLeft_ = kQuadReadDummyClocks;
    if (phase == Phase::DataOut) {
        readAddress_ = address();
        outIndex_ = 0;
        outClock_ = 0;
        outPending_ = true;
    }
}

void NorFlash::select()
{
    endCycle();
    selected_ = true;
    clocks_ = 0;
    dataBytes_ = 0;
    registerBytes_.clear();
    std::fill(pageBuffer_.begin(), pageBuffer_.end(), int16_t(-1));
    if (continuous_) {
        // The instruction is implied: the frame starts with the address.
        instruction_ = kQuadIoFastRead;
        resetEnabled_ = false;
        enterPhase(Phase::Address, Lines::Quad);
    } else {
        instruction_ = 0;
        enterPhase(Phase::Instruction, Lines::Single);
    }
}

bool NorFlash::acceptsWhileBusy(uint8_t instruction) const
{
    return instruction == kReadStatus1 || instruction == kReadStatus2 || instruction == kResetEnable
        || instruction == kReset;
}

void NorFlash::instructionDone()
{
    // "Any other commands other than Reset (99h) after the Enable Reset
    // (66h) command will disable the Reset Enable state."
    if (instruction_ != kReset)
        resetEnabled_ = false;
    if (Clock::now() < recoveringUntil_) {
        phase_ = Phase::Ignored;
        return;
    }
    // Deep power-down: the release is the only instruction the chip takes,
    // status reads included.
    if (deepPowerDown_ && instruction_ != kReleasePowerDown) {
        ++stats.ignoredPoweredDown;
        phase_ = Phase::Ignored;
        return;
    }
    if (busy() && !acceptsWhileBusy(instruction_)) {
        ++stats.ignoredWhileBusy;
        phase_ = Phase::Ignored;
        return;
    }
    switch (instruction_) {
    case kReadStatus1:
    case kReadStatus2:
    case kReadUniqueId:
    case kReadJedecId:
    case kReleasePowerDown:
        enterPhase(Phase::DataOut, Lines::Single);
        return;
    case kWriteStatus1:
    case kWriteStatus2:
        enterPhase(Phase::Register, Lines::Single);
        return;
    case kPowerDown:
    case kWriteEnable:
    case kWriteDisable:
    case kChipErase:
    case kChipEraseAlt:
    case kResetEnable:
    case kReset:
        enterPhase(Phase::Trailing, Lines::Single);
        return;
    case kSectorErase:
    case kPageProgram:
    case kRead:
        enterPhase(Phase::Address, Lines::Single);
        return;
    case kQuadPageProgram:
        enterPhase(quadEnable ? Phase::Address : Phase::Ignored, Lines::Single);
        return;
    case kQuadIoFastRead:
        enterPhase(quadEnable ? Phase::Address : Phase::Ignored, Lines::Quad);
        return;
    default:
        phase_ = Phase::Ignored;
        return;
    }
}

void NorFlash::phaseByteDone(uint8_t byte)
{
    switch (phase_) {
    case Phase::Instruction:
        instruction_ = byte;
        instructionDone();
        return;
    case Phase::Address:
        header_[phaseBytes_++] = byte;
        if (phaseBytes_ < 3)
            return;
        switch (instruction_) {
        case kSectorErase:
            enterPhase(Phase::Trailing, Lines::Single);
            return;
        case kPageProgram:
            enterPhase(Phase::DataIn, Lines::Single);
            return;
        case kQuadPageProgram:
            enterPhase(Phase::DataIn, Lines::Quad);
            return;
        case kRead:
            enterPhase(Phase::DataOut, Lines::Single);
            return;
        default:
            enterPhase(Phase::Mode, Lines::Quad);
            return;
        }
    case Phase::Mode:
        modeBits_ = byte;
        enterPhase(Phase::Dummy, Lines::Quad);
        return;
    case Phase::Register:
        registerBytes_.push_back(byte);
        return;
    case Phase::DataIn:
        // Past the end of the page the address wraps to the page's start.
        pageBuffer_[(header_[2] + dataBytes_) % kPageSize] = byte;
        ++dataBytes_;
        return;
    default:
        return;
    }
}

uint8_t NorFlash::outputByte(uint64_t index)
{
    switch (instruction_) {
    case kReadStatus1: {
        const uint8_t value = statusRegister1();
        if ((value & kStatusBusy) && busyPollsLeft_ > 0)
            --busyPollsLeft_;
        return value;
    }
    case kReadStatus2:
        return statusRegister2();
    case kReadUniqueId:
        if (index < kUniqueIdDummyBytes || index >= kUniqueIdDummyBytes + 8)
            return 0xFF;
        return static_cast<uint8_t>(uniqueId >> (8 * (kUniqueIdDummyBytes + 7 - index)));
    case kReadJedecId:
        return index < 3 ? kJedecId[index] : 0xFF;
    case kReleasePowerDown:
        return index < kDeviceIdDummyBytes ? 0xFF : kDeviceId;
    case kRead:
    case kQuadIoFastRead:
        // Reads run on across the end of the chip back to address 0.
        return memory_[(readAddress_ + index) % kSize];
    default:
        return 0xFF;
    }
}

// The chip's side of one clock: the levels it drives (only while it answers).
uint8_t NorFlash::driveBits()
{
    loadOutput();
    return wire::toLevels(
        wire::bitsOfClock(outByte_, outClock_, phaseLines_), phaseLines_, Direction::ToMaster);
}

// The chip's side of one clock edge: it takes its input bits from the line
// levels, or moves on in its answer.
void NorFlash::clockIn(uint8_t levels)
{
    ++clocks_;
    switch (phase_) {
    case Phase::Instruction:
    case Phase::Address:
    case Phase::Mode:
    case Phase::DataIn:
    case Phase::Register:
        shift_ = static_cast<uint8_t>((shift_ << wire::width(phaseLines_))
            | wire::fromLevels(levels, phaseLines_, Direction::ToDevice));
        bitsIn_ += wire::width(phaseLines_);
        if (bitsIn_ == 8) {
            const uint8_t byte = shift_;
            shift_ = 0;
            bitsIn_ = 0;
            phaseByteDone(byte);
        }
        return;
    case Phase::Dummy:
        if (--dummyClocksLeft_ == 0)
            enterPhase(Phase::DataOut, Lines::Quad);
        return;
    case Phase::DataOut:
        clockOut();
        return;
    default:
        return;
    }
}

// A byte of the answer is made when its first bit goes out (a status byte
// shows the chip as it is at that moment).
void NorFlash::loadOutput()
{
    if (!outPending_)
        return;
    outByte_ = outputByte(outIndex_);
    outPending_ = false;
}

void NorFlash::clockOut()
{
    if (++outClock_ < wire::clocksPerByte(phaseLines_))
        return;
    outClock_ = 0;
    ++outIndex_;
    outPending_ = true;
}

void NorFlash::exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines)
{
    if (!selected_)
        return;
    const int clocksPerByte = wire::clocksPerByte(lines);
    // The master drives IO0 in single mode all the time (high while it only
    // reads); on more lines it drives them only while it writes.
    const uint8_t masterMask = out || lines == Lines::Single ? wire::lineMask(lines, Direction::ToDevice) : 0;
    size_t i = 0;
    while (i < count) {
        const size_t left = count - i;
        // Whole bytes on the lines the chip expects: no need to go clock by clock.
        if (phase_ == Phase::DataOut && phaseLines_ == lines && outClock_ == 0
            && (lines == Lines::Single || !out)) {
            if (instruction_ == kRead || instruction_ == kQuadIoFastRead) {
                for (size_t done = 0; done < left;) {
                    const uint32_t at = static_cast<uint32_t>((readAddress_ + outIndex_) % kSize);
                    const size_t chunk = std::min<size_t>(left - done, kSize - at);
                    if (in)
                        std::copy_n(memory_.begin() + at, chunk, in + i + done);
                    done += chunk;
                    outIndex_ += chunk;
                }
            } else {
                for (size_t k = 0; k < left; ++k) {
                    loadOutput();
                    if (in)
                        in[i + k] = outByte_;
                    ++outIndex_;
                    outPending_ = true;
                }
            }
            outPending_ = true;
            clocks_ += left * static_cast<uint64_t>(clocksPerByte);
            return;
        }
        if (phase_ == Phase::DataIn && phaseLines_ == lines && bitsIn_ == 0 && out) {
            for (size_t k = 0; k < left; ++k)
                phaseByteDone(out[i + k]);
            if (in)
                std::fill(in + i, in + count, lines == Lines::Single ? 0xFF : 0);
            clocks_ += left * static_cast<uint64_t>(clocksPerByte);
            return;
        }
        if (phase_ == Phase::Ignored || phase_ == Phase::Trailing) {
            // Nothing drives the lines the master reads.
            if (in)
                for (size_t k = 0; k < left; ++k)
                    in[i + k] = lines == Lines::Single || !out ? 0xFF : out[i + k];
            clocks_ += left * static_cast<uint64_t>(clocksPerByte);
            return;
        }

        // One byte, clock by clock.
        const uint8_t sent = out ? out[i] : 0xFF;
        uint8_t value = 0;
        for (int k = 0; k < clocksPerByte; ++k) {
            uint8_t levels = wire::kPulledUp;
            if (phase_ == Phase::DataOut) {
                const uint8_t chipMask = wire::lineMask(phaseLines_, Direction::ToMaster);
                levels = static_cast<uint8_t>((levels & ~chipMask) | (driveBits() & chipMask));
            }
            const uint8_t masterLevels
                = wire::toLevels(wire::bitsOfClock(sent, k, lines), lines, Direction::ToDevice);
            levels = static_cast<uint8_t>((levels & ~masterMask) | (masterLevels & masterMask));
            value = static_cast<uint8_t>(
                (value << wire::width(lines)) | wire::fromLevels(levels, lines, Direction::ToMaster));
            clockIn(levels);
        }
        if (in)
            in[i] = value;
        ++i;
    }
}

void NorFlash::program()
{
    const uint32_t page = (address() % kSize) & ~(kPageSize - 1);
    operation_ = Operation();
    operation_.active = true;
    operation_.start = page;
    operation_.before.assign(memory_.begin() + page, memory_.begin() + page + kPageSize);
    bool raises = false;
    for (uint32_t offset = 0; offset < kPageSize; ++offset) {
        if (pageBuffer_[offset] < 0)
            continue;
        const uint8_t data = static_cast<uint8_t>(pageBuffer_[offset]);
        uint8_t& cell = memory_[page + offset];
        if (data & ~cell)
            raises = true;
        cell &= data;
    }
    if (raises)
        ++stats.zeroToOneAttempts;
    ++stats.pagePrograms;
    startBusy(drawn(timing.programUs, timing.programMaxUs), timing.busyPolls);
    if (powerFailsNow()) {
        interrupt();
        if (onPowerCut)
            onPowerCut();
    }
    memoryChanged();
}

void NorFlash::eraseSector(uint32_t address)
{
    const uint32_t sector = (address % kSize) / kSectorSize;
    operation_ = Operation();
    operation_.active = true;
    operation_.erase = true;
    operation_.start = sector * kSectorSize;
    operation_.before.assign(
        memory_.begin() + operation_.start, memory_.begin() + operation_.start + kSectorSize);
    std::fill_n(memory_.begin() + operation_.start, kSectorSize, 0xFF);
    ++stats.sectorErases[sector];
    ++stats.sectorEraseCommands;
    startBusy(drawn(timing.eraseUs, timing.eraseMaxUs), timing.busyPolls);
    if (powerFailsNow()) {
        interrupt();
        if (onPowerCut)
            onPowerCut();
    }
    memoryChanged();
}

void NorFlash::eraseChip()
{
    operation_ = Operation();
    operation_.active = true;
    operation_.erase = true;
    operation_.start = 0;
    operation_.before = memory_;
    std::fill(memory_.begin(), memory_.end(), 0xFF);
    for (uint32_t& count : stats.sectorErases)
        ++count;
    ++stats.chipErases;
    startBusy(drawn(timing.chipEraseUs, timing.chipEraseMaxUs), timing.busyPolls);
    if (powerFailsNow()) {
        interrupt();
        if (onPowerCut)
            onPowerCut();
    }
    memoryChanged();
}

void NorFlash::writeStatus(size_t bytes)
{
    uint8_t two = statusRegister2();
    if (instruction_ == kWriteStatus1) {
        status1Bits = registerBytes_[0] & kStatus1Writable;
        if (bytes == 2)
            two = registerBytes_[1];
    } else {
        two = registerBytes_[0];
    }
    if (instruction_ == kWriteStatus2 || bytes == 2) {
        const uint8_t locks = static_cast<uint8_t>((status2Bits | two) & kStatus2LockBits);
        status2Bits = static_cast<uint8_t>((two & kStatus2Writable & ~kStatus2LockBits) | locks);
        quadEnable = two & kStatus2QuadEnable;
    }
    ++stats.statusWrites;
    operation_ = Operation();
    startBusy(drawn(timing.writeStatusUs, timing.writeStatusMaxUs), timing.busyPolls);
}

// A program or erase stopped before its time: a program has cleared only some
// of the bits it was to clear; an erase has set some bytes to 0xFF, left
// others as they were and left the rest neither (bits partly set). Which
// ones follows the seed, so a run can be repeated.
void NorFlash::interrupt()
{
    busyPollsLeft_ = 0;
    busyUntil_ = {};
    if (!operation_.active)
        return;
    operation_.active = false;
    ++stats.interrupted;
    const uint32_t run = mix(seed
        ^ static_cast<uint32_t>(
            stats.pagePrograms * 7919 + stats.sectorEraseCommands * 104729 + stats.interrupted));
    for (size_t i = 0; i < operation_.before.size(); ++i) {
        const uint8_t before = operation_.before[i];
        uint8_t& cell = memory_[operation_.start + i];
        const uint32_t noise = mix(run + static_cast<uint32_t>(i) * 0x9E3779B9u);
        if (operation_.erase) {
            switch (noise % 3) {
            case 0:
                cell = 0xFF;
                break;
            case 1:
                cell = before;
                break;
            default:
                cell = static_cast<uint8_t>(before | (noise >> 8));
                break;
            }
        } else {
            const uint8_t toClear = static_cast<uint8_t>(before & ~cell);
            cell = static_cast<uint8_t>(before & ~(toClear & (noise >> 8)));
        }
    }
    memoryChanged();
}

void NorFlash::deselect()
{
    if (!selected_)
        return;
    selected_ = false;

    // The mode bits of a quad read decide how the next frame starts.
    if (instruction_ == kQuadIoFastRead && (phase_ == Phase::Dummy || phase_ == Phase::DataOut))
        continuous_ = (modeBits_ & kContinuousMask) == kContinuousBits;
    if (phase_ == Phase::Ignored || phase_ == Phase::Instruction)
        return;

    const bool wasResetEnabled = resetEnabled_;
    resetEnabled_ = false;
    // Write enable, erases and resets count only when chip select rises
    // right after the frame's last bit; a program after a whole data byte.
    // The write-enable latch stays set through the cycle and clears at its
    // end.
    const bool wholeInstruction = phase_ == Phase::Trailing && clocks_ == kInstructionClocks;
    const auto inexact = [this] { ++stats.ignoredInexactFrames; };
    const auto refusedProtected = [this] { ++stats.ignoredProtected; };

    switch (instruction_) {
    case kWriteEnable:
        if (!wholeInstruction)
            return inexact();
        writeEnable_ = true;
        return;
    case kWriteDisable:
        if (!wholeInstruction)
            return inexact();
        writeEnable_ = false;
        return;
    case kChipErase:
    case kChipEraseAlt:
        if (!wholeInstruction)
            return inexact();
        if (!writeAllowed())
            return;
        // Not executed when any area is protected.
        if (anyProtected())
            return refusedProtected();
        eraseChip();
        return;
    case kSectorErase:
        if (phase_ != Phase::Trailing || clocks_ != kSectorEraseClocks)
            return inexact();
        if (!writeAllowed())
            return;
        if (isProtected(address()))
            return refusedProtected();
        eraseSector(address());
        return;
    case kPageProgram:
    case kQuadPageProgram:
        if (phase_ != Phase::DataIn || bitsIn_ != 0 || dataBytes_ == 0)
            return inexact();
        if (!writeAllowed())
            return;
        if (isProtected(address()))
            return refusedProtected();
        program();
        return;
    case kWriteStatus1:
    case kWriteStatus2: {
        // 0x01 takes register 1, or registers 1 and 2; 0x31 register 2.
        const size_t most = instruction_ == kWriteStatus1 ? 2 : 1;
        if (phase_ != Phase::Register || bitsIn_ != 0 || registerBytes_.empty()
            || registerBytes_.size() > most)
            return inexact();
        if (!writeAllowed())
            return;
        writeStatus(registerBytes_.size());
        return;
    }
    case kPowerDown:
        if (!wholeInstruction)
            return inexact();
        deepPowerDown_ = true;
        recoveringUntil_ = Clock::now() + std::chrono::microseconds(timing.powerDownUs);
        return;
    case kReleasePowerDown:
        if (deepPowerDown_) {
            deepPowerDown_ = false;
            recoveringUntil_ = Clock::now() + std::chrono::microseconds(timing.releaseUs);
        }
        return;
    case kResetEnable:
        if (!wholeInstruction)
            return inexact();
        resetEnabled_ = true;
        return;
    case kReset:
        if (!wholeInstruction)
            return inexact();
        if (!wasResetEnabled)
            return;
        // The operation in progress stops, the latches clear, and the chip
        // takes its reset time before it listens again.
        if (busy())
            interrupt();
        writeEnable_ = false;
        cycleRunning_ = false;
        continuous_ = false;
        recoveringUntil_ = Clock::now() + std::chrono::microseconds(timing.resetUs);
        return;
    default:
        return;
    }
}

} // namespace vbridge

#include "sim/NorFlash.h"

#include <algorithm>

namespace vbridge {

namespace {

constexpr uint8_t kReadStatus = 0x05;
constexpr uint8_t kWriteEnable = 0x06;
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

constexpr uint8_t kStatusBusy = 0x01;
constexpr uint8_t kStatusWriteEnable = 0x02;

// What a master reads while the chip does not drive the line.
constexpr uint8_t kIdleBus = 0xFF;

} // namespace

NorFlash::NorFlash()
    : memory_(kSize, 0xFF)
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
    return busyPollsLeft_ > 0 || std::chrono::steady_clock::now() < busyUntil_;
}

void NorFlash::powerUp()
{
    writeEnable_ = false;
    resetEnabled_ = false;
    selected_ = false;
    haveCommand_ = false;
    busyPollsLeft_ = 0;
    busyUntil_ = {};
}

void NorFlash::startBusy(uint32_t microseconds)
{
    busyPollsLeft_ = timing.busyPolls;
    busyUntil_ = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
}

void NorFlash::select()
{
    selected_ = true;
    haveCommand_ = false;
    commandIgnored_ = false;
    header_.clear();
    data_.clear();
    uniqueIdOffset_ = 0;
    readValid_ = true;
}

bool NorFlash::powerFailsNow()
{
    if (powerCutCountdown <= 0)
        return false;
    return --powerCutCountdown == 0;
}

void NorFlash::exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines)
{
    size_t i = 0;
    if (!haveCommand_ && count > 0) {
        command_ = out ? out[0] : kIdleBus;
        commandLines_ = lines;
        haveCommand_ = true;
        // Only a status read gets through while a program or erase runs.
        if (busy() && command_ != kReadStatus) {
            commandIgnored_ = true;
            ++stats.ignoredWhileBusy;
        }
        // Commands are taken on one line; on more the opcode is garbled.
        if (lines != Lines::Single)
            commandIgnored_ = true;
        if (in)
            in[0] = kIdleBus;
        i = 1;
    }

    if (commandIgnored_) {
        if (in)
            std::fill(in + i, in + count, kIdleBus);
        return;
    }

    switch (command_) {
    case kReadStatus:
        for (; i < count; ++i) {
            const bool isBusy = busy();
            if (in)
                in[i] = static_cast<uint8_t>(
                    (isBusy ? kStatusBusy : 0) | (writeEnable_ ? kStatusWriteEnable : 0));
            if (isBusy && busyPollsLeft_ > 0)
                --busyPollsLeft_;
        }
        return;

    case kReadUniqueId:
        // Four dummy bytes, then the eight identifier bytes, most significant first.
        for (; i < count; ++i, ++uniqueIdOffset_) {
            uint8_t value = kIdleBus;
            if (uniqueIdOffset_ >= 4 && uniqueIdOffset_ < 12)
                value = static_cast<uint8_t>(uniqueId >> (8 * (11 - uniqueIdOffset_)));
            if (in)
                in[i] = value;
        }
        return;

    case kReadJedecId: {
        const uint8_t id[3] = { 0xEF, 0x40, 0x18 };
        for (; i < count; ++i, ++uniqueIdOffset_)
            if (in)
                in[i] = uniqueIdOffset_ < 3 ? id[uniqueIdOffset_] : kIdleBus;
        return;
    }

    case kRead:
    case kQuadIoFastRead: {
        // 0x03: three address bytes, data on one line. 0xEB: address, mode
        // byte and two dummy bytes on four lines, data on four lines; sent on
        // fewer lines the chip takes other bits than the master meant.
        const size_t headerSize = command_ == kRead ? 3 : 6;
        const Lines dataLines = command_ == kRead ? Lines::Single : Lines::Quad;
        for (; i < count && header_.size() < headerSize; ++i) {
            header_.push_back(out ? out[i] : kIdleBus);
            if (lines != dataLines)
                readValid_ = false;
            if (in)
                in[i] = kIdleBus;
            if (header_.size() == 3)
                readAddress_ = (uint32_t(header_[0]) << 16) | (uint32_t(header_[1]) << 8) | header_[2];
        }
        if (i >= count || !in)
            return;
        if (!readValid_ || lines != dataLines) {
            std::fill(in + i, in + count, kIdleBus);
            return;
        }
        // Reads run on across the end of the chip back to address 0.
        while (i < count) {
            const size_t chunk = std::min<size_t>(count - i, kSize - (readAddress_ % kSize));
            std::copy_n(memory_.begin() + (readAddress_ % kSize), chunk, in + i);
            i += chunk;
            readAddress_ = static_cast<uint32_t>((readAddress_ + chunk) % kSize);
        }
        return;
    }

    case kSectorErase:
    case kPageProgram:
    case kQuadPageProgram:
        for (; i < count; ++i) {
            const uint8_t byte = out ? out[i] : kIdleBus;
            if (header_.size() < 3)
                header_.push_back(byte);
            else
                data_.push_back(byte);
            if (in)
                in[i] = kIdleBus;
        }
        return;

    default:
        if (in)
            std::fill(in + i, in + count, kIdleBus);
        return;
    }
}

void NorFlash::program(uint32_t address, const std::vector<uint8_t>& data)
{
    // Bytes past the end of the page wrap to its start; a page takes at most
    // its last 256 bytes.
    const uint32_t page = (address % kSize) & ~(kPageSize - 1);
    uint32_t offset = address & (kPageSize - 1);
    size_t first = data.size() > kPageSize ? data.size() - kPageSize : 0;
    offset = static_cast<uint32_t>((offset + first) & (kPageSize - 1));
    size_t end = data.size();
    const bool failing = powerFailsNow();
    if (failing)
        end = first + (end - first) / 2;

    bool raises = false;
    for (size_t i = first; i < end; ++i) {
        uint8_t& cell = memory_[page + ((offset + (i - first)) & (kPageSize - 1))];
        if (data[i] & ~cell)
            raises = true;
        cell &= data[i];
    }
    if (raises)
        ++stats.zeroToOneAttempts;
    ++stats.pagePrograms;
    dirty = true;
    if (onMemoryChanged)
        onMemoryChanged();
    startBusy(timing.programUs);
    if (failing && onPowerCut)
        onPowerCut();
}

void NorFlash::eraseSector(uint32_t address)
{
    const uint32_t sector = (address % kSize) / kSectorSize;
    const bool failing = powerFailsNow();
    const uint32_t length = failing ? kSectorSize / 2 : kSectorSize;
    std::fill_n(memory_.begin() + sector * kSectorSize, length, 0xFF);
    ++stats.sectorErases[sector];
    ++stats.sectorEraseCommands;
    dirty = true;
    if (onMemoryChanged)
        onMemoryChanged();
    startBusy(timing.eraseUs);
    if (failing && onPowerCut)
        onPowerCut();
}

void NorFlash::deselect()
{
    if (!selected_)
        return;
    selected_ = false;
    if (!haveCommand_ || commandIgnored_)
        return;

    const auto address
        = [this] { return (uint32_t(header_[0]) << 16) | (uint32_t(header_[1]) << 8) | header_[2]; };
    const bool wasResetEnabled = resetEnabled_;
    resetEnabled_ = false;

    switch (command_) {
    case kWriteEnable:
        writeEnable_ = true;
        return;
    case kSectorErase:
    case kPageProgram:
    case kQuadPageProgram:
    case kChipErase:
    case kChipEraseAlt:
        if (!writeEnable_) {
            ++stats.ignoredWithoutWriteEnable;
            return;
        }
        if (command_ == kChipErase || command_ == kChipEraseAlt) {
            writeEnable_ = false;
            std::fill(memory_.begin(), memory_.end(), 0xFF);
            for (uint32_t& count : stats.sectorErases)
                ++count;
            ++stats.chipErases;
            dirty = true;
            if (onMemoryChanged)
                onMemoryChanged();
            startBusy(timing.chipEraseUs);
            return;
        }
        if (header_.size() < 3)
            return; // incomplete frame: the chip does nothing
        writeEnable_ = false;
        if (command_ == kSectorErase)
            eraseSector(address());
        else if (!data_.empty())
            program(address(), data_);
        return;
    case kResetEnable:
        resetEnabled_ = true;
        return;
    case kReset:
        if (wasResetEnabled) {
            writeEnable_ = false;
            busyPollsLeft_ = 0;
            busyUntil_ = {};
        }
        return;
    default:
        return;
    }
}

} // namespace vbridge

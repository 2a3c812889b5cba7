// A 16 MiB serial NOR flash: 256-byte pages, 4 KiB sectors, 24-bit addresses.
// Programming only clears bits; erase sets 0xFF; program and erase need the
// write-enable latch and clear it; while busy the chip ignores everything but
// status reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/SpiDevice.h"
#include "sim/VirtualBridge.h"

namespace vbridge {

class NorFlash : public SpiDevice {
public:
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

    // Power loss: called when the countdown of program/erase operations ends;
    // the operation is left half done.
    int powerCutCountdown = 0;
    std::function<void()> onPowerCut;

    void resetStats();
    bool busy() const;
    // Power-on: the latches are clear and nothing is in progress; the array
    // keeps its contents.
    void powerUp();

private:
    enum class Phase { Command, Address, Mode, Dummy, Data, Done };

    void startBusy(uint32_t microseconds);
    void program(uint32_t address, const std::vector<uint8_t>& data);
    void eraseSector(uint32_t address);
    bool powerFailsNow();

    std::vector<uint8_t> memory_;
    bool writeEnable_ = false;
    bool selected_ = false;
    uint8_t command_ = 0;
    bool haveCommand_ = false;
    bool commandIgnored_ = false;
    Lines commandLines_ = Lines::Single;
    std::vector<uint8_t> header_; // address and mode bytes as received
    std::vector<uint8_t> data_; // program data
    uint32_t readAddress_ = 0;
    size_t uniqueIdOffset_ = 0;
    bool readValid_ = true;
    bool resetEnabled_ = false;
    std::chrono::steady_clock::time_point busyUntil_ {};
    uint32_t busyPollsLeft_ = 0;
};

} // namespace vbridge

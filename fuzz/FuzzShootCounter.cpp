// The shot counter area: up to 4096 big-endian slots, erased ones all ones.
// The scan must find the largest value and its first slot.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "flash/FlashProtocol.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int slots = static_cast<int>(std::min<size_t>(size / 4, korux::kShootCounterSlots));
    const korux::ShootCounterScan scan = korux::scanShootCounter(data, slots);

    uint32_t largest = 0;
    int first = -1;
    for (int slot = 0; slot < slots; ++slot) {
        const uint8_t* b = data + 4 * slot;
        const uint32_t value = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
        if (value != 0xFFFFFFFF && value > largest) {
            largest = value;
            first = slot;
        }
    }
    FUZZ_CHECK(scan.value == largest);
    FUZZ_CHECK(scan.index == first);
    FUZZ_CHECK(scan.index >= -1 && scan.index < slots);
    return 0;
}

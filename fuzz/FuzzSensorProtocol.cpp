// The sensor's answers on port A: the 3-byte status word and the 17-byte
// Inside block of a sensor built into a generator. Every window of the input
// is decoded, as the plug-in does with whatever the sensor answers.
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzCheck.h"
#include "transport/SensorProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return 0;
    for (size_t offset = 0; offset + korux::kStatusWordSize <= size; ++offset) {
        const korux::StatusWord word = korux::decodeStatusWord(data + offset);
        FUZZ_CHECK(word.flags == data[offset]);
        FUZZ_CHECK(word.diode <= 1023);
        FUZZ_CHECK(word.version <= 15);
        FUZZ_CHECK(word.size <= 3);
    }
    for (size_t offset = 0; offset + korux::kInsideBlockSize <= size; ++offset) {
        const uint8_t* block = data + offset;
        const korux::InsideCheck check = korux::checkInsideBlock(block);
        if (block[0] != korux::kInsideMarker)
            FUZZ_CHECK(check == korux::InsideCheck::NotFound);
        else
            FUZZ_CHECK(check != korux::InsideCheck::NotFound);
        const korux::InsideBlock inside = korux::decodeInsideBlock(block);
        FUZZ_CHECK(inside.kV >= 0 && inside.kV <= 255);
        FUZZ_CHECK(inside.mA >= 0 && inside.mA <= 255);
        FUZZ_CHECK(inside.timeSet >= 0 && inside.timeSet <= 65535);
        FUZZ_CHECK(inside.timeDone >= 0 && inside.timeDone <= 65535);
        FUZZ_CHECK(inside.dap >= 0 && inside.dap <= 65535);
        FUZZ_CHECK(inside.airDose >= 0 && inside.airDose <= 65535);
    }
    return 0;
}

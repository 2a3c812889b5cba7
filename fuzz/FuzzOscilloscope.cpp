// Oscilloscope reads: up to one 65,408-byte block of 16-bit big-endian
// samples, of any length the bridge reports (odd ones included).
#include <cstddef>
#include <cstdint>

#include "acquisition/AcquisitionProtocol.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 0xFF80)
        return 0;
    const auto length = static_cast<uint32_t>(size);

    const korux::OscilloscopeScan scan = korux::scanOscilloscope(data, length);
    FUZZ_CHECK(scan.text.size() % 4 == 0);
    FUZZ_CHECK(static_cast<uint32_t>(scan.text.size() / 4) <= (length + 1) / 2);
    FUZZ_CHECK(scan.samplesAbove >= 0 && scan.samplesAbove <= scan.text.size() / 4);
    FUZZ_CHECK(scan.energySum >= 0);

    int samples = -1;
    const QString full = korux::scanFullOscilloscope(data, length, &samples);
    FUZZ_CHECK(samples >= 0);
    FUZZ_CHECK(full.size() == 4 * samples);
    FUZZ_CHECK(static_cast<uint32_t>(samples) <= (length + 1) / 2);
    return 0;
}

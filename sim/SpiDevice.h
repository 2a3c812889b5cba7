// What sits behind a bridge port's SPI master. The port asserts the chip
// select, exchanges bytes in bulk on one, two or four data lines, and releases
// the chip select; a device sees nothing else of the bridge.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vbridge {

enum class Lines : uint8_t { Single = 1, Dual = 2, Quad = 4 };

// How a device wants to be clocked: its SPI mode (modes 0 and 3 are the same
// to a device, as are 1 and 2), the fastest clock it follows, and the bridge
// chip-select line it is wired to.
struct SpiProfile {
    int cpol = 0; // clock idles low
    int cpha = 0; // data taken on the leading edge
    double maxClockMHz = 50;
    uint8_t chipSelect = 0x01; // bit of the SS line (ssoMap)
};

class SpiDevice {
public:
    virtual ~SpiDevice() = default;
    SpiProfile profile;
    // Chip select asserted: a new transaction starts.
    virtual void select() { }
    // count bytes clocked through in one go. out: the bytes the master drives
    // (null while it only reads, the lines then idle high); in: where the bytes
    // the device drives go (null while the master only writes). A transaction
    // may be split into several exchanges at any byte boundary.
    virtual void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines) = 0;
    // Chip select released: the transaction ends.
    virtual void deselect() { }
};

} // namespace vbridge

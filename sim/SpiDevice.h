// What sits behind a bridge port's SPI master. The port asserts the chip
// select, exchanges bytes in bulk on one, two or four data lines, and releases
// the chip select; a device sees nothing else of the bridge.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vbridge {

enum class Lines : uint8_t { Single = 1, Dual = 2, Quad = 4 };

class SpiDevice {
public:
    virtual ~SpiDevice() = default;
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

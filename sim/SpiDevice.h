// What sits behind a bridge port's SPI master: the port asserts the chip
// select, exchanges bytes (on one, two or four data lines) and releases it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vbridge {

enum class Lines : uint8_t { Single = 1, Dual = 2, Quad = 4 };

class SpiDevice {
public:
    virtual ~SpiDevice() = default;
    virtual void select() {}
    // out: bytes the master drives (null while it only reads); in: where the
    // bytes the device drives go (null while the master only writes).
    virtual void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines) = 0;
    virtual void deselect() {}
};

}  // namespace vbridge

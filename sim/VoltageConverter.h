// The four-channel 10-bit converter on port B: a start bit, then single-ended
// mode and the channel in the high nibble of the second byte; the result
// comes back in the low two bits of the second byte and the third byte.
#pragma once

#include <array>
#include <cstdint>

#include "sim/SpiDevice.h"

namespace vbridge {

class VoltageConverter : public SpiDevice {
public:
    std::array<uint16_t, 4> raw { { 620, 310, 775, 560 } };

    void select() override { position_ = 0; }

    void exchange(const uint8_t* out, uint8_t* in, size_t count, Lines lines) override
    {
        for (size_t i = 0; i < count; ++i, ++position_) {
            const uint8_t byte = out && lines == Lines::Single ? out[i] : 0xFF;
            uint8_t answer = 0xFF; // the line floats before the conversion
            if (position_ == 1) {
                // Single-ended mode bit, then the channel number.
                single_ = (byte & 0x80) != 0;
                channel_ = (byte >> 4) & 0x03;
                const uint16_t value = single_ ? raw[channel_] & 0x3FF : 0;
                answer = static_cast<uint8_t>(0xF8 | (value >> 8));
            } else if (position_ == 2) {
                answer = static_cast<uint8_t>(single_ ? raw[channel_] & 0xFF : 0);
            }
            if (in)
                in[i] = answer;
        }
    }

private:
    size_t position_ = 0;
    bool single_ = false;
    int channel_ = 0;
};

} // namespace vbridge

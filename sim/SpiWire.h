// The data lines IO0 to IO3 of an SPI bus, clock by clock. Bits go most
// significant first: on one line a byte takes eight clocks (IO0 carries the
// master's bits to the device, IO1 the device's back), on two lines four
// clocks (IO1:IO0), on four lines two clocks (IO3..IO0). A line that nobody
// drives reads 1: the board pulls the data lines up.
//
// Devices use this to take bits on the lines they listen to, whatever the
// master meant: a byte sent on the wrong number of lines arrives as other bits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/SpiDevice.h"

namespace vbridge::wire {

constexpr uint8_t kPulledUp = 0x0F;

enum class Direction { ToDevice, ToMaster };

inline int width(Lines lines)
{
    return static_cast<int>(lines);
}

inline int clocksPerByte(Lines lines)
{
    return 8 / width(lines);
}

// The IO lines that carry the bits of one direction in a line mode.
inline uint8_t lineMask(Lines lines, Direction direction)
{
    switch (lines) {
    case Lines::Single:
        return direction == Direction::ToDevice ? 0x1 : 0x2;
    case Lines::Dual:
        return 0x3;
    case Lines::Quad:
        return 0xF;
    }
    return 0;
}

// The bits of byte that clock k (0 = first) of the byte carries.
inline uint8_t bitsOfClock(uint8_t byte, int clock, Lines lines)
{
    const int w = width(lines);
    return static_cast<uint8_t>((byte >> (8 - w * (clock + 1))) & ((1 << w) - 1));
}

// Those bits as levels on the IO lines.
inline uint8_t toLevels(uint8_t bits, Lines lines, Direction direction)
{
    return lines == Lines::Single && direction == Direction::ToMaster ? static_cast<uint8_t>(bits << 1)
                                                                      : bits;
}

// The bits a receiver takes from the IO lines in one clock.
inline uint8_t fromLevels(uint8_t levels, Lines lines, Direction direction)
{
    if (lines == Lines::Single)
        return direction == Direction::ToMaster ? (levels >> 1) & 1 : levels & 1;
    return static_cast<uint8_t>(levels & lineMask(lines, direction));
}

// A device that answers on `deviceLines` while the master reads on
// `masterLines`: fills in[0..count) with what the master samples. byteAt(n)
// gives the device's nth answer byte; clock counts the device's clocks so far
// and is advanced.
template <typename ByteAt>
void readAcross(
    ByteAt byteAt, Lines deviceLines, Lines masterLines, uint64_t& clock, uint8_t* in, size_t count)
{
    const int deviceClocks = clocksPerByte(deviceLines);
    const int masterClocks = clocksPerByte(masterLines);
    const int masterWidth = width(masterLines);
    for (size_t i = 0; i < count; ++i) {
        uint8_t value = 0;
        for (int k = 0; k < masterClocks; ++k, ++clock) {
            const uint8_t byte = byteAt(static_cast<size_t>(clock / static_cast<uint64_t>(deviceClocks)));
            const uint8_t driven = toLevels(
                bitsOfClock(byte, static_cast<int>(clock % static_cast<uint64_t>(deviceClocks)), deviceLines),
                deviceLines, Direction::ToMaster);
            const uint8_t mask = lineMask(deviceLines, Direction::ToMaster);
            const uint8_t levels = static_cast<uint8_t>((kPulledUp & ~mask) | (driven & mask));
            value = static_cast<uint8_t>(
                (value << masterWidth) | fromLevels(levels, masterLines, Direction::ToMaster));
        }
        if (in)
            in[i] = value;
    }
}

} // namespace vbridge::wire

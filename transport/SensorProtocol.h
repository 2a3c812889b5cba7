// The sensor logic's command protocol on port A: the 4-byte command frame,
// the 3-byte status word and the 17-byte "Inside" information block of a
// sensor built into a generator. Pure encoders and decoders, no bridge calls.
#pragma once

#include <array>
#include <cstdint>

namespace korux {

// Command frame: class, code, then the fixed pair CA FE.
constexpr uint8_t kClassControl = 0xA1;
constexpr uint8_t kClassData = 0xA0;
constexpr uint8_t kFrameTailHigh = 0xCA;
constexpr uint8_t kFrameTailLow = 0xFE;
constexpr int kCommandFrameSize = 4;

constexpr uint8_t kCodeStatus = 0x80;       // with kClassControl
constexpr uint8_t kCodeInside = 0x81;       // with kClassControl
constexpr uint8_t kCodeArm = 0x00;          // with kClassControl
constexpr uint8_t kCodeImageBlock = 0x80;   // with kClassData, plus the block number
constexpr uint8_t kCodeOscilloscope = 0xE4; // with kClassData

using CommandFrame = std::array<uint8_t, kCommandFrameSize>;

constexpr CommandFrame sensorCommand(uint8_t commandClass, uint8_t code)
{
    return {commandClass, code, kFrameTailHigh, kFrameTailLow};
}

// Rows the sensor reads out beyond the raw image: 4 above it, 6 below.
constexpr int kExtraReadOutRows = 10;
constexpr int kBlackTopRows = 4;

// Status flags of the first status byte.
constexpr uint8_t kFlagExposure = 0x01;
constexpr uint8_t kFlagIntegrated = 0x02;
constexpr uint8_t kFlagArmed = 0x04;
constexpr uint8_t kFlagImageReady = 0x08;
constexpr uint8_t kFlagOff = 0x10;
constexpr uint8_t kFlagLinkLost = 0x20;
constexpr uint8_t kFlagReady = 0x40;
// Whole values the polling compares against.
constexpr uint8_t kStatusArmedIdle = 0x44;  // 'D'
constexpr uint8_t kStatusExposing = 0x45;   // 'E'
constexpr uint8_t kStatusImageReady = 0x48; // 'H'

constexpr int kStatusWordSize = 3;

struct StatusWord {
    uint8_t flags = 0;
    uint8_t size = 0;
    uint8_t version = 0;
    uint16_t diode = 0;
};

// Byte 0 flags; byte 1 diode bits 9-2; byte 2: diode bits 1-0, version (4
// bits), size code (2 bits).
constexpr StatusWord decodeStatusWord(const uint8_t* bytes)
{
    StatusWord word;
    word.flags = bytes[0];
    word.diode = static_cast<uint16_t>(bytes[1] * 4 + (bytes[2] >> 6));
    word.version = static_cast<uint8_t>((bytes[2] >> 2) & 0x0F);
    word.size = static_cast<uint8_t>(bytes[2] & 0x03);
    return word;
}

// What the sensor answers to the status request while its FPGA still waits
// for its configuration: no design runs yet, the lines rest at this pattern.
constexpr bool isUnconfiguredFpga(uint8_t flags, uint8_t size, uint8_t version, uint16_t diode)
{
    return flags == 0x22 && size == 2 && version == 8 && diode == 0x88;
}

// Port A's chip-select line on the bridge's SPI master.
constexpr uint8_t kSsoMapPortA = 1;

constexpr int kInsideBlockSize = 17;
constexpr uint8_t kInsideMarker = 0x73;  // 's'

struct InsideBlock {
    long kV = 0;
    long mA = 0;
    long timeSet = 0;
    long timeDone = 0;
    long dap = 0;
    long cone = 0;
    long airDose = 0;
    long cutMethod = 0;
    long mode = 0;
};

enum class InsideCheck { Ok, NotFound, ChecksumError };

// Sum of bytes 1 to 14, modulo 256; byte 15 is not covered.
constexpr uint8_t insideChecksum(const uint8_t* block)
{
    unsigned sum = 0;
    for (int i = 1; i <= 14; ++i)
        sum += block[i];
    return static_cast<uint8_t>(sum);
}

constexpr InsideCheck checkInsideBlock(const uint8_t* block)
{
    if (block[0] != kInsideMarker)
        return InsideCheck::NotFound;
    if (insideChecksum(block) != block[16])
        return InsideCheck::ChecksumError;
    return InsideCheck::Ok;
}

constexpr long bigEndian16(const uint8_t* bytes)
{
    return (static_cast<long>(bytes[0]) << 8) | bytes[1];
}

constexpr InsideBlock decodeInsideBlock(const uint8_t* block)
{
    InsideBlock inside;
    inside.kV = block[1];
    inside.mA = block[2];
    inside.timeSet = bigEndian16(block + 3);
    inside.timeDone = bigEndian16(block + 5);
    inside.dap = bigEndian16(block + 8);
    inside.cone = block[10];
    inside.airDose = bigEndian16(block + 11);
    inside.cutMethod = block[13];
    inside.mode = block[14];
    return inside;
}

}  // namespace korux

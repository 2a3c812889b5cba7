// The sensor flash on port C: a serial NOR flash of 256-byte pages and
// 4096-byte sectors, with 24-bit addresses sent most significant byte first.
// Frame builders and the layouts kept in the flash (file headers, the shot
// counter area) as pure functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <QString>

namespace korux {

constexpr uint8_t kFlashReadStatus = 0x05;
constexpr uint8_t kFlashWriteEnable = 0x06;
constexpr uint8_t kFlashSectorErase = 0x20;
constexpr uint8_t kFlashQuadPageProgram = 0x32;
constexpr uint8_t kFlashChipErase = 0x60;
constexpr uint8_t kFlashResetEnable = 0x66;
constexpr uint8_t kFlashReset = 0x99;
constexpr uint8_t kFlashReadUniqueId = 0x4B;
constexpr uint8_t kFlashQuadIoFastRead = 0xEB;
constexpr uint8_t kFlashContinuousReadOff = 0xF0;  // mode byte after the address

constexpr uint8_t kFlashStatusBusy = 0x01;

constexpr uint32_t kFlashPageSize = 256;
constexpr uint32_t kFlashSectorSize = 4096;

// The three address bytes; bits above 23 are never sent.
constexpr std::array<uint8_t, 3> flashAddressBytes(uint32_t address)
{
    return {static_cast<uint8_t>(address >> 16), static_cast<uint8_t>(address >> 8),
            static_cast<uint8_t>(address)};
}

// Sector erase: the address as page number, low address byte always 0.
constexpr std::array<uint8_t, 4> sectorEraseFrame(int address)
{
    const int page = address / 256;
    return {kFlashSectorErase, static_cast<uint8_t>(page >> 8), static_cast<uint8_t>(page & 0xFF), 0x00};
}

// Quad I/O fast read: opcode on one line, then address, mode byte and two
// dummy bytes on four lines.
constexpr int kQuadReadOpcodeBytes = 1;
constexpr int kQuadReadAddressBytes = 6;
std::array<uint8_t, kQuadReadOpcodeBytes + kQuadReadAddressBytes> quadReadFrame(uint32_t address);

// Page program of a whole page: opcode, address, 256 data bytes.
std::vector<uint8_t> pageProgramFrame(uint32_t address, const uint8_t* data);

// Unique identifier read: opcode, four dummy bytes, eight identifier bytes.
constexpr int kUniqueIdFrameSize = 13;
constexpr int kUniqueIdOffset = 5;
constexpr int kUniqueIdSize = 8;
QString uniqueIdText(const uint8_t* answer);

// Flash file header: 4 bytes of size (big-endian, counting from offset 16),
// '<', ten header bytes, '>'.
constexpr int kFlashFileHeaderSize = 16;
constexpr uint32_t kFlashFileSizeLimit = 0x400000;

enum class FlashFileState { NoData, NoFile, InvalidSize, Present };

struct FlashFileHeader {
    FlashFileState state = FlashFileState::NoData;
    uint32_t size = 0;
    bool framed = false;  // '<' at offset 4 and '>' at offset 15
};

FlashFileHeader parseFlashFileHeader(const uint8_t* header);

// Shot counter: 4096 big-endian 32-bit slots over four sectors; an erased
// slot reads 0xFFFFFFFF.
constexpr uint32_t kShootCounterAddress = 0xFA0000;
constexpr int kShootCounterSlots = 4096;
constexpr uint32_t kShootCounterAreaSize = kShootCounterSlots * 4;
constexpr uint32_t kShootCounterSectors = kShootCounterAreaSize / kFlashSectorSize;

struct ShootCounterScan {
    uint32_t value = 0;
    int index = -1;
};

// The largest stored value and the first slot that holds it.
ShootCounterScan scanShootCounter(const uint8_t* area, int slotCount = kShootCounterSlots);

constexpr uint32_t shootCounterSlotAddress(int slot)
{
    return kShootCounterAddress + 4 * static_cast<uint32_t>(slot);
}

// Program frame of one slot: opcode and address on one line, then the value
// big-endian on four lines.
constexpr int kCounterProgramSingleBytes = 4;
constexpr int kCounterProgramQuadBytes = 4;
std::array<uint8_t, 8> shootCounterProgramFrame(int slot, uint32_t value);

}  // namespace korux

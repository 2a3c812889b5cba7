#include "flash/FlashProtocol.h"

#include <algorithm>

namespace korux {

std::array<uint8_t, kQuadReadOpcodeBytes + kQuadReadAddressBytes> quadReadFrame(uint32_t address)
{
    const auto a = flashAddressBytes(address);
    return {kFlashQuadIoFastRead, a[0], a[1], a[2], kFlashContinuousReadOff, 0x00, 0x00};
}

std::vector<uint8_t> pageProgramFrame(uint32_t address, const uint8_t* data)
{
    const auto a = flashAddressBytes(address);
    // Opcode and three address bytes, then the page.
    std::vector<uint8_t> frame(1 + a.size() + kFlashPageSize);
    frame[0] = kFlashQuadPageProgram;
    std::copy(a.begin(), a.end(), frame.begin() + 1);
    std::copy(data, data + kFlashPageSize, frame.begin() + 1 + a.size());
    return frame;
}

QString uniqueIdText(const uint8_t* answer)
{
    QString text;
    for (int i = 0; i < kUniqueIdSize; ++i)
        text += QStringLiteral("%1").arg(answer[kUniqueIdOffset + i], 2, 16, QLatin1Char('0'));
    return text.toUpper();
}

FlashFileHeader parseFlashFileHeader(const uint8_t* header)
{
    FlashFileHeader result;
    // An erased area reads all ones; any four equal bytes count as no data.
    if (header[0] == header[1] && header[1] == header[2] && header[2] == header[3])
        return result;
    result.size = (uint32_t(header[0]) << 24) | (uint32_t(header[1]) << 16)
                  | (uint32_t(header[2]) << 8) | header[3];
    result.framed = header[4] == '<' && header[15] == '>';
    if (result.size == 0)
        result.state = FlashFileState::NoFile;
    else if (result.size >= kFlashFileSizeLimit)
        result.state = FlashFileState::InvalidSize;
    else
        result.state = FlashFileState::Present;
    return result;
}

ShootCounterScan scanShootCounter(const uint8_t* area, int slotCount)
{
    ShootCounterScan scan;
    for (int slot = 0; slot < slotCount; ++slot) {
        const uint8_t* bytes = area + 4 * slot;
        const uint32_t value = (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16)
                               | (uint32_t(bytes[2]) << 8) | bytes[3];
        if (value == 0xFFFFFFFF)
            continue;
        if (value > scan.value) {
            scan.value = value;
            scan.index = slot;
        }
    }
    return scan;
}

std::array<uint8_t, 8> shootCounterProgramFrame(int slot, uint32_t value)
{
    const auto a = flashAddressBytes(shootCounterSlotAddress(slot));
    return {kFlashQuadPageProgram, a[0], a[1], a[2],
            static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

}  // namespace korux

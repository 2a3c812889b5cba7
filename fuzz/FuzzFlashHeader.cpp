// The 16-byte header in front of every file in the sensor flash: size,
// framing and the size limit that keeps a damaged header from asking for
// more than the flash holds.
#include <cstddef>
#include <cstdint>

#include "flash/FlashProtocol.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The plug-in always reads a whole header before parsing it.
    if (size < korux::kFlashFileHeaderSize)
        return 0;
    const korux::FlashFileHeader header = korux::parseFlashFileHeader(data);

    const uint32_t stored = (uint32_t(data[0]) << 24) | (uint32_t(data[1]) << 16) | (uint32_t(data[2]) << 8) | data[3];
    const bool erased = data[0] == data[1] && data[1] == data[2] && data[2] == data[3];
    switch (header.state) {
    case korux::FlashFileState::NoData:
        FUZZ_CHECK(erased);
        break;
    case korux::FlashFileState::NoFile:
        FUZZ_CHECK(!erased && header.size == 0);
        break;
    case korux::FlashFileState::InvalidSize:
        FUZZ_CHECK(!erased && header.size == stored && header.size >= korux::kFlashFileSizeLimit);
        break;
    case korux::FlashFileState::Present:
        // What the reader goes on to fetch from the flash must fit in it.
        FUZZ_CHECK(!erased && header.size == stored);
        FUZZ_CHECK(header.size > 0 && header.size < korux::kFlashFileSizeLimit);
        FUZZ_CHECK(header.framed == (data[4] == '<' && data[15] == '>'));
        break;
    }
    return 0;
}

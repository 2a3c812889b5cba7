#include "sim/FlashContent.h"

#include <algorithm>
#include <cstring>

namespace vbridge {

namespace {

void putBigEndian32(std::vector<uint8_t>& bytes, uint32_t value)
{
    bytes.push_back(static_cast<uint8_t>(value >> 24));
    bytes.push_back(static_cast<uint8_t>(value >> 16));
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

uint32_t crc32(const uint8_t* data, size_t size)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

const char kPayloadMagic[4] = { 'K', 'X', 'B', 'S' };

void place(std::vector<uint8_t>& flash, uint32_t address, const std::vector<uint8_t>& bytes)
{
    std::copy(bytes.begin(), bytes.end(), flash.begin() + address);
}

} // namespace

std::vector<uint8_t> flashFileImage(const std::vector<uint8_t>& content, const std::string& header)
{
    std::vector<uint8_t> image;
    putBigEndian32(image, static_cast<uint32_t>(content.size()));
    image.push_back('<');
    std::string text = header;
    text.resize(10, ' ');
    image.insert(image.end(), text.begin(), text.end());
    image.push_back('>');
    image.insert(image.end(), content.begin(), content.end());
    return image;
}

std::vector<uint8_t> counterAreaImage(const std::vector<uint32_t>& values)
{
    std::vector<uint8_t> area;
    for (uint32_t value : values)
        putBigEndian32(area, value);
    area.resize(16384, 0xFF);
    return area;
}

std::string informationText(
    const std::string& serial, const std::string& sensorSerial, const std::string& technology)
{
    return "[KORUX3]\r\nSN=" + serial + "\r\nSNCapteur=" + sensorSerial + "\r\nTechnology=" + technology
        + "\r\n[PRODUCTION]\r\nDate=2019-04-17\r\nBench=3\r\n";
}

std::vector<uint8_t> dataFileContent(uint32_t size, uint32_t seed)
{
    std::vector<uint8_t> data(size);
    uint32_t x = seed * 2654435761u + 1;
    for (uint8_t& byte : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        byte = static_cast<uint8_t>(x);
    }
    return data;
}

std::vector<uint8_t> makeBitstream(const BitstreamHeader& header, uint32_t totalSize, uint32_t seed)
{
    std::vector<uint8_t> bytes { 0xFF, 0x00 };
    for (const std::string* text : { &header.lattice, &header.version, &header.status, &header.design,
             &header.design2, &header.parts, &header.date }) {
        bytes.insert(bytes.end(), text->begin(), text->end());
        bytes.push_back(0);
    }
    bytes.push_back(0xFF);
    const size_t frame = bytes.size() + sizeof(kPayloadMagic) + 4 + 4 + 4;
    const uint32_t payloadSize = totalSize > frame + 16 ? static_cast<uint32_t>(totalSize - frame) : 16;
    const std::vector<uint8_t> payload = dataFileContent(payloadSize, seed);
    bytes.insert(bytes.end(), kPayloadMagic, kPayloadMagic + sizeof(kPayloadMagic));
    putBigEndian32(bytes, header.deviceId);
    putBigEndian32(bytes, payloadSize);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    putBigEndian32(bytes, crc32(payload.data(), payload.size()));
    return bytes;
}

size_t bitstreamTotalSize(const uint8_t* bytes, size_t size)
{
    if (size < 2 || bytes[0] != 0xFF)
        return 0;
    size_t offset = 2;
    for (int text = 0; text < 7; ++text) {
        const uint8_t* end = std::find(bytes + offset, bytes + size, 0);
        if (end == bytes + size)
            return 0;
        offset = static_cast<size_t>(end - bytes) + 1;
    }
    if (size < offset + 13 || bytes[offset] != 0xFF || std::memcmp(bytes + offset + 1, kPayloadMagic, 4) != 0)
        return 0;
    offset += 9;
    const uint32_t length = (uint32_t(bytes[offset]) << 24) | (uint32_t(bytes[offset + 1]) << 16)
        | (uint32_t(bytes[offset + 2]) << 8) | bytes[offset + 3];
    return offset + 4 + length + 4;
}

bool bitstreamIntact(const std::vector<uint8_t>& bytes)
{
    if (bytes.size() < 2 || bytes[0] != 0xFF)
        return false;
    // Seven texts from offset 2, then the 0xFF that closes the header.
    size_t offset = 2;
    for (int text = 0; text < 7; ++text) {
        const auto end = std::find(bytes.begin() + offset, bytes.end(), 0);
        if (end == bytes.end())
            return false;
        offset = static_cast<size_t>(end - bytes.begin()) + 1;
    }
    if (offset >= bytes.size() || bytes[offset] != 0xFF)
        return false;
    ++offset;
    if (bytes.size() < offset + 12 || std::memcmp(bytes.data() + offset, kPayloadMagic, 4) != 0)
        return false;
    offset += 8;
    const uint32_t size = (uint32_t(bytes[offset]) << 24) | (uint32_t(bytes[offset + 1]) << 16)
        | (uint32_t(bytes[offset + 2]) << 8) | bytes[offset + 3];
    offset += 4;
    if (bytes.size() != offset + size + 4)
        return false;
    const uint8_t* crc = bytes.data() + offset + size;
    const uint32_t expected
        = (uint32_t(crc[0]) << 24) | (uint32_t(crc[1]) << 16) | (uint32_t(crc[2]) << 8) | crc[3];
    return crc32(bytes.data() + offset, size) == expected;
}

uint32_t bitstreamDeviceId(const std::vector<uint8_t>& bytes)
{
    const size_t total = bitstreamTotalSize(bytes.data(), bytes.size());
    if (total == 0)
        return 0;
    // The id sits right before the payload length, which ends the frame header.
    size_t offset = 2;
    for (int text = 0; text < 7; ++text)
        offset = static_cast<size_t>(std::find(bytes.begin() + offset, bytes.end(), 0) - bytes.begin()) + 1;
    offset += 5;
    return (uint32_t(bytes[offset]) << 24) | (uint32_t(bytes[offset + 1]) << 16)
        | (uint32_t(bytes[offset + 2]) << 8) | bytes[offset + 3];
}

void writeDefaultFlash(std::vector<uint8_t>& flash, const DefaultFlash& content)
{
    const std::string text = informationText(content.serial, content.sensorSerial, content.technology);
    place(flash, kPrdAddress, flashFileImage(std::vector<uint8_t>(text.begin(), text.end()), "PRD KORUX3"));
    place(flash, kAssAddress, flashFileImage(dataFileContent(2048, 11), "ASS KORUX3"));
    place(flash, kFfcAddress, flashFileImage(dataFileContent(262144, 12), "FFC KORUX3"));
    place(flash, kBlkAddress, flashFileImage(dataFileContent(131072, 13), "BLK KORUX3"));
    place(flash, kDplAddress, flashFileImage(dataFileContent(8192, 14), "DPL KORUX3"));
    place(flash, kBtsAddress, flashFileImage(makeBitstream(BitstreamHeader(), 30000, 15), "BTS KORUX3"));
    place(flash, kCounterAddress, counterAreaImage({ content.counter }));
}

} // namespace vbridge

// Builders of what a sensor's flash holds: the files with their 16-byte
// header, the shot-counter area, the information text and FPGA bitstreams in
// the virtual FPGA's format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vbridge {

constexpr uint32_t kPrdAddress = 0x000000;
constexpr uint32_t kAssAddress = 0x001000;
constexpr uint32_t kFfcAddress = 0x010000;
constexpr uint32_t kBlkAddress = 0x500000;
constexpr uint32_t kDplAddress = 0xA00000;
constexpr uint32_t kBtsAddress = 0xF00000;
constexpr uint32_t kCounterAddress = 0xFA0000;
constexpr uint32_t kFlashSize = 16 * 1024 * 1024;

// Size (big-endian, 4 bytes), '<', ten header characters, '>', content.
std::vector<uint8_t> flashFileImage(
    const std::vector<uint8_t>& content, const std::string& header = "KORUXFILE1");
// The 16 KiB counter area: the given slot values, then erased slots.
std::vector<uint8_t> counterAreaImage(const std::vector<uint32_t>& values);
// A sensor information text with the keys the plug-in reads.
std::string informationText(
    const std::string& serial, const std::string& sensorSerial, const std::string& technology);
// Deterministic filler content of a data file.
std::vector<uint8_t> dataFileContent(uint32_t size, uint32_t seed);

struct BitstreamHeader {
    std::string lattice = "Lattice Semiconductor Corporation Bitstream";
    std::string version = "Version: Diamond (64-bit) 3.12";
    std::string status = "Bitstream Status: Final";
    std::string design = "Design name: korux_top.ngd";
    std::string design2 = "Architecture: machxo2";
    std::string parts = "Part: LCMXO2-4000HC-4TG144";
    // RFC 2822 after six leading characters, as the tools write it.
    std::string date = "Date: Mon, 02 Mar 2020 10:00:00 +0000";
    // The FPGA the bitstream was built for (what the FPGA answers to 0xE0).
    uint32_t deviceId = 0x412B4043;
};

// A bitstream the virtual FPGA accepts: 0xFF 0x00, the seven zero-terminated
// header texts, 0xFF, then the payload frame: "KXBS", the device id it is
// built for, the payload length, the payload and the CRC-32 of the payload
// (the numbers 32 bits, big-endian). totalSize pads
// the payload so that the file has exactly that size (when large enough).
std::vector<uint8_t> makeBitstream(
    const BitstreamHeader& header, uint32_t totalSize = 20000, uint32_t seed = 1);
// True when bytes hold a complete bitstream whose payload checks.
bool bitstreamIntact(const std::vector<uint8_t>& bytes);
// The device id a bitstream was built for; 0 when its frame is not all there.
uint32_t bitstreamDeviceId(const std::vector<uint8_t>& bytes);
// The whole size of the bitstream that starts with these bytes, once its
// header and payload length are in; 0 before (or when they never will be).
size_t bitstreamTotalSize(const uint8_t* bytes, size_t size);

// The realistic flash of a new sensor: information text, data files,
// bitstream and a counter.
struct DefaultFlash {
    std::string serial = "1904001";
    std::string sensorSerial = "C2019-0417";
    std::string technology = "CsI";
    uint32_t counter = 1234;
};
void writeDefaultFlash(std::vector<uint8_t>& flash, const DefaultFlash& content);

} // namespace vbridge

// Wire formats of an acquisition: the arm frame, the image blocks, the
// oscilloscope samples, the voltage converter's frame, and the acquisition
// description text. Pure functions, no bridge calls.
#pragma once

#include <array>
#include <cstdint>

#include <QSize>
#include <QString>

#include "plugin/JsonReport.h"

namespace korux {

// Arm frame: A1 00 CA FE on one line, then five parameter bytes on four.
constexpr int kArmParameterBytes = 5;
using ArmFrame = std::array<uint8_t, 4 + kArmParameterBytes>;
ArmFrame armFrame(bool oscilloscope, int threshold, int32_t ace);

// The photodiode threshold a stop arms with: it triggers at once.
constexpr int kStopThreshold = 400;

// Image read-out in blocks of 65,408 bytes; the last read is rounded up to a
// multiple of 128 bytes.
constexpr uint32_t kImageBlockSize = 0xFF80;
constexpr uint32_t kLastBlockGranule = 128;

struct ImageBlocks {
    uint32_t totalBytes = 0;
    uint32_t fullBlocks = 0;     // block 0 included
    uint32_t remainder = 0;      // bytes of the last, partial block
    uint32_t lastReadLength = 0; // remainder rounded up to 128
};
ImageBlocks imageBlocks(const QSize& readOutSize);

// Size code of the image: the top two bits of its first byte.
constexpr int imageSizeCode(uint8_t firstByte)
{
    return firstByte >> 6;
}

// Swaps the bytes of count 16-bit pixels in place (big-endian wire order to
// host order).
void swapPixelBytes(uint8_t* pixels, uint32_t count);

// Oscilloscope samples: 16-bit big-endian dose-rate values.
constexpr int kOscilloscopeThreshold = 428;

struct OscilloscopeScan {
    QString text;        // four lower-case hex digits a sample
    int64_t energySum = 0;
    int32_t samplesAbove = 0;
};

// The normal read: only high bytes 1 to 3 are samples; the first other pair
// ends the scan.
OscilloscopeScan scanOscilloscope(const uint8_t* data, uint32_t length);
// The full read: a pair starting with 0xFF ends the scan, zero samples are
// skipped.
QString scanFullOscilloscope(const uint8_t* data, uint32_t length, int* samples);

// Voltage converter on port B: start bit, single-ended channel select, and
// the 10-bit result in the low bits of the last two bytes.
constexpr int kAdcFrameSize = 3;
constexpr int kAdcChannels = 4;
std::array<uint8_t, kAdcFrameSize> adcFrame(int channel);
int adcRaw(const uint8_t* answer);
// Millivolts of a channel: 3.3 V full scale over 10 bits; the USB and sensor
// supplies are measured through a divider by two.
long adcMillivolts(int channel, int raw);

// Acquisition description: an empty line, then "[section]" and "key=value"
// lines ended by CR LF, sections and keys in sorted order.
QString descriptionText(const ReportMap& map);

}  // namespace korux

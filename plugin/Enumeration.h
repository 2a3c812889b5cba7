// How the interfaces of the driver's device list are recognised as ports of a
// sensor of this series.
#pragma once

#include <QString>

#include <cstdint>

namespace korux {

constexpr uint32_t kAcceptedDeviceId = 0x1CE60003;  // vendor 0x1CE6, product 0x0003
constexpr uint32_t kSeriesVendorId = kAcceptedDeviceId >> 16;
constexpr uint32_t kSeriesProductId = kAcceptedDeviceId & 0xFFFF;
constexpr int kPortsPerSensor = 4;
constexpr int kMaxSensors = 4;

// True when the (upper-cased) description starts with "KORUX/KORUX" + the
// Latin-1 superscript two + a blank. Both sides are decoded as UTF-8, as the
// driver's text is, so the lone 0xB2 byte is the same replacement character
// on both. The Linux driver hands each non-ASCII byte of its texts as '?': a
// '?' where the superscript two stands counts as that character, there only.
bool hasSeriesPrefix(const QString& description);

// Port index 0 to 3 of the description's last character (A to D), or -1.
int portOfDescription(const QString& description);

}  // namespace korux

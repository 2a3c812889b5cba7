// The trace line of a bridge call.
#include <cstdio>
#include <sstream>

#include "sim/VirtualBridge.h"

namespace vbridge {

namespace {

// Bytes shown of a longer transfer.
constexpr size_t kShownBytes = 32;

const char* statusName(uint32_t status)
{
    static const char* const kD2xx[] = { "OK", "INVALID_HANDLE", "DEVICE_NOT_FOUND", "DEVICE_NOT_OPENED",
        "IO_ERROR", "INSUFFICIENT_RESOURCES", "INVALID_PARAMETER", "INVALID_BAUD_RATE",
        "DEVICE_NOT_OPENED_FOR_ERASE", "DEVICE_NOT_OPENED_FOR_WRITE", "FAILED_TO_WRITE_DEVICE",
        "EEPROM_READ_FAILED", "EEPROM_WRITE_FAILED", "EEPROM_ERASE_FAILED", "EEPROM_NOT_PRESENT",
        "EEPROM_NOT_PROGRAMMED", "INVALID_ARGS", "NOT_SUPPORTED", "OTHER_ERROR", "DEVICE_LIST_NOT_READY" };
    static const char* const kLibFt4222[] = { "DEVICE_NOT_SUPPORTED", "CLK_NOT_SUPPORTED",
        "VENDER_CMD_NOT_SUPPORTED", "IS_NOT_SPI_MODE", "IS_NOT_I2C_MODE", "IS_NOT_SPI_SINGLE_MODE",
        "IS_NOT_SPI_MULTI_MODE", "WRONG_I2C_ADDR", "INVAILD_FUNCTION", "INVALID_POINTER",
        "EXCEEDED_MAX_TRANSFER_SIZE", "FAILED_TO_READ_DEVICE", "I2C_NOT_SUPPORTED_IN_THIS_MODE",
        "GPIO_NOT_SUPPORTED_IN_THIS_MODE", "GPIO_EXCEEDED_MAX_PORTNUM", "GPIO_WRITE_NOT_SUPPORTED",
        "GPIO_PULLUP_INVALID_IN_INPUTMODE", "GPIO_PULLDOWN_INVALID_IN_INPUTMODE",
        "GPIO_OPENDRAIN_INVALID_IN_OUTPUTMODE", "INTERRUPT_NOT_SUPPORTED", "GPIO_INPUT_NOT_SUPPORTED",
        "EVENT_NOT_SUPPORTED", "FUN_NOT_SUPPORT" };
    if (status < sizeof(kD2xx) / sizeof(kD2xx[0]))
        return kD2xx[status];
    if (status >= 1000 && status - 1000 < sizeof(kLibFt4222) / sizeof(kLibFt4222[0]))
        return kLibFt4222[status - 1000];
    return "?";
}

void appendBytes(std::ostringstream& line, const std::vector<uint8_t>& data)
{
    char hex[4];
    line << '[';
    const size_t shown = data.size() > kShownBytes ? kShownBytes : data.size();
    for (size_t i = 0; i < shown; ++i) {
        std::snprintf(hex, sizeof(hex), i ? " %02x" : "%02x", data[i]);
        line << hex;
    }
    if (shown < data.size())
        line << " ... (" << data.size() << " bytes)";
    line << ']';
}

} // namespace

std::string TraceEntry::toString() const
{
    std::ostringstream line;
    line << seq << ' ' << function;
    if (!device.empty())
        line << ' ' << device;
    for (int64_t arg : args)
        line << ' ' << arg;
    if (!text.empty())
        line << " \"" << text << '"';
    if (!written.empty()) {
        line << ' ';
        appendBytes(line, written);
    }
    if (!read.empty()) {
        line << " -> ";
        appendBytes(line, read);
    }
    line << " = " << status;
    if (status != 0)
        line << ' ' << statusName(status);
    return line.str();
}

} // namespace vbridge

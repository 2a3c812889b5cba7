#include "transport/StatusTexts.h"

namespace {

// D2XX status codes 0 to 19; LibFT4222 reuses them for its own first codes.
const char* const kFtStatusNames[] = {
    "OK",
    "INVALID_HANDLE",
    "DEVICE_NOT_FOUND",
    "DEVICE_NOT_OPENED",
    "IO_ERROR",
    "INSUFFICIENT_RESOURCES",
    "INVALID_PARAMETER",
    "INVALID_BAUD_RATE",
    "DEVICE_NOT_OPENED_FOR_ERASE",
    "DEVICE_NOT_OPENED_FOR_WRITE",
    "FAILED_TO_WRITE_DEVICE",
    "EEPROM_READ_FAILED",
    "EEPROM_WRITE_FAILED",
    "EEPROM_ERASE_FAILED",
    "EEPROM_NOT_PRESENT",
    "EEPROM_NOT_PROGRAMMED",
    "INVALID_ARGS",
    "NOT_SUPPORTED",
    "OTHER_ERROR",
    "DEVICE_LIST_NOT_READY",
};
constexpr int kFtStatusCount = sizeof(kFtStatusNames) / sizeof(kFtStatusNames[0]);

// LibFT4222's own codes from 1000 on, spelled as the vendor spells them.
const char* const kFt4222StatusNames[] = {
    "DEVICE_NOT_SUPPORTED",
    "CLK_NOT_SUPPORTED",
    "VENDER_CMD_NOT_SUPPORTED",
    "IS_NOT_SPI_MODE",
    "IS_NOT_I2C_MODE",
    "IS_NOT_SPI_SINGLE_MODE",
    "IS_NOT_SPI_MULTI_MODE",
    "WRONG_I2C_ADDR",
    "INVAILD_FUNCTION",
    "INVALID_POINTER",
    "EXCEEDED_MAX_TRANSFER_SIZE",
    "FAILED_TO_READ_DEVICE",
    "I2C_NOT_SUPPORTED_IN_THIS_MODE",
    "GPIO_NOT_SUPPORTED_IN_THIS_MODE",
    "GPIO_EXCEEDED_MAX_PORTNUM",
    "GPIO_WRITE_NOT_SUPPORTED",
    "GPIO_PULLUP_INVALID_IN_INPUTMODE",
    "GPIO_PULLDOWN_INVALID_IN_INPUTMODE",
    "GPIO_OPENDRAIN_INVALID_IN_OUTPUTMODE",
    "INTERRUPT_NOT_SUPPORTED",
    "GPIO_INPUT_NOT_SUPPORTED",
    "EVENT_NOT_SUPPORTED",
    "FUN_NOT_SUPPORT",
};
constexpr int kFt4222FirstCode = 1000;
constexpr int kFt4222StatusCount = sizeof(kFt4222StatusNames) / sizeof(kFt4222StatusNames[0]);

}  // namespace

QString ftStatusText(uint32_t status)
{
    if (status < static_cast<uint32_t>(kFtStatusCount))
        return QString::fromLatin1(kFtStatusNames[status]);
    return QStringLiteral("FT_STATUS %1").arg(status);
}

QString ft4222StatusText(int64_t status)
{
    if (status >= 0 && status < kFtStatusCount)
        return QString::fromLatin1(kFtStatusNames[status]);
    if (status >= kFt4222FirstCode && status < kFt4222FirstCode + kFt4222StatusCount)
        return QString::fromLatin1(kFt4222StatusNames[status - kFt4222FirstCode]);
    return QStringLiteral("FT4222_STATUS %1").arg(status);
}

// Byte transfers over the bridge: sensor commands on port A, line mode and
// write enable of the flash on port C.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"
#include "transport/StatusTexts.h"

namespace {

constexpr uint8 kFlashReadStatus = 0x05;
constexpr uint8 kFlashWriteEnable = 0x06;
constexpr unsigned long kLineSwitchPauseUs = 100;

// Written by hand: it is made for every transfer, 68 times per image.
QString frameText(const uint8* command)
{
    static const char kDigits[] = "0123456789abcdef";
    char text[] = "[00, 00, 00, 00]";
    for (int i = 0; i < 4; ++i) {
        text[1 + 4 * i] = kDigits[command[i] >> 4];
        text[2 + 4 * i] = kDigits[command[i] & 0x0F];
    }
    return QString::fromLatin1(text, sizeof(text) - 1);
}

}  // namespace

// A code is numbered as the signed int the library returns.
QString QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(FT4222_STATUS status)
{
    return ft4222StatusText(static_cast<int>(status));
}

QString QVeltraXRayKORUXPlugInUnit::ftStatusToString(uint32 status)
{
    return ftStatusText(status);
}

// The 4 command bytes go out on one line, the answer comes back on four, in
// one transaction.
bool QVeltraXRayKORUXPlugInUnit::FT4222_SPI_MRW(uint8* readBuffer, uint8* command,
                                                uint16 readLength, uint32* bytesRead)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("FT4222_SPI_MRW %1").arg(frameText(command)));
    if (FT4222_SPIMaster_SetLines(theHandleA(), SPI_IO_QUAD) != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Lines in QUAD!"));

    uint32 sizeOfRead = 0;
    const FT4222_STATUS status = FT4222_SPIMaster_MultiReadWrite(
        theHandleA(), readBuffer, command, 4, 0, readLength, &sizeOfRead);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]FT4222_STATUS not OK %1").arg(ft4222StatusToString(status)));
        return false;
    }
    if (bytesRead)
        *bytesRead = sizeOfRead;
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::FT4222_SPI_SRW(uint8* readBuffer, uint8* command,
                                                uint16 readLength, uint16* bytesRead)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("FT4222_SPI_SRW %1").arg(frameText(command)));
    FT4222_STATUS status = FT4222_SPIMaster_SetLines(theHandleA(), SPI_IO_SINGLE);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Lines in SINGLE: %1")
                     .arg(ft4222StatusToString(status)));

    uint16 transferred = 0;
    status = FT4222_SPIMaster_SingleWrite(theHandleA(), command, 4, &transferred, true);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]FT4222_STATUS not OK when singleWrite %1")
                     .arg(ft4222StatusToString(status)));
        return false;
    }
    status = FT4222_SPIMaster_SingleRead(theHandleA(), readBuffer, readLength, &transferred, true);
    if (status != FT4222_OK) {
        // The read failure keeps the write's wording.
        logTrace(QStringLiteral("[red]FT4222_STATUS not OK when singleWrite %1")
                     .arg(ft4222StatusToString(status)));
        return false;
    }
    if (bytesRead)
        *bytesRead = transferred;
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::SPI_SetModeQuad(bool quad)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("SPI_SetModeQuad %2").arg(quad ? 1 : 0));
    Sleep_us(kLineSwitchPauseUs);
    const FT4222_STATUS status =
        FT4222_SPIMaster_SetLines(theHandleC(), quad ? SPI_IO_QUAD : SPI_IO_SINGLE);
    if (status != FT4222_OK) {
        setStatus(statusError);
        logUser(QStringLiteral("SPI_SetModeQuad error %1").arg(ft4222StatusToString(status)));
        return false;
    }
    return true;
}

// Read status, write enable, read status: three transactions on port C. The
// status bytes read back are not looked at.
bool QVeltraXRayKORUXPlugInUnit::SPI_SetWriteMode()
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("SPI_SetWriteMode"));
    uint8 readStatus[2] = {kFlashReadStatus, 0x00};
    uint8 writeEnable[1] = {kFlashWriteEnable};
    struct Step {
        uint8* bytes;
        uint16 size;
    };
    const Step steps[] = {{readStatus, 2}, {writeEnable, 1}, {readStatus, 2}};
    for (const Step& step : steps) {
        uint8 answer[2] = {0, 0};
        uint16 transferred = 0;
        const FT4222_STATUS status = FT4222_SPIMaster_SingleReadWrite(
            theHandleC(), answer, step.bytes, step.size, &transferred, true);
        if (status != FT4222_OK) {
            setStatus(statusError);
            logUser(QStringLiteral("SPI_SetWriteMode error %1").arg(ft4222StatusToString(status)));
            return false;
        }
    }
    return true;
}

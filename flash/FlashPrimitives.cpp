// Flash commands on port C: read, program, erase, chip erase, reset and the
// busy test. Every operation assumes port C is open.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <cstring>

#include "flash/FlashProtocol.h"
#include "plugin/OperationScope.h"

using namespace korux;

namespace {

constexpr unsigned long kAfterReadUs = 10;
constexpr unsigned long kAfterCommandUs = 100;
constexpr unsigned long kErasePollUs = 25;
constexpr int kPagesPerWrite = 16;

QString hexAddress(unsigned int address)
{
    return QStringLiteral("%1").arg(address, 8, 16, QLatin1Char('0'));
}

int clockMHz(FT4222_ClockRate rate)
{
    switch (rate) {
    case SYS_CLK_60:
        return 60;
    case SYS_CLK_24:
        return 24;
    case SYS_CLK_48:
        return 48;
    case SYS_CLK_80:
        return 80;
    }
    return static_cast<int>(rate);
}

}  // namespace

// One full-duplex single-line exchange: 05 00, the status in the second byte.
bool QVeltraXRayKORUXPlugInUnit::readFlashStatus(uint8* status)
{
    uint8 command[2] = {kFlashReadStatus, 0x00};
    uint8 answer[2] = {0, 0};
    uint16 transferred = 0;
    if (FT4222_SPIMaster_SingleReadWrite(theHandleC(), answer, command, 2, &transferred, true) != FT4222_OK)
        return false;
    *status = answer[1];
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::sendFlashCommand(uint8* frame, uint16 size)
{
    std::vector<uint8> answer(size, 0);
    uint16 transferred = 0;
    return FT4222_SPIMaster_SingleReadWrite(theHandleC(), answer.data(), frame, size, &transferred, true)
           == FT4222_OK;
}

// After a program or erase command the flash ignores everything but status
// reads until its busy bit drops. A failed status read ends the wait.
void QVeltraXRayKORUXPlugInUnit::waitWhileFlashBusy(unsigned long pauseUs)
{
    uint8 status = 0;
    while (readFlashStatus(&status) && (status & kFlashStatusBusy)) {
        if (pauseUs)
            Sleep_us(pauseUs);
    }
}

bool QVeltraXRayKORUXPlugInUnit::readFlash(unsigned char* buffer, unsigned short length,
                                           unsigned int address)
{
    logUser(QStringLiteral("readFlash @0x%1").arg(hexAddress(address)));
    std::memset(buffer, 0, length);
    if (!SPI_SetModeQuad(true))
        return false;

    auto frame = quadReadFrame(address);
    uint32 sizeOfRead = 0;
    if (FT4222_SPIMaster_MultiReadWrite(theHandleC(), buffer, frame.data(), kQuadReadOpcodeBytes,
                                        kQuadReadAddressBytes, length, &sizeOfRead)
        != FT4222_OK)
        return false;
    Sleep_us(kAfterReadUs);
    return true;
}

// Programs one sector's worth (16 pages) whatever size says; size only bounds
// the optional erase.
bool QVeltraXRayKORUXPlugInUnit::writeFlash(unsigned char* data, int size, unsigned int address,
                                            bool erase, bool initPort)
{
    if (erase) {
        if (!eraseFlash(address, size))
            return false;
    } else if (initPort) {
        initPortC(false);
    }

    FT4222_ClockRate rate = SYS_CLK_60;
    if (FT4222_GetClock(theHandleC(), &rate) == FT4222_OK)
        // The text has no numbered marker, so the value never shows; kept.
        logTrace(QStringLiteral(" Clock speed is %d.").arg(clockMHz(rate)));

    for (int page = 0; page < kPagesPerWrite; ++page) {
        if (!SPI_SetWriteMode() || !SPI_SetModeQuad(false))
            return false;
        std::vector<uint8> frame = pageProgramFrame(address, data);
        std::vector<uint8> answer(300, 0);
        uint16 transferred = 0;
        if (FT4222_SPIMaster_SingleReadWrite(theHandleC(), answer.data(), frame.data(),
                                             static_cast<uint16>(frame.size()), &transferred, true)
            != FT4222_OK)
            return false;
        address += kFlashPageSize;
        Sleep_us(kAfterCommandUs);

        uint8 status = 0;
        while (readFlashStatus(&status) && (status & kFlashStatusBusy))
            letHostRun();
        data += kFlashPageSize;
    }
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::eraseSector(int address)
{
    logTrace(QStringLiteral("eraseSector @0x%1").arg(hexAddress(static_cast<unsigned int>(address))));
    auto frame = sectorEraseFrame(address);
    if (!initPortC(false) || !SPI_SetModeQuad(false) || !SPI_SetWriteMode())
        return false;
    if (!sendFlashCommand(frame.data(), static_cast<uint16>(frame.size()))) {
        logTrace(QStringLiteral("[red]Unable to eraseSector"));
        return false;
    }
    Sleep_us(kAfterCommandUs);
    waitWhileFlashBusy(kErasePollUs);
    logUser(QStringLiteral("[green]Sector erased"));
    return true;
}

// Steps one page at a time although each command clears a whole sector, so
// every sector of the range is erased sixteen times over; deliberate. Write
// enable is sent once, before the loop.
bool QVeltraXRayKORUXPlugInUnit::eraseFlash(unsigned int address, int size)
{
    logTrace(QStringLiteral("eraseFlash @0x%1 %2 bytes").arg(hexAddress(address), QString::number(size)));
    if (!initPortC(false) || !SPI_SetModeQuad(false) || !SPI_SetWriteMode())
        return false;

    for (int remaining = size; remaining > 0; remaining -= kFlashPageSize) {
        auto frame = sectorEraseFrame(static_cast<int>(address));
        if (!sendFlashCommand(frame.data(), static_cast<uint16>(frame.size()))) {
            logTrace(QStringLiteral("[red]Unable to eraseSector"));
            return false;
        }
        Sleep_us(kAfterCommandUs);
        waitWhileFlashBusy(kErasePollUs);
        address += kFlashPageSize;
    }
    logUser(QStringLiteral("[green]Flash erased"));
    return true;
}

// The chip erase goes out only when write enable reports a failure: this
// inverted test is the operation's established behaviour and is kept.
bool QVeltraXRayKORUXPlugInUnit::formatFlash()
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("formatFlash"));
    if (SPI_SetModeQuad(false) && !SPI_SetWriteMode()) {
        uint8 command[1] = {kFlashChipErase};
        uint16 transferred = 0;
        if (FT4222_SPIMaster_SingleWrite(theHandleC(), command, 1, &transferred, true) == FT4222_OK) {
            waitWhileFlashBusy(0);
            logUser(QStringLiteral("[green]Flash formatted"));
            return true;
        }
    }
    logTrace(QStringLiteral("[red]Unable to formatFlash"));
    return false;
}

bool QVeltraXRayKORUXPlugInUnit::resetFlash()
{
    logTrace(QStringLiteral("resetFlash."));
    if (!SPI_SetModeQuad(false))
        return false;

    uint8 resetEnable[1] = {kFlashResetEnable};
    uint8 answer[1] = {0};
    uint16 transferred = 0;
    FT4222_STATUS status = FT4222_SPIMaster_SingleReadWrite(theHandleC(), answer, resetEnable, 1,
                                                            &transferred, true);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]resetFlash first write error %1").arg(ft4222StatusToString(status)));
        return false;
    }
    uint8 resetDevice[1] = {kFlashReset};
    status = FT4222_SPIMaster_SingleReadWrite(theHandleC(), answer, resetDevice, 1, &transferred, true);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]resetFlash second write error %1").arg(ft4222StatusToString(status)));
        return false;
    }
    logTrace(QStringLiteral("resetFlash success."));
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::isFlashBusy(bool* busy)
{
    uint8 status = 0;
    if (!readFlashStatus(&status))
        return false;
    *busy = (status & kFlashStatusBusy) != 0;
    return true;
}

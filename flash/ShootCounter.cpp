// The exposure counter kept in the sensor's flash: an append-only log of
// 4096 big-endian slots, so each shot wears one slot rather than a sector.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include <vector>

#include "flash/FlashProtocol.h"

using namespace korux;

namespace {

constexpr unsigned int kAutomaticIncrement = 0xFFFFFFFF;
constexpr unsigned long kAfterProgramUs = 100;
constexpr unsigned long kBusyPollUs = 25;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::getShootCounter(unsigned int* value, int* index)
{
    const korux::OperationScope scope;
    *value = 0;
    *index = -1;
    std::vector<unsigned char> area(kShootCounterAreaSize);
    if (!readFlash(area.data(), kShootCounterAreaSize, kShootCounterAddress))
        return false;

    const ShootCounterScan scan = scanShootCounter(area.data());
    *value = scan.value;
    *index = scan.index;

    ReportSection values;
    values.insert(QStringLiteral("ShootCounter"), *value);
    values.insert(QStringLiteral("index"), *index);
    sendReport(QStringLiteral("%1 %2").arg(familyName(), boardSerial()), values);
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::getShootCounter(unsigned int* value)
{
    const korux::OperationScope scope;
    int index = -1;
    return getShootCounter(value, &index);
}

// The new value goes into the slot after the one holding the largest value.
// A value lower than the current one therefore lands on the same slot again
// and, since programming only clears bits, leaves the AND of both there: the
// counter is meant to grow.
bool QVeltraXRayKORUXPlugInUnit::setShootCounter(unsigned int value)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("Set shoot counter to %1.").arg(value));
    unsigned int last = 0;
    int lastIndex = -1;
    if (!getShootCounter(&last, &lastIndex)) {
        logTrace(QStringLiteral("[red]Unable to get current shoot counter."));
        return false;
    }

    int slot = lastIndex + 1;
    if (lastIndex >= kShootCounterSlots - 1) {
        logTrace(QStringLiteral("[yellow]The sector has been fully used. Erase it and restart at first index."));
        for (uint32_t sector = 0; sector < kShootCounterSectors; ++sector) {
            if (!eraseSector(static_cast<int>(kShootCounterAddress + sector * kFlashSectorSize))) {
                logUser(QStringLiteral("[red]Unable to erase counter sector."));
                return false;
            }
        }
        slot = 0;
    }

    if (value == kAutomaticIncrement) {
        value = last + 1;
        logTrace(QStringLiteral("[yellow]Auto counter: last value plus one: %1.").arg(value));
    }

    if (!initPortC(false)) {
        logUser(QStringLiteral("[red]Unable to init port C."));
        return false;
    }
    if (!SPI_SetModeQuad(false)) {
        logUser(QStringLiteral("[red]Unable to set quad Mode."));
        return false;
    }
    if (!SPI_SetWriteMode()) {
        logUser(QStringLiteral("[red]Unable to set write Mode."));
        return false;
    }
    if (!SPI_SetModeQuad(true)) {
        logUser(QStringLiteral("[red]Unable to set quad Mode."));
        return false;
    }

    auto frame = shootCounterProgramFrame(slot, value);
    uint8 unused[kCounterProgramQuadBytes] = {};
    uint32 sizeOfRead = 0;
    if (FT4222_SPIMaster_MultiReadWrite(theHandleC(), unused, frame.data(), kCounterProgramSingleBytes,
                                        kCounterProgramQuadBytes, 0, &sizeOfRead)
        != FT4222_OK) {
        logUser(QStringLiteral("[red]Unable to Write new shoot counter value."));
        return false;
    }
    if (!SPI_SetModeQuad(false)) {
        logUser(QStringLiteral("[red]Unable to unset quad Mode."));
        return false;
    }

    Sleep_us(kAfterProgramUs);
    waitWhileFlashBusy(kBusyPollUs);
    return true;
}

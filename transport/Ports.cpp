// Opening, closing and setting up the four interfaces of a sensor's bridge.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include <cstdint>

#include "transport/SensorProtocol.h"

namespace {

constexpr ULONG kPortTimeoutMs = 900;
constexpr char kPortLetters[] = "ABCD";

// Chip-select lines of the bridge's SPI master, one per interface (port A's
// is kSsoMapPortA of the sensor protocol).
constexpr uint8 kSsoMapPortB = 4;
constexpr uint8 kSsoMapPortC = 2;

constexpr int kGpioSoloLine = 3;
constexpr unsigned long kPortDSettleMs = 100;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::openPorts()
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("openPorts"));
    if (theHandleA() && theHandleB() && theHandleC() && theHandleD()) {
        logTrace(QStringLiteral("Ports already opened"));
        return true;
    }

    logTrace(QStringLiteral("Ports must be opened"));
    setStatus(statusOpeningPorts);

    for (int port = 0; port < 4; ++port) {
        FT_DEVICE_LIST_INFO_NODE& record = portInfo[port];
        if (record.ftHandle)
            continue;
        const QChar letter = QLatin1Char(kPortLetters[port]);

        FT_STATUS status = FT_OpenEx(reinterpret_cast<void*>(static_cast<uintptr_t>(record.LocId)),
                                     FT_OPEN_BY_LOCATION, &record.ftHandle);
        if (status == FT_OK) {
            logTrace(QStringLiteral("[green]Port %1 is open by location").arg(letter));
        } else {
            logTrace(QStringLiteral("[yellow]Port %1 cannot be opened by location %2 [%3]")
                         .arg(letter, QString::number(record.LocId), QString::number(status)));
            record.ftHandle = nullptr;
            status = FT_OpenEx(record.SerialNumber, FT_OPEN_BY_SERIAL_NUMBER, &record.ftHandle);
            if (status != FT_OK) {
                record.ftHandle = nullptr;
                // The serial is the device's text: filled in one call with
                // the rest, so that a "%3" in it stays as it is.
                logTrace(QStringLiteral("[red]Port %1 cannot be opened by serial %2 [%3]")
                             .arg(letter, QString::fromLatin1(record.SerialNumber), QString::number(status)));
                setStatus(statusError);
                break;
            }
            logTrace(QStringLiteral("[green]Port %1 is open by serial").arg(letter));
        }

        // Time-out, purge and reset failures leave a usable port: warnings only.
        status = FT_SetTimeouts(record.ftHandle, kPortTimeoutMs, kPortTimeoutMs);
        if (status != FT_OK) {
            logTrace(QStringLiteral("[yellow]Timeouts cannot be set for Port %1 [%3]")
                         .arg(letter, QString::number(status)));
            continue;
        }
        status = FT_Purge(record.ftHandle, FT_PURGE_RX | FT_PURGE_TX);
        if (status != FT_OK) {
            logTrace(QStringLiteral("[yellow]Purge cannot be done for Port %1 [%3]")
                         .arg(letter, QString::number(status)));
            continue;
        }
        status = FT_ResetDevice(record.ftHandle);
        if (status != FT_OK)
            logTrace(QStringLiteral("[yellow]Reset cannot be done for Port %1 [%3]")
                         .arg(letter, QString::number(status)));
    }

    if (status() != statusError) {
        logTrace(QStringLiteral("Ports are now opened"));
        setStatus(statusReady);
        return true;
    }
    closePorts();
    return false;
}

bool QVeltraXRayKORUXPlugInUnit::closePorts()
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("closePorts"));
    for (FT_DEVICE_LIST_INFO_NODE& record : portInfo)
        cleanClose(record.ftHandle);
    logTrace(QStringLiteral("Ports are now closed"));
    return true;
}

void QVeltraXRayKORUXPlugInUnit::cleanClose(FT_HANDLE& handle)
{
    const korux::OperationScope scope;
    if (!handle)
        return;
    logTrace(QStringLiteral("cleanClose with %1")
                 .arg(reinterpret_cast<quintptr>(handle), 0, 16));
    const FT4222_STATUS uninitialized = FT4222_UnInitialize(handle);
    logTrace(QStringLiteral("FT4222_UnInitialize return %1").arg(uninitialized));
    const FT_STATUS closed = FT_Close(handle);
    logTrace(QStringLiteral("FT_Close return %1").arg(closed));
    handle = nullptr;
}

bool QVeltraXRayKORUXPlugInUnit::initPortA(bool prog_mode)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("initPortA with prog_mode %1").arg(prog_mode ? 1 : 0));
    FT_HANDLE handle = theHandleA();
    if (!handle) {
        logUser(QStringLiteral("[red]Port A handle is invalid"));
        return false;
    }

    FT4222_STATUS status = FT4222_SetClock(handle, SYS_CLK_80);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Clock port A %1").arg(ft4222StatusToString(status)));

    // Normal use: four lines at 40 MHz. The FPGA's configuration port takes
    // one line at 20 MHz.
    status = prog_mode ? FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW,
                                               CLK_LEADING, korux::kSsoMapPortA)
                       : FT4222_SPIMaster_Init(handle, SPI_IO_QUAD, CLK_DIV_2, CLK_IDLE_LOW,
                                               CLK_LEADING, korux::kSsoMapPortA);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]Unable to init SPI Master port A %1")
                     .arg(ft4222StatusToString(status)));
        logUser(QStringLiteral("[red]Unable to init port A"));
        return false;
    }

    status = FT4222_SPI_Reset(handle);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to reset SPI port A %1").arg(ft4222StatusToString(status)));

    status = FT4222_SPI_SetDrivingStrength(handle, DS_8MA, DS_8MA, DS_8MA);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set driving strength port A %1")
                     .arg(ft4222StatusToString(status)));
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::initPortB()
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("initPortB"));
    FT_HANDLE handle = theHandleB();
    if (!handle) {
        logUser(QStringLiteral("[red]Port B handle is invalid"));
        return false;
    }

    FT4222_STATUS status = FT4222_SetClock(handle, SYS_CLK_80);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Clock port B %1").arg(ft4222StatusToString(status)));

    // The converter runs at 1.25 MHz on one line.
    status = FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_64, CLK_IDLE_LOW, CLK_LEADING,
                                   kSsoMapPortB);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]Unable to init SPI Master port B %1")
                     .arg(ft4222StatusToString(status)));
        logUser(QStringLiteral("[red]Unable to init port B"));
        return false;
    }

    status = FT4222_SPI_SetDrivingStrength(handle, DS_8MA, DS_8MA, DS_8MA);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set driving strength port B %1")
                     .arg(ft4222StatusToString(status)));
    return true;
}

// The flash is set up the same way in programming mode: the flag is only
// logged.
bool QVeltraXRayKORUXPlugInUnit::initPortC(bool prog_mode)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("initPortC with prog_mode %1").arg(prog_mode ? 1 : 0));
    FT_HANDLE handle = theHandleC();
    if (!handle) {
        logUser(QStringLiteral("[red]Port C handle is invalid"));
        return false;
    }

    FT4222_STATUS status = FT4222_SetClock(handle, SYS_CLK_80);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Clock port C %1").arg(ft4222StatusToString(status)));

    status = FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING,
                                   kSsoMapPortC);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]Unable to init SPI Master port C %1")
                     .arg(ft4222StatusToString(status)));
        logUser(QStringLiteral("[red]Unable to init port C"));
        return false;
    }

    status = FT4222_SPI_SetDrivingStrength(handle, DS_8MA, DS_8MA, DS_8MA);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set driving strength port C %1")
                     .arg(ft4222StatusToString(status)));
    status = FT4222_SetSuspendOut(handle, false);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set suspend out port C %1")
                     .arg(ft4222StatusToString(status)));
    status = FT4222_SetWakeUpInterrupt(handle, false);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set wake-up interrupt port C %1")
                     .arg(ft4222StatusToString(status)));
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::initPortD(bool* solo)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("initPortD"));
    FT_HANDLE handle = theHandleD();
    if (!handle) {
        logUser(QStringLiteral("[red]Port D handle is invalid"));
        return false;
    }

    FT4222_STATUS status = FT4222_SetClock(handle, SYS_CLK_80);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Clock port D %1").arg(ft4222StatusToString(status)));
    // GPIO 2 and 3 share their pins with the suspend and wake-up functions.
    status = FT4222_SetSuspendOut(handle, false);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set suspend out port D %1")
                     .arg(ft4222StatusToString(status)));
    status = FT4222_SetWakeUpInterrupt(handle, false);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set wake-up interrupt port D %1")
                     .arg(ft4222StatusToString(status)));

    gpioDirections[0] = GPIO_OUTPUT;
    gpioDirections[1] = GPIO_OUTPUT;
    gpioDirections[2] = GPIO_OUTPUT;
    gpioDirections[3] = GPIO_INPUT;
    status = FT4222_GPIO_Init(handle, gpioDirections);
    if (status != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to init GPIO port D %1").arg(ft4222StatusToString(status)));
    logTrace(QStringLiteral("initPortD result %1").arg(ft4222StatusToString(status)));
    if (status != FT4222_OK) {
        logUser(QStringLiteral("[red,bold]Unable to detect KORUX3 version"));
        return false;
    }

    // GPIO 3 is pulled low inside a generator. When it cannot be read, the
    // sensor is taken for a stand-alone one, the common case.
    BOOL level = 1;
    status = FT4222_GPIO_Read(handle, static_cast<GPIO_Port>(kGpioSoloLine), &level);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]Unable to read GPIO port D3 %1").arg(ft4222StatusToString(status)));
        level = 1;
    }

    *solo = level != 0;
    QVeltraGenerator* owner = generator();
    if (owner) {
        owner->isInside = !*solo;
        emit owner->isInsideChanged(owner->isInside);
    }
    logUser(*solo ? QStringLiteral("[yellow,italic]KORUX3 solo detected")
                  : QStringLiteral("[yellow,italic]KORUX3 Inside detected"));
    Sleep_ms(kPortDSettleMs);
    return true;
}

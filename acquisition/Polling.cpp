// Following an armed sensor by its status word, one timer tick at a time,
// through integration to the delivered image, or to a stop.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QTimer>

#include "plugin/OperationScope.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

constexpr int kImagePollMs = 250;
constexpr int kOscilloscopePollMs = 200;
constexpr int kStoppingPollMs = 100;

QString tickText(const char* slot, hardwareStatus status, uint8 flags, uint8 size, uint16 diode)
{
    return QStringLiteral("[green]%1 %2 - %3 %4 %5")
        .arg(QLatin1String(slot), QVeltraHardwareUnit::hardwareStatusToString(status),
            QString::number(flags, 2), QString::number(size), QString::number(diode));
}

}  // namespace

// The start of every tick: the status word, the trace line, and the lost
// link. A failed read is reported on the family, a lost link on the unit.
// False when the tick ends here.
bool QVeltraXRayKORUXPlugInUnit::readPollingStatus(const char* slot, uint8* flags)
{
    uint8 size = 0, version = 0;
    uint16 diode = 0;
    if (!getStatus(flags, &size, &version, &diode)) {
        logUser(QStringLiteral("[red]communication lost"));
        setFamilyError();
        return false;
    }
    logTrace(tickText(slot, status(), *flags, size, diode));
    if (*flags & kFlagLinkLost) {
        logUser(QStringLiteral("[red]communication lost"));
        setStatus(statusError);
        return false;
    }
    return true;
}

// Each tick is an operation of its own: a host command given from inside it
// (through a signal) must not delete the unit under it.
void QVeltraXRayKORUXPlugInUnit::waitForImage()
{
    const OperationScope scope;
    pollAcquisition(false);
}

void QVeltraXRayKORUXPlugInUnit::waitForOscilloscope()
{
    const OperationScope scope;
    pollAcquisition(true);
}

void QVeltraXRayKORUXPlugInUnit::pollAcquisition(bool oscilloscopeMode)
{
    if (stopRequested) {
        logUser(QStringLiteral("[orange]acquisition stopped"));
        return;
    }

    uint8 flags = 0;
    if (!readPollingStatus(oscilloscopeMode ? "waitForOscilloscope" : "waitForImage", &flags))
        return;
    if (flags & kFlagOff) {
        logUser(QStringLiteral("[red]Sensor is off"));
        setStatus(statusError);
        return;
    }

    // One tick may pass through several states.
    if (status() == statusReady) {
        logUser(QStringLiteral("[cyan]Ready"));
        if (flags == kStatusArmedIdle)
            setStatus(statusArmed);
        else if (flags == kStatusExposing)
            setStatus(statusIntegrating);
    }
    if (status() == statusArmed) {
        logUser(QStringLiteral("[cyan]Armed"));
        if (oscilloscopeMode)
            fullOscilloscope();
        if (flags & kFlagExposure) {
            setStatus(statusIntegrating);
        } else if (flags == kStatusImageReady) {
            // An exposure shorter than a polling interval: no integration seen.
            imageReady = true;
            setStatus(statusAcquiring);
        }
    }
    if (status() == statusIntegrating) {
        logUser(QStringLiteral("[cyan]Integrating"));
        if (oscilloscopeMode)
            fullOscilloscope();
        if (flags == kStatusImageReady)
            setStatus(statusAcquiring);
        else if (flags & kFlagIntegrated)
            setStatus(statusIntegrated);
    }
    if (status() == statusIntegrated) {
        logUser(QStringLiteral("[cyan]Integrated"));
        if (oscilloscopeMode)
            fullOscilloscope();
        if (flags == kStatusImageReady && hasImage())
            setStatus(statusAcquiring);
    }
    if (status() == statusAcquiring) {
        logUser(QStringLiteral("[cyan]Acquiring"));
        if (oscilloscopeMode)
            fullOscilloscope();
        else
            readOscilloscope();
        readImage(false);
        getPyrelStatus();
        saveAcquisition();
        setStatus(statusAcquired);
    }

    if (status() == statusAcquired) {
        logUser(QStringLiteral("[cyan]Acquired"));
    } else if (status() == statusStopping) {
        logUser(QStringLiteral("[orange]Stopping"));
    } else if (status() == statusStopped) {
        logUser(QStringLiteral("[orange]Stopped"));
    } else {
        QTimer::singleShot(oscilloscopeMode ? kOscilloscopePollMs : kImagePollMs, this,
                           oscilloscopeMode ? SLOT(waitForOscilloscope()) : SLOT(waitForImage()));
    }
}

// The polling after a stop: the sensor ran a short dummy integration whose
// image nobody reads.
void QVeltraXRayKORUXPlugInUnit::waitForStopping()
{
    const OperationScope scope;
    // This slot logs its ticks with the image slot's name; deliberate.
    uint8 flags = 0;
    if (!readPollingStatus("waitForImage", &flags))
        return;
    if (flags & kFlagOff) {
        logUser(QStringLiteral("[red]Sensor is already off"));
        setStatus(statusStopped);
        return;
    }

    if (status() == statusReady) {
        logUser(QStringLiteral("[cyan]Ready for stopping"));
        if (flags == kStatusArmedIdle)
            setStatus(statusArmed);
        else if (flags == kStatusExposing)
            setStatus(statusIntegrating);
    }
    if (status() == statusArmed) {
        logUser(QStringLiteral("[cyan]Armed before stopping"));
        if (flags & kFlagExposure)
            setStatus(statusIntegrating);
    }
    if (status() == statusIntegrating) {
        logUser(QStringLiteral("[cyan]Integrating before stopping"));
        if (flags == kStatusImageReady)
            setStatus(statusAcquiring);
        else if (flags & kFlagIntegrated)
            setStatus(statusIntegrated);
    }
    if (status() == statusIntegrated) {
        logUser(QStringLiteral("[cyan]Integrated before stopping"));
        if (flags == kStatusImageReady && hasImage())
            setStatus(statusAcquiring);
    }
    if (status() == statusAcquiring) {
        logUser(QStringLiteral("[cyan]Acquiring before stopping"));
        setStatus(statusStopping);
    }

    if (status() == statusStopping)
        logUser(QStringLiteral("[orange]Stopping"));
    else if (status() == statusStopped)
        logUser(QStringLiteral("[orange]Stopped"));
    else
        QTimer::singleShot(kStoppingPollMs, this, SLOT(waitForStopping()));
}

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

} // namespace

// A unit that an enumeration gave up polls no further: its tick ends before
// its next bridge call or log line. Every signal of a tick may run the host's
// events, and with them a new enumeration, so the check follows each one.
bool QVeltraXRayKORUXPlugInUnit::givenUp() const
{
    return !isFamilyUnit(this);
}

// The start of every tick: the status word, the trace line, and the lost
// link. A failed read is reported on the family, a lost link on the unit.
// False when the tick ends here.
bool QVeltraXRayKORUXPlugInUnit::readPollingStatus(const char* slot, uint8* flags)
{
    uint8 size = 0, version = 0;
    uint16 diode = 0;
    if (givenUp())
        return false;
    const bool answered = getStatus(flags, &size, &version, &diode);
    if (givenUp())
        return false;
    if (!answered) {
        logUser(QStringLiteral("[red]communication lost"));
        if (!givenUp())
            setFamilyError();
        return false;
    }
    logTrace(tickText(slot, status(), *flags, size, diode));
    if (givenUp())
        return false;
    if (*flags & kFlagLinkLost) {
        logUser(QStringLiteral("[red]communication lost"));
        setStatus(statusError);
        return false;
    }
    return true;
}

// Each tick is an operation of its own: a host command given from inside it
// (through a signal) must not delete the unit under it, and a unit given up
// meanwhile stops.
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
    if (givenUp())
        return;
    if (stopRequested) {
        logUser(QStringLiteral("[orange]acquisition stopped"));
        return;
    }

    uint8 flags = 0;
    if (!readPollingStatus(oscilloscopeMode ? "waitForOscilloscope" : "waitForImage", &flags))
        return;
    if (flags & kFlagOff) {
        logUser(QStringLiteral("[red]Sensor is off"));
        if (!givenUp())
            setStatus(statusError);
        return;
    }

    // One tick may pass through several states. Each state's log line and
    // status change may run the host: the unit is checked before each step.
    const auto oscilloscopeStep = [&] {
        if (oscilloscopeMode && !givenUp())
            fullOscilloscope();
        return !givenUp();
    };
    if (status() == statusReady) {
        logUser(QStringLiteral("[cyan]Ready"));
        if (givenUp())
            return;
        if (flags == kStatusArmedIdle)
            setStatus(statusArmed);
        else if (flags == kStatusExposing)
            setStatus(statusIntegrating);
    }
    if (givenUp())
        return;
    if (status() == statusArmed) {
        logUser(QStringLiteral("[cyan]Armed"));
        if (!oscilloscopeStep())
            return;
        if (flags & kFlagExposure) {
            setStatus(statusIntegrating);
        } else if (flags == kStatusImageReady) {
            // An exposure shorter than a polling interval: no integration seen.
            imageReady = true;
            setStatus(statusAcquiring);
        }
    }
    if (givenUp())
        return;
    if (status() == statusIntegrating) {
        logUser(QStringLiteral("[cyan]Integrating"));
        if (!oscilloscopeStep())
            return;
        if (flags == kStatusImageReady)
            setStatus(statusAcquiring);
        else if (flags & kFlagIntegrated)
            setStatus(statusIntegrated);
    }
    if (givenUp())
        return;
    if (status() == statusIntegrated) {
        logUser(QStringLiteral("[cyan]Integrated"));
        if (!oscilloscopeStep())
            return;
        if (flags == kStatusImageReady && hasImage())
            setStatus(statusAcquiring);
    }
    if (givenUp())
        return;
    if (status() == statusAcquiring) {
        logUser(QStringLiteral("[cyan]Acquiring"));
        if (givenUp())
            return;
        if (oscilloscopeMode)
            fullOscilloscope();
        else
            readOscilloscope();
        if (givenUp() || (readImage(false), givenUp()) || (getPyrelStatus(), givenUp())
            || (saveAcquisition(), givenUp()))
            return;
        setStatus(statusAcquired);
    }
    if (givenUp())
        return;

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
        if (!givenUp())
            setStatus(statusStopped);
        return;
    }

    if (status() == statusReady) {
        logUser(QStringLiteral("[cyan]Ready for stopping"));
        if (givenUp())
            return;
        if (flags == kStatusArmedIdle)
            setStatus(statusArmed);
        else if (flags == kStatusExposing)
            setStatus(statusIntegrating);
    }
    if (givenUp())
        return;
    if (status() == statusArmed) {
        logUser(QStringLiteral("[cyan]Armed before stopping"));
        if (givenUp())
            return;
        if (flags & kFlagExposure)
            setStatus(statusIntegrating);
    }
    if (givenUp())
        return;
    if (status() == statusIntegrating) {
        logUser(QStringLiteral("[cyan]Integrating before stopping"));
        if (givenUp())
            return;
        if (flags == kStatusImageReady)
            setStatus(statusAcquiring);
        else if (flags & kFlagIntegrated)
            setStatus(statusIntegrated);
    }
    if (givenUp())
        return;
    if (status() == statusIntegrated) {
        logUser(QStringLiteral("[cyan]Integrated before stopping"));
        if (givenUp())
            return;
        if (flags == kStatusImageReady && hasImage())
            setStatus(statusAcquiring);
    }
    if (givenUp())
        return;
    if (status() == statusAcquiring) {
        logUser(QStringLiteral("[cyan]Acquiring before stopping"));
        if (givenUp())
            return;
        setStatus(statusStopping);
    }
    if (givenUp())
        return;

    if (status() == statusStopping)
        logUser(QStringLiteral("[orange]Stopping"));
    else if (status() == statusStopped)
        logUser(QStringLiteral("[orange]Stopped"));
    else
        QTimer::singleShot(kStoppingPollMs, this, SLOT(waitForStopping()));
}

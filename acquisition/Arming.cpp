// Arming a sensor for an exposure, or disarming it: a stop arms once more
// with the threshold 400, which triggers at once and ends the armed state.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QElapsedTimer>
#include <QTimer>

#include "acquisition/AcquisitionProtocol.h"
#include "plugin/OperationScope.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

constexpr int kStatusWaits = 20;
constexpr unsigned long kStatusWaitMs = 250;
constexpr qint64 kQuickFailureMs = 2000;
constexpr unsigned long kTransactionResetMs = 20;
constexpr int kFirstPollMs = 100;

// Shared by every unit: a sensor that is not ready gets one more arming, not
// one per unit.
bool armingRetried = false;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::arm(bool oscilloscope)
{
    const korux::OperationScope scope;
    logUser(QStringLiteral("arm oscilloscope=%1").arg(oscilloscope ? 1 : 0));
    const int threshold = familyParameter(QStringLiteral("PhdTreshold")).toInt();
    logUser(QStringLiteral("arm photodiode threshold=%1").arg(threshold));
    // A stop keeps the figures of the last exposure.
    if ((threshold & 0xFFFF) != kStopThreshold) {
        aceValue = 0;
        samplesAboveThreshold = 0;
    }

    const int coefficient = ACECoefficient();
    const QVeltraGenerator* owner = generator();
    const int value = familyParameter(owner && owner->isInside ? QStringLiteral("ACEValueInside")
                                                               : QStringLiteral("ACEValue"))
                          .toInt();
    const int32_t ace = static_cast<int32_t>(static_cast<uint32_t>(value) * static_cast<uint32_t>(coefficient));
    logUser(QStringLiteral("arm ACE coeff=%1 - value=%2")
                .arg(QString::number(coefficient), QString::number(ace)));

    ArmFrame frame = armFrame(oscilloscope, threshold, ace);
    if (!openPorts())
        return false;

    Sleep_ms(kTransactionResetMs);
    FT4222_SPI_ResetTransaction(theHandleA(), 0);
    FT4222_SPI_Reset(theHandleA());
    Sleep_ms(kTransactionResetMs);
    if (FT4222_SPIMaster_SetLines(theHandleA(), SPI_IO_QUAD) != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Lines in QUAD!"));

    uint8 unused[4] = {};
    uint32 sizeOfRead = 0;
    const FT4222_STATUS status = FT4222_SPIMaster_MultiReadWrite(
        theHandleA(), unused, frame.data(), kCommandFrameSize, kArmParameterBytes, 0, &sizeOfRead);
    if (status != FT4222_OK) {
        logUser(QStringLiteral("Sensor arming error %1").arg(ft4222StatusToString(status)));
        setStatus(statusError);
        return false;
    }
    logUser(QStringLiteral("Sensor is arming"));
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::armSensor(bool acquire, bool oscilloscope)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("armSensor"));
    logTrace(QStringLiteral("CyclesForHundred_us: %1").arg(resetSleepCounter(true)));
    if (!openPorts())
        return false;

    QElapsedTimer elapsed;
    elapsed.start();
    uint8 flags = 0, sizeCode = 0, version = 0;
    uint16 diode = 0;
    getStatus(&flags, &sizeCode, &version, &diode);
    for (int wait = 0; !(flags & kFlagReady) && wait < kStatusWaits; ++wait) {
        letHostRun();
        Sleep_ms(kStatusWaitMs);
        getStatus(&flags, &sizeCode, &version, &diode);
    }

    // A sensor that failed quickly (its status reads failing at once) gets one
    // more try; one that waited the full time does not.
    if (!(flags & kFlagReady) && elapsed.elapsed() < kQuickFailureMs && !armingRetried) {
        armingRetried = true;
        logTrace(QStringLiteral("[yellow]Retry arming"));
        return armSensor(acquire, oscilloscope);
    }
    armingRetried = false;

    if (!(flags & kFlagReady)) {
        logTrace(QStringLiteral("[red]The sensor is not OK"));
        setStatus(statusError);
        return false;
    }

    stopRequested = !acquire;
    const QVariant savedThreshold = familyParameter(QStringLiteral("PhdTreshold"));
    if (!acquire && family())
        family()->setParameter(QStringLiteral("PhdTreshold"), kStopThreshold);

    readInformation(true);
    imageReady = false;

    bool armed = arm(oscilloscope);
    if (armed) {
        if (!acquire && family())
            family()->setParameter(QStringLiteral("PhdTreshold"), savedThreshold.toInt() & 0xFFFF);
        // A failed read leaves the flags of the last one that answered.
        getStatus(&flags, &sizeCode, &version, &diode);
        for (int wait = 0; !(flags & kFlagArmed) && wait < kStatusWaits; ++wait) {
            letHostRun();
            Sleep_ms(kStatusWaitMs);
            getStatus(&flags, &sizeCode, &version, &diode);
        }
        armed = (flags & kFlagArmed) != 0;
    }
    if (!armed) {
        logTrace(QStringLiteral("[red]Unable to arm sensor"));
        setStatus(statusError);
        return false;
    }

    logUser(QStringLiteral("[green]sensor armed"));
    letHostRun();
    if (!acquire) {
        QTimer::singleShot(kFirstPollMs, this, SLOT(waitForStopping()));
    } else if (oscilloscope) {
        fullOscilloscope();
        setOscilloscope(QString());
        QTimer::singleShot(kFirstPollMs, this, SLOT(waitForOscilloscope()));
    } else {
        QTimer::singleShot(kFirstPollMs, this, SLOT(waitForImage()));
    }
    return true;
}

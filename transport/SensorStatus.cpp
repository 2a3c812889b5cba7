// The sensor logic's status word, the generator block of an "Inside" sensor,
// the reset of the sensor channel and the image geometry.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"
#include "transport/SensorProtocol.h"

#include <QTime>

using namespace korux;

namespace {

constexpr int kSlowStatusMs = 500;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::getStatus(uint8* status, uint8* size, uint8* version,
                                           uint16* diode)
{
    const korux::OperationScope scope;
    const QTime start = QTime::currentTime();
    logTrace(QStringLiteral("status call time: %1.").arg(start.toString(QStringLiteral("[hh:mm:ss.zzz]"))));

    CommandFrame command = sensorCommand(kClassControl, kCodeStatus);
    uint8 answer[kStatusWordSize] = {0, 0, 0};
    if (!FT4222_SPI_MRW(answer, command.data(), kStatusWordSize, nullptr)) {
        logUser(QStringLiteral("[red]Unable to retrieve status."));
        return false;
    }

    const StatusWord word = decodeStatusWord(answer);
    *status = word.flags;
    *size = word.size;
    *version = word.version;
    *diode = word.diode;
    logUser(QStringLiteral("getStatus Status=%1 Size=%2 Version=%3 Diode=%4")
                .arg(QString::number(word.flags, 16).rightJustified(2, QLatin1Char('0')),
                    QString::number(word.size), QString::number(word.version), QString::number(word.diode)));

    // The delay is start less end, so it only passes the limit when a call
    // spans midnight; deliberate.
    const int delay = QTime::currentTime().msecsTo(start);
    if (delay > kSlowStatusMs)
        logTrace(QStringLiteral("[red,bold]status delay to long: %1ms.").arg(delay));
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::getPyrelStatus()
{
    const korux::OperationScope scope;
    QVeltraGenerator* owner = generator();
    if (!owner || !owner->isInside) {
        logUser(QStringLiteral("[yellow]Sensor is standalone"));
        return false;
    }
    logUser(QStringLiteral("[yellow]Sensor is inside"));

    uint8 block[kInsideBlockSize] = {};
    CommandFrame command = sensorCommand(kClassControl, kCodeInside);
    if (!FT4222_SPI_MRW(block, command.data(), kInsideBlockSize, nullptr)) {
        logUser(QStringLiteral("[red]Unable to retrieve Inside information."));
        return false;
    }

    switch (checkInsideBlock(block)) {
    case InsideCheck::NotFound:
        logUser(QStringLiteral("[red]Inside information NOT FOUND."));
        return false;
    case InsideCheck::ChecksumError:
        logUser(QStringLiteral("[red]Inside information CHECKSUM ERROR."));
        return false;
    case InsideCheck::Ok:
        break;
    }

    const InsideBlock inside = decodeInsideBlock(block);
    owner->kV = inside.kV;
    emit owner->kVChanged(owner->kV);
    owner->mA = inside.mA;
    emit owner->mAChanged(owner->mA);
    owner->timeSet = inside.timeSet;
    emit owner->timeSetChanged(owner->timeSet);
    owner->timeDone = inside.timeDone;
    emit owner->timeDoneChanged(owner->timeDone);
    owner->DAP = inside.dap;
    emit owner->DAPChanged(owner->DAP);
    owner->cone = inside.cone;
    emit owner->coneChanged(owner->cone);
    owner->airDose = inside.airDose;
    emit owner->airDoseChanged(owner->airDose);
    owner->cutMethod = inside.cutMethod;
    emit owner->cutMethodChanged(owner->cutMethod);
    owner->mode = inside.mode;
    emit owner->modeChanged(owner->mode);
    owner->energy = 0;
    emit owner->energyChanged(owner->energy);
    owner->threshold = familyParameter(QStringLiteral("ACEValueInside")).toInt();
    emit owner->thresholdChanged(owner->threshold);
    return true;
}

// Reopens the sensor channel; ports B and C are set up by their own users.
bool QVeltraXRayKORUXPlugInUnit::reset(bool prog_mode)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("reset with %1").arg(prog_mode ? 1 : 0));
    bool solo = true;
    const bool done = closePorts() && openPorts() && initPortA(prog_mode) && initPortD(&solo);
    if (!done) {
        setStatus(statusError);
        return false;
    }
    return true;
}

QSize QVeltraXRayKORUXPlugInUnit::BINImageSize()
{
    switch (size()) {
    case size1:
        return QSize(1000, 1506);
    case size2:
        return QSize(1300, 1706);
    default:
        return QSize();
    }
}

QSize QVeltraXRayKORUXPlugInUnit::imageSize()
{
    const QSize readOut = BINImageSize();
    return readOut.isValid() ? QSize(readOut.width(), readOut.height() - kExtraReadOutRows) : QSize();
}

QSize QVeltraXRayKORUXPlugInUnit::RAWImageSize()
{
    return imageSize();
}

int QVeltraXRayKORUXPlugInUnit::imageBitPerPixel()
{
    return 16;
}

int QVeltraXRayKORUXPlugInUnit::RAWBitPerPixel()
{
    return imageBitPerPixel();
}

QSize QVeltraXRayKORUXPlugInUnit::imageResolution()
{
    return QSize(20, 20);
}

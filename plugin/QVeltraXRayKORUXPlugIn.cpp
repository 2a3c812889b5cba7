#include "plugin/QVeltraXRayKORUXPlugIn.h"

#include <QPointer>

#include "plugin/OperationScope.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

QVeltraXRayKORUXPlugIn::QVeltraXRayKORUXPlugIn()
    : QVeltraHardwareFamily(nullptr)
{
    parameters_.clear();
    // "PhdTreshold" is part of the host interface as spelled.
    parameters_.insert(QStringLiteral("ACEValueInside"), QVariant(10000));
    parameters_.insert(QStringLiteral("ACEValue"), QVariant(25000));
    parameters_.insert(QStringLiteral("Oscilloscope"), QVariant(false));
    parameters_.insert(QStringLiteral("PhdTreshold"), QVariant(440));
    parameters_.insert(QStringLiteral("ACECoeff"), QVariant(4));
    parameters_.insert(QStringLiteral("ACECoeffCSI"), QVariant(7));
    parameters_.insert(QStringLiteral("FlashAddress"), QVariant(0));
}

// Units are the family's children and go with it; a host that deletes the
// family from inside an operation of the plug-in finds them kept until that
// operation has returned.
QVeltraXRayKORUXPlugIn::~QVeltraXRayKORUXPlugIn()
{
    korux::keepUnitsPastFamily(this);
}

bool QVeltraXRayKORUXPlugIn::initializeVeltraHardwareFamily()
{
    const korux::OperationScope scope;
    const QPointer<QVeltraXRayKORUXPlugIn> alive(this);
    emit logAdvancedText(QStringLiteral("KORUX-KORUX² Series initializeVeltraHardwareFamily"));
    // A host that deleted the family from its log slot gets no enumeration.
    if (!alive)
        return true;
    if (!QVeltraHardwareFamily::initializeVeltraHardwareFamily())
        return false;

    status_ = statusUnknown;
    codeName_ = QString::fromLatin1(kSensorFamilyName);
    manufacturer_ = QString::fromLatin1(kManufacturerName);
    // Whatever the enumeration finds is told through statusChanged only.
    enumKORUXPlugIn(QString());
    return true;
}

bool QVeltraXRayKORUXPlugIn::deleteFromVector()
{
    return true;
}

QString QVeltraXRayKORUXPlugIn::sensorFamily()
{
    return QString::fromLatin1(kSensorFamilyName);
}

void QVeltraXRayKORUXPlugIn::initDeviceList()
{
    clearHardwareUnitVector();
}

int QVeltraXRayKORUXPlugIn::numberOfKorux3()
{
    return hardwareUnitVector_.size();
}

QVeltraXRayKORUXPlugInUnit* QVeltraXRayKORUXPlugIn::deviceUnit(long index)
{
    return static_cast<QVeltraXRayKORUXPlugInUnit*>(hardwareUnitVector_[static_cast<int>(index)]);
}

void QVeltraXRayKORUXPlugIn::setFamilyStatus(hardwareStatus status)
{
    status_ = status;
    emit statusChanged(status);
}

bool QVeltraXRayKORUXPlugIn::flashKorux3FPGA(long index, QString fileName)
{
    return deviceUnit(index)->flashFPGA(fileName);
}

bool QVeltraXRayKORUXPlugIn::formatFlash(long index)
{
    return deviceUnit(index)->formatFlash();
}

bool QVeltraXRayKORUXPlugIn::getParameters(long index)
{
    return deviceUnit(index)->getParameters();
}

bool QVeltraXRayKORUXPlugIn::getShootCounter(long index, unsigned int* value)
{
    return deviceUnit(index)->getShootCounter(value);
}

bool QVeltraXRayKORUXPlugIn::getVoltages(long index, long* fpgaHigh, long* fpgaLow, long* usb, long* sensor)
{
    return deviceUnit(index)->getVoltages(fpgaHigh, fpgaLow, usb, sensor);
}

// The all-ones value asks the unit for its last value plus one.
bool QVeltraXRayKORUXPlugIn::increaseShootCounter(long index)
{
    return deviceUnit(index)->setShootCounter(0xFFFFFFFF);
}

bool QVeltraXRayKORUXPlugIn::readInformation(long index)
{
    return deviceUnit(index)->readInformation(true);
}

bool QVeltraXRayKORUXPlugIn::readSerialNumber(long index, QString& serial)
{
    return deviceUnit(index)->readSerialNumber(serial);
}

bool QVeltraXRayKORUXPlugIn::setShootCounter(long index, unsigned int value)
{
    return deviceUnit(index)->setShootCounter(value);
}

bool QVeltraXRayKORUXPlugIn::technicReadFlashPage(long index, unsigned int address)
{
    return deviceUnit(index)->technicReadFlashPage(address);
}

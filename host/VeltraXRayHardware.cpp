// The host framework's base classes: the family and unit state, the status
// hand-over from a unit to its family, and the display texts of the enums.
#include "VeltraXRayHardware.h"

#include <QMetaObject>
#include <QStandardPaths>
#include <QThread>

namespace {

// Queued connections and queued invocations carry the status by this name.
[[maybe_unused]] const int kHardwareStatusMetaType = qRegisterMetaType<hardwareStatus>("hardwareStatus");

// Every enumerator by name, in declaration order.
struct StatusName {
    hardwareStatus status;
    const char* name;
};

constexpr StatusName kStatusNames[] = {
    { statusUnknown, "statusUnknown" },
    { statusEnumerating, "statusEnumerating" },
    { statusInitialized, "statusInitialized" },
    { statusNoSensor, "statusNoSensor" },
    { statusSensorFound, "statusSensorFound" },
    { statusSensorLost, "statusSensorLost" },
    { statusAborted, "statusAborted" },
    { statusError, "statusError" },
    { statusWarning, "statusWarning" },
    { statusReady, "statusReady" },
    { statusOpeningPorts, "statusOpeningPorts" },
    { statusFpgaUpdating, "statusFpgaUpdating" },
    { statusFpgaUpdated, "statusFpgaUpdated" },
    { statusNoOpBegin, "statusNoOpBegin" },
    { statusNoOpEnd, "statusNoOpEnd" },
    { commandEnumerate, "commandEnumerate" },
    { statusCalibrating, "statusCalibrating" },
    { statusCalibrated, "statusCalibrated" },
    { statusStopping, "statusStopping" },
    { statusStopped, "statusStopped" },
    { statusArming, "statusArming" },
    { statusArmed, "statusArmed" },
    { commandArm, "commandArm" },
    { statusWaitingForExposure, "statusWaitingForExposure" },
    { statusIntegrating, "statusIntegrating" },
    { statusIntegrated, "statusIntegrated" },
    { statusAcquiring, "statusAcquiring" },
    { statusAcquired, "statusAcquired" },
    { commandGetParameters, "commandGetParameters" },
    { commandGetVoltages, "commandGetVoltages" },
    { commandReadSerialNumber, "commandReadSerialNumber" },
    { commandReadFlashFiles, "commandReadFlashFiles" },
    { commandReadAllFlashFiles, "commandReadAllFlashFiles" },
    { commandRewriteFlashFiles, "commandRewriteFlashFiles" },
    { commandRewriteAllFlashFiles, "commandRewriteAllFlashFiles" },
    { commandGetShootCounter, "commandGetShootCounter" },
    { commandSetShootCounter, "commandSetShootCounter" },
    { commandIncreaseShootCounter, "commandIncreaseShootCounter" },
    { commandFamilyReport, "commandFamilyReport" },
    { commandFormatFlash, "commandFormatFlash" },
    { commandReadFlashPage, "commandReadFlashPage" },
};

} // namespace

// ---------------------------------------------------------------- generator

QVeltraGenerator::QVeltraGenerator(QObject* parent)
    : QObject(parent)
{
}

QVeltraGenerator::~QVeltraGenerator() = default;

QString QVeltraGenerator::manufacturer() const
{
    return manufacturer_;
}

QString QVeltraGenerator::model() const
{
    return model_;
}

QString QVeltraGenerator::serial() const
{
    return serial_;
}

void QVeltraGenerator::setManufacturer(const QString& manufacturer)
{
    manufacturer_ = manufacturer;
}

void QVeltraGenerator::setModel(const QString& model)
{
    model_ = model;
}

void QVeltraGenerator::setSerial(const QString& serial)
{
    serial_ = serial;
}

// ------------------------------------------------------------------- family

QVeltraHardwareFamily::QVeltraHardwareFamily(QObject* parent)
    : QObject(parent)
    , directory_(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
          + QStringLiteral("/VeltraXRayHardware"))
{
}

QVeltraHardwareFamily::~QVeltraHardwareFamily() = default;

bool QVeltraHardwareFamily::initializeVeltraHardwareFamily()
{
    directory_.mkpath(QStringLiteral("."));
    return true;
}

bool QVeltraHardwareFamily::deleteFromVector()
{
    return true;
}

QString QVeltraHardwareFamily::sensorFamily()
{
    return QString();
}

const QVector<QVeltraHardwareUnit*>& QVeltraHardwareFamily::hardwareUnitVector() const
{
    return hardwareUnitVector_;
}

void QVeltraHardwareFamily::gotoStatus(hardwareStatus)
{
}

void QVeltraHardwareFamily::gotoUnitStatus(QString, hardwareStatus)
{
}

void QVeltraHardwareFamily::setParameter(QString key, QVariant value)
{
    parameters_.insert(key, value);
}

void QVeltraHardwareFamily::forwardToStatusChanged(hardwareStatus status)
{
    status_ = status;
    emit statusChanged(status);
}

QVariant QVeltraHardwareFamily::getParameter(QString key) const
{
    return parameters_.value(key);
}

QString QVeltraHardwareFamily::codeName() const
{
    return codeName_;
}

QString QVeltraHardwareFamily::manufacturer() const
{
    return manufacturer_;
}

hardwareStatus QVeltraHardwareFamily::status() const
{
    return status_;
}

QMap<QString, QVariant> QVeltraHardwareFamily::parameters() const
{
    return parameters_;
}

QDir QVeltraHardwareFamily::directory() const
{
    return directory_;
}

void QVeltraHardwareFamily::setDirectory(const QDir& directory)
{
    directory_ = directory;
}

// Units given up are the family's children: they go at the next turn of the
// event loop, so a unit still on the call stack is not destroyed under it.
void QVeltraHardwareFamily::clearHardwareUnitVector()
{
    for (QVeltraHardwareUnit* unit : hardwareUnitVector_)
        if (unit)
            unit->deleteLater();
    hardwareUnitVector_.clear();
}

// --------------------------------------------------------------------- unit

QVeltraHardwareUnit::QVeltraHardwareUnit(QObject* parent)
    : QObject(parent)
    , family_(qobject_cast<QVeltraHardwareFamily*>(parent))
    , generator_(new QVeltraGenerator(this))
{
}

QVeltraHardwareUnit::~QVeltraHardwareUnit() = default;

bool QVeltraHardwareUnit::initializeVeltraHardware()
{
    return true;
}

QSize QVeltraHardwareUnit::BINImageSize()
{
    return QSize();
}

QSize QVeltraHardwareUnit::imageSize()
{
    return QSize();
}

QSize QVeltraHardwareUnit::RAWImageSize()
{
    return QSize();
}

int QVeltraHardwareUnit::imageBitPerPixel()
{
    return 16;
}

int QVeltraHardwareUnit::RAWBitPerPixel()
{
    return 16;
}

QSize QVeltraHardwareUnit::imageResolution()
{
    return QSize();
}

void QVeltraHardwareUnit::setFamily(QVeltraHardwareFamily* family)
{
    family_ = family;
}

void QVeltraHardwareUnit::resetFamily()
{
    family_ = nullptr;
}

QVeltraHardwareFamily* QVeltraHardwareUnit::family() const
{
    return family_;
}

void QVeltraHardwareUnit::setGenerator(QVeltraGenerator* generator)
{
    generator_ = generator;
}

// A unit always has a generator: the reset gives it a fresh default one. The
// old one goes later if the unit owned it, since a caller may still hold it.
void QVeltraHardwareUnit::resetGenerator()
{
    if (generator_ && generator_->parent() == this)
        generator_->deleteLater();
    generator_ = new QVeltraGenerator(this);
}

QVeltraGenerator* QVeltraHardwareUnit::generator() const
{
    return generator_;
}

void QVeltraHardwareUnit::setSize(hardwareSize size)
{
    size_ = size;
}

void QVeltraHardwareUnit::resetSize()
{
    size_ = sizeUnknown;
}

hardwareSize QVeltraHardwareUnit::size() const
{
    return size_;
}

void QVeltraHardwareUnit::setTechnology(hardwareTechnology technology)
{
    technology_ = technology;
}

void QVeltraHardwareUnit::resetTechnology()
{
    technology_ = technologyUnknown;
}

hardwareTechnology QVeltraHardwareUnit::technology() const
{
    return technology_;
}

void QVeltraHardwareUnit::setProtocol(hardwareProtocol protocol)
{
    protocol_ = protocol;
}

void QVeltraHardwareUnit::resetProtocol()
{
    protocol_ = protocolUnknown;
}

hardwareProtocol QVeltraHardwareUnit::protocol() const
{
    return protocol_;
}

// Every status a unit takes reaches its family, on the family's thread.
void QVeltraHardwareUnit::setStatus(hardwareStatus status)
{
    status_ = status;
    emit statusChanged(status);
    QVeltraHardwareFamily* owner = family();
    if (!owner)
        return;
    if (QThread::currentThread() == owner->thread())
        owner->forwardToStatusChanged(status);
    else
        QMetaObject::invokeMethod(
            owner, "forwardToStatusChanged", Qt::QueuedConnection, Q_ARG(hardwareStatus, status));
}

void QVeltraHardwareUnit::resetStatus()
{
    status_ = statusUnknown;
}

hardwareStatus QVeltraHardwareUnit::status() const
{
    return status_;
}

void QVeltraHardwareUnit::setModel(QString model)
{
    model_ = model;
}

void QVeltraHardwareUnit::resetModel()
{
    model_.clear();
}

QString QVeltraHardwareUnit::model() const
{
    return model_;
}

void QVeltraHardwareUnit::setSerial(QString serial)
{
    serial_ = serial;
}

void QVeltraHardwareUnit::resetSerial()
{
    serial_.clear();
}

QString QVeltraHardwareUnit::serial() const
{
    return serial_;
}

void QVeltraHardwareUnit::setSensorSerial(QString serial)
{
    sensorSerial_ = serial;
}

void QVeltraHardwareUnit::resetSensorSerial()
{
    sensorSerial_.clear();
}

QString QVeltraHardwareUnit::sensorSerial() const
{
    return sensorSerial_;
}

void QVeltraHardwareUnit::setBoardSerial(QString serial)
{
    boardSerial_ = serial;
}

void QVeltraHardwareUnit::resetBoardSerial()
{
    boardSerial_.clear();
}

QString QVeltraHardwareUnit::boardSerial() const
{
    return boardSerial_;
}

void QVeltraHardwareUnit::setFirmware(QString firmware)
{
    firmware_ = firmware;
}

void QVeltraHardwareUnit::resetFirmware()
{
    firmware_.clear();
}

QString QVeltraHardwareUnit::firmware() const
{
    return firmware_;
}

void QVeltraHardwareUnit::setOscilloscope(QString oscilloscope)
{
    oscilloscope_ = oscilloscope;
}

void QVeltraHardwareUnit::resetOscilloscope()
{
    oscilloscope_.clear();
}

QString QVeltraHardwareUnit::oscilloscope() const
{
    return oscilloscope_;
}

void QVeltraHardwareUnit::setBinaryImage(QImage image)
{
    binaryImage_ = image;
}

void QVeltraHardwareUnit::resetBinaryImage()
{
    binaryImage_ = QImage();
}

QImage QVeltraHardwareUnit::binaryImage() const
{
    return binaryImage_;
}

void QVeltraHardwareUnit::setBlackImage(QImage image)
{
    blackImage_ = image;
}

void QVeltraHardwareUnit::resetBlackImage()
{
    blackImage_ = QImage();
}

QImage QVeltraHardwareUnit::blackImage() const
{
    return blackImage_;
}

void QVeltraHardwareUnit::gotoStatus(hardwareStatus)
{
}

// ------------------------------------------------------------ display texts

QString QVeltraHardwareUnit::hardwareStatusToString(hardwareStatus status)
{
    for (const StatusName& entry : kStatusNames)
        if (entry.status == status)
            return QString::fromLatin1(entry.name);
    return QStringLiteral("hardwareStatus(%1)").arg(int(status));
}

QString QVeltraHardwareUnit::hardwareSizeToString(hardwareSize size)
{
    switch (size) {
    case sizeUnknown:
        return QStringLiteral("Unknown");
    case size0:
        return QStringLiteral("Size 0");
    case size1:
        return QStringLiteral("Size 1");
    case size1_5:
        return QStringLiteral("Size 1.5");
    case size2:
        return QStringLiteral("Size 2");
    }
    return QStringLiteral("hardwareSize(%1)").arg(int(size));
}

QString QVeltraHardwareUnit::hardwareTechnologyToString(hardwareTechnology technology)
{
    switch (technology) {
    case technologyUnknown:
        return QStringLiteral("Unknown");
    case technologyCCD:
        return QStringLiteral("CCD");
    case technologyGadox:
        return QStringLiteral("Gadox");
    case technologyCsI:
        return QStringLiteral("CsI");
    }
    return QStringLiteral("hardwareTechnology(%1)").arg(int(technology));
}

QString QVeltraHardwareUnit::hardwareProtocolToString(hardwareProtocol protocol)
{
    switch (protocol) {
    case protocolUnknown:
        return QStringLiteral("Unknown");
    case protocolUSB:
        return QStringLiteral("USB");
    case protocolEthernet:
        return QStringLiteral("Ethernet");
    case protocolWireless:
        return QStringLiteral("Wireless");
    }
    return QStringLiteral("hardwareProtocol(%1)").arg(int(protocol));
}

#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <cstring>

#include "plugin/OperationScope.h"
#include "plugin/QVeltraXRayKORUXPlugIn.h"

QVeltraXRayKORUXPlugInUnit::QVeltraXRayKORUXPlugInUnit(QObject* parent)
    : QVeltraHardwareUnit(parent)
{
    std::memset(portInfo, 0, sizeof(portInfo));
    std::memset(gpioDirections, 0, sizeof(gpioDirections));
    aceValue = 0;
    samplesAboveThreshold = 0;
    imageReady = false;
    stopRequested = false;
    // A later enumeration gives this unit up while operations of the plug-in
    // may still be running on it.
    korux::holdDeletionDuringOperations(this);
}

// The ports are closed by their users, never here: a unit given up by a new
// enumeration leaves its handles as they are.
QVeltraXRayKORUXPlugInUnit::~QVeltraXRayKORUXPlugInUnit() = default;

bool QVeltraXRayKORUXPlugInUnit::initializeVeltraHardware()
{
    if (!QVeltraHardwareUnit::initializeVeltraHardware())
        return false;

    size_ = sizeUnknown;
    technology_ = technologyUnknown;
    protocol_ = protocolUSB;
    status_ = statusUnknown;
    model_ = QString::fromLatin1(kSensorFamilyName);
    serial_ = QStringLiteral("UNKNOWN");
    sensorSerial_ = QStringLiteral("UNKNOWN");
    return true;
}

void QVeltraXRayKORUXPlugInUnit::setInfoNode(int port, FT_DEVICE_LIST_INFO_NODE* record)
{
    portInfo[port] = *record;
}

QVariant QVeltraXRayKORUXPlugInUnit::familyParameter(const QString& key) const
{
    QVeltraHardwareFamily* owner = family();
    return owner ? owner->getParameter(key) : QVariant();
}

// Sensors with a firmware version of their own scale the energy themselves
// (coefficient 1); older ones use the family's coefficient, a separate one for
// CsI scintillators, each valid from 1 to 9 and 7 otherwise.
int QVeltraXRayKORUXPlugInUnit::ACECoefficient()
{
    if (firmware().toInt(nullptr, 16) != 0)
        return 1;

    const bool csi = technology() == technologyCsI;
    const int coefficient = familyParameter(csi ? QStringLiteral("ACECoeffCSI")
                                                : QStringLiteral("ACECoeff"))
                                .toInt();
    if (coefficient >= 1 && coefficient <= 9)
        return coefficient;
    return 7;
}

QString QVeltraXRayKORUXPlugInUnit::familyName() const
{
    QVeltraHardwareFamily* owner = family();
    return owner ? owner->sensorFamily() : QString();
}

void QVeltraXRayKORUXPlugInUnit::sendReport(const QString& section, const ReportSection& values)
{
    ReportMap report;
    report.insert(section, values);
    const QString json = reportText(report);
    emit dataRead(json);
    logTrace(QStringLiteral("[green]") + json);
}

void QVeltraXRayKORUXPlugInUnit::setFamilyError()
{
    if (auto* owner = qobject_cast<QVeltraXRayKORUXPlugIn*>(family()))
        owner->setFamilyStatus(statusError);
}

// The host's commands: the acquisition cycle with its status rules, and the
// service commands that report through dataRead.
#include "plugin/QVeltraXRayKORUXPlugIn.h"

#include "plugin/OperationScope.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

namespace {

bool isOneOf(int status, std::initializer_list<int> allowed)
{
    for (int value : allowed)
        if (status == value)
            return true;
    return false;
}

constexpr unsigned int kAutomaticIncrement = 0xFFFFFFFF;

}  // namespace

using korux::OperationScope;

// The host may give commands from inside a command (its events run while a
// unit waits), and an enumeration there replaces the unit vector: the loops
// over "each unit" take the vector's size at every step and stop with the
// units that are left. Units given up meanwhile live on until the outermost
// operation has returned.
void QVeltraXRayKORUXPlugIn::gotoStatus(hardwareStatus command)
{
    const OperationScope scope;
    emit logAdvancedText(QStringLiteral("KORUX-KORUX² Series gotoStatus %1").arg(int(command)));

    switch (int(command)) {
    case statusEnumerating:
    case commandEnumerate:
        if (isOneOf(status_, {0, 2, 3, 4, 5, 7, 8, 9, 17, 19}))
            enumKORUXPlugIn(QString());
        else if (status_ == statusAcquired)
            setFamilyStatus(statusReady);
        else
            emit gotoStatusRejected();
        return;

    case statusAborted:
    case statusStopping:
        if (status_ != statusArmed) {
            emit gotoStatusRejected();
            return;
        }
        setFamilyStatus(statusStopping);
        for (int i = 0; i < numberOfKorux3(); ++i)
            if (!deviceUnit(i)->armSensor(false, false))
                break;
        // A failed disarm ends the loop but not the stop.
        if (status_ == statusStopping)
            setFamilyStatus(command == statusAborted ? statusAborted : statusStopped);
        return;

    case statusFpgaUpdating:
        if (!isOneOf(status_, {statusSensorFound, statusReady, statusAcquired})) {
            emit gotoStatusRejected();
            return;
        }
        setFamilyStatus(statusFpgaUpdating);
        for (int i = 0; i < numberOfKorux3(); ++i)
            if (!deviceUnit(i)->flashFPGA(QString()))
                break;
        if (status_ == statusFpgaUpdating)
            setFamilyStatus(statusFpgaUpdated);
        return;

    case statusNoOpBegin:
        setFamilyStatus(statusNoOpBegin);
        setFamilyStatus(statusNoOpEnd);
        return;

    case statusArming:
    case commandArm:
        if (!isOneOf(status_, {statusReady, statusFpgaUpdated, statusNoOpEnd, statusArmed})) {
            emit gotoStatusRejected();
            return;
        }
        setFamilyStatus(statusArming);
        for (int i = 0; i < numberOfKorux3(); ++i) {
            const bool oscilloscope = getParameter(QStringLiteral("Oscilloscope")).toBool();
            if (!deviceUnit(i)->armSensor(true, oscilloscope)) {
                setFamilyStatus(statusError);
                break;
            }
        }
        if (status_ == statusArming)
            setFamilyStatus(statusArmed);
        return;

    case commandGetParameters:
        for (int i = 0; i < numberOfKorux3(); ++i)
            deviceUnit(i)->getParameters();
        return;
    case commandGetVoltages:
        for (int i = 0; i < numberOfKorux3(); ++i)
            deviceUnit(i)->getVoltages(nullptr, nullptr, nullptr, nullptr);
        return;
    case commandReadSerialNumber:
        for (int i = 0; i < numberOfKorux3(); ++i) {
            QString scratch;
            deviceUnit(i)->readSerialNumber(scratch);
        }
        return;
    case commandReadFlashFiles:
    case commandReadAllFlashFiles:
    case commandRewriteFlashFiles:
    case commandRewriteAllFlashFiles:
        for (int i = 0; i < numberOfKorux3(); ++i)
            readFlashFiles(i, command == commandReadAllFlashFiles || command == commandRewriteAllFlashFiles,
                           command == commandRewriteFlashFiles || command == commandRewriteAllFlashFiles);
        return;
    case commandGetShootCounter:
        for (int i = 0; i < numberOfKorux3(); ++i) {
            unsigned int scratch = 0;
            deviceUnit(i)->getShootCounter(&scratch);
        }
        return;
    case commandFamilyReport:
        sendFamilyReport();
        return;
    case commandFormatFlash:
        for (int i = 0; i < numberOfKorux3(); ++i)
            deviceUnit(i)->formatFlash();
        return;
    case commandReadFlashPage:
        for (int i = 0; i < numberOfKorux3(); ++i)
            deviceUnit(i)->technicReadFlashPage(getParameter(QStringLiteral("FlashAddress")).toUInt());
        return;
    default:
        // Anything else, 1008 and 1009 included, is ignored here.
        return;
    }
}

// Service commands for the one unit whose board serial matches; the
// acquisition cycle always runs for the whole family.
void QVeltraXRayKORUXPlugIn::gotoUnitStatus(QString serial, hardwareStatus command)
{
    const OperationScope scope;
    // The serial is the host's text and may hold "%2" itself: both values go in
    // one call.
    emit logAdvancedText(
        QStringLiteral("gotoUnitStatus for %1 status %2").arg(serial, QString::number(int(command))));

    int index = -1;
    for (int i = 0; i < numberOfKorux3(); ++i) {
        QString unitSerial;
        deviceUnit(i)->readSerialNumber(unitSerial);
        if (unitSerial == serial) {
            index = i;
            break;
        }
    }
    if (index < 0)
        return;

    QVeltraXRayKORUXPlugInUnit* unit = deviceUnit(index);
    switch (int(command)) {
    case commandGetParameters:
        unit->getParameters();
        return;
    case commandGetVoltages:
        unit->getVoltages(nullptr, nullptr, nullptr, nullptr);
        return;
    case commandReadFlashFiles:
    case commandReadAllFlashFiles:
    case commandRewriteFlashFiles:
    case commandRewriteAllFlashFiles:
        readFlashFiles(index, command == commandReadAllFlashFiles || command == commandRewriteAllFlashFiles,
                       command == commandRewriteFlashFiles || command == commandRewriteAllFlashFiles);
        return;
    case commandGetShootCounter: {
        unsigned int scratch = 0;
        unit->getShootCounter(&scratch);
        return;
    }
    case commandIncreaseShootCounter:
        unit->setShootCounter(kAutomaticIncrement);
        return;
    case commandFormatFlash:
        unit->formatFlash();
        return;
    case commandReadFlashPage:
        unit->technicReadFlashPage(getParameter(QStringLiteral("FlashAddress")).toUInt());
        return;
    default:
        return;
    }
}

// The family follows a unit through an acquisition once it is armed; the
// unit's other statuses stay with the unit.
void QVeltraXRayKORUXPlugIn::forwardToStatusChanged(hardwareStatus status)
{
    if (isOneOf(status, {statusIntegrating, statusIntegrated, statusAcquiring, statusAcquired}))
        setFamilyStatus(status);
}

bool QVeltraXRayKORUXPlugIn::readFlashFiles(long index, bool withProductionFiles, bool overwrite)
{
    const OperationScope scope;
    QVeltraXRayKORUXPlugInUnit* unit = deviceUnit(index);
    QString scratch;
    unit->readSerialNumber(scratch);
    if (!unit->readBTSFile(overwrite) || !unit->readFFCFile(overwrite) || !unit->readBLKFile(overwrite)
        || !unit->readDPLFile(overwrite))
        return false;
    if (!withProductionFiles)
        return true;
    unit->readPRDFile(overwrite);
    unit->readASSFile(overwrite);
    return true;
}

void QVeltraXRayKORUXPlugIn::sendFamilyReport()
{
    ReportMap report;
    report.insert(QStringLiteral("%1").arg(sensorFamily()), parameters_);
    const QString json = reportText(report);
    emit dataRead(json);
    emit logAdvancedText(QStringLiteral("[green]") + json);
}

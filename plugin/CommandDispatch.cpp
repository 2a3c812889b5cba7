// The host's commands: the acquisition cycle with its status rules, and the
// service commands that report through dataRead.
#include "plugin/QVeltraXRayKORUXPlugIn.h"

#include "plugin/OperationScope.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QPointer>
#include <QVector>

#include <algorithm>

namespace {

bool isOneOf(int status, std::initializer_list<int> allowed)
{
    for (int value : allowed)
        if (status == value)
            return true;
    return false;
}

constexpr unsigned int kAutomaticIncrement = 0xFFFFFFFF;

} // namespace

using korux::isFamilyUnit;
using korux::OperationScope;

namespace {

using Unit = QVeltraXRayKORUXPlugInUnit;

// The units of a family-wide command, taken when it starts. The host may
// give commands from inside it (its events run in its slots and while a unit
// waits): an enumeration there gives these units up, and the host may delete
// the family. The loop goes on with the units that are still the family's,
// each once; a family deleted by the host takes all of them out.
class EachUnit {
public:
    explicit EachUnit(QVeltraXRayKORUXPlugIn* family)
    {
        for (int i = 0; i < family->numberOfKorux3(); ++i)
            units_.append(QPointer<Unit>(family->deviceUnit(i)));
    }

    // The next unit still in the vector, or null when none is left.
    Unit* next()
    {
        while (position_ < units_.size()) {
            Unit* unit = units_[position_++];
            if (unit && isFamilyUnit(unit))
                return unit;
        }
        return nullptr;
    }

private:
    QVector<QPointer<Unit>> units_;
    int position_ = 0;
};

} // namespace

void QVeltraXRayKORUXPlugIn::gotoStatus(hardwareStatus command)
{
    const OperationScope scope;
    const QPointer<QVeltraXRayKORUXPlugIn> alive(this);
    emit logAdvancedText(QStringLiteral("KORUX-KORUX² Series gotoStatus %1").arg(int(command)));
    if (!alive)
        return;

    switch (int(command)) {
    case statusEnumerating:
    case commandEnumerate:
        if (isOneOf(status_, { 0, 2, 3, 4, 5, 7, 8, 9, 17, 19 }))
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
        {
            setFamilyStatus(statusStopping);
            if (!alive)
                return;
            EachUnit units(this);
            while (Unit* unit = units.next())
                if (!unit->armSensor(false, false))
                    break;
            if (!alive)
                return;
            // A failed disarm ends the loop but not the stop.
            if (status_ == statusStopping)
                setFamilyStatus(command == statusAborted ? statusAborted : statusStopped);
        }
        return;

    case statusFpgaUpdating:
        if (!isOneOf(status_, { statusSensorFound, statusReady, statusAcquired })) {
            emit gotoStatusRejected();
            return;
        }
        {
            setFamilyStatus(statusFpgaUpdating);
            if (!alive)
                return;
            EachUnit units(this);
            while (Unit* unit = units.next())
                if (!unit->flashFPGA(QString()))
                    break;
            if (!alive)
                return;
            if (status_ == statusFpgaUpdating)
                setFamilyStatus(statusFpgaUpdated);
        }
        return;

    case statusNoOpBegin:
        setFamilyStatus(statusNoOpBegin);
        if (alive)
            setFamilyStatus(statusNoOpEnd);
        return;

    case statusArming:
    case commandArm:
        if (!isOneOf(status_, { statusReady, statusFpgaUpdated, statusNoOpEnd, statusArmed })) {
            emit gotoStatusRejected();
            return;
        }
        {
            setFamilyStatus(statusArming);
            if (!alive)
                return;
            EachUnit units(this);
            while (Unit* unit = units.next()) {
                const bool oscilloscope = getParameter(QStringLiteral("Oscilloscope")).toBool();
                if (!unit->armSensor(true, oscilloscope)) {
                    if (alive)
                        setFamilyStatus(statusError);
                    break;
                }
            }
            if (!alive)
                return;
            if (status_ == statusArming)
                setFamilyStatus(statusArmed);
        }
        return;

    case commandGetParameters: {
        EachUnit units(this);
        while (Unit* unit = units.next())
            unit->getParameters();
        return;
    }
    case commandGetVoltages: {
        EachUnit units(this);
        while (Unit* unit = units.next())
            unit->getVoltages(nullptr, nullptr, nullptr, nullptr);
        return;
    }
    case commandReadSerialNumber: {
        EachUnit units(this);
        while (Unit* unit = units.next()) {
            QString scratch;
            unit->readSerialNumber(scratch);
        }
        return;
    }
    case commandReadFlashFiles:
    case commandReadAllFlashFiles:
    case commandRewriteFlashFiles:
    case commandRewriteAllFlashFiles: {
        EachUnit units(this);
        while (Unit* unit = units.next())
            readFlashFiles(unit,
                command == commandReadAllFlashFiles || command == commandRewriteAllFlashFiles,
                command == commandRewriteFlashFiles || command == commandRewriteAllFlashFiles);
        return;
    }
    case commandGetShootCounter: {
        EachUnit units(this);
        while (Unit* unit = units.next()) {
            unsigned int scratch = 0;
            unit->getShootCounter(&scratch);
        }
        return;
    }
    case commandFamilyReport:
        sendFamilyReport();
        return;
    case commandFormatFlash: {
        EachUnit units(this);
        while (Unit* unit = units.next())
            unit->formatFlash();
        return;
    }
    case commandReadFlashPage: {
        EachUnit units(this);
        while (Unit* unit = units.next())
            unit->technicReadFlashPage(getParameter(QStringLiteral("FlashAddress")).toUInt());
        return;
    }
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
    const QPointer<QVeltraXRayKORUXPlugIn> alive(this);
    // The serial is the host's text and may hold "%2" itself: both values go in
    // one call.
    emit logAdvancedText(
        QStringLiteral("gotoUnitStatus for %1 status %2").arg(serial, QString::number(int(command))));
    if (!alive)
        return;

    // Each serial read sends a report, and the host's events may run in its
    // slot: the command goes to the unit object that answered, and only if it
    // is still one of the family's units afterwards. Never to an index.
    QPointer<Unit> unit;
    EachUnit units(this);
    while (Unit* candidate = units.next()) {
        QString unitSerial;
        candidate->readSerialNumber(unitSerial);
        if (unitSerial == serial) {
            unit = candidate;
            break;
        }
    }
    if (!unit || !alive || !isFamilyUnit(unit))
        return;

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
        readFlashFiles(unit, command == commandReadAllFlashFiles || command == commandRewriteAllFlashFiles,
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
// The framework hands a unit's status on after the unit's own signal, whose
// slot may have made the host enumerate anew: a status no unit of the family
// holds comes from a unit given up, and is not the family's.
void QVeltraXRayKORUXPlugIn::forwardToStatusChanged(hardwareStatus status)
{
    if (!isOneOf(status, { statusIntegrating, statusIntegrated, statusAcquiring, statusAcquired }))
        return;
    const QVector<QVeltraHardwareUnit*>& units = hardwareUnitVector();
    if (std::any_of(units.begin(), units.end(), [status](const QVeltraHardwareUnit* unit) {
            return unit->status() == status;
        }))
        setFamilyStatus(status);
}

bool QVeltraXRayKORUXPlugIn::readFlashFiles(long index, bool withProductionFiles, bool overwrite)
{
    return readFlashFiles(deviceUnit(index), withProductionFiles, overwrite);
}

// Every file read reports and lets the host run: a unit that an enumeration
// gave up meanwhile reads no further file.
bool QVeltraXRayKORUXPlugIn::readFlashFiles(
    QVeltraXRayKORUXPlugInUnit* unit, bool withProductionFiles, bool overwrite)
{
    const OperationScope scope;
    QString scratch;
    unit->readSerialNumber(scratch);
    using Read = bool (QVeltraXRayKORUXPlugInUnit::*)(bool);
    for (Read read : { &Unit::readBTSFile, &Unit::readFFCFile, &Unit::readBLKFile, &Unit::readDPLFile })
        if (!isFamilyUnit(unit) || !(unit->*read)(overwrite))
            return false;
    if (!withProductionFiles)
        return true;
    for (Read read : { &Unit::readPRDFile, &Unit::readASSFile })
        if (isFamilyUnit(unit))
            (unit->*read)(overwrite);
    return true;
}

void QVeltraXRayKORUXPlugIn::sendFamilyReport()
{
    ReportMap report;
    report.insert(QStringLiteral("%1").arg(sensorFamily()), parameters_);
    const QString json = reportText(report);
    const QPointer<QVeltraXRayKORUXPlugIn> alive(this);
    emit dataRead(json);
    if (alive)
        emit logAdvancedText(QStringLiteral("[green]") + json);
}

#include "plugin/OperationScope.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QPointer>
#include <QVector>

#include "host/VeltraXRayHardware.h"

namespace korux {

namespace {

// One thread runs the plug-in; nothing here is locked.
int operationDepth = 0;

QVector<QPointer<QObject>>& heldUnits()
{
    static QVector<QPointer<QObject>> units;
    return units;
}

// Takes the deferred deletion of its unit that arrives while an operation of
// the plug-in is running, and notes the unit for later. One per unit, as its
// child: it lives on the unit's thread and goes with the unit.
class DeletionKeeper : public QObject {
public:
    explicit DeletionKeeper(QObject* unit)
        : QObject(unit)
    {
        setObjectName(QStringLiteral("korux-deletion-keeper"));
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() != QEvent::DeferredDelete || operationDepth == 0)
            return false;
        if (!heldUnits().contains(watched))
            heldUnits().append(QPointer<QObject>(watched));
        return true;
    }
};

} // namespace

OperationScope::OperationScope()
{
    ++operationDepth;
}

// The held deletions go back to the event loop: Qt carries them out once
// control is back in a loop below the level that posts them, so nothing that
// called into the plug-in from there is on the stack any more. A deletion
// that arrives while a new operation runs is held again.
OperationScope::~OperationScope()
{
    if (--operationDepth > 0)
        return;
    QVector<QPointer<QObject>> units;
    units.swap(heldUnits());
    for (const QPointer<QObject>& unit : units)
        if (unit)
            unit->deleteLater();
}

int OperationScope::depth()
{
    return operationDepth;
}

void letHostRun()
{
    const OperationScope scope;
    QCoreApplication::processEvents();
}

void holdDeletionDuringOperations(QObject* unit)
{
    unit->installEventFilter(new DeletionKeeper(unit));
}

bool isFamilyUnit(const QVeltraHardwareUnit* unit)
{
    const QVeltraHardwareFamily* owner = unit->family();
    return owner && owner->hardwareUnitVector().contains(const_cast<QVeltraHardwareUnit*>(unit));
}

void keepUnitsPastFamily(QObject* family)
{
    if (operationDepth == 0)
        return;
    const QList<QVeltraHardwareUnit*> units
        = family->findChildren<QVeltraHardwareUnit*>(QString(), Qt::FindDirectChildrenOnly);
    for (QVeltraHardwareUnit* unit : units) {
        unit->resetFamily();
        unit->setParent(nullptr);
        // Held by the unit's keeper until the outermost operation returns.
        unit->deleteLater();
    }
}

} // namespace korux

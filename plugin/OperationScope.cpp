#include "plugin/OperationScope.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QPointer>
#include <QVector>

namespace korux {

namespace {

// One thread runs the plug-in; nothing here is locked.
int operationDepth = 0;

QVector<QPointer<QObject>>& heldUnits()
{
    static QVector<QPointer<QObject>> units;
    return units;
}

// Takes the deferred deletion of a unit that arrives while an operation of
// the plug-in is running, and keeps the unit for later.
class DeletionKeeper : public QObject {
protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() != QEvent::DeferredDelete || operationDepth == 0)
            return false;
        heldUnits().append(QPointer<QObject>(watched));
        return true;
    }
};

DeletionKeeper* keeper()
{
    // Made once, on the plug-in's thread, and kept for the process: units
    // may still point at it when the plug-in's statics go.
    static DeletionKeeper* const instance = new DeletionKeeper;
    return instance;
}

// Deletes a held unit when the event loop deletes this object: Qt does so
// only once control is back in a loop below the level that asked, so nothing
// that called into the plug-in from there is on the stack any more. A unit
// that the family took with it in the meantime is left alone.
class HeldUnitDeletion : public QObject {
public:
    explicit HeldUnitDeletion(QObject* unit)
        : unit_(unit)
    {
    }

    ~HeldUnitDeletion() override
    {
        if (!unit_)
            return;
        if (operationDepth > 0)
            heldUnits().append(unit_);
        else
            delete unit_.data();
    }

private:
    QPointer<QObject> unit_;
};

} // namespace

OperationScope::OperationScope()
{
    ++operationDepth;
}

OperationScope::~OperationScope()
{
    if (--operationDepth > 0)
        return;
    QVector<QPointer<QObject>> units;
    units.swap(heldUnits());
    for (const QPointer<QObject>& unit : units)
        if (unit)
            (new HeldUnitDeletion(unit.data()))->deleteLater();
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
    unit->installEventFilter(keeper());
}

} // namespace korux

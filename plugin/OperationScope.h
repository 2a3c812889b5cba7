// Host re-entry. The plug-in runs on the host's thread and lets the host's
// events run inside its operations: explicitly in a few long ones (flash
// copies, arming, page programming), and in any slot the host connected to
// a signal the plug-in sends. The host may give commands there; a new
// enumeration then gives up the units of the old one, which the framework
// disposes of with deleteLater, and a host may even delete the family.
//
// The plug-in counts its operations on the stack: family commands, the
// unit's public operations, polling ticks, and every turn of the event loop
// it lets the host have. While any is running, the framework's deferred
// deletion of a unit is held back and handed back to the event loop once the
// outermost operation has returned: the plug-in never deletes a unit itself,
// it only postpones the deletion the framework asked for.
//
// A unit so kept alive is no longer one of the family's units: operations
// check isFamilyUnit after every point where the host may have run, and act
// on a given-up unit no further.
#pragma once

class QObject;
class QVeltraHardwareUnit;

namespace korux {

class OperationScope {
public:
    OperationScope();
    ~OperationScope();

    OperationScope(const OperationScope&) = delete;
    OperationScope& operator=(const OperationScope&) = delete;

    // Operations of the plug-in on the stack now.
    static int depth();
};

// Lets the host's event loop run once (QCoreApplication::processEvents), as
// an operation of the plug-in.
void letHostRun();

// Makes the unit's deferred deletion wait for the plug-in's operations.
void holdDeletionDuringOperations(QObject* unit);

// True while the unit is in its family's unit vector; false once an
// enumeration gave it up or its family is gone.
bool isFamilyUnit(const QVeltraHardwareUnit* unit);

// Called by a family being destroyed. Outside any operation its units simply
// go with it, as its children. Inside one, they are taken out of the family
// (no parent, no family) and deleted once the outermost operation returned,
// so that the operations on the stack find their units whole.
void keepUnitsPastFamily(QObject* family);

} // namespace korux

// Host re-entry. The plug-in runs on the host's thread and lets the host's
// event loop run inside a few long operations (flash copies, arming, page
// programming), so the host may give commands in the middle of them. A new
// enumeration then gives up the units of the old one, and the framework
// deletes them later, from the event loop: possibly from the very
// processEvents of an operation still running on one of them.
//
// The plug-in counts its operations on the stack: family commands, polling
// ticks, and every turn of the event loop it lets the host have. While any
// is running, the deletion of a unit is held back; it happens once the
// outermost has returned, at the next turn of the host's own loop.
#pragma once

class QObject;

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

} // namespace korux

// Driving the family as a host does, shared by korux's commands: the
// initialisation, the commands with what came of them, the waits.
#pragma once

#include <QString>
#include <QStringList>

#include <initializer_list>

#include "host/VeltraXRayHardware.h"
#include "tools/Commands.h"

namespace korux {

// What the plug-in did with one command.
struct Outcome {
    bool rejected = false;
    int failureLines = 0;
    QStringList failureTexts; // as Observations keeps them
    QStringList reports;
    hardwareStatus status = statusUnknown; // the family's, afterwards
};

// Initialises the family once per session, as a host does at start
// (directory, names, enumeration). kExitOk or kExitFailure.
int ensureFamily(Session& session);
// ensureFamily, and at least one unit; says so and gives kExitNoSensor when
// there is none.
int requireUnits(Session& session);

// gotoStatus(command), then lets queued signals run.
Outcome sendFamilyCommand(Session& session, hardwareStatus command);
// gotoUnitStatus(session.serial, command) when a serial is chosen, else
// gotoStatus(command).
Outcome sendUnitCommand(Session& session, hardwareStatus command);

// Exit status of a cycle command: rejected, statusError, no sensor, or the
// expected final status reached.
int cycleExit(Session& session, const Outcome& outcome, std::initializer_list<hardwareStatus> expected);
// Exit status of a service command: a failure logged, a report missing, or
// (with --serial) no unit of that serial.
int serviceExit(Session& session, const Outcome& outcome, bool reports);

// The units a --serial command goes to (none when no unit has the serial),
// or every unit.
QVector<QVeltraHardwareUnit*> targetUnits(Session& session);

// The unit whose board serial is serial, reading the serial numbers first
// when no unit knows it yet; null when none has it.
QVeltraHardwareUnit* findUnit(Session& session, const QString& serial);

// Waits, after a stop or abort command, until every unit has ended its
// stopping; false on time-out (or, when interruptible, a stop request).
bool waitForUnitsToStop(Session& session, int timeoutMs, bool interruptible = true);

// On the way out of an interrupted command: a family that is armed or in an
// acquisition gets the stop command and its units are waited for, so that
// no sensor is left armed.
void stopArmedFamily(Session& session);

// Brings the family to a status that takes command 20 (enumerating, FPGA
// update, no-op, as the status cycle allows) and port A to a state arming
// can read: kExitOk, or the exit status having said why.
int prepareArming(Session& session);

// The family directory checked before the plug-in writes in it (it exists
// or can be created, can be written, has room): kExitOk, or kExitUsage
// having said why.
int checkFamilyDirectory(Session& session);

// The exit status of a command cut short by a stop request.
int interruptedExit();

QString statusText(hardwareStatus status);

// The first failure line the plug-in logged for a command, with how many
// more there were: "unit 0 (1904001): Unable to ... (and 2 more failure
// lines; -v shows the plug-in's log)".
QString failureCause(Session& session, const Outcome& outcome);

// A number as service engineers write it: decimal, or hexadecimal after 0x
// (a leading zero is no octal prefix). ok says whether the text was one.
qlonglong parseNumber(const QString& text, bool* ok);

} // namespace korux

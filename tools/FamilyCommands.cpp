// The commands that map onto one host command each: the acquisition cycle
// (1, 6, 11, 13, 18, 20) and the service commands (1000 to 3001).
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QLibrary>
#include <QRegularExpression>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <limits>
#include <unistd.h>

#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Folders.h"
#include "tools/Interrupt.h"

namespace korux {

namespace {

// The last page of the 16 MiB flash: the address has 24 bits.
constexpr qlonglong kLastFlashPage = 0xFFFF00;

// Time given to queued calls and deferred deletions after a command.
constexpr int kSettleMs = 50;
// How long the units may take to end a stop's dummy integration.
constexpr int kStopTimeoutMs = 5000;
// Room the family directory needs: the flash files' copies (the FPGA's
// bitstream, the calibration files).
constexpr qint64 kFamilyFilesBytes = 16LL << 20;
// From a Ctrl-C to korux's end when it has a family to stop.
constexpr int kInterruptedStopMs = 900;

QString orDash(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : text;
}

int noUnitWithSerial(Session& session)
{
    session.console.error(QStringLiteral("korux: no unit with the serial %1").arg(session.serial));
    return kExitNoSensor;
}

int serviceCommand(Session& session, hardwareStatus command, bool reports)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    // A report names its unit by the board serial, which comes from flash.
    bool serialsKnown = true;
    for (const QVeltraHardwareUnit* unit : session.host->family()->hardwareUnitVector())
        serialsKnown = serialsKnown && !unit->boardSerial().isEmpty();
    if (!serialsKnown && command != commandReadSerialNumber) {
        QuietOutput quiet(*session.host);
        sendFamilyCommand(session, commandReadSerialNumber);
    }
    return serviceExit(session, sendUnitCommand(session, command), reports);
}

// The counter, page and format commands work on port C as the last command
// left it: they neither open nor set it up. Reading the serial numbers does
// both (as the unit search of a --serial command does anyway).
void openFlashPorts(Session& session)
{
    QuietOutput quiet(*session.host);
    if (session.serial.isEmpty())
        sendFamilyCommand(session, commandReadSerialNumber);
}

int flashServiceCommand(Session& session, hardwareStatus command, bool reports)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    openFlashPorts(session);
    return serviceExit(session, sendUnitCommand(session, command), reports);
}

// The last line of a cycle command that went as it should: what the family
// is now, with its units.
int sayResult(Session& session, int result, const QString& what)
{
    if (result != kExitOk)
        return result;
    const int units = session.host->family()->hardwareUnitVector().size();
    const hardwareStatus status = session.host->family()->status();
    session.console.out(QStringLiteral("%1: %2 unit%3, family in %4")
                            .arg(what)
                            .arg(units)
                            .arg(units == 1 ? QString() : QStringLiteral("s"))
                            .arg(statusText(status)));
    session.console.json({ { QStringLiteral("result"), what }, { QStringLiteral("units"), units },
        { QStringLiteral("status"), int(status) },
        { QStringLiteral("statusName"), QVeltraHardwareUnit::hardwareStatusToString(status) } });
    return result;
}

int stopCommand(Session& session, hardwareStatus command, hardwareStatus finalStatus)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    const Outcome outcome = sendFamilyCommand(session, command);
    if (outcome.rejected)
        return cycleExit(session, outcome, {});
    if (!waitForUnitsToStop(session, kStopTimeoutMs)) {
        if (stopRequested())
            return interruptedExit();
        session.console.error(QStringLiteral("korux: the units did not stop within %1 s").arg(kStopTimeoutMs / 1000));
        return kExitTimeout;
    }
    return sayResult(session, cycleExit(session, outcome, { finalStatus }),
        finalStatus == statusAborted ? QStringLiteral("aborted") : QStringLiteral("stopped"));
}

// A hardwareStatus by number or by its name ("statusArming", "commandArm",
// or without the prefix: "Arming").
bool parseStatus(const QString& text, hardwareStatus* status)
{
    bool ok = false;
    const qlonglong number = parseNumber(text, &ok);
    if (ok) {
        // Only the values the framework names: any other number is a typo.
        if (number < 0 || number > 3001
            || QVeltraHardwareUnit::hardwareStatusToString(hardwareStatus(number))
                   .startsWith(QLatin1String("hardwareStatus(")))
            return false;
        *status = hardwareStatus(number);
        return true;
    }
    auto matches = [&](int value) {
        const QString name = QVeltraHardwareUnit::hardwareStatusToString(hardwareStatus(value));
        return name == text || name == QStringLiteral("status") + text || name == QStringLiteral("command") + text;
    };
    for (int value = 0; value <= 3001; ++value) {
        if (matches(value)) {
            *status = hardwareStatus(value);
            return true;
        }
    }
    return false;
}

// A parameter value typed as the key's current value is, or, for a new key,
// as the text reads: true/false, a whole number, a decimal one, else text.
bool typedValue(const QVariant& current, const QString& text, bool forceString, QVariant* value)
{
    bool ok = true;
    const int type = forceString ? int(QMetaType::QString)
        : current.isValid()      ? current.userType()
                                 : int(QMetaType::UnknownType);
    switch (type) {
    case QMetaType::QString:
        *value = text;
        return true;
    case QMetaType::Bool: {
        const QString lower = text.toLower();
        if (lower == QLatin1String("true") || lower == QLatin1String("1") || lower == QLatin1String("yes"))
            *value = true;
        else if (lower == QLatin1String("false") || lower == QLatin1String("0") || lower == QLatin1String("no"))
            *value = false;
        else
            return false;
        return true;
    }
    case QMetaType::Int: {
        const qlonglong number = parseNumber(text, &ok);
        *value = int(number);
        return ok && number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    }
    case QMetaType::UInt: {
        const qlonglong number = parseNumber(text, &ok);
        *value = uint(number);
        return ok && number >= 0 && number <= std::numeric_limits<uint>::max();
    }
    case QMetaType::LongLong:
        *value = parseNumber(text, &ok);
        return ok;
    case QMetaType::Double:
        *value = text.toDouble(&ok);
        return ok;
    case QMetaType::UnknownType:
        break;
    default:
        *value = text;
        return true;
    }
    if (text == QLatin1String("true") || text == QLatin1String("false")) {
        *value = text == QLatin1String("true");
        return true;
    }
    const qlonglong whole = parseNumber(text, &ok);
    if (ok && whole >= std::numeric_limits<int>::min() && whole <= std::numeric_limits<int>::max()) {
        *value = int(whole);
        return true;
    }
    const double decimal = text.toDouble(&ok);
    *value = ok ? QVariant(decimal) : QVariant(text);
    return true;
}

// One line: what failed, and the first failure the plug-in logged for it.
int reportedFailure(Session& session, const Outcome& outcome)
{
    session.console.error(
        QStringLiteral("korux: %1 failed: %2").arg(session.command, failureCause(session, outcome)));
    return kExitFailure;
}

// The "ShootCounter" member of a counter report, wherever it sits; found
// says whether the report has one.
unsigned int reportedCounter(const QString& json, bool* found)
{
    static const QRegularExpression member(QStringLiteral("\"ShootCounter\"\\s*:\\s*([0-9]+)"));
    const QRegularExpressionMatch match = member.match(json);
    *found = match.hasMatch();
    return *found ? match.captured(1).toUInt() : 0;
}

} // namespace

qlonglong parseNumber(const QString& text, bool* ok)
{
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        return text.mid(2).toLongLong(ok, 16);
    return text.toLongLong(ok, 10);
}

int ensureFamily(Session& session)
{
    if (session.familyInitialized)
        return kExitOk;
    session.familyInitialized = true;
    QVeltraHardwareFamily* family = session.host->family();
    const bool initialized = family->initializeVeltraHardwareFamily();
    session.host->connectUnits();
    session.host->settle(kSettleMs);
    if (!initialized) {
        session.console.error(QStringLiteral("korux: initializeVeltraHardwareFamily failed"));
        return kExitFailure;
    }
    return kExitOk;
}

int requireUnits(Session& session)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    if (session.host->family()->hardwareUnitVector().isEmpty()) {
        session.console.error(QStringLiteral("korux: no sensor found"));
        return kExitNoSensor;
    }
    return kExitOk;
}

namespace {

// Sends one command (gotoStatus, or gotoUnitStatus for the chosen serial),
// lets its queued signals run, and sums up what the plug-in said.
Outcome send(Session& session, hardwareStatus command, bool toUnit)
{
    PluginHost& host = *session.host;
    host.clearObservations();
    if (toUnit)
        host.family()->gotoUnitStatus(session.serial, command);
    else
        host.family()->gotoStatus(command);
    host.connectUnits();
    host.settle(kSettleMs);
    const Observations& seen = host.observations();
    Outcome outcome;
    outcome.rejected = seen.rejected > 0;
    outcome.failureLines = seen.failureLines;
    outcome.failureTexts = seen.failureTexts;
    outcome.reports = seen.reports;
    outcome.status = host.family()->status();
    return outcome;
}

} // namespace

Outcome sendFamilyCommand(Session& session, hardwareStatus command)
{
    return send(session, command, false);
}

Outcome sendUnitCommand(Session& session, hardwareStatus command)
{
    return send(session, command, !session.serial.isEmpty());
}

int cycleExit(Session& session, const Outcome& outcome, std::initializer_list<hardwareStatus> expected)
{
    if (outcome.rejected) {
        session.console.error(QStringLiteral("korux: the family refused the command in %1")
                                  .arg(statusText(outcome.status)));
        return kExitRejected;
    }
    for (hardwareStatus status : expected)
        if (outcome.status == status)
            return outcome.failureLines > 0 ? reportedFailure(session, outcome) : kExitOk;
    if (outcome.status == statusNoSensor) {
        session.console.error(QStringLiteral("korux: %1: no sensor found").arg(session.command));
        return kExitNoSensor;
    }
    QString line = QStringLiteral("korux: %1 failed: the family ended in %2")
                       .arg(session.command, statusText(outcome.status));
    if (expected.size() > 0)
        line += QStringLiteral(", not %1").arg(statusText(*expected.begin()));
    if (outcome.failureLines > 0)
        line += QStringLiteral(": ") + failureCause(session, outcome);
    session.console.error(line);
    return kExitFailure;
}

QString failureCause(Session& session, const Outcome& outcome)
{
    if (outcome.failureTexts.isEmpty())
        return QStringLiteral("the plug-in logged a failure");
    QString cause = outcome.failureTexts.first();
    const int more = outcome.failureTexts.size() - 1;
    if (more > 0)
        cause += QStringLiteral(" (and %1 more failure line%2)").arg(more).arg(more == 1 ? "" : "s");
    if (!session.options.verbose)
        cause += QStringLiteral("; -v shows the plug-in's log");
    return cause;
}

int serviceExit(Session& session, const Outcome& outcome, bool reports)
{
    const QVector<QVeltraHardwareUnit*>& units = session.host->family()->hardwareUnitVector();
    if (!session.serial.isEmpty()) {
        bool found = false;
        for (const QVeltraHardwareUnit* unit : units)
            found = found || unit->boardSerial() == session.serial;
        if (!found)
            return noUnitWithSerial(session);
    }
    if (outcome.failureLines > 0)
        return reportedFailure(session, outcome);
    const int wanted = session.serial.isEmpty() ? units.size() : 1;
    if (reports && outcome.reports.size() < wanted) {
        session.console.error(
            QStringLiteral("korux: %1 of %2 reports came").arg(outcome.reports.size()).arg(wanted));
        return kExitFailure;
    }
    return kExitOk;
}

QVector<QVeltraHardwareUnit*> targetUnits(Session& session)
{
    if (session.serial.isEmpty())
        return session.host->family()->hardwareUnitVector();
    QVeltraHardwareUnit* unit = findUnit(session, session.serial);
    return unit ? QVector<QVeltraHardwareUnit*> { unit } : QVector<QVeltraHardwareUnit*> {};
}

QVeltraHardwareUnit* findUnit(Session& session, const QString& serial)
{
    auto search = [&]() -> QVeltraHardwareUnit* {
        for (QVeltraHardwareUnit* unit : session.host->family()->hardwareUnitVector())
            if (unit->boardSerial() == serial)
                return unit;
        return nullptr;
    };
    if (QVeltraHardwareUnit* unit = search())
        return unit;
    QuietOutput quiet(*session.host);
    sendFamilyCommand(session, commandReadSerialNumber);
    return search();
}

bool waitForUnitsToStop(Session& session, int timeoutMs, bool interruptible)
{
    // A stopped unit runs a short dummy integration and ends its polling in
    // statusStopping, or in statusStopped when the sensor was already off.
    PluginHost& host = *session.host;
    return host.waitUntil(
        [&host] {
            for (const QVeltraHardwareUnit* unit : host.family()->hardwareUnitVector()) {
                const hardwareStatus status = host.observations().unitStatus.value(unit, statusUnknown);
                if (status != statusStopping && status != statusStopped && status != statusError)
                    return false;
            }
            return true;
        },
        timeoutMs, interruptible);
}

void stopArmedFamily(Session& session)
{
    if (!session.familyInitialized || !session.host->family())
        return;
    bool busy = false;
    for (const QVeltraHardwareUnit* unit : session.host->family()->hardwareUnitVector()) {
        switch (unit->status()) {
        case statusArming:
        case statusArmed:
        case statusIntegrating:
        case statusIntegrated:
        case statusAcquiring:
            busy = true;
            break;
        default:
            break;
        }
    }
    if (!busy && session.host->family()->status() != statusArmed)
        return;
    session.console.error(QStringLiteral("korux: stopping the family"));
    sendFamilyCommand(session, statusStopping);
    // A person who pressed Ctrl-C waits a second at most, the stop included;
    // a unit still on its way to stopped is named, not waited for.
    const long long left = kInterruptedStopMs - millisecondsSinceStopRequest();
    if (waitForUnitsToStop(session, int(std::max(0LL, left)), false))
        return;
    PluginHost& host = *session.host;
    for (const QVeltraHardwareUnit* unit : host.family()->hardwareUnitVector()) {
        const hardwareStatus status = host.observations().unitStatus.value(unit, unit->status());
        if (status == statusStopping || status == statusStopped || status == statusError)
            continue;
        session.console.error(
            QStringLiteral("korux: unit %1: the stop was sent; it was still in %2 when korux left")
                .arg(host.unitName(unit), statusText(status)));
    }
}

int checkFamilyDirectory(Session& session)
{
    const QString directory = session.host->family()->directory().absolutePath();
    QString reason;
    if (prepareFolder(directory, kFamilyFilesBytes, &reason))
        return kExitOk;
    session.console.error(QStringLiteral("korux: the family directory (--dir): %1").arg(reason));
    return kExitUsage;
}

int interruptedExit()
{
    return stopExitStatus(stopSignal());
}

QString statusText(hardwareStatus status)
{
    return QStringLiteral("%1 (%2)").arg(QVeltraHardwareUnit::hardwareStatusToString(status)).arg(int(status));
}

namespace {

QString insideText(const Observations& seen, const QVeltraHardwareUnit* unit)
{
    if (!seen.inside.contains(unit))
        return QStringLiteral("Inside or stand-alone unknown");
    return seen.inside.value(unit) ? QStringLiteral("Inside") : QStringLiteral("stand-alone");
}

QString fpgaText(const StatusProbe& probe)
{
    if (!probe.read)
        return QStringLiteral("FPGA unknown (%1)").arg(probe.failure);
    return probe.fpgaConfigured ? QStringLiteral("FPGA configured") : QStringLiteral("FPGA not configured");
}

} // namespace

int runList(Session& session, const CommandLine&)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    QVeltraHardwareFamily* family = session.host->family();
    const QVector<QVeltraHardwareUnit*>& units = family->hardwareUnitVector();
    // The status words first, while the plug-in holds no port open; in a
    // script it may hold them already, and then its own last read tells.
    QVector<StatusProbe> probes;
    for (int i = 0; i < units.size(); ++i) {
        const StatusProbe probe = probeStatus(session.host->enumeration().portA(i));
        const StatusProbe seen = session.host->lastStatus(units.at(i));
        probes << (probe.read || !seen.read ? probe : seen);
    }
    if (!units.isEmpty()) {
        // Which sensor is which: the board serial is in each one's flash;
        // the same read sets port D up, which tells an Inside sensor.
        QuietOutput quiet(*session.host);
        sendFamilyCommand(session, commandReadSerialNumber);
    }
    const Observations& seen = session.host->observations();
    for (int i = 0; i < units.size(); ++i) {
        const QVeltraHardwareUnit* unit = units.at(i);
        const PortRecord portA = session.host->enumeration().portA(i);
        const StatusProbe& probe = probes.at(i);
        const QString location
            = portA.known ? QStringLiteral("0x%1").arg(portA.location, 0, 16) : QStringLiteral("-");
        session.console.out(
            QStringLiteral("unit %1: board %2, port A %3, location %4, size %5, %6, %7, status %8")
                .arg(i)
                .arg(orDash(unit->boardSerial()), orDash(portA.serial), location,
                    probe.sizeCode ? QStringLiteral("S%1").arg(probe.sizeCode) : QStringLiteral("-"),
                    insideText(seen, unit), fpgaText(probe), statusText(unit->status())));
        QJsonObject json { { QStringLiteral("unit"), i },
            { QStringLiteral("boardSerial"), unit->boardSerial() },
            { QStringLiteral("portASerial"), portA.serial },
            { QStringLiteral("location"), portA.known ? QJsonValue(double(portA.location)) : QJsonValue() },
            { QStringLiteral("size"), probe.sizeCode ? QJsonValue(probe.sizeCode) : QJsonValue() },
            { QStringLiteral("inside"),
                seen.inside.contains(unit) ? QJsonValue(seen.inside.value(unit)) : QJsonValue() },
            { QStringLiteral("fpgaConfigured"),
                probe.read ? QJsonValue(probe.fpgaConfigured) : QJsonValue() },
            { QStringLiteral("model"), unit->model() }, { QStringLiteral("serial"), unit->serial() },
            { QStringLiteral("status"), int(unit->status()) },
            { QStringLiteral("statusName"), QVeltraHardwareUnit::hardwareStatusToString(unit->status()) } };
        if (!probe.read)
            json.insert(QStringLiteral("probeFailure"), probe.failure);
        session.console.json(json);
    }
    // Where the plug-in copies the flash files (the FPGA's bitstream on
    // the way to an acquisition, the calibration files).
    const QString directory = family->directory().absolutePath();
    session.console.out(QStringLiteral("family directory %1").arg(directory));
    const QString name = family->codeName().isEmpty() ? family->sensorFamily() : family->codeName();
    session.console.out(QStringLiteral("family %1: %2 unit%3, status %4")
                            .arg(orDash(name))
                            .arg(units.size())
                            .arg(units.size() == 1 ? QString() : QStringLiteral("s"))
                            .arg(statusText(family->status())));
    session.console.json({ { QStringLiteral("family"), name }, { QStringLiteral("units"), units.size() },
        { QStringLiteral("status"), int(family->status()) },
        { QStringLiteral("statusName"), QVeltraHardwareUnit::hardwareStatusToString(family->status()) },
        { QStringLiteral("directory"), directory } });
    // In a script the family has moved on since its enumeration: units are
    // what counts.
    if (!units.isEmpty() && family->status() != statusError)
        return kExitOk;
    switch (family->status()) {
    case statusSensorFound:
        return kExitOk;
    case statusNoSensor:
        session.console.error(QStringLiteral("korux: no sensor found"));
        return kExitNoSensor;
    default:
        session.console.error(
            QStringLiteral("korux: list: the enumeration ended in %1, not statusSensorFound (4)")
                .arg(statusText(family->status())));
        return kExitFailure;
    }
}

int runEnumerate(Session& session, const CommandLine&)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    const bool fromAcquired = session.host->family()->status() == statusAcquired;
    const Outcome outcome = sendFamilyCommand(session, statusEnumerating);
    return sayResult(session, cycleExit(session, outcome, { fromAcquired ? statusReady : statusSensorFound }),
        QStringLiteral("enumerated"));
}

int runNoop(Session& session, const CommandLine&)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    return sayResult(session,
        cycleExit(session, sendFamilyCommand(session, statusNoOpBegin), { statusNoOpEnd }),
        QStringLiteral("no-op done"));
}

int runFpgaUpdate(Session& session, const CommandLine&)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    // The plug-in copies the bitstream from flash into the family directory.
    const int family = checkFamilyDirectory(session);
    if (family != kExitOk)
        return family;
    const int result
        = cycleExit(session, sendFamilyCommand(session, statusFpgaUpdating), { statusFpgaUpdated });
    if (result != kExitOk)
        return result;
    // What came of it, unit by unit: configured, and from which file, or
    // nothing to do.
    PluginHost& host = *session.host;
    for (const QVeltraHardwareUnit* unit : host.family()->hardwareUnitVector()) {
        const FpgaUpdate update = host.observations().fpga.value(unit);
        QString text;
        QString source;
        if (update.alreadyConfigured) {
            text = QStringLiteral("FPGA already configured, nothing sent");
        } else if (!update.bitstream.isEmpty()) {
            source = update.bitstream.endsWith(QLatin1String(".BTS"), Qt::CaseInsensitive)
                ? QStringLiteral("the flash copy")
                : QFileInfo(update.bitstream).fileName();
            text = QStringLiteral("FPGA configured from %1").arg(source);
        } else {
            text = QStringLiteral("FPGA update ended; the plug-in did not say how (-v shows its log)");
        }
        session.console.out(QStringLiteral("unit %1: %2").arg(host.unitName(unit), text));
        QJsonObject json { { QStringLiteral("unit"), host.unitIndex(unit) },
            { QStringLiteral("boardSerial"), unit->boardSerial() },
            { QStringLiteral("fpga"),
                update.alreadyConfigured ? QStringLiteral("already configured")
                    : source.isEmpty()   ? QStringLiteral("unknown")
                                         : QStringLiteral("configured") } };
        if (!update.bitstream.isEmpty())
            json.insert(QStringLiteral("bitstream"), update.bitstream);
        session.console.json(json);
    }
    return kExitOk;
}

int runArm(Session& session, const CommandLine& line)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    // After a stop the family keeps the last status of its units' dummy
    // integration, which no command leaves but a no-op; any other status is
    // the user's to choose the way out of.
    const hardwareStatus status = session.host->family()->status();
    if (status == statusIntegrating || status == statusIntegrated || status == statusAcquiring) {
        const int prepared = prepareArming(session);
        if (prepared != kExitOk)
            return prepared;
    }
    if (line.has(QStringLiteral("--oscilloscope")))
        session.host->family()->setParameter(QStringLiteral("Oscilloscope"), true);
    return sayResult(session, cycleExit(session, sendFamilyCommand(session, statusArming), { statusArmed }),
        QStringLiteral("armed"));
}

int runStop(Session& session, const CommandLine&)
{
    return stopCommand(session, statusStopping, statusStopped);
}

int runAbort(Session& session, const CommandLine&)
{
    return stopCommand(session, statusAborted, statusAborted);
}

bool checkGoto(const CommandLine& line, QString* error)
{
    hardwareStatus command = statusUnknown;
    if (parseStatus(line.positional.first(), &command))
        return true;
    *error = QStringLiteral("\"%1\" is no hardwareStatus the framework knows").arg(line.positional.first());
    return false;
}

namespace {
int increaseCounters(Session& session);
} // namespace
int confirmIrreversible(
    Session& session, const CommandLine& line, const QString& command, const QString& action);

int runGoto(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkGoto(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    hardwareStatus command = statusUnknown;
    parseStatus(line.positional.first(), &command);
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    // The commands that write the flash or the family directory keep the
    // rules of the commands named for them.
    const QString name = QStringLiteral("goto %1").arg(int(command));
    switch (command) {
    case commandReadFlashFiles:
    case commandReadAllFlashFiles:
    case commandRewriteFlashFiles:
    case commandRewriteAllFlashFiles: {
        const int units = requireUnits(session);
        if (units != kExitOk)
            return units;
        const int family = checkFamilyDirectory(session);
        if (family != kExitOk)
            return family;
        break;
    }
    case commandIncreaseShootCounter:
    case commandFormatFlash: {
        const int units = requireUnits(session);
        if (units != kExitOk)
            return units;
        const int confirmed = confirmIrreversible(session, line, name,
            command == commandFormatFlash
                ? QStringLiteral("Erase the whole flash, calibration files and counter included,")
                : QStringLiteral("Add one to the shot counter (it can never be set lower again)"));
        if (confirmed != kExitOk)
            return confirmed;
        if (command == commandIncreaseShootCounter)
            return increaseCounters(session);
        openFlashPorts(session);
        break;
    }
    default:
        break;
    }
    const Outcome outcome = sendUnitCommand(session, command);
    if (outcome.rejected)
        return cycleExit(session, outcome, {});
    return serviceExit(session, outcome, false);
}

int runParams(Session& session, const CommandLine&)
{
    return serviceCommand(session, commandGetParameters, true);
}

int runVoltages(Session& session, const CommandLine&)
{
    return serviceCommand(session, commandGetVoltages, true);
}

int runSerial(Session& session, const CommandLine&)
{
    return serviceCommand(session, commandReadSerialNumber, true);
}

namespace {

// The counter each unit reads now, by a counter command to each unit; a
// unit that sent no counter report is missing from the result.
QHash<QVeltraHardwareUnit*, uint> readCounters(Session& session, const QVector<QVeltraHardwareUnit*>& units)
{
    QuietOutput quiet(*session.host);
    QHash<QVeltraHardwareUnit*, uint> counters;
    const QString chosen = session.serial;
    for (QVeltraHardwareUnit* unit : units) {
        session.serial = unit->boardSerial();
        sendUnitCommand(session, commandGetShootCounter);
        const QHash<const QVeltraHardwareUnit*, uint>& seen = session.host->observations().counters;
        if (seen.contains(unit))
            counters.insert(unit, seen.value(unit));
    }
    session.serial = chosen;
    return counters;
}

// The units a counter write goes to, their serials read (the unit commands
// name them so).
QVector<QVeltraHardwareUnit*> counterUnits(Session& session)
{
    QuietOutput quiet(*session.host);
    if (session.serial.isEmpty())
        sendFamilyCommand(session, commandReadSerialNumber);
    return targetUnits(session);
}

// Command 1009 for each unit asked for: a unit command, named by the unit's
// board serial. The counter is read before and after: a step that did not
// add exactly one (a slot that did not take the new value) is a failure,
// since every later shot would be named as the one before.
int increaseCounters(Session& session)
{
    const QVector<QVeltraHardwareUnit*> units = counterUnits(session);
    if (units.isEmpty())
        return noUnitWithSerial(session);
    const QHash<QVeltraHardwareUnit*, uint> before = readCounters(session, units);
    // Without the count before, the step cannot be checked: nothing is sent.
    for (QVeltraHardwareUnit* unit : units) {
        if (!before.contains(unit)) {
            session.console.error(QStringLiteral("korux: unit %1: its counter could not be read; nothing written")
                                      .arg(session.host->unitName(unit)));
            return kExitFailure;
        }
    }
    const QString chosen = session.serial;
    int result = kExitOk;
    {
        QuietOutput quiet(*session.host);
        for (QVeltraHardwareUnit* unit : units) {
            session.serial = unit->boardSerial();
            const Outcome outcome = sendUnitCommand(session, commandIncreaseShootCounter);
            if (outcome.failureLines > 0)
                result = reportedFailure(session, outcome);
        }
    }
    session.serial = chosen;
    if (result != kExitOk)
        return result;
    const QHash<QVeltraHardwareUnit*, uint> after = readCounters(session, units);
    for (QVeltraHardwareUnit* unit : units) {
        const QString name = session.host->unitName(unit);
        if (!after.contains(unit)) {
            session.console.error(
                QStringLiteral("korux: unit %1: its counter could not be read after the increase")
                    .arg(name));
            result = kExitFailure;
        } else if (after.value(unit) != before.value(unit) + 1) {
            session.console.error(QStringLiteral("korux: unit %1: the counter went from %2 to %3, not to %4")
                                      .arg(name)
                                      .arg(before.value(unit))
                                      .arg(after.value(unit))
                                      .arg(before.value(unit) + 1));
            result = kExitFailure;
        }
    }
    return result;
}

// A value at or below the counter never takes: the flash would AND its bits
// into the next slot and keep reading the old count. Refused before any write.
int refuseLowerCounter(Session& session, const QVector<QVeltraHardwareUnit*>& units, unsigned int value)
{
    const QHash<QVeltraHardwareUnit*, uint> counters = readCounters(session, units);
    for (QVeltraHardwareUnit* unit : units) {
        if (!counters.contains(unit)) {
            session.console.error(
                QStringLiteral("korux: unit %1: its counter could not be read; nothing written")
                    .arg(session.host->unitName(unit)));
            return kExitFailure;
        }
        const uint current = counters.value(unit);
        if (value <= current) {
            session.console.error(
                QStringLiteral("korux: unit %1: the counter reads %2; it can only be set above that, not to "
                               "%3; nothing written")
                    .arg(session.host->unitName(unit))
                    .arg(current)
                    .arg(value));
            return kExitUsage;
        }
    }
    return kExitOk;
}

// No host command sets the counter to a value: the unit class exports its
// setShootCounter, which korux resolves from the loaded plug-in library and
// calls on port C opened by the serial read. The member is called as a
// function taking the object first, as the Itanium C++ ABI passes it.
constexpr char kUnitClassName[] = "QVeltraXRayKORUXPlugInUnit";
constexpr char kSetShootCounterSymbol[] = "_ZN26QVeltraXRayKORUXPlugInUnit15setShootCounterEj";
using SetShootCounter = bool (*)(QVeltraHardwareUnit* unit, unsigned int value);

int setCounters(Session& session, unsigned int value)
{
    sendFamilyCommand(session, commandReadSerialNumber);
    const QVector<QVeltraHardwareUnit*> units = targetUnits(session);
    if (units.isEmpty())
        return noUnitWithSerial(session);
    // The library is loaded already: this only looks the member up.
    QLibrary plugin(session.host->pluginFile());
    const auto setShootCounter = reinterpret_cast<SetShootCounter>(plugin.resolve(kSetShootCounterSymbol));
    for (QVeltraHardwareUnit* unit : units) {
        if (!setShootCounter || !unit->inherits(kUnitClassName)) {
            session.console.error(QStringLiteral("korux: this plug-in cannot set the shot counter"));
            return kExitFailure;
        }
        const bool written = setShootCounter(unit, value);
        session.host->settle(kSettleMs);
        if (!written) {
            session.console.error(
                QStringLiteral("korux: unit %1 did not take the counter").arg(session.host->unitName(unit)));
            return kExitFailure;
        }
    }
    return kExitOk;
}

// Reads the counters back after a set: the flash keeps every value written
// and the counter is the largest, so a lower value does not take.
int checkCounters(Session& session, unsigned int value)
{
    const Outcome outcome = sendUnitCommand(session, commandGetShootCounter);
    const int result = serviceExit(session, outcome, true);
    if (result != kExitOk)
        return result;
    for (const QString& report : outcome.reports) {
        bool found = false;
        const unsigned int kept = reportedCounter(report, &found);
        if (found && kept != value) {
            session.console.error(QStringLiteral("korux: the counter reads %1, not %2: it always reads the "
                                                 "largest value written, so it can only be set upwards")
                                      .arg(kept)
                                      .arg(value));
            return kExitFailure;
        }
    }
    return kExitOk;
}

} // namespace

// Writes that cannot be undone (the counter never goes down again, a format
// erases the calibration) go to one named sensor when there are several,
// and a person confirms them on the terminal, or --yes does.
int confirmIrreversible(
    Session& session, const CommandLine& line, const QString& command, const QString& action)
{
    const int units = session.host->family()->hardwareUnitVector().size();
    if (session.serial.isEmpty() && units > 1) {
        session.console.error(
            QStringLiteral("korux: %1 would write to all %2 sensors; name one with --serial "
                           "(korux serial prints their serials)")
                .arg(command)
                .arg(units));
        return kExitUsage;
    }
    if (line.has(QStringLiteral("--yes")))
        return kExitOk;
    if (!isatty(STDIN_FILENO)) {
        session.console.error(
            QStringLiteral("korux: %1 cannot be undone; confirm it with --yes (standard input "
                           "is no terminal to ask on)")
                .arg(command));
        return kExitUsage;
    }
    QVector<QVeltraHardwareUnit*> chosen;
    {
        QuietOutput quiet(*session.host);
        if (session.serial.isEmpty())
            sendFamilyCommand(session, commandReadSerialNumber);
        chosen = targetUnits(session);
    }
    if (chosen.isEmpty())
        return noUnitWithSerial(session);
    const QString question = QStringLiteral("korux: %1 on unit %2? This cannot be undone. [y/N] ")
                                 .arg(action, session.host->unitName(chosen.first()));
    std::fputs(question.toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
    char answer[64] = {};
    const bool read = std::fgets(answer, sizeof answer, stdin) != nullptr;
    if (stopRequested())
        return interruptedExit();
    const QString word = QString::fromLocal8Bit(answer).trimmed().toLower();
    if (read && (word == QLatin1String("y") || word == QLatin1String("yes")))
        return kExitOk;
    if (!read)
        session.console.error(QString());
    session.console.error(QStringLiteral("korux: not confirmed; nothing written"));
    return kExitFailure;
}

bool checkCounter(const CommandLine& line, QString* error)
{
    const bool set = line.has(QStringLiteral("--set"));
    if (line.has(QStringLiteral("--increase")) && set) {
        *error = QStringLiteral("counter takes --increase or --set, not both");
        return false;
    }
    bool ok = true;
    const qlonglong number = set ? parseNumber(line.value(QStringLiteral("--set")), &ok) : 0;
    // All ones is the "last value plus one" request, not a value.
    if (!ok || number < 0 || number >= 0xFFFFFFFFLL) {
        *error = QStringLiteral("counter --set takes a number from 0 to 4294967294, not \"%1\"")
                     .arg(line.value(QStringLiteral("--set")));
        return false;
    }
    return true;
}

int runCounter(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkCounter(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    const bool increase = line.has(QStringLiteral("--increase"));
    const bool set = line.has(QStringLiteral("--set"));
    bool ok = true;
    const qlonglong number = set ? parseNumber(line.value(QStringLiteral("--set")), &ok) : 0;
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    if (set) {
        const unsigned int value = static_cast<unsigned int>(number);
        const QVector<QVeltraHardwareUnit*> units = counterUnits(session);
        if (units.isEmpty())
            return noUnitWithSerial(session);
        const int refused = refuseLowerCounter(session, units, value);
        if (refused != kExitOk)
            return refused;
        const int confirmed = confirmIrreversible(session, line, QStringLiteral("counter --set"),
            QStringLiteral("Set the shot counter to %1 (it can never be set lower again)").arg(value));
        if (confirmed != kExitOk)
            return confirmed;
        int result = kExitOk;
        {
            // What the write reports on its way (the serial, the value before
            // it) is no result; the read-back below is.
            QuietOutput quiet(*session.host);
            result = setCounters(session, value);
        }
        return result == kExitOk ? checkCounters(session, value) : result;
    }
    if (increase) {
        const int result = increaseCounters(session);
        if (result != kExitOk)
            return result;
    }
    return flashServiceCommand(session, commandGetShootCounter, true);
}

int runFormatFlash(Session& session, const CommandLine& line)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    const int confirmed = confirmIrreversible(session, line, QStringLiteral("format-flash"),
        QStringLiteral("Erase the whole flash, calibration files and counter included,"));
    if (confirmed != kExitOk)
        return confirmed;
    return flashServiceCommand(session, commandFormatFlash, false);
}

bool checkFlashPage(const CommandLine& line, QString* error)
{
    bool ok = false;
    const qlonglong address = parseNumber(line.positional.first(), &ok);
    if (!ok || address < 0 || address > kLastFlashPage) {
        *error
            = QStringLiteral("flash-page takes an address from 0 to 0xFFFF00 (decimal or 0x...), not \"%1\"")
                  .arg(line.positional.first());
        return false;
    }
    return true;
}

int runFlashPage(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkFlashPage(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    bool ok = false;
    const qlonglong address = parseNumber(line.positional.first(), &ok);
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    session.host->family()->setParameter(QStringLiteral("FlashAddress"), int(address));
    return flashServiceCommand(session, commandReadFlashPage, true);
}

int runReport(Session& session, const CommandLine&)
{
    const int ready = ensureFamily(session);
    if (ready != kExitOk)
        return ready;
    const Outcome outcome = sendFamilyCommand(session, commandFamilyReport);
    if (!outcome.reports.isEmpty())
        return kExitOk;
    session.console.error(QStringLiteral("korux: report: the family sent no report"));
    return kExitFailure;
}

namespace {

// The family parameters the plug-in reads, with the values it can use.
struct ParameterRange {
    const char* key;
    qlonglong lowest;
    qlonglong highest;
    const char* why;
};

constexpr char kAceWhy[] = "times the ACE coefficient (up to 9) it must fit the 24 bits of the arm frame";
constexpr char kCoefficientWhy[] = "the plug-in replaces any other value with 7";

constexpr ParameterRange kParameterRanges[] = {
    { "PhdTreshold", 0, 4095, "the arm frame carries 12 bits of it" },
    { "ACEValue", 1, 0xFFFFFF / 9, kAceWhy },
    { "ACEValueInside", 1, 0xFFFFFF / 9, kAceWhy },
    { "ACECoeff", 1, 9, kCoefficientWhy },
    { "ACECoeffCSI", 1, 9, kCoefficientWhy },
    { "FlashAddress", 0, kLastFlashPage, "the flash has 24-bit addresses" },
};

const ParameterRange* rangeOf(const QString& key)
{
    for (const ParameterRange& range : kParameterRanges)
        if (key == QLatin1String(range.key))
            return &range;
    return nullptr;
}

} // namespace

bool checkSet(const CommandLine& line, QString* error)
{
    const QString key = line.positional.at(0);
    const QString text = line.positional.at(1);
    const ParameterRange* range = rangeOf(key);
    if (!range || line.has(QStringLiteral("--force")) || line.has(QStringLiteral("--string")))
        return true;
    // A value that is no number at all is refused by its type when it is set.
    bool number = false;
    const qlonglong given = parseNumber(text, &number);
    if (!number || (given >= range->lowest && given <= range->highest))
        return true;
    *error = QStringLiteral("%1 takes %2 to %3 (%4), not %5; set --force sends it anyway")
                 .arg(key)
                 .arg(range->lowest)
                 .arg(range->highest)
                 .arg(QString::fromLatin1(range->why), text);
    return false;
}

int runSet(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkSet(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    const QString key = line.positional.at(0);
    const QString text = line.positional.at(1);
    const bool force = line.has(QStringLiteral("--force"));
    QVeltraHardwareFamily* family = session.host->family();
    QVariant value;
    if (!typedValue(family->getParameter(key), text, line.has(QStringLiteral("--string")), &value)) {
        if (!force) {
            session.console.error(
                QStringLiteral("korux: %1 is a %2; \"%3\" is not one (set --force sends it anyway)")
                    .arg(key, QString::fromLatin1(family->getParameter(key).typeName()), text));
            return kExitUsage;
        }
        typedValue(QVariant(), text, false, &value);
    }
    family->setParameter(key, value);
    session.console.out(QStringLiteral("%1 = %2 (%3)").arg(key, value.toString(), value.typeName()));
    session.console.json({ { QStringLiteral("parameter"), key },
        { QStringLiteral("value"), QJsonValue::fromVariant(value) } });
    return kExitOk;
}

} // namespace korux

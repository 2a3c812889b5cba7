// korux selftest: a safe bring-up of a sensor met for the first time, one
// step after the other, each with what it found, and for a failure its cause
// and what to do. Nothing is written to the sensor's flash and nothing is
// armed unless --expose is given; the flash files are copied into a
// temporary folder, not into the family's. main() records the bridge
// traffic of the whole run unless --no-trace is given.
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>


#include "tools/Commands.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Folders.h"
#include "tools/PluginHost.h"
#include "tools/SensorProbe.h"
#include "tools/Selftest.h"

namespace korux {

namespace {

struct Step {
    QString name;
    QString result; // "PASS", "FAIL" or "SKIP"
    QString found; // what the step saw, or why it failed
    QString fix; // for a failure: what to do
};

class Report {
public:
    explicit Report(Session& session)
        : session_(session)
    {
    }

    void pass(const QString& name, const QString& found)
    {
        add({ name, QStringLiteral("PASS"), found, QString() });
    }
    void fail(const QString& name, const QString& cause, const QString& fix)
    {
        add({ name, QStringLiteral("FAIL"), cause, fix });
    }
    void skip(const QString& name, const QString& why)
    {
        add({ name, QStringLiteral("SKIP"), why, QString() });
    }
    int failures() const { return failures_; }

    // The summary line; the exit status: ok, or failure when a step failed.
    int finish(int failure)
    {
        session_.console.out(failures_ ? QStringLiteral("selftest: %1 step%2 failed")
                                             .arg(failures_)
                                             .arg(failures_ == 1 ? QString() : QStringLiteral("s"))
                                       : QStringLiteral("selftest: every step passed"));
        session_.console.json({ { QStringLiteral("selftest"), failures_ ? "FAIL" : "PASS" },
            { QStringLiteral("failed"), failures_ } });
        return failures_ ? failure : kExitOk;
    }

private:
    void add(const Step& step)
    {
        if (step.result == QLatin1String("FAIL"))
            ++failures_;
        QString line = QStringLiteral("%1  %2: %3").arg(step.result, step.name, step.found);
        if (!step.fix.isEmpty())
            line += QStringLiteral(" -- fix: ") + step.fix;
        session_.console.out(line);
        QJsonObject json { { QStringLiteral("step"), step.name }, { QStringLiteral("result"), step.result },
            { QStringLiteral("found"), step.found } };
        if (!step.fix.isEmpty())
            json.insert(QStringLiteral("fix"), step.fix);
        session_.console.json(json);
    }

    Session& session_;
    int failures_ = 0;
};

// The plug-in's failure lines that speak of one port ("Port B ...",
// "... port B ...").
QStringList portFailures(const QStringList& failures, QChar port)
{
    QStringList found;
    for (const QString& text : failures)
        if (text.contains(QStringLiteral("Port %1 ").arg(port))
            || text.contains(QStringLiteral("port %1").arg(port)))
            found << text;
    return found;
}

// The inner map of a voltage report, wherever the report's nesting puts it.
QJsonObject findVoltagesIn(const QJsonValue& value)
{
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        if (object.contains(QStringLiteral("USB")))
            return object;
        for (const QJsonValue& inner : object)
            if (const QJsonObject found = findVoltagesIn(inner); !found.isEmpty())
                return found;
    } else if (value.isArray()) {
        for (const QJsonValue& inner : value.toArray())
            if (const QJsonObject found = findVoltagesIn(inner); !found.isEmpty())
                return found;
    }
    return QJsonObject();
}

QJsonObject findVoltages(const QJsonDocument& document)
{
    return findVoltagesIn(document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object()));
}

// The first failure line of a command, or a fallback.
QString firstOf(const QStringList& failures, const QString& fallback)
{
    return failures.isEmpty() ? fallback : failures.first();
}

} // namespace

const std::vector<VoltageLimit>& voltageLimits()
{
    // Millivolts, as the unit's voltage report gives them. The supplies of
    // the board: a reading outside its band is a rail that is missing,
    // short or drifting; 0 is a channel that reads nothing at all.
    static const std::vector<VoltageLimit> limits {
        { QStringLiteral("FPGA High"), 1800, 2200 },
        { QStringLiteral("FPGA Low"), 900, 1100 },
        { QStringLiteral("USB"), 4400, 5250 },
        { QStringLiteral("Sensor"), 3240, 3960 },
    };
    return limits;
}

QStringList checkVoltages(const QJsonObject& values)
{
    QStringList problems;
    for (const VoltageLimit& limit : voltageLimits()) {
        // The report gives each reading as a text of its millivolts.
        bool number = false;
        const QJsonValue value = values.value(limit.key);
        const int millivolts
            = value.isDouble() ? (number = true, value.toInt()) : value.toString().toInt(&number);
        if (!number) {
            problems << QStringLiteral("%1 missing from the report").arg(limit.key);
            continue;
        }
        if (millivolts < limit.lowest || millivolts > limit.highest)
            problems << QStringLiteral("%1 reads %2 mV (limits %3 to %4 mV)")
                            .arg(limit.key)
                            .arg(millivolts)
                            .arg(limit.lowest)
                            .arg(limit.highest);
    }
    return problems;
}

int runSelftest(Session& session, const CommandLine& line)
{
    Report report(session);
    PluginHost& host = *session.host;
    QuietOutput quiet(host);

    // 1. The bridge library.
    const QString library = session.bridgeFile;
    report.pass(QStringLiteral("bridge library"),
        library.isEmpty() ? QStringLiteral("loaded") : QStringLiteral("loaded from %1").arg(library));

    // The flash files go to a folder of the self-test's own: the family's
    // stays as it was.
    QTemporaryDir files;
    if (!files.isValid()) {
        session.console.error(
            QStringLiteral("korux: selftest: no temporary folder (%1)").arg(files.errorString()));
        return kExitFailure;
    }
    host.family()->setDirectory(QDir(files.path()));

    // 2. The device list: the plug-in's enumeration.
    const int initialized = ensureFamily(session);
    QVeltraHardwareFamily* family = host.family();
    const QVector<QVeltraHardwareUnit*> units = family->hardwareUnitVector();
    const QStringList enumerationFailures = host.observations().failureTexts;
    if (initialized != kExitOk || units.isEmpty()) {
        report.fail(QStringLiteral("device list"),
            enumerationFailures.isEmpty()
                ? QStringLiteral("no sensor found (the family ended in %1)").arg(statusText(family->status()))
                : enumerationFailures.last(),
            QStringLiteral("plug the sensor into a USB 2.0 high-speed port and check its cable; korux doctor "
                           "checks the USB devices, their access rights and the bridge library"));
        for (const char* name : { "ports A-D", "status word", "board serial", "information text",
                 "flash file headers", "voltages", "FPGA state", "one shot" })
            report.skip(QString::fromLatin1(name), QStringLiteral("no sensor"));
        return report.finish(kExitNoSensor);
    }
    const PortRecord portA = host.enumeration().portA(0);
    report.pass(QStringLiteral("device list"),
        QStringLiteral("%1 sensor%2; the first: port A %3 at location 0x%4")
            .arg(units.size())
            .arg(units.size() == 1 ? QString() : QStringLiteral("s"))
            .arg(portA.known ? portA.serial : QStringLiteral("-"))
            .arg(portA.location, 0, 16));
    QVeltraHardwareUnit* unit = units.first();

    // 3. The status word, read by korux itself while the plug-in holds no
    // port open.
    StatusProbe status = probeStatus(portA);
    if (!status.read && host.lastStatus(unit).read)
        status = host.lastStatus(unit);

    // The plug-in's reads: the serial (port C set up), the flash files (into
    // the temporary folder), the voltages (port B set up). Each leaves its
    // failure lines.
    const Outcome serial = sendFamilyCommand(session, commandReadSerialNumber);
    const Outcome flash = sendUnitCommand(session, commandReadAllFlashFiles);
    const Outcome voltages = sendUnitCommand(session, commandGetVoltages);
    const QStringList failures
        = enumerationFailures + serial.failureTexts + flash.failureTexts + voltages.failureTexts;

    // 4. The four ports, as the plug-in opened and set them up.
    QStringList portProblems;
    for (QChar port : { QChar('A'), QChar('B'), QChar('C'), QChar('D') })
        portProblems << portFailures(failures, port);
    if (portProblems.isEmpty())
        report.pass(QStringLiteral("ports A-D"), QStringLiteral("opened and set up"));
    else
        report.fail(QStringLiteral("ports A-D"), portProblems.first(),
            QStringLiteral("another program may hold the sensor (close it), or the bridge does not answer: "
                           "unplug the sensor, plug it in again and run korux selftest again"));

    if (status.read)
        report.pass(QStringLiteral("status word"),
            QStringLiteral("read; size %1")
                .arg(status.sizeCode ? QStringLiteral("S%1").arg(status.sizeCode)
                                     : QStringLiteral("unknown")));
    else
        report.fail(QStringLiteral("status word"),
            status.failure.isEmpty() ? QStringLiteral("not read") : status.failure,
            QStringLiteral("the sensor's FPGA does not answer on port A: check the cable, then run korux "
                           "fpga-update"));

    // 5. The board serial, from the flash's unique ID.
    if (!unit->boardSerial().isEmpty())
        report.pass(QStringLiteral("board serial"), unit->boardSerial());
    else
        report.fail(QStringLiteral("board serial"),
            firstOf(serial.failureTexts, QStringLiteral("the flash gave no serial")),
            QStringLiteral("the flash on port C does not answer: send the trace (korux report)"));

    // 6 and 7. The information text and the flash files, copied into the
    // temporary folder by the enumeration and the serial read.
    const QFileInfoList copied = QDir(files.path()).entryInfoList(QDir::Files, QDir::Name);
    QStringList names;
    bool information = false;
    for (const QFileInfo& file : copied) {
        names << QStringLiteral("%1 (%2 bytes)").arg(file.fileName()).arg(file.size());
        information = information || (file.suffix() == QLatin1String("PRD") && file.size() > 0);
    }
    if (information)
        report.pass(QStringLiteral("information text"), QStringLiteral("read"));
    else
        report.fail(QStringLiteral("information text"),
            QStringLiteral("no information text (PRD file) was read"),
            QStringLiteral("the sensor's flash holds no information text: the sensor needs its files from "
                           "the maker"));
    if (!copied.isEmpty())
        report.pass(QStringLiteral("flash file headers"), names.join(QStringLiteral(", ")));
    else
        report.fail(QStringLiteral("flash file headers"),
            firstOf(flash.failureTexts, QStringLiteral("no file headers in the flash")),
            QStringLiteral("the sensor's flash holds no files: the sensor needs its files from the maker"));

    // 8. The voltages against their limits.
    QJsonObject values;
    for (const QString& text : voltages.reports) {
        const QJsonObject found = findVoltages(QJsonDocument::fromJson(text.toUtf8()));
        if (!found.isEmpty())
            values = found;
    }
    if (values.isEmpty()) {
        report.fail(QStringLiteral("voltages"),
            firstOf(voltages.failureTexts, QStringLiteral("no voltage report")),
            QStringLiteral("the converter on port B does not answer: send the trace (korux report)"));
    } else {
        const QStringList problems = checkVoltages(values);
        QStringList readings;
        for (const VoltageLimit& limit : voltageLimits())
            readings
                << QStringLiteral("%1 %2 mV").arg(limit.key, values.value(limit.key).toVariant().toString());
        if (problems.isEmpty())
            report.pass(QStringLiteral("voltages"), readings.join(QStringLiteral(", ")));
        else
            report.fail(QStringLiteral("voltages"), problems.join(QStringLiteral("; ")),
                QStringLiteral("a supply of the sensor board is out of its limits: try another USB port "
                               "(without a hub); if it stays, the sensor goes back for repair"));
    }

    // 9. The FPGA.
    if (!status.read)
        report.skip(QStringLiteral("FPGA state"), QStringLiteral("no status word"));
    else if (status.fpgaConfigured)
        report.pass(QStringLiteral("FPGA state"), QStringLiteral("configured"));
    else
        report.fail(QStringLiteral("FPGA state"), QStringLiteral("not configured"),
            QStringLiteral("korux fpga-update configures it from the bitstream installed with the plug-in"));

    // 10. One shot, only when asked for.
    if (!line.has(QStringLiteral("--expose"))) {
        report.skip(QStringLiteral("one shot"), QStringLiteral("no arming without --expose"));
    } else if (report.failures() > 0) {
        report.skip(QStringLiteral("one shot"), QStringLiteral("not with a step failed"));
    } else {
        QTemporaryDir shots;
        CommandLine acquire;
        acquire.values.insert(QStringLiteral("--out"), line.value(QStringLiteral("--out"), shots.path()));
        acquire.values.insert(QStringLiteral("--timeout"), QStringLiteral("60"));
        host.setEcho(false);
        const int shot = runAcquire(session, acquire);
        if (shot == kExitOk)
            report.pass(QStringLiteral("one shot"), QStringLiteral("image delivered"));
        else
            report.fail(QStringLiteral("one shot"),
                host.observations().failureTexts.isEmpty() ? QStringLiteral("no image")
                                                           : host.observations().failureTexts.last(),
                QStringLiteral("send the trace of this self-test (korux report)"));
    }

    return report.finish(kExitFailure);
}

QString defaultSelftestTrace()
{
    const QString directory = stateDirectory();
    QDir().mkpath(directory);
    return QStringLiteral("%1/selftest-%2.trace")
        .arg(directory, QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss")));
}

} // namespace korux

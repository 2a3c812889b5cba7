// The plug-in as korux hosts it: loaded with QLibrary, its factory called,
// every framework signal of the family and of its units printed, counted for
// the command that is running, and written to the transcript.
#pragma once

#include <QHash>
#include <QImage>
#include <QLibrary>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>

#include "host/VeltraXRayHardware.h"
#include "tools/Console.h"
#include "tools/FailureLines.h"
#include "tools/SensorProbe.h"

namespace korux {

class Transcript;

// What an FPGA update did to one unit.
struct FpgaUpdate {
    bool alreadyConfigured = false; // nothing sent
    QString bitstream; // the file it came from
};

// What the plug-in said since the last clearObservations(): what a command's
// outcome is judged by.
struct Observations {
    int rejected = 0;
    int failureLines = 0; // log lines that tell of a failure, both channels
    // Those lines, without their style tag, each after the unit that gave it
    // ("unit 0 (1904001): Unable to read ...").
    QStringList failureTexts;
    QStringList reports; // JSON reports (dataRead), family and units
    // Last status each unit reported, and the (non-null) images it delivered.
    QHash<const QVeltraHardwareUnit*, hardwareStatus> unitStatus;
    QHash<const QVeltraHardwareUnit*, int> images;
    // The last shot counter each unit reported (an acquisition reports the
    // value before its increase, just before it delivers the image).
    QHash<const QVeltraHardwareUnit*, uint> counters;
    // Whether each unit's sensor is built into a generator ("Inside"), as its
    // generator reported when port D was set up.
    QHash<const QVeltraHardwareUnit*, bool> inside;
    QHash<const QVeltraHardwareUnit*, FpgaUpdate> fpga;
};

class PluginHost {
public:
    PluginHost(Console& console, bool verbose, Transcript* transcript = nullptr);
    ~PluginHost();

    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // Loads the plug-in library and makes its family. Returns kExitOk or the
    // exit status to stop with, having said why.
    int load(const QString& pluginPath);

    QVeltraHardwareFamily* family() const { return family_; }
    QString pluginFile() const { return library_.fileName(); }

    // Connects the units of the family's vector that are not connected yet;
    // an enumeration replaces the units, so this runs after every status.
    void connectUnits();
    // Position of the unit in the family's vector, -1 when it left it.
    int unitIndex(const QVeltraHardwareUnit* unit) const;
    // The unit's index and, once known, its board serial: "0 (1904001)".
    QString unitName(const QVeltraHardwareUnit* unit) const;

    // Lets queued calls, timers and deferred deletions run for a while.
    void settle(int milliseconds);
    // Runs the event loop until done() holds or the time is up; false on
    // time-out, and at once when korux is asked to stop (unless the wait is
    // part of stopping).
    bool waitUntil(const std::function<bool()>& done, int timeoutMs, bool interruptible = true);

    // While off, nothing the plug-in says is printed (it is still counted
    // and recorded): for the reads korux makes for its own checks.
    void setEcho(bool echo) { echo_ = echo; }
    bool echo() const { return echo_; }
    // What is printed. Quiet: results only (reports when shown, nothing of
    // the steps). Normal: the family's status changes, once each, and the
    // images. Verbose: also every log line of both channels, the unit status
    // changes and every report.
    void setQuiet(bool quiet) { quiet_ = quiet; }
    // Whether the reports the plug-in sends are the command's results (the
    // service commands) or by-products (arming reads the serial, a shot the
    // counter): only results are printed, unless verbose.
    // member: only reports that have it are shown (empty: every report).
    void setShownReports(bool show, const QString& member = QString())
    {
        showReports_ = show;
        reportMember_ = member.isEmpty() ? QString() : QStringLiteral("\"%1\"").arg(member);
    }
    // Forget the last status printed, so the next command shows its first.
    void resetPrintedStatus() { printedStatus_ = -1; }

    const Observations& observations() const { return observations_; }
    // The driver records of the last enumeration, as the plug-in logged them.
    const EnumerationLog& enumeration() const { return enumeration_; }
    // The last status word the plug-in read from the unit's sensor, by its
    // log; read is false when it has read none.
    StatusProbe lastStatus(const QVeltraHardwareUnit* unit) const { return lastStatus_.value(unit); }
    void clearObservations() { observations_ = Observations(); }

    // Called for each image a unit delivers (black is null for imageAcquired),
    // after korux has printed its line.
    std::function<void(
        QVeltraHardwareUnit*, const QImage& image, const QImage& black, const QString& description)>
        onImage;

private:
    void connectFamily();
    void connectUnit(QVeltraHardwareUnit* unit);
    void logLine(const QString& text, bool detailed, const QVeltraHardwareUnit* unit);
    void report(const QString& json, const QVeltraHardwareUnit* unit);
    void printImage(
        QVeltraHardwareUnit* unit, const QImage& image, const QImage& black, const QString& description);

    Console& console_;
    bool verbose_;
    bool echo_ = true;
    bool quiet_ = false;
    bool showReports_ = true;
    QString reportMember_;
    int printedStatus_ = -1;
    Transcript* transcript_;
    QLibrary library_;
    QVeltraHardwareFamily* family_ = nullptr;
    Observations observations_;
    EnumerationLog enumeration_;
    QHash<const QVeltraHardwareUnit*, StatusProbe> lastStatus_;
    // Receiver of every connection: they all go when the host does.
    std::unique_ptr<QObject> context_;
    QVector<QPointer<QVeltraHardwareUnit>> connected_;
};

// The plug-in's output held back for a scope.
class QuietOutput {
public:
    explicit QuietOutput(PluginHost& host)
        : host_(host)
        , echo_(host.echo())
    {
        host_.setEcho(false);
    }
    ~QuietOutput() { host_.setEcho(echo_); }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    PluginHost& host_;
    bool echo_;
};

} // namespace korux

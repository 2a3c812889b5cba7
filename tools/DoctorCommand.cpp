// korux doctor: what stands between this machine and a working sensor, one
// check a line, each with OK or the fix beside what was found. On its own it
// loads bridge and plug-in itself, so that a missing bridge library is one of
// its findings rather than the end of it; in a script it checks the script's.
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include "tools/BridgeLoader.h"
#include "tools/Commands.h"
#include "tools/Doctor.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/InstallLayout.h"
#include "tools/PluginHost.h"

namespace korux {

namespace {

enum class Mark { Ok, Fix, Note };

// The checks said so far, for the one JSON document of --json.
QJsonArray& checksSaid()
{
    static QJsonArray checks;
    return checks;
}

void say(
    Console& console, Mark mark, const QString& check, const QString& finding, const QString& fix = QString())
{
    static const char* const kMarks[] = { "OK  ", "FIX ", "NOTE" };
    QString text = QStringLiteral("%1 %2: %3").arg(QLatin1String(kMarks[int(mark)]), check, finding);
    if (!fix.isEmpty())
        text += (mark == Mark::Note ? QStringLiteral("; for a sensor: ") : QStringLiteral("; fix: ")) + fix;
    console.out(text);
    QJsonObject json { { QStringLiteral("name"), check },
        { QStringLiteral("verdict"), QString::fromLatin1(kMarks[int(mark)]).trimmed() },
        { QStringLiteral("detail"), finding } };
    json.insert(QStringLiteral("fix"), fix.isEmpty() ? QJsonValue() : QJsonValue(fix));
    checksSaid().append(json);
}

// The last line, and with --json the whole report as one document.
int conclude(Console& console, const QString& text, int status)
{
    console.out(text);
    console.json({ { QStringLiteral("checks"), checksSaid() },
        { QStringLiteral("conclusion"), text.mid(QStringLiteral("korux doctor: ").size()) },
        { QStringLiteral("exit"), status } });
    checksSaid() = QJsonArray();
    return status;
}

QString installRuleFix()
{
    return QStringLiteral("install the udev rule packaging/udev/%1 of the korux sources as "
                          "/etc/udev/rules.d/%1, run sudo udevadm control --reload, then unplug and replug "
                          "the sensor")
        .arg(doctor::kRuleFileName);
}

QString bridgeFix(const Options& options)
{
    if (options.bridge == QLatin1String("virtual"))
        return QStringLiteral("build the project (cmake --build build), or choose the vendor's library with "
                              "--bridge vendor");
    if (options.bridge == QLatin1String("vendor"))
        return QStringLiteral(
            "install the vendor's LibFT4222 for Linux: libft4222.so into /usr/local/lib, then "
            "sudo ldconfig");
    return QStringLiteral("check the file given to --bridge");
}

QString deviceLabel(const doctor::UsbDevice& device)
{
    const QString serial
        = device.serial.isEmpty() ? QStringLiteral("no serial") : QStringLiteral("serial ") + device.serial;
    return QStringLiteral("USB %1 (%2, bus %3 device %4)")
        .arg(device.name, serial)
        .arg(device.bus, 3, 10, QLatin1Char('0'))
        .arg(device.address, 3, 10, QLatin1Char('0'));
}

QString whoText(const doctor::Credentials& who)
{
    const passwd* entry = getpwuid(who.uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QStringLiteral("uid %1").arg(who.uid);
}

// The fix for a node the user cannot open, by what is installed already.
QString accessFix(const QVector<doctor::RuleFile>& rules)
{
    if (rules.isEmpty())
        return installRuleFix();
    return QStringLiteral("%1 grants the user logged in at this machine's seat and group plugdev: log in at "
                          "the seat, or add the user to plugdev (sudo usermod -aG plugdev $USER, then log in "
                          "again); a rule installed after the sensor was plugged in needs a replug")
        .arg(QFileInfo(rules.first().path).fileName());
}

QString driverFix(const doctor::Binding& binding)
{
    if (binding.driver == QLatin1String("usbfs"))
        return QStringLiteral(
            "a program holds the interface open (another korux or the imaging application): "
            "close it");
    return QStringLiteral("echo -n %1 | sudo tee /sys/bus/usb/drivers/%2/unbind, and find what made %2 claim "
                          "%3:%4 (a new_id written to it, a modprobe option)")
        .arg(binding.interface, binding.driver, QLatin1String(doctor::kSensorVendorId),
            QLatin1String(doctor::kSensorProductId));
}

// The udev rule's lines. Missing, it is a fix to make unless nothing needs it
// (the virtual bridge and no sensor on the bus).
void reportRules(
    Console& console, const QVector<doctor::RuleFile>& rules, const doctor::Roots& roots, bool needed)
{
    const QString ids = QStringLiteral("%1:%2").arg(doctor::kSensorVendorId, doctor::kSensorProductId);
    if (rules.isEmpty()) {
        say(console, needed ? Mark::Fix : Mark::Note, QStringLiteral("udev rule"),
            QStringLiteral("no rule for %1 in %2").arg(ids, roots.rules.join(QStringLiteral(", "))),
            installRuleFix());
        return;
    }
    for (const doctor::RuleFile& rule : rules) {
        const QString name = QFileInfo(rule.path).fileName();
        if (rule.uaccess && doctor::uaccessTooLate(name))
            say(console, Mark::Fix, QStringLiteral("udev rule"),
                QStringLiteral("%1 is read after 73-seat-late.rules, so its uaccess tag gives the logged-in "
                               "user nothing")
                    .arg(rule.path),
                QStringLiteral("rename it to %1 (a number below 73)").arg(doctor::kRuleFileName));
        else
            say(console, Mark::Ok, QStringLiteral("udev rule"), rule.path);
    }
}

// One device's lines; true when nothing stands in the way of opening it.
bool reportDevice(Console& console, const doctor::UsbDevice& device, const doctor::Credentials& who,
    const QVector<doctor::RuleFile>& rules)
{
    const QString label = deviceLabel(device);
    bool usable = true;
    const doctor::NodeAccess node = doctor::checkNode(device.node, who);
    if (!node.exists) {
        usable = false;
        say(console, Mark::Fix, label, QStringLiteral("its device node %1 does not exist").arg(device.node),
            QStringLiteral(
                "replug the sensor (udev makes the node); in a container, pass /dev/bus/usb through"));
    } else if (!node.readWrite) {
        usable = false;
        say(console, Mark::Fix, label,
            QStringLiteral("%1 is not readable and writable for %2 (%3)")
                .arg(device.node, whoText(who), node.description),
            accessFix(rules));
    } else {
        say(console, Mark::Ok, label,
            QStringLiteral("%1 readable and writable for %2 (%3)")
                .arg(device.node, whoText(who), node.description));
    }
    if (device.bindings.isEmpty()) {
        say(console, Mark::Ok, label, QStringLiteral("no kernel driver bound to its interfaces"));
        return usable;
    }
    for (const doctor::Binding& binding : device.bindings)
        say(console, Mark::Fix, label,
            QStringLiteral("interface %1 is bound to the kernel driver %2")
                .arg(binding.interface, binding.driver),
            driverFix(binding));
    return false;
}

// Sends standard output to /dev/null while it lives: the enumeration's own
// log is korux list's business, doctor shows it with -v only.
class QuietStandardOutput {
public:
    explicit QuietStandardOutput(bool quiet)
    {
        if (!quiet)
            return;
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null < 0)
            return;
        saved_ = dup(STDOUT_FILENO);
        if (saved_ >= 0)
            dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStandardOutput()
    {
        if (saved_ < 0)
            return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStandardOutput(const QuietStandardOutput&) = delete;
    QuietStandardOutput& operator=(const QuietStandardOutput&) = delete;

private:
    int saved_ = -1;
};

// Inside a script korux has loaded the bridge already: the library that
// answers is the one that holds the bridge's functions.
bool findLoadedBridge(BridgeInfo* info)
{
    void* symbol = dlsym(RTLD_DEFAULT, "FT_CreateDeviceInfoList");
    Dl_info where {};
    if (!symbol || dladdr(symbol, &where) == 0 || !where.dli_fname)
        return false;
    info->file = QString::fromLocal8Bit(where.dli_fname);
    info->virtualBridge = dlsym(RTLD_DEFAULT, "vbridge_load_scenario") != nullptr;
    return true;
}

// Loads the plug-in on the loaded bridge and lets it enumerate, as a host
// does at start (in a script: the script's family); the number of units
// found, or -1 when the plug-in could not be loaded or initialised.
int enumerate(Session& session)
{
    if (session.host) {
        QuietStandardOutput quiet(!session.options.verbose);
        if (ensureFamily(session) != kExitOk)
            return -1;
        return session.host->family()->hardwareUnitVector().size();
    }
    const QString pluginPath = session.options.plugin.isEmpty()
        ? pluginFileFrom(QCoreApplication::applicationDirPath())
        : session.options.plugin;
    PluginHost host(session.console, session.options.verbose, session.transcript);
    if (host.load(pluginPath) != kExitOk)
        return -1;
    Session inner { session.options, session.console, &host, session.transcript, QString(), false, 0, 0, QString(), QString() };
    QuietStandardOutput quiet(!session.options.verbose);
    if (ensureFamily(inner) != kExitOk)
        return -1;
    return host.family()->hardwareUnitVector().size();
}

} // namespace

int runDoctor(Session& session, const CommandLine& line)
{
    Console& console = session.console;
    doctor::Roots roots = doctor::rootsFromEnvironment();
    if (line.has(QStringLiteral("--sysfs-root")))
        roots.sysfs = line.value(QStringLiteral("--sysfs-root"));
    if (line.has(QStringLiteral("--dev-root")))
        roots.dev = line.value(QStringLiteral("--dev-root"));
    if (line.has(QStringLiteral("--rules-dirs")))
        roots.rules = line.value(QStringLiteral("--rules-dirs")).split(QLatin1Char(':'), Qt::SkipEmptyParts);

    // On its own, doctor checks what a machine with sensors needs: the
    // vendor's library unless a bridge is named (--bridge virtual checks the
    // virtual machine, and says it is one).
    Options options = session.options;
    if (options.bridge == QLatin1String("auto"))
        options.bridge = QStringLiteral("vendor");
    BridgeInfo bridge;
    const int bridgeResult = session.host
        ? (findLoadedBridge(&bridge) ? kExitOk : kExitNoBridge)
        : loadBridge(options, QCoreApplication::applicationDirPath(), console, &bridge);
    if (bridgeResult == kExitUsage)
        return bridgeResult; // a scenario the virtual bridge refused: the command line is wrong
    const bool bridgeLoaded = bridgeResult == kExitOk;

    bool busVisible = false;
    const QVector<doctor::UsbDevice> devices = doctor::findSensorDevices(roots, &busVisible);
    const QVector<doctor::RuleFile> rules = doctor::findRules(roots);
    const doctor::Credentials who = doctor::currentCredentials();
    const bool onVirtual = bridgeLoaded && bridge.virtualBridge;
    const QString ids = QStringLiteral("%1:%2").arg(doctor::kSensorVendorId, doctor::kSensorProductId);

    if (bridgeLoaded)
        say(console, Mark::Ok, QStringLiteral("bridge library"),
            QStringLiteral("%1 (%2)").arg(bridge.file, onVirtual ? "the virtual bridge" : "vendor"));
    else
        say(console, Mark::Fix, QStringLiteral("bridge library"),
            QStringLiteral("none loaded (--bridge %1)").arg(options.bridge), bridgeFix(options));

    reportRules(console, rules, roots, !devices.isEmpty() || !onVirtual);

    const QString usbCheck = QStringLiteral("USB devices %1").arg(ids);
    if (!busVisible) {
        say(console, onVirtual ? Mark::Note : Mark::Fix, usbCheck,
            QStringLiteral("%1/bus/usb/devices does not exist: no USB bus is visible here").arg(roots.sysfs),
            onVirtual ? QString()
                      : QStringLiteral("run korux doctor on the machine the sensor is plugged into"));
    } else if (devices.isEmpty()) {
        if (onVirtual)
            say(console, Mark::Note, usbCheck,
                QStringLiteral(
                    "none; the virtual bridge's sensors are not USB devices, its enumeration below "
                    "is what counts"));
        else
            say(console, Mark::Fix, usbCheck, QStringLiteral("none"),
                QStringLiteral("plug the sensor in (lsusb lists it as %1)").arg(ids));
    } else {
        QStringList names;
        for (const doctor::UsbDevice& device : devices)
            names << device.name;
        say(console, Mark::Ok, usbCheck,
            QStringLiteral("%1 (%2)").arg(devices.size()).arg(names.join(QStringLiteral(", "))));
        if (onVirtual)
            say(console, Mark::Note, usbCheck,
                QStringLiteral("the virtual bridge is loaded and does not drive them; korux --bridge vendor "
                               "doctor checks them with the vendor's library"));
    }
    int usableDevices = 0;
    for (const doctor::UsbDevice& device : devices)
        usableDevices += reportDevice(console, device, who, rules) ? 1 : 0;

    int sensors = 0;
    if (!bridgeLoaded) {
        say(console, Mark::Fix, QStringLiteral("sensors"),
            QStringLiteral("not enumerated: no bridge library"), bridgeFix(options));
    } else {
        sensors = enumerate(session);
        if (sensors < 0) {
            sensors = 0;
            say(console, Mark::Fix, QStringLiteral("sensors"),
                QStringLiteral("not enumerated: the plug-in could not be loaded or initialised"),
                QStringLiteral("build the project, or give the plug-in with --plugin"));
        } else if (sensors > 0) {
            say(console, Mark::Ok, QStringLiteral("sensors"),
                QStringLiteral("the plug-in's enumeration finds %1").arg(sensors));
        } else if (usableDevices > 0) {
            say(console, Mark::Fix, QStringLiteral("sensors"),
                QStringLiteral("the plug-in's enumeration finds none, though a USB device is usable"),
                QStringLiteral("korux -v doctor shows the enumeration's log"));
        } else {
            say(console, Mark::Fix, QStringLiteral("sensors"),
                QStringLiteral("the plug-in's enumeration finds none"),
                devices.isEmpty() ? QStringLiteral("plug the sensor in")
                                  : QStringLiteral("mend what the lines above say"));
        }
    }

    if (sensors > 0 && (devices.isEmpty() || usableDevices > 0))
        return conclude(console,
            onVirtual ? QStringLiteral("korux doctor: a sensor is usable on the virtual bridge; no real "
                                       "sensor was checked (korux doctor without --bridge checks for one)")
                      : QStringLiteral("korux doctor: a sensor is usable"),
            kExitOk);
    if (devices.isEmpty())
        return conclude(console, QStringLiteral("korux doctor: no sensor is present"), kExitNoSensor);
    return conclude(console,
        QStringLiteral("korux doctor: a sensor is present but not usable; mend what the FIX lines say"),
        kExitFailure);
}

} // namespace korux

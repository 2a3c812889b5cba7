#include "tools/BridgeLoader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <dlfcn.h>
#include <link.h>

#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/Folders.h"
#include "tools/InstallLayout.h"
#include "tools/Interrupt.h"
#include "tools/Record.h"

namespace korux {

namespace {

constexpr char kBridgeName[] = "libft4222.so";
constexpr char kScenarioEntry[] = "vbridge_load_scenario";
constexpr unsigned long kErrorSize = 2048;

using LoadScenario = int (*)(const char* path, char* error, unsigned long errorSize);

QString lastDlError()
{
    const char* text = dlerror();
    return text ? QString::fromLocal8Bit(text) : QStringLiteral("unknown error");
}

QString loadedFile(void* handle, const QString& fallback)
{
    link_map* map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name && *map->l_name)
        return QString::fromLocal8Bit(map->l_name);
    return fallback;
}

constexpr char kVendorBridgeAdvice[]
    = R"(  To drive real sensors, install FTDI's LibFT4222 for Linux: put libft4222.so into the
  system library path (for example /usr/local/lib), run ldconfig, and install the
  sensors' udev rule (60-korux.rules) so that their USB devices can be opened without
  root; korux --bridge vendor doctor then says what is still missing.
  To run without hardware, use the virtual bridge: korux --bridge virtual ...)";

void explainMissingVendorBridge(Console& console, const QString& reason)
{
    console.error(QStringLiteral("korux: no FT4222 bridge library is installed on this machine"));
    console.error(QStringLiteral("  (loading \"%1\" through the system library path failed: %2)")
                      .arg(kBridgeName, reason));
    console.error(QString::fromLatin1(kVendorBridgeAdvice));
}

} // namespace

QString defaultMachineScenario(QString* error)
{
    const QString directory = stateDirectory();
    if (!QDir().mkpath(directory)) {
        *error = QStringLiteral("cannot create %1").arg(directory);
        return QString();
    }
    // The machine a host meets without a scenario, at its timing, with the
    // flash image beside this file. Its operator fires the generator two
    // seconds after the sensor is armed (half a second on the instant
    // machine): a stop given at once reaches the sensor well before the
    // beam, as the sensor ignores an arm frame while it reads an image out.
    const bool instant = qEnvironmentVariable("KORUX_TIMING") == QLatin1String("instant");
    const QByteArray text
        = QByteArrayLiteral("{\n  \"comment\": \"korux's default virtual machine; its flash, "
                            "counter included, is kept in default-flash.bin\",\n  \"timing\": \"")
        + (instant ? "instant" : "realistic")
        + QByteArrayLiteral("\",\n  \"sensors\": [ { \"flash\": { \"image\": \"default-flash.bin\" },\n"
                            "      \"exposure\": { \"delayMs\": ")
        + (instant ? "500" : "2000") + QByteArrayLiteral(" } } ]\n}\n");
    const QString path = directory + QStringLiteral("/default-machine.json");
    QFile current(path);
    if (current.open(QIODevice::ReadOnly) && current.readAll() == text)
        return path;
    if (!writeFileAtomically(path, text, AtomicFile::Existing::Replace, error))
        return QString();
    return path;
}

QString chosenBridge(const Options& options, Console& console, void** vendorHandle)
{
    if (options.bridge != QLatin1String("auto"))
        return options.bridge;
    const int flags = RTLD_NOW | RTLD_GLOBAL;
    const bool scenarioNamed
        = !options.scenario.isEmpty() || !qEnvironmentVariable("KORUX_SCENARIO").isEmpty();
    // The vendor's library when one is installed: a machine with one is
    // a machine for sensors. A scenario asks for the virtual bridge.
    void* vendor = scenarioNamed ? nullptr : dlopen(kBridgeName, flags);
    if (vendor && dlsym(vendor, kScenarioEntry)) {
        // The system path leads to a virtual bridge: it is one all the same.
        dlclose(vendor);
        vendor = nullptr;
    }
    if (vendor) {
        const QString file = loadedFile(vendor, QString::fromLatin1(kBridgeName));
        if (vendorHandle)
            *vendorHandle = vendor;
        else
            dlclose(vendor);
        if (!options.quiet)
            console.error(QStringLiteral("korux: using the vendor's bridge library %1 (--bridge virtual "
                                         "for the virtual bridge)")
                              .arg(file));
        return QStringLiteral("vendor");
    }
    if (!options.quiet && !scenarioNamed)
        console.error(QStringLiteral("korux: no vendor bridge library is installed; using the virtual "
                                     "bridge (--bridge virtual or vendor chooses)"));
    return QStringLiteral("virtual");
}

int loadBridge(const Options& options, const QString& executableDirectory, Console& console, BridgeInfo* info)
{
    const int flags = RTLD_NOW | RTLD_GLOBAL;
    QString requested;
    // A trace that cannot be written is a usage error, told before the
    // bridge is chosen or loaded.
    if (!options.record.isEmpty()) {
        const int target = checkRecordTarget(options, console);
        if (target != kExitOk)
            return target;
    }
    // With --record the recording bridge loads the vendor's library again,
    // behind itself.
    void* vendor = nullptr;
    const QString bridge = chosenBridge(options, console, options.record.isEmpty() ? &vendor : nullptr);
    if (vendor) {
        info->handle = vendor;
        info->file = loadedFile(vendor, QString::fromLatin1(kBridgeName));
    }
    if (!options.record.isEmpty()) {
        const int recording = loadRecordingBridge(options, bridge, executableDirectory, console, info);
        if (recording != kExitOk)
            return recording;
    } else if (info->handle) {
        // Loaded above.
    } else if (bridge == QLatin1String("virtual")) {
        requested = virtualBridgeFileFrom(executableDirectory);
        info->handle = dlopen(QFile::encodeName(requested).constData(), flags);
        if (!info->handle) {
            console.error(
                QStringLiteral("korux: cannot load the virtual bridge %1: %2").arg(requested, lastDlError()));
            console.error(QStringLiteral("  (it is built with the project: cmake --build build)"));
            return kExitNoBridge;
        }
    } else if (bridge == QLatin1String("vendor")) {
        requested = QString::fromLatin1(kBridgeName);
        info->handle = dlopen(kBridgeName, flags);
        if (!info->handle) {
            explainMissingVendorBridge(console, lastDlError());
            return kExitNoBridge;
        }
    } else {
        requested = options.bridge;
        info->handle = dlopen(QFile::encodeName(requested).constData(), flags);
        if (!info->handle) {
            console.error(
                QStringLiteral("korux: cannot load the bridge library %1: %2").arg(requested, lastDlError()));
            return kExitNoBridge;
        }
    }
    if (!info->control) {
        info->control = info->handle;
        if (!requested.isEmpty())
            info->file = loadedFile(info->handle, requested);
    }

    // Only the virtual bridge has a control entry; its presence is what
    // tells the two apart, whichever way the library was chosen.
    auto loadScenario = reinterpret_cast<LoadScenario>(dlsym(info->control, kScenarioEntry));
    info->virtualBridge = loadScenario != nullptr;
    info->flashImageFailure = reinterpret_cast<int (*)(char*, unsigned long)>(
        dlsym(info->control, "vbridge_flash_image_failure"));
    // korux tells a replay's divergence itself, as one line at the end.
    info->replayDivergence
        = reinterpret_cast<int (*)(char*, unsigned long)>(dlsym(info->control, "vbridge_replay_divergence"));
    if (auto quiet = reinterpret_cast<void (*)(int)>(dlsym(info->control, "vbridge_replay_report_on_stderr")))
        quiet(0);
    // A first Ctrl-C ends the virtual bridge's wait for a flash image that
    // another process holds.
    if (auto interruptWait = reinterpret_cast<void (*)()>(dlsym(info->control, "vbridge_interrupt_wait")))
        setStopHook(interruptWait);
    QString scenario = options.scenario;
    if (scenario.isEmpty() && info->virtualBridge) {
        // KORUX_SCENARIO names the machine as --scenario does, with the
        // same errors; without either, the default machine, whose flash
        // lives on in the user's state directory as a sensor's does.
        scenario = qEnvironmentVariable("KORUX_SCENARIO");
        if (scenario.isEmpty()) {
            QString error;
            scenario = defaultMachineScenario(&error);
            if (scenario.isEmpty()) {
                console.error(QStringLiteral("korux: the default virtual machine: %1").arg(error));
                return kExitFailure;
            }
        }
    }
    if (scenario.isEmpty())
        return kExitOk;
    // The flash images' folder: what killed runs left there goes now.
    removeAbandonedTemporaries(QFileInfo(scenario).absolutePath());
    if (!loadScenario) {
        console.error(QStringLiteral("korux: --scenario needs the virtual bridge; %1 cannot load scenarios")
                          .arg(info->file));
        return kExitUsage;
    }
    char error[kErrorSize] = {};
    if (loadScenario(QFile::encodeName(scenario).constData(), error, kErrorSize) != 0) {
        if (stopRequested())
            return kExitFailure; // the caller says "interrupted"
        QString reason = QString::fromLocal8Bit(error);
        if (reason.isEmpty())
            reason = QStringLiteral("refused");
        if (!reason.contains(scenario))
            reason = QStringLiteral("scenario %1: %2").arg(scenario, reason);
        console.error(QStringLiteral("korux: ") + reason);
        return kExitUsage;
    }
    return kExitOk;
}

QString flashImageFailure(const BridgeInfo& bridge)
{
    if (!bridge.flashImageFailure)
        return QString();
    char error[kErrorSize] = {};
    return bridge.flashImageFailure(error, kErrorSize) != 0 ? QString::fromLocal8Bit(error) : QString();
}

} // namespace korux

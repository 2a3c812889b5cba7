// Choosing the FT4222 bridge library before the plug-in is loaded. The
// plug-in names "libft4222.so" as a needed library; loading a library of
// that name first, with global symbols, makes it the one the plug-in gets.
#pragma once

#include <QString>

#include "tools/Console.h"
#include "tools/Options.h"

namespace korux {

struct BridgeInfo {
    void* handle = nullptr;
    QString file; // the file that answered, as the loader resolved it
    bool virtualBridge = false;
    // The virtual bridge's account of a flash image it could not save;
    // null for the vendor's library.
    int (*flashImageFailure)(char* error, unsigned long errorSize) = nullptr;
    // The library whose own entries (vbridge_...) korux uses: the one
    // loaded, or the one behind the recording bridge.
    void* control = nullptr;
    // The virtual bridge's account of a replay that left its recording.
    int (*replayDivergence)(char* error, unsigned long errorSize) = nullptr;
    // With --record: ends the trace (tools/Record.h).
    int (*finishRecording)(char* error, unsigned long errorSize, unsigned long long* calls) = nullptr;
    QString recordFile;
};

// Why the virtual bridge's flash image is behind the sensor's flash (a save
// failed: a full disk, a folder that cannot be written); empty when it is not,
// or for the vendor's library.
QString flashImageFailure(const BridgeInfo& bridge);

// The scenario of the default virtual machine, written into the user's state
// directory (default-machine.json, its flash image default-flash.bin beside
// it); empty with the reason in error when it cannot be.
QString defaultMachineScenario(QString* error);

// The bridge the options ask for; --bridge auto becomes "vendor" when the
// vendor's library is installed (and no scenario is named), else "virtual",
// said in one line on the console unless quiet or a scenario is named. The
// vendor's library chosen is handed over open in vendorHandle, or closed
// when that is null.
QString chosenBridge(const Options& options, Console& console, void** vendorHandle = nullptr);

// Loads the bridge the options name and, with --scenario, hands the scenario
// to the virtual bridge. Returns kExitOk or the exit status to stop with,
// having said why on the console.
int loadBridge(
    const Options& options, const QString& executableDirectory, Console& console, BridgeInfo* info);

} // namespace korux

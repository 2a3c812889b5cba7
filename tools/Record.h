// korux --record: the recording bridge (lib/record/libft4222.so) put in front
// of whichever bridge korux would load, and the trace put in place at the end.
#pragma once

#include <QString>

#include "tools/BridgeLoader.h"
#include "tools/Console.h"
#include "tools/Options.h"

namespace korux {

// The file the dynamic loader would take for a library name, found as it
// searches (LD_LIBRARY_PATH, the ldconfig cache, the system directories)
// without loading it; files in skipDirectory are passed over. Empty when
// there is none.
QString findSystemLibrary(const QString& name, const QString& skipDirectory = QString());

QString recordingBridgeFileFrom(const QString& executableDirectory);

// Whether the trace of --record can be written where it is named: kExitOk,
// or kExitUsage having said why.
int checkRecordTarget(const Options& options, Console& console);

// Loads the recording bridge with bridge (virtual, vendor, a name or a path)
// behind it. Returns kExitOk or the exit status to stop with, having said
// why.
int loadRecordingBridge(const Options& options, const QString& bridge, const QString& executableDirectory,
    Console& console, BridgeInfo* info);

// At the end of a command: a replay that left its recording is one line and
// a failure; a recording is put in place (a write error is a failure).
// Returns the command's result, or the failure that replaces it. Quiet: the
// trace's name is not told.
int finishBridge(const BridgeInfo& bridge, Console& console, bool quiet, int result);

} // namespace korux

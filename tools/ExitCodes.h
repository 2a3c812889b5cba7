// korux's exit statuses; scripts and tests rely on them.
#pragma once

namespace korux {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1; // the command failed (statusError, plug-in not loadable, ...)
constexpr int kExitUsage = 2; // bad command line, or a scenario the virtual bridge refused
constexpr int kExitNoSensor = 3; // the enumeration found no sensor
constexpr int kExitNoBridge = 4; // no bridge library could be loaded

} // namespace korux

// korux's exit statuses; scripts and tests rely on them.
#pragma once

namespace korux {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1; // the command failed (statusError, a failure logged, plug-in not loadable, ...)
constexpr int kExitUsage = 2; // bad command line, script, or a scenario the virtual bridge refused
constexpr int kExitNoSensor = 3; // no sensor found, or no unit with the serial asked for
constexpr int kExitNoBridge = 4; // no bridge library could be loaded
constexpr int kExitRejected = 5; // the family refused the command in its status
constexpr int kExitTimeout = 6; // the sensor did not get where it should in time

} // namespace korux

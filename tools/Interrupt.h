// Ctrl-C, kill and a closed output pipe. korux never dies in the middle of a
// file: the first SIGINT or SIGTERM only asks it to stop, and the command in
// progress winds down the way it would on a failure (an armed family is
// stopped, files being written are finished or removed). A second one ends
// korux at once, after removing the temporary files it was writing.
#pragma once

namespace korux {

// SIGINT and SIGTERM ask for a stop; SIGPIPE is ignored, so that a closed
// pipe is a write error (EPIPE) rather than a sudden death.
void installSignalHandlers();

// The signal that asked korux to stop, 0 while none did.
int stopSignal();
inline bool stopRequested()
{
    return stopSignal() != 0;
}
void requestStop(int signal);
// Time since the stop was asked for, 0 while none was.
long long millisecondsSinceStopRequest();
// For korux shell, which goes on after a Ctrl-C.
void clearStopRequest();

// Called from the handler on the first signal, to end a wait that korux
// itself cannot end (the virtual bridge waiting for a held flash image). It
// must be async-signal-safe.
void setStopHook(void (*hook)());

// Exit status for a stop by signal: 128 + its number (130, 143, 141).
int stopExitStatus(int signal);

// Files being written under a temporary name, removed by the second signal.
// Returns a slot for unregisterTemporary, -1 when the table is full (the file
// is then merely left behind by such an exit).
int registerTemporary(const char* path);
void unregisterTemporary(int slot);

} // namespace korux

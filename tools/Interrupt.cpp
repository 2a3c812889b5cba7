#include "tools/Interrupt.h"

#include <csignal>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace korux {

namespace {

constexpr int kTemporarySlots = 32;
constexpr int kPathLength = 4096;

volatile sig_atomic_t stopSignal_ = 0;
void (*volatile stopHook_)() = nullptr;
// When the stop was asked for (clock_gettime is async-signal-safe).
timespec stopTime_ = {};

// Written only outside the handler, with used set last on registration and
// first on removal, so the handler never sees a half-written path.
struct TemporarySlot {
    volatile sig_atomic_t used = 0;
    char path[kPathLength] = {};
};
TemporarySlot temporaries[kTemporarySlots];

void onSignal(int signal)
{
    if (stopSignal_ == 0) {
        clock_gettime(CLOCK_MONOTONIC, &stopTime_);
        stopSignal_ = signal;
        if (void (*hook)() = stopHook_)
            hook();
        return;
    }
    // Asked twice: leave now, taking only the temporary files along.
    for (TemporarySlot& slot : temporaries)
        if (slot.used)
            unlink(slot.path);
    static const char message[] = "korux: interrupted\n";
    ssize_t ignored = write(STDERR_FILENO, message, sizeof message - 1);
    (void)ignored;
    _exit(128 + signal);
}

} // namespace

void installSignalHandlers()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a blocking wait returns, and the loop around it looks.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int stopSignal()
{
    return stopSignal_;
}

void requestStop(int signal)
{
    if (stopSignal_ == 0) {
        clock_gettime(CLOCK_MONOTONIC, &stopTime_);
        stopSignal_ = signal;
    }
}

long long millisecondsSinceStopRequest()
{
    if (stopSignal_ == 0)
        return 0;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - stopTime_.tv_sec) * 1000LL + (now.tv_nsec - stopTime_.tv_nsec) / 1000000;
}

void clearStopRequest()
{
    stopSignal_ = 0;
}

void setStopHook(void (*hook)())
{
    stopHook_ = hook;
}

int stopExitStatus(int signal)
{
    return 128 + signal;
}

int registerTemporary(const char* path)
{
    if (std::strlen(path) >= static_cast<size_t>(kPathLength))
        return -1;
    for (int i = 0; i < kTemporarySlots; ++i) {
        TemporarySlot& slot = temporaries[i];
        if (slot.used)
            continue;
        std::strcpy(slot.path, path);
        slot.used = 1;
        return i;
    }
    return -1;
}

void unregisterTemporary(int slot)
{
    if (slot >= 0 && slot < kTemporarySlots)
        temporaries[slot].used = 0;
}

} // namespace korux

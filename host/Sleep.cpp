// The framework's sleeps. A plain nanosleep oversleeps by the scheduler's
// wake-up latency (tens of microseconds), too coarse for the gaps between SPI
// transfers; so the bulk of a wait is slept and the last stretch is spun
// against a cycle counter calibrated in cycles per 100 us.
#include "VeltraXRayHardware.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define VELTRA_HAVE_TSC 1
#endif

namespace {

using Clock = std::chrono::steady_clock;

// Left to spin after the coarse sleep: covers the wake-up latency, which on
// a loaded or virtual machine reaches a few hundred microseconds even with
// the timer slack at its minimum.
constexpr long long kSpinMarginNs = 250'000;
// Long enough to make the clock reads' own cost negligible, short enough
// that the first fine sleep of a process is not noticeably delayed.
constexpr long long kCalibrationSpanNs = 1'500'000;

std::atomic<quint64> cyclesPerHundredUs { 0 };
std::atomic<double> timeScale { 1.0 };
// Set and called on the thread that sleeps; tests only.
SleepObserver sleepObserver = nullptr;
void* sleepObserverContext = nullptr;

void observe(unsigned long long us)
{
    if (sleepObserver)
        sleepObserver(us, sleepObserverContext);
}

quint64 cycles()
{
#if defined(VELTRA_HAVE_TSC)
    return __rdtsc();
#else
    return static_cast<quint64>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count());
#endif
}

long long nanosecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

// The counter reads bracket the clock reads: a preemption inside the window
// can only add cycles, so the rate errs on the high side and fine sleeps on
// the long side, never short.
quint64 calibrate()
{
    const quint64 startCycles = cycles();
    const auto start = Clock::now();
    long long elapsed = 0;
    while ((elapsed = nanosecondsSince(start)) < kCalibrationSpanNs) { }
    const quint64 spent = cycles() - startCycles;
    const quint64 perHundred = spent * 100'000 / static_cast<quint64>(elapsed);
    return perHundred ? perHundred : 1;
}

quint64 counterRate()
{
    quint64 rate = cyclesPerHundredUs.load(std::memory_order_acquire);
    if (rate == 0) {
        // Two threads calibrating at once both store a valid rate.
        rate = calibrate();
        cyclesPerHundredUs.store(rate, std::memory_order_release);
    }
    return rate;
}

// Linux lets a sleeping thread wake up to 50 us late by default, to batch
// timer interrupts; the fine sleeps ask for the least slack, once a thread.
void tightenTimerSlack()
{
#if defined(__linux__)
    thread_local bool done = false;
    if (!done) {
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        done = true;
    }
#endif
}

// nanosleep for the given span, resumed after a signal interrupts it.
void coarseSleep(long long nanoseconds)
{
    timespec request;
    request.tv_sec = static_cast<time_t>(nanoseconds / 1'000'000'000);
    request.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
    timespec remaining;
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR)
        request = remaining;
}

void sleepMicroseconds(double us)
{
    if (!(us > 0))
        return;
    const quint64 rate = counterRate();
    const quint64 target = cycles() + static_cast<quint64>(us * static_cast<double>(rate) / 100.0);
    const long long total = static_cast<long long>(us * 1000.0);
    if (total > kSpinMarginNs) {
        tightenTimerSlack();
        coarseSleep(total - kSpinMarginNs);
    }
    while (cycles() < target) { }
}

double scaled(double us)
{
    return us * timeScale.load(std::memory_order_relaxed);
}

} // namespace

void Sleep_ms(unsigned long ms)
{
    observe(static_cast<unsigned long long>(ms) * 1000u);
    sleepMicroseconds(scaled(static_cast<double>(ms) * 1000.0));
}

void Sleep_us(unsigned long us)
{
    observe(us);
    sleepMicroseconds(scaled(static_cast<double>(us)));
}

quint64 resetSleepCounter(bool reset)
{
    if (reset)
        cyclesPerHundredUs.store(calibrate(), std::memory_order_release);
    return counterRate();
}

void setSleepTimeScale(double scale)
{
    timeScale.store(scale > 0 ? scale : 0.0, std::memory_order_relaxed);
}

double sleepTimeScale()
{
    return timeScale.load(std::memory_order_relaxed);
}

void setSleepObserver(SleepObserver observer, void* context)
{
    sleepObserver = observer;
    sleepObserverContext = context;
}

#include "timing.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace tql {
namespace {

void RealSleep(double seconds) {
    if (!(seconds > 0.0)) return;
    timespec req;
    req.tv_sec = static_cast<time_t>(seconds);
    req.tv_nsec = static_cast<long>((seconds - static_cast<double>(req.tv_sec)) * 1e9);
    timespec rem;
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

double RealClock() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::atomic<SleepFunction> sleep_fn{&RealSleep};
std::atomic<ClockFunction> clock_fn{&RealClock};

}  // namespace

void SetSleepFunction(SleepFunction fn) { sleep_fn.store(fn ? fn : &RealSleep); }
void SetClockFunction(ClockFunction fn) { clock_fn.store(fn ? fn : &RealClock); }

void SleepSeconds(double seconds) { sleep_fn.load()(seconds); }
void SleepMilliseconds(double ms) { SleepSeconds(ms * 1e-3); }
double NowSeconds() { return clock_fn.load()(); }

}  // namespace tql

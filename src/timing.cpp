#include "timing.h"

#include <dlfcn.h>

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

bool UseBusClockIfVirtual() {
    using Query = int (*)();
    auto virtual_clock = reinterpret_cast<Query>(dlsym(RTLD_DEFAULT, "tql_sim_virtual_clock"));
    if (virtual_clock == nullptr || virtual_clock() == 0) return false;
    auto sleep = reinterpret_cast<SleepFunction>(dlsym(RTLD_DEFAULT, "tql_sim_sleep"));
    auto clock = reinterpret_cast<ClockFunction>(dlsym(RTLD_DEFAULT, "tql_sim_now"));
    if (sleep == nullptr || clock == nullptr) return false;
    SetSleepFunction(sleep);
    SetClockFunction(clock);
    return true;
}

void SleepSeconds(double seconds) { sleep_fn.load()(seconds); }
void SleepMilliseconds(double ms) { SleepSeconds(ms * 1e-3); }
double NowSeconds() { return clock_fn.load()(); }

}  // namespace tql

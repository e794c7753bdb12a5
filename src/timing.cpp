#include "timing.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

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
std::atomic<long> overrun_count{0};
thread_local bool preflight = false;

// Absolute monotonic sleep, for the default seam.
void RealSleepUntil(double deadline) {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(deadline);
    ts.tv_nsec = static_cast<long>((deadline - static_cast<double>(ts.tv_sec)) * 1e9);
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

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

void SleepUntilSeconds(double deadline) {
    if (!std::isfinite(deadline)) return;
    if (sleep_fn.load() == &RealSleep && clock_fn.load() == &RealClock) {
        RealSleepUntil(deadline);
        return;
    }
    const double delay = deadline - NowSeconds();
    if (delay > 0.0) SleepSeconds(delay);
}

PeriodicTimer::PeriodicTimer(double period_seconds) : period_(period_seconds) { Restart(); }

void PeriodicTimer::Restart() {
    start_ = NowSeconds();
    k_ = 0;
}

void PeriodicTimer::Wait() {
    if (preflight || !(period_ > 0.0) || !std::isfinite(period_)) return;
    ++k_;
    const double deadline = start_ + static_cast<double>(k_) * period_;
    const double now = NowSeconds();
    if (now - deadline > period_) {
        // More than a period late: start a new schedule from now.
        ++overruns_;
        overrun_count.fetch_add(1);
        start_ = now;
        k_ = 0;
        return;
    }
    SleepUntilSeconds(deadline);
}

long OverrunCount() { return overrun_count.load(); }

PreflightScope::PreflightScope() : outer_(preflight) { preflight = true; }
PreflightScope::~PreflightScope() { preflight = outer_; }
bool InPreflight() { return preflight; }

bool RequestRealTimeIfAsked(int priority) {
    const char* asked = std::getenv("TQL_REALTIME");
    if (asked == nullptr || std::strcmp(asked, "1") != 0) return false;
    bool granted = true;
    sched_param param{};
    param.sched_priority = priority;
    if (sched_setscheduler(0, SCHED_FIFO, &param) != 0) {
        std::cerr << "warning: real-time scheduling refused (" << std::strerror(errno)
                  << "); running with normal priority" << std::endl;
        granted = false;
    }
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        std::cerr << "warning: locking memory refused (" << std::strerror(errno) << "); pages may be swapped"
                  << std::endl;
        granted = false;
    }
    return granted;
}

void SleepSeconds(double seconds) { sleep_fn.load()(seconds); }
void SleepMilliseconds(double ms) { SleepSeconds(ms * 1e-3); }
double NowSeconds() { return clock_fn.load()(); }

}  // namespace tql

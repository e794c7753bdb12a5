// The bus clock, in seconds since the bus was loaded or reset.
//
// Real mode follows the monotonic clock. Virtual mode advances only through
// tql_sim_sleep: every thread keeps its own timeline (its wake = its previous
// wake + the sleep), and the bus clock is the latest wake of any thread, so two
// threads each sleeping one control period per loop advance the bus by one
// period per loop, not two.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <thread>

#include "sim_bus.h"
#include "sim_control.h"

namespace tqlsim {
namespace {

std::atomic<bool> virtual_mode{false};
std::atomic<double> real_origin{0.0};      // monotonic seconds at start
std::atomic<double> virtual_time{0.0};     // bus seconds
std::atomic<unsigned> clock_generation{0};  // bumped by StartClock

// A thread's own virtual timeline; stale when its generation is not current.
struct Timeline {
    unsigned generation = ~0u;
    double last_wake = 0.0;
};
thread_local Timeline timeline;

// A thread that has not slept for a while (it was joining other threads or
// waiting for input) resumes from the bus clock instead of its old timeline,
// or its sleeps would not move the clock until it caught up. The allowance
// scales with the sleep so threads alternating long sleeps keep their own.
constexpr double kResyncLag = 0.1;

double Monotonic() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void RealSleep(double seconds) {
    timespec req;
    req.tv_sec = static_cast<time_t>(seconds);
    req.tv_nsec = static_cast<long>((seconds - static_cast<double>(req.tv_sec)) * 1e9);
    timespec rem;
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

void AdvanceBusTo(double wake) {
    double seen = virtual_time.load();
    while (seen < wake && !virtual_time.compare_exchange_weak(seen, wake)) {
    }
}

void VirtualSleep(double seconds) {
    const unsigned generation = clock_generation.load();
    const double bus = virtual_time.load();
    double start = bus;
    if (timeline.generation == generation) {
        start = timeline.last_wake;
        if (bus - start > std::max(kResyncLag, 4.0 * seconds)) start = bus;
    }
    const double wake = start + seconds;
    timeline.generation = generation;
    timeline.last_wake = wake;
    AdvanceBusTo(wake);
    // Nothing really waits in virtual time; let the other threads run.
    std::this_thread::yield();
}

}  // namespace

void StartClock(bool virtual_clock) {
    virtual_mode.store(virtual_clock);
    real_origin.store(Monotonic());
    virtual_time.store(0.0);
    clock_generation.fetch_add(1);
}

bool ClockIsVirtual() { return virtual_mode.load(); }

double BusNow() {
    if (virtual_mode.load()) return virtual_time.load();
    return Monotonic() - real_origin.load();
}

}  // namespace tqlsim

extern "C" {

int tql_sim_virtual_clock(void) {
    tqlsim::EnsureLoaded();
    return tqlsim::ClockIsVirtual() ? 1 : 0;
}

void tql_sim_sleep(double seconds) {
    tqlsim::EnsureLoaded();
    // Not-a-number, negative and zero sleeps return at once.
    if (!(seconds > 0.0) || !std::isfinite(seconds)) {
        if (tqlsim::ClockIsVirtual()) std::this_thread::yield();
        return;
    }
    if (tqlsim::ClockIsVirtual())
        tqlsim::VirtualSleep(seconds);
    else
        tqlsim::RealSleep(seconds);
}

double tql_sim_now(void) {
    tqlsim::EnsureLoaded();
    return tqlsim::BusNow();
}

}  // extern "C"

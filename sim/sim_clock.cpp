// The bus clock, in seconds since the bus was loaded or reset.
//
// Real mode follows the monotonic clock. Virtual mode advances only through
// tql_sim_sleep, in lockstep: every thread that sleeps keeps its own timeline
// (its wake = its previous wake + the sleep) and a sleeping thread goes on only
// when no other active thread is still behind its wake, so threads that each
// sleep one control period per loop run period by period side by side, as
// they would in real time (a recorder beside a monitoring loop samples every
// period, not as often as the scheduler happens to let it). The bus clock is
// the latest wake.
//
// A thread that does not sleep again within kGraceSeconds of wall time while
// others wait for it (it is joining threads, waiting for input, or finished
// its loop) stops counting until its next sleep, which starts from the bus
// clock: nothing waits for it for ever.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "sim_bus.h"
#include "sim_control.h"

namespace tqlsim {
namespace {

std::atomic<bool> virtual_mode{false};
std::atomic<double> real_origin{0.0};      // monotonic seconds at start
std::atomic<double> virtual_time{0.0};     // bus seconds
std::atomic<unsigned> clock_generation{0};  // bumped by StartClock

constexpr std::chrono::milliseconds kGrace{50};

// A thread's virtual timeline. `time` is where the thread stands: its wake
// while it sleeps, its last wake while it runs.
struct Timeline {
    unsigned generation = ~0u;
    double time = 0.0;
    bool active = false;
    bool sleeping = false;
};

std::mutex timelines_mutex;
std::condition_variable timelines_changed;
std::vector<Timeline*> timelines;  // of the threads alive that ever slept
thread_local Timeline* my_timeline = nullptr;

// Registers the calling thread's timeline for its lifetime.
struct Registration {
    Timeline timeline;
    Registration() {
        std::lock_guard<std::mutex> lock(timelines_mutex);
        timelines.push_back(&timeline);
        my_timeline = &timeline;
    }
    ~Registration() {
        my_timeline = nullptr;
        std::lock_guard<std::mutex> lock(timelines_mutex);
        timelines.erase(std::find(timelines.begin(), timelines.end(), &timeline));
        timelines_changed.notify_all();
    }
};

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

// True when an active thread other than `me` stands before `wake`. With
// `drop_running`, such threads that are not sleeping stop counting.
bool SomeoneBehind(const Timeline* me, double wake, bool drop_running) {
    bool behind = false;
    for (Timeline* t : timelines) {
        if (t == me || !t->active || t->generation != me->generation || t->time >= wake) continue;
        if (drop_running && !t->sleeping)
            t->active = false;
        else
            behind = true;
    }
    return behind;
}

void VirtualSleep(double seconds) {
    thread_local Registration registration;
    Timeline& me = registration.timeline;
    std::unique_lock<std::mutex> lock(timelines_mutex);
    const unsigned generation = clock_generation.load();
    if (me.generation != generation || !me.active) {
        me.generation = generation;
        me.time = virtual_time.load();
        me.active = true;
    }
    const double wake = me.time + seconds;
    me.time = wake;
    me.sleeping = true;
    timelines_changed.notify_all();
    while (SomeoneBehind(&me, wake, false)) {
        if (timelines_changed.wait_for(lock, kGrace) == std::cv_status::timeout && !SomeoneBehind(&me, wake, true))
            break;
    }
    me.sleeping = false;
    AdvanceBusTo(wake);
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

// A thread counting in lockstep is at its own last wake, which may be behind
// the bus clock (the latest wake of all) by part of a period: its periodic
// deadlines are reckoned from there.
double ThreadNow() {
    if (virtual_mode.load() && my_timeline != nullptr) {
        std::lock_guard<std::mutex> lock(timelines_mutex);
        if (my_timeline->active && my_timeline->generation == clock_generation.load()) return my_timeline->time;
    }
    return BusNow();
}

}  // namespace tqlsim

extern "C" {

int tql_sim_virtual_clock(void) {
    tqlsim::EnsureLoaded();
    return tqlsim::ClockIsVirtual() ? 1 : 0;
}

// Both clock functions count as bus calls for the scripted interrupts; a
// sleep also delivers those that fell due while it slept, on waking.
void tql_sim_sleep(double seconds) {
    tqlsim::EnsureLoaded();
    tqlsim::RaiseDueInterrupts();
    // Not-a-number, negative and zero sleeps return at once.
    if (!(seconds > 0.0) || !std::isfinite(seconds)) {
        if (tqlsim::ClockIsVirtual()) std::this_thread::yield();
        return;
    }
    if (tqlsim::ClockIsVirtual())
        tqlsim::VirtualSleep(seconds);
    else
        tqlsim::RealSleep(seconds);
    // A Ctrl-C due while the thread slept has arrived by the time it wakes.
    tqlsim::RaiseDueInterrupts();
}

double tql_sim_now(void) {
    tqlsim::EnsureLoaded();
    tqlsim::RaiseDueInterrupts();
    return tqlsim::ThreadNow();
}

}  // extern "C"

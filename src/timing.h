// The library's one timing seam: every sleep and clock read of libtql.so goes
// through here. By default it sleeps for real and reads the monotonic clock;
// an embedding program may install its own functions (for instance to drive a
// simulated bus on a virtual clock).
#ifndef TQL_TIMING_H
#define TQL_TIMING_H

namespace tql {

// Sleep for a relative duration in seconds.
using SleepFunction = void (*)(double seconds);
// Monotonic time in seconds, arbitrary origin.
using ClockFunction = double (*)();

// nullptr restores the default.
void SetSleepFunction(SleepFunction fn);
void SetClockFunction(ClockFunction fn);

// When the actuator library in use is the simulated bus running on its
// virtual clock, installs the bus's sleep and clock as this seam, so motion
// takes no wall time; with any other actuator library (the maker's) nothing
// changes. The bus's functions are looked up at run time. True when installed.
bool UseBusClockIfVirtual();

void SleepSeconds(double seconds);
// Sleeps until `deadline` on the seam's clock (NowSeconds); returns at once
// when it has passed. With the default sleep and clock the kernel wakes the
// thread at the absolute monotonic time.
void SleepUntilSeconds(double deadline);

// Paces a fixed-period loop on absolute deadlines: the k-th Wait() returns at
// start + k * period (start: construction or Restart), whatever the loop's own
// work took, so periods neither drift nor stretch. A loop found more than one
// period behind its deadline resynchronises (its next deadline is one period
// from then) and counts an overrun. A period that is not a positive number
// makes Wait() return at once.
class PeriodicTimer {
public:
    explicit PeriodicTimer(double period_seconds);
    void Restart();
    void Wait();
    long overruns() const { return overruns_; }

private:
    double period_;
    double start_ = 0.0;
    long k_ = 0;
    long overruns_ = 0;
};
// Overruns of every PeriodicTimer of the process since it started.
long OverrunCount();

// Pre-flight: while a PreflightScope lives on a thread, the motion streams on
// that thread compute and check every set-point without sending it, and their
// periods take no time. Scopes nest.
class PreflightScope {
public:
    PreflightScope();
    ~PreflightScope();
    PreflightScope(const PreflightScope&) = delete;
    PreflightScope& operator=(const PreflightScope&) = delete;

private:
    bool outer_;
};
bool InPreflight();

// Real-time scheduling for the control threads on the board: with
// TQL_REALTIME=1 in the environment, asks for SCHED_FIFO at the given
// priority and locks the process's memory. Prints a warning on standard error
// (and goes on without) when the system refuses. True when both were granted.
bool RequestRealTimeIfAsked(int priority = 80);
void SleepMilliseconds(double ms);
double NowSeconds();

}  // namespace tql

#endif  // TQL_TIMING_H

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

void SleepSeconds(double seconds);
void SleepMilliseconds(double ms);
double NowSeconds();

}  // namespace tql

#endif  // TQL_TIMING_H

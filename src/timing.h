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
void SleepMilliseconds(double ms);
double NowSeconds();

}  // namespace tql

#endif  // TQL_TIMING_H

// Fixed-period pacing on absolute deadlines, on a scripted clock: the loop's
// own work does not stretch its periods, and a loop more than a period late
// starts a new schedule and counts an overrun.
#include <gtest/gtest.h>

#include <vector>

#include "timing.h"

namespace {

double clock_now = 0.0;
std::vector<double> wakes;
void FakeSleep(double seconds) {
    clock_now += seconds;
    wakes.push_back(clock_now);
}
double FakeClock() { return clock_now; }

}  // namespace

TEST(PeriodicTimer, AbsoluteDeadlinesAndResynchronisation) {
    tql::SetSleepFunction(&FakeSleep);
    tql::SetClockFunction(&FakeClock);
    clock_now = 10.0;
    tql::PeriodicTimer timer(0.004);
    // Work of 0, 1, 3.9 ms: every wake is on the 4 ms grid from the start.
    for (double work : {0.0, 0.001, 0.0039}) {
        clock_now += work;
        timer.Wait();
    }
    ASSERT_EQ(wakes.size(), 3u);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(wakes[k], 10.0 + 0.004 * (k + 1), 1e-12);
    // Late by less than a period: no sleep, the schedule is kept.
    clock_now += 0.006;  // now 10.018, deadline 4 is 10.016
    timer.Wait();
    EXPECT_EQ(wakes.size(), 3u);
    timer.Wait();  // deadline 5 = 10.020
    EXPECT_NEAR(wakes.back(), 10.020, 1e-12);
    EXPECT_EQ(timer.overruns(), 0);
    // More than a period late: a new schedule from now, one overrun.
    const long before = tql::OverrunCount();
    clock_now += 0.010;  // now 10.030, deadline 6 is 10.024
    timer.Wait();
    EXPECT_EQ(timer.overruns(), 1);
    EXPECT_EQ(tql::OverrunCount(), before + 1);
    timer.Wait();
    EXPECT_NEAR(wakes.back(), 10.034, 1e-12);
    tql::SetSleepFunction(nullptr);
    tql::SetClockFunction(nullptr);
}

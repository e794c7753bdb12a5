// Jerk-limited speed profile: reference plans of each branch, a seeded random
// sweep with the invariants every motion loop relies on, the phase-boundary
// rules of sampling, synchronisation and termination of the peak search.
#include "speed_profile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>

namespace {

bool IsWholePeriods(double t) {
    const double k = t / PERIOD;
    return std::fabs(k - std::round(k)) < 1e-6;
}

double Speed(SpeedProfile& p, double t) {
    double out[2];
    p.calculate_current_speed(t, out);
    return out[1];
}

double Position(SpeedProfile& p, double t) {
    double out[2];
    p.calculate_current_speed(t, out);
    return out[0];
}

SpeedProfile PlanRounded(double h, double v, double vs, double ve, double a, double d, double j) {
    SpeedProfile p;
    p.set_parameters(h, v, vs, ve, a, d, j);
    p.jerk_limit_profile_rounding();
    return p;
}

// ---------------------------------------------------------------- reference plans

TEST(SpeedProfilePlan, LongMoveHasAllSevenPhases) {
    SpeedProfile p;
    p.set_parameters(100.0, 10.0, 0.0, 0.0, 20.0, 20.0, 100.0);
    p.calculate_jerk_limit_profile_time();
    const double expect[7] = {0.2, 0.3, 0.2, 9.3, 0.2, 0.3, 0.2};
    for (int k = 0; k < 7; ++k) EXPECT_NEAR(p.t_[k], expect[k], 1e-12) << "phase " << k + 1;
    EXPECT_NEAR(p.ta_, 0.7, 1e-12);
    EXPECT_NEAR(p.td_, 0.7, 1e-12);
    EXPECT_NEAR(p.ttotal_, 10.7, 1e-12);
    EXPECT_EQ(p.vmax_, 10.0);

    p.calculate_flow_parameters();
    EXPECT_NEAR(p.phase_end_[2][kPhaseSpeed], 10.0, 1e-12);
    EXPECT_EQ(p.phase_end_[3][kPhaseAcceleration], 0.0);
    EXPECT_NEAR(p.phase_end_[0][kPhaseAcceleration], 20.0, 1e-12);
    EXPECT_NEAR(p.phase_end_[6][kPhasePosition], 100.0, 1e-9);
    EXPECT_NEAR(p.phase_end_[6][kPhaseSpeed], 0.0, 1e-12);
}

TEST(SpeedProfilePlan, MiddleMoveReachesAccelerationButNotSpeed) {
    // Closed form: h = v * (v/a + a/j) for a rest-to-rest move.
    SpeedProfile p;
    p.set_parameters(3.0, 5.0, 0.0, 0.0, 2.0, 2.0, 10.0);
    p.calculate_jerk_limit_profile_time();
    const double v = (-0.4 + std::sqrt(16.0 + 2400.0) / 10.0) / 2.0;
    EXPECT_NEAR(p.vmax_, v, 1e-12);
    EXPECT_NEAR(v * (v / 2.0 + 0.2), 3.0, 1e-9);
    EXPECT_NEAR(p.t_[0], 0.2, 1e-12);
    EXPECT_NEAR(p.t_[1], v / 2.0 - 0.2, 1e-12);
    EXPECT_EQ(p.t_[3], 0.0);
    EXPECT_NEAR(p.t_[5], p.t_[1], 1e-12);
}

TEST(SpeedProfilePlan, ShortMoveIsJerkOnlyWithLoweredPeak) {
    // Neither limit reached: h = 2 m sqrt(m / j), so m = (h^2 j / 4)^(1/3).
    SpeedProfile p;
    p.set_parameters(0.1, 5.0, 0.0, 0.0, 2.0, 2.0, 10.0);
    p.calculate_jerk_limit_profile_time();
    const double m = std::cbrt(0.1 * 0.1 * 10.0 / 4.0);
    EXPECT_NEAR(p.vmax_, m, 1e-9);
    EXPECT_EQ(p.t_[1], 0.0);
    EXPECT_EQ(p.t_[3], 0.0);
    EXPECT_EQ(p.t_[5], 0.0);
    EXPECT_NEAR(p.t_[0], std::sqrt(m / 10.0), 1e-9);
}

TEST(SpeedProfilePlan, ZeroLengthMoveIsAllZero) {
    for (double h : {0.0, 5e-6}) {
        SpeedProfile p;
        p.set_parameters(h, 1.0, 0.3, 0.0, 2.0, 2.0, 10.0);
        p.ttotal_ = 7.0;  // left alone by planning, cleared by rounding
        p.ta_ = 3.0;
        p.calculate_jerk_limit_profile_time();
        for (double t : p.t_) EXPECT_EQ(t, 0.0);
        EXPECT_EQ(p.ttotal_, 7.0);
        EXPECT_EQ(p.ta_, 3.0);
        p.time_rounding();
        EXPECT_EQ(p.ttotal_, 0.0);
        EXPECT_EQ(p.ta_, 0.0);
        EXPECT_EQ(p.td_, 0.0);
        EXPECT_EQ(p.jerk_, 0.0);
        p.calculate_flow_parameters();
        double out[2];
        p.calculate_current_speed(0.0, out);
        EXPECT_EQ(out[0], 0.0);
        EXPECT_EQ(out[1], 0.3);
    }
}

TEST(SpeedProfilePlan, RoundingMakesWholePeriodsAndZeroesTinyPhases) {
    SpeedProfile p;
    p.set_parameters(1.0, 1.0, 0.0, 0.0, 1.0, 1.0, 1.0);
    const double planned[7] = {0.0041, 0.002, 0.0041, 5e-6, 0.0041, 0.002, 0.0041};
    std::copy(planned, planned + 7, p.t_);
    p.time_rounding();
    const double expect[7] = {0.008, 0.004, 0.008, 0.0, 0.008, 0.004, 0.008};
    for (int k = 0; k < 7; ++k) EXPECT_NEAR(p.t_[k], expect[k], 1e-15) << "phase " << k + 1;
    EXPECT_EQ(p.t_[3], 0.0);
    EXPECT_NEAR(p.ttotal_, 0.04, 1e-15);
    EXPECT_NEAR(p.ta_, 0.02, 1e-15);
    EXPECT_DOUBLE_EQ(p.jerk_, recalculate_profile1(1.0, p.t_));
    EXPECT_EQ(p.vmax_, 1.0);
}

TEST(SpeedProfilePlan, RefittedJerkFormula) {
    double t[7] = {1, 1, 1, 1, 1, 1, 1};
    // h / (1 + 1.5 + 1.5) / 2 / 1
    EXPECT_DOUBLE_EQ(recalculate_profile1(8.0, t), 1.0);
    double u[7] = {0.5, 0.0, 0.5, 2.0, 0.5, 0.0, 0.5};
    // peak = 3 / (2 + 0.5 + 0.5) = 1, acceleration = 1 / 0.5 = 2, jerk = 2 / 0.5
    EXPECT_DOUBLE_EQ(recalculate_profile1(3.0, u), 4.0);
}

// ---------------------------------------------------------------- random sweep

struct SweepStats {
    int cruise = 0;
    int acc_limited = 0;
    int jerk_only = 0;
};

// Invariants of one rest-to-rest rounded profile.
void CheckRoundedRestToRest(double h, double v, double a, double j, SweepStats* stats) {
    SCOPED_TRACE("h=" + std::to_string(h) + " v=" + std::to_string(v) + " a=" + std::to_string(a) +
                 " j=" + std::to_string(j));
    SpeedProfile p;
    p.set_parameters(h, v, 0.0, 0.0, a, a, j);
    p.calculate_jerk_limit_profile_time();
    if (p.t_[3] > 0) {
        ++stats->cruise;
    } else if (p.t_[1] > 0) {
        ++stats->acc_limited;
    } else {
        ++stats->jerk_only;
    }
    p.time_rounding();
    p.calculate_flow_parameters();

    for (int k = 0; k < 7; ++k) ASSERT_TRUE(IsWholePeriods(p.t_[k])) << "phase " << k + 1 << " " << p.t_[k];
    ASSERT_TRUE(IsWholePeriods(p.ttotal_));
    EXPECT_NEAR(p.ta_ + p.t_[3] + p.td_, p.ttotal_, 1e-12);
    EXPECT_LE(p.jerk_, j * (1 + 1e-9));

    const double tol = 1e-9 * std::max(1.0, h);
    EXPECT_NEAR(Position(p, p.ttotal_), h, tol);
    EXPECT_NEAR(Speed(p, p.ttotal_), 0.0, 1e-9 * std::max(1.0, v));

    // The motion loop's samples: tick * PERIOD for tick = 1..N.
    const long n = std::lround(p.ttotal_ / PERIOD);
    double last = 0.0;
    for (long tick = 1; tick <= n; ++tick) {
        double out[2];
        p.calculate_current_speed(tick * PERIOD, out);
        ASSERT_GE(out[0], last - tol) << "tick " << tick;
        ASSERT_LE(out[0] - last, v * PERIOD * (1 + 1e-9) + tol) << "tick " << tick;
        ASSERT_LE(out[1], v * (1 + 1e-9)) << "tick " << tick;
        ASSERT_GE(out[1], -1e-9 * v) << "tick " << tick;
        last = out[0];
    }
    EXPECT_NEAR(last, h, tol);

    // Continuity across every phase boundary: the next phase's formula just
    // past the tolerance agrees with the ending phase's state.
    double c = 0.0;
    for (int k = 0; k < 6; ++k) {
        c += p.t_[k];
        const double dt = 2e-5;
        EXPECT_NEAR(Position(p, c + dt), Position(p, c), v * dt * (1 + 1e-9) + tol) << "boundary " << k + 1;
        EXPECT_NEAR(Speed(p, c + dt), Speed(p, c), a * dt * (1 + 1e-9) + 1e-9 * v) << "boundary " << k + 1;
    }
}

TEST(SpeedProfileSweep, RestToRestRoundedProfilesKeepTheirInvariants) {
    std::mt19937 rng(20191202);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    SweepStats stats;
    for (int i = 0; i < 3000; ++i) {
        // Joint-like (rad) or Cartesian-like (mm) limits.
        const bool cartesian = i % 2 == 1;
        const double scale = cartesian ? 100.0 : 1.0;
        const double v = scale * (0.05 + 3.0 * unit(rng));
        const double a = scale * (0.2 + 10.0 * unit(rng));
        const double j = scale * (1.0 + 100.0 * unit(rng));
        // Log-uniform distance from 1e-4 to 1e3 units of scale.
        const double h = scale * std::pow(10.0, -4.0 + 7.0 * unit(rng));
        CheckRoundedRestToRest(h, v, a, j, &stats);
        if (HasFatalFailure()) return;
    }
    // The sweep must exercise every planning branch taken by rest-to-rest moves.
    EXPECT_GT(stats.cruise, 100);
    EXPECT_GT(stats.acc_limited, 100);
    EXPECT_GT(stats.jerk_only, 100);
}

TEST(SpeedProfileSweep, UnequalStartAndEndSpeedsReachTheirEndState) {
    // Unrounded plans (rounding re-fits the jerk for rest-to-rest moves only).
    // Boundary speeds well below the jerk-limited speed change a^2/j and
    // distances long enough to pass above both of them.
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int checked = 0, lowered = 0, vs_below = 0;
    for (int i = 0; i < 20000 && checked < 3000; ++i) {
        const double v = 0.1 + 10.0 * unit(rng);
        const double a = 0.1 + 50.0 * unit(rng);
        const double j = 1.0 + 500.0 * unit(rng);
        const double cap = 0.3 * std::min(v, a * a / j);
        const double vs = cap * unit(rng);
        const double ve = i % 4 == 0 ? vs : cap * unit(rng);
        const double h = 1e-4 + 100.0 * std::pow(unit(rng), 3.0);
        // Distance of a jerk-only rise to a peak just above both speeds.
        const double vm = std::max(vs, ve) * 1.05 + 0.01;
        auto side = [&](double dv) { return dv >= a * a / j ? a / j + dv / a : 2 * std::sqrt(dv / j); };
        if (h < (vm + vs) * side(vm - vs) / 2 + (vm + ve) * side(vm - ve) / 2) continue;
        ++checked;
        SCOPED_TRACE("case " + std::to_string(i));

        SpeedProfile p;
        p.set_parameters(h, v, vs, ve, a, a, j);
        p.jerk_limit_profile();
        if (p.vmax_ < v) ++lowered;
        if (vs < ve) ++vs_below;
        for (double t : p.t_) ASSERT_GE(t, 0.0);
        const double tol = 1e-7 * std::max(1.0, h);
        EXPECT_NEAR(Position(p, p.ttotal_), h, tol);
        EXPECT_NEAR(Speed(p, p.ttotal_), ve, 1e-7 * std::max(1.0, v));
        EXPECT_NEAR(Speed(p, 0.0), vs, 1e-12);
        double last = 0.0;
        for (int k = 1; k <= 400; ++k) {
            const double t = p.ttotal_ * k / 400.0;
            const double pos = Position(p, t);
            ASSERT_GE(pos, last - tol);
            ASSERT_LE(Speed(p, t), v * (1 + 1e-9));
            last = pos;
        }

        // Rounding keeps whole periods whatever the boundary speeds.
        p.time_rounding();
        for (double t : p.t_) ASSERT_TRUE(IsWholePeriods(t));
    }
    EXPECT_GE(checked, 3000);
    EXPECT_GT(lowered, 300);
    EXPECT_GT(vs_below, 300);
}

// ---------------------------------------------------------------- sampling rules

// A profile whose stored states are markers: with jerk 0 the speed sampled in
// phase k >= 2 is the stored speed at the end of phase k-1, in phase 1 vstart_.
SpeedProfile MarkerProfile() {
    SpeedProfile p;
    p.vstart_ = 100.0;
    p.jerk_ = 0.0;
    for (int k = 0; k < 7; ++k) {
        p.t_[k] = 1.0;
        p.phase_end_[k][kPhaseSpeed] = k + 1;  // so phase k+2 reports k+1
        p.phase_end_[k][kPhaseAcceleration] = 0.0;
        p.phase_end_[k][kPhasePosition] = 0.0;
    }
    return p;
}

int PhaseAt(SpeedProfile& p, double t) {
    const double s = Speed(p, t);
    return s == 100.0 ? 1 : static_cast<int>(s) + 1;
}

TEST(SpeedProfileSampling, BoundaryTimesBelongToThePhaseEndingThere) {
    SpeedProfile p = MarkerProfile();  // phase ends at 1, 2, ..., 6, total 7
    EXPECT_EQ(PhaseAt(p, 0.0), 1);
    EXPECT_EQ(PhaseAt(p, -5e-6), 1);
    EXPECT_EQ(PhaseAt(p, 0.5), 1);
    EXPECT_EQ(PhaseAt(p, 1.0), 1);
    EXPECT_EQ(PhaseAt(p, 1.0 + 5e-6), 1);
    EXPECT_EQ(PhaseAt(p, 1.0 + 2e-5), 2);
    EXPECT_EQ(PhaseAt(p, 2.0 - 5e-6), 2);
    EXPECT_EQ(PhaseAt(p, 2.0), 2);
    EXPECT_EQ(PhaseAt(p, 3.0), 3);
    EXPECT_EQ(PhaseAt(p, 3.5), 4);
    EXPECT_EQ(PhaseAt(p, 4.0), 4);
    EXPECT_EQ(PhaseAt(p, 5.0), 5);
    EXPECT_EQ(PhaseAt(p, 6.0), 6);
    EXPECT_EQ(PhaseAt(p, 6.0 + 5e-6), 6);
    EXPECT_EQ(PhaseAt(p, 6.5), 7);
    EXPECT_EQ(PhaseAt(p, 7.0), 7);
    // Outside [0, total]: extrapolated with phase 7.
    EXPECT_EQ(PhaseAt(p, 9.0), 7);
    EXPECT_EQ(PhaseAt(p, -1.0), 7);
}

TEST(SpeedProfileSampling, ZeroLengthPhasesAreSkipped) {
    // Jerk-only profile: phases 2, 4, 6 have no duration.
    SpeedProfile p = MarkerProfile();
    p.t_[1] = p.t_[3] = p.t_[5] = 0.0;  // ends at 1, 1, 2, 2, 3, 3, total 4
    EXPECT_EQ(PhaseAt(p, 1.0), 1);
    EXPECT_EQ(PhaseAt(p, 1.5), 3);
    EXPECT_EQ(PhaseAt(p, 2.0), 3);
    EXPECT_EQ(PhaseAt(p, 2.5), 5);
    EXPECT_EQ(PhaseAt(p, 3.5), 7);
}

// ---------------------------------------------------------------- synchronisation

TEST(SpeedProfileSync, ImposedDurationsCoverEachOwnDistance) {
    SpeedProfile p[3];
    const double distance[3] = {2.0, 0.3, 0.0};
    for (int i = 0; i < 3; ++i) {
        p[i] = PlanRounded(distance[i], 1.5, 0.0, 0.0, 3.0, 3.0, 15.0);
    }
    double times[7];
    std::copy(p[0].t_, p[0].t_ + 7, times);
    for (SpeedProfile& q : p) q.recalculate_profile(times);
    for (int i = 0; i < 3; ++i) {
        EXPECT_DOUBLE_EQ(p[i].ttotal_, p[0].ttotal_);
        EXPECT_NEAR(Position(p[i], p[i].ttotal_), distance[i], 1e-12);
        EXPECT_NEAR(Speed(p[i], p[i].ttotal_), 0.0, 1e-12);
    }
    EXPECT_LT(p[1].jerk_, p[0].jerk_);
    EXPECT_LT(p[1].phase_end_[2][kPhaseSpeed], 1.5 * 0.3 / 2.0 + 1e-9);  // peak scales with distance
    EXPECT_EQ(p[2].jerk_, 0.0);
    EXPECT_EQ(Position(p[2], p[0].ttotal_ / 2), 0.0);

    // All-zero durations: the jerk is zero, nothing moves.
    double zero[7] = {};
    p[1].recalculate_profile(zero);
    EXPECT_EQ(p[1].ttotal_, 0.0);
    EXPECT_EQ(p[1].jerk_, 0.0);
}

// ---------------------------------------------------------------- termination

TEST(SpeedProfileBisection, FindsThePeakOfEachModel) {
    const double a = 2.0, j = 10.0, vs = 0.1, ve = 0.2;
    auto f1 = [&](double m) { return (m + vs) / 2 * (a / j + (m - vs) / a) + (m + ve) * std::sqrt((m - ve) / j); };
    auto f2 = [&](double m) { return (m + vs) * std::sqrt((m - vs) / j) + (m + ve) * std::sqrt((m - ve) / j); };
    auto f3 = [&](double m) { return (m + ve) / 2 * (a / j + (m - ve) / a) + (m + vs) * std::sqrt((m - vs) / j); };
    const double h = 1.0;
    EXPECT_NEAR(f1(bisection_method_f1(0.6, 5.0, a, j, vs, ve, h)), h, 1e-10);
    EXPECT_NEAR(f2(bisection_method_f2(0.2, 5.0, a, j, vs, ve, h)), h, 1e-10);
    EXPECT_NEAR(f3(bisection_method_f3(0.6, 5.0, a, j, vs, ve, h)), h, 1e-10);
}

TEST(SpeedProfileBisection, StopsWhenTheGapCannotReachOneTrillionth) {
    // Peaks near 2e4 units/s: adjacent doubles are 3.6e-12 apart there.
    const double j = 1.0;
    const double m = 20000.123;
    const double h = 2 * m * std::sqrt(m / j);
    const double found = bisection_method_f2(0.0, 1e5, 2.0, j, 0.0, 0.0, h);
    EXPECT_NEAR(found, m, 1e-8);
    // A bracket already down to two adjacent doubles.
    const double lo = 16384.0;
    const double hi = std::nextafter(lo, 1e9);
    const double r = bisection_method_f1(lo, hi, 2.0, j, 0.0, 0.0, 1e9);
    EXPECT_TRUE(r == lo || r == hi);
}

TEST(SpeedProfileBisection, NonFiniteInputEndsAtOnce) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_TRUE(std::isnan(bisection_method_f1(nan, 1.0, 1.0, 1.0, 0.0, 0.0, 1.0)));
    EXPECT_FALSE(std::isfinite(bisection_method_f2(0.0, inf, 1.0, 1.0, 0.0, 0.0, 1.0)));
    // A NaN distance or NaN model values just squeeze the bracket to its low end.
    EXPECT_NEAR(bisection_method_f3(0.0, 1.0, 1.0, 1.0, 0.0, 0.0, nan), 0.0, 1e-12);
    EXPECT_NEAR(bisection_method_f2(-2.0, -1.0, 1.0, 1.0, 0.0, 0.0, 1.0), -2.0, 1e-12);
}

TEST(SpeedProfileBisection, DegenerateLimitsDoNotHangThePlanner) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const double cases[][7] = {
        {1.0, 1.0, 0.0, 0.0, 1.0, 1.0, 0.0},   // zero jerk
        {1.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1.0},   // zero acceleration
        {1.0, 0.0, 0.0, 0.0, 1.0, 1.0, 1.0},   // zero speed
        {nan, 1.0, 0.0, 0.0, 1.0, 1.0, 1.0},   // NaN distance
        {inf, 1.0, 0.0, 0.0, 1.0, 1.0, 1.0},   // infinite distance
        {1.0, 1.0, 2.0, 3.0, 1.0, 1.0, 1.0},   // boundary speeds above the limit
        {1e6, 1e5, 0.0, 0.0, 1e7, 1e7, 1e3},   // peak far above 8192 units/s
    };
    for (const auto& c : cases) {
        SpeedProfile p;
        p.set_parameters(c[0], c[1], c[2], c[3], c[4], c[5], c[6]);
        p.jerk_limit_profile_rounding();  // must return
        SUCCEED();
    }
}

TEST(SpeedProfileReport, PrintsReachedAndCommandedPeakInDegrees) {
    SpeedProfile p;
    p.set_parameters(1.0, 3.1415926, 0.0, 0.0, 1.0, 1.0, 10.0);
    p.phase_end_[2][kPhaseSpeed] = 3.1415926 / 2;
    testing::internal::CaptureStdout();
    p.print_profile();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "profile vmax = 90  Command vmax = 180\n");
}

}  // namespace

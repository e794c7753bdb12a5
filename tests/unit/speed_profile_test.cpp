// Jerk-limited speed profile: reference plans of each branch, a seeded random
// sweep with the invariants every motion loop relies on, one with distinct
// acceleration and deceleration limits checked by re-integrating each profile,
// the phase-boundary rules of sampling and termination of the peak search.
#include "speed_profile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

bool IsWholePeriods(double t) {
    const double k = t / PERIOD;
    return std::fabs(k - std::round(k)) < 1e-6;
}

double Sample(SpeedProfile& p, double t, int which) {  // 0 position, 1 speed
    double out[2];
    p.calculate_current_speed(t, out);
    return out[which];
}
double Position(SpeedProfile& p, double t) { return Sample(p, t, 0); }
double Speed(SpeedProfile& p, double t) { return Sample(p, t, 1); }

TEST(SpeedProfilePlan, ReferencePlansOfEachBranch) {
    // Rest to rest, a = d: {h, v, a, j, reached peak, Tj, Tac, Tv}.
    const double mid = (-0.4 + std::sqrt(2416.0) / 10.0) / 2.0;  // h = v (v/a + a/j)
    const double low = std::cbrt(0.1 * 0.1 * 10.0 / 4.0);        // h = 2 m sqrt(m/j)
    const double cases[][8] = {
        {100.0, 10.0, 20.0, 100.0, 10.0, 0.2, 0.3, 9.3},       // all seven phases
        {3.0, 5.0, 2.0, 10.0, mid, 0.2, mid / 2.0 - 0.2, 0.0},  // acceleration limit only
        {0.1, 5.0, 2.0, 10.0, low, std::sqrt(low / 10.0), 0.0, 0.0},  // jerk only
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("h=" + std::to_string(c[0]));
        SpeedProfile p;
        p.set_parameters(c[0], c[1], 0.0, 0.0, c[2], c[2], c[3]);
        p.jerk_limit_profile();
        EXPECT_NEAR(p.vmax_, c[4], 1e-9);
        const double t[7] = {c[5], c[6], c[5], c[7], c[5], c[6], c[5]};
        for (int k = 0; k < 7; ++k) EXPECT_NEAR(p.t_[k], t[k], 1e-9) << "phase " << k + 1;
        EXPECT_NEAR(p.ttotal_, 4 * c[5] + 2 * c[6] + c[7], 1e-9);
        EXPECT_NEAR(Position(p, p.ttotal_), c[0], 1e-9);
    }
    // A zero-length move (up to the 1e-5 tolerance) is all zero.
    for (double h : {0.0, 5e-6}) {
        SpeedProfile p;
        p.set_parameters(h, 1.0, 0.3, 0.0, 2.0, 2.0, 10.0);
        p.jerk_limit_profile_rounding();
        EXPECT_EQ(*std::max_element(p.t_, p.t_ + 7), 0.0);
        EXPECT_TRUE(p.ttotal_ == 0.0 && p.jerk_ == 0.0 && Position(p, 0.0) == 0.0 && Speed(p, 0.0) == 0.3) << h;
    }
}

// Samples n + 1 evenly spaced times over the profile: the position never goes
// back, never steps by more than the commanded speed allows (so it is
// continuous), the speed never exceeds it, and the end state is (h, ve).
// Across each phase boundary the next phase's formula continues the state.
void CheckSamples(SpeedProfile& p, double h, double v, double a, double ve, long n, double tol) {
    const double dt = p.ttotal_ / n;
    double last = 0.0;
    for (long k = 1; k <= n; ++k) {
        double out[2];
        p.calculate_current_speed(k * dt, out);
        ASSERT_GE(out[0], last - tol) << "sample " << k;
        ASSERT_LE(out[0] - last, v * dt * (1 + 1e-9) + tol) << "sample " << k;
        ASSERT_TRUE(out[1] <= v * (1 + 1e-9) && out[1] >= -1e-9 * v) << "sample " << k << " speed " << out[1];
        last = out[0];
    }
    EXPECT_NEAR(last, h, tol);
    EXPECT_NEAR(Position(p, p.ttotal_), h, tol);
    EXPECT_NEAR(Speed(p, p.ttotal_), ve, 1e-7 * std::max(1.0, v));
    double c = 0.0;
    for (int k = 0; k < 6; ++k) {
        c += p.t_[k];
        const double e = 2e-5;  // just past the boundary tolerance
        EXPECT_NEAR(Position(p, c + e), Position(p, c), v * e * (1 + 1e-9) + tol) << "boundary " << k + 1;
        EXPECT_NEAR(Speed(p, c + e), Speed(p, c), a * e * (1 + 1e-9) + 1e-7 * v) << "boundary " << k + 1;
    }
}

// Joint-like (rad) and Cartesian-like (mm) limits, log-uniform distances from
// 1e-4 to 1e3. Rest-to-rest moves are checked rounded, sampled at every tick.
// Moves with boundary speeds (below a^2/j, on distances long enough to pass
// above both) are checked unrounded, since rounding re-fits the jerk for
// rest-to-rest moves only; their rounded durations must still be whole periods.
TEST(SpeedProfileSweep, RandomMovesKeepTheirInvariants) {
    std::mt19937 rng(20191202);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int cruise = 0, acc_limited = 0, jerk_only = 0, equal_ends = 0, unequal_ends = 0, lowered = 0;
    for (int i = 0; i < 8000; ++i) {
        const double scale = i % 2 == 1 ? 100.0 : 1.0;
        const double v = scale * (0.05 + 3.0 * unit(rng));
        const double a = scale * (0.2 + 10.0 * unit(rng));
        const double j = scale * (1.0 + 100.0 * unit(rng));
        const double h = scale * std::pow(10.0, -4.0 + 7.0 * unit(rng));
        const double cap = 0.3 * std::min(v, a * a / j);
        const double vs = i % 4 < 2 ? 0.0 : cap * unit(rng);
        const double ve = i % 4 < 3 ? vs : cap * unit(rng);
        SCOPED_TRACE("case " + std::to_string(i) + " h=" + std::to_string(h) + " v=" + std::to_string(v) +
                     " vs=" + std::to_string(vs) + " ve=" + std::to_string(ve));
        SpeedProfile p;
        p.set_parameters(h, v, vs, ve, a, a, j);
        if (vs == 0.0) {
            p.calculate_jerk_limit_profile_time();
            (p.t_[3] > 0 ? cruise : p.t_[1] > 0 ? acc_limited : jerk_only)++;
            p.time_rounding();
            p.calculate_flow_parameters();
            for (int k = 0; k < 7; ++k) ASSERT_TRUE(IsWholePeriods(p.t_[k])) << "phase " << k + 1 << " " << p.t_[k];
            ASSERT_TRUE(IsWholePeriods(p.ttotal_));
            EXPECT_LE(p.jerk_, j * (1 + 1e-9));
            CheckSamples(p, h, v, a, 0.0, std::lround(p.ttotal_ / PERIOD), 1e-9 * std::max(1.0, h));
        } else {
            // Distance of a jerk-only rise to a peak just above both speeds.
            const double vm = std::max(vs, ve) * 1.05 + 0.01 * scale;
            auto side = [&](double dv) { return dv >= a * a / j ? a / j + dv / a : 2 * std::sqrt(dv / j); };
            if (h < (vm + vs) * side(vm - vs) / 2 + (vm + ve) * side(vm - ve) / 2) continue;
            (vs == ve ? equal_ends : unequal_ends)++;
            p.jerk_limit_profile();
            if (p.vmax_ < v) ++lowered;
            for (double t : p.t_) ASSERT_GE(t, 0.0);
            EXPECT_NEAR(Speed(p, 0.0), vs, 1e-12);
            CheckSamples(p, h, v, a, ve, 400, 1e-7 * std::max(1.0, h));
            p.time_rounding();
            for (double t : p.t_) ASSERT_TRUE(IsWholePeriods(t));
        }
        if (HasFatalFailure()) return;
    }
    // Every planning branch is exercised.
    const int seen[] = {cruise, acc_limited, jerk_only, equal_ends, unequal_ends, lowered};
    const int least[] = {1000, 300, 800, 1000, 1000, 600};
    for (int k = 0; k < 6; ++k) EXPECT_GT(seen[k], least[k]) << "branch " << k;
}

// Re-integrates a rounded profile from its own jerk phases (+jerk_, 0, -jerk_,
// 0, -jerk_dec_, 0, +jerk_dec_ over t_) with exact cubic steps and compares
// sampling with it at every phase end and inside every phase. The end state is
// (distance_, vend_) at rest acceleration; every phase is whole periods;
// |jerk| <= j, |acceleration| <= amax_ in phases 1-3 and dmax_ in 5-7 (it is
// linear in each phase, so the ends bound it) and the speed stays in [0, v].
void CheckByIntegration(SpeedProfile& p, double v, double j) {
    const double jerks[7] = {p.jerk_, 0.0, -p.jerk_, 0.0, -p.jerk_dec_, 0.0, p.jerk_dec_};
    const double tol = 1e-9 * std::max(1.0, p.distance_), vtol = 1e-9 * std::max(1.0, v), slack = 1 + 1e-9;
    double s = 0.0, sp = p.vstart_, acc = 0.0, begin = 0.0;
    for (int k = 0; k < 7; ++k) {
        const double tau = p.t_[k], jk = jerks[k];
        ASSERT_TRUE(IsWholePeriods(tau)) << "phase " << k + 1 << " " << tau;
        for (int q = 1; q <= 8; ++q) {
            const double x = tau * q / 8;
            const double pos = s + sp * x + acc * x * x / 2 + jk * x * x * x / 6;
            const double speed = sp + acc * x + jk * x * x / 2;
            ASSERT_NEAR(Position(p, begin + x), pos, tol) << "phase " << k + 1 << " at " << q << "/8";
            ASSERT_NEAR(Speed(p, begin + x), speed, vtol) << "phase " << k + 1 << " at " << q << "/8";
            ASSERT_TRUE(speed >= -vtol && speed <= v + vtol) << "phase " << k + 1 << " speed " << speed;
        }
        s += sp * tau + acc * tau * tau / 2 + jk * tau * tau * tau / 6;
        sp += acc * tau + jk * tau * tau / 2;
        acc += jk * tau;
        begin += tau;
        ASSERT_LE(std::fabs(jk), j * slack) << "phase " << k + 1;
        ASSERT_LE(std::fabs(acc), (k < 3 ? p.amax_ : p.dmax_) * slack) << "end of phase " << k + 1;
    }
    EXPECT_NEAR(begin, p.ttotal_, 1e-9);
    EXPECT_NEAR(s, p.distance_, tol);
    EXPECT_NEAR(sp, p.vend_, vtol);
    EXPECT_NEAR(acc, 0.0, 1e-9 * std::max(p.amax_, p.dmax_));
}

// Distinct acceleration and deceleration limits, rounded: rest to rest, a
// brake from vstart (up to vmax) to rest and moves between two speeds. Each
// plan is re-integrated (CheckByIntegration) or refused as a motionless
// profile; moves from rest to rest are never refused and stay exact when
// synchronised onto a longer cruise.
TEST(SpeedProfileSweep, DistinctDecelerationLimitCoversTheDistanceOrRefuses) {
    // {h, v, vs, ve, a, d, j, peak planned before rounding (0: not checked),
    //  refused (0 no, 1 by the rounding, 2 by the planning, -1 not checked)}
    const double peak = (-0.125 + std::sqrt(5.015625)) / 2.5;  // 1.25 m^2 + 0.125 m = 1
    std::vector<std::array<double, 9>> cases = {
        {1, 1, 0, 0, 2, 0.5, 10, peak, 0},  // once covered 2.04 and ended at speed -0.023
        {3, 1, 1, 0, 2, 0.5, 10, 1, 0},     // brake after a cruise at vstart = vmax
        {1.2, 1, 1, 0, 0.5, 2, 10, 1, 0},   // the same, shorter, harder brake
        {1.03, 1, 1, 0, 2, 0.5, 10, 1, 1},  // 1.025 brake + 5 ms cruise: too little to round
        {0.5, 1, 1, 0, 2, 0.5, 10, 0, 2},   // shorter than the brake
        {1, 0.5, 1, 0, 2, 0.5, 10, 0, 2},   // vmax below vstart
        {1, 1, 0, 0, 2, 0, 10, 0, 2},       // no deceleration
    };
    const size_t references = cases.size();
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 20000; ++i) {
        const double scale = i % 2 == 1 ? 100.0 : 1.0;
        const double v = scale * (0.05 + 3.0 * unit(rng));
        const double a = scale * (0.2 + 10.0 * unit(rng));
        const double d = a * std::pow(10.0, unit(rng) < 0.5 ? -1.0 + unit(rng) : unit(rng));
        const double j = scale * (1.0 + 100.0 * unit(rng));
        const double h = scale * std::pow(10.0, -4.0 + 7.0 * unit(rng));
        const int kind = i % 4;  // 0 rest to rest, 1 brake from vmax, 2 brake, 3 two speeds
        const double vs = kind == 0 ? 0.0 : kind == 1 ? v : v * unit(rng);
        const double ve = kind == 3 ? v * unit(rng) : 0.0;
        cases.push_back({h, v, vs, ve, a, d, j, 0.0, kind == 0 ? 0.0 : -1.0});
    }
    int kept[4] = {}, refused = 0, reversed = 0;
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + " h=" + std::to_string(c[0]) + " v=" + std::to_string(c[1]) +
                     " vs=" + std::to_string(c[2]) + " ve=" + std::to_string(c[3]) + " a=" + std::to_string(c[4]) +
                     " d=" + std::to_string(c[5]) + " j=" + std::to_string(c[6]));
        SpeedProfile p;
        p.set_parameters(c[0], c[1], c[2], c[3], c[4], c[5], c[6]);
        p.calculate_jerk_limit_profile_time();
        if (c[7] > 0) {
            EXPECT_NEAR(p.vmax_, c[7], 1e-12);
        }
        if (c[8] >= 0) {
            ASSERT_EQ(p.refused_, c[8] == 2);
        }
        const bool long_cruise = !p.refused_ && p.t_[3] >= 0.25;
        p.time_rounding();
        p.calculate_flow_parameters();
        if (c[8] >= 0) {
            ASSERT_EQ(p.refused_, c[8] >= 1);
        }
        if (p.refused_) {
            ASSERT_FALSE(long_cruise) << "a quarter second of cruise pays for any rounding here";
            ++refused;
            EXPECT_TRUE(p.ttotal_ == 0.0 && p.jerk_ == 0.0 && p.jerk_dec_ == 0.0 && Position(p, 0.0) == 0.0);
            for (double x : p.phase_end_[6]) EXPECT_TRUE(std::isfinite(x));
            continue;
        }
        if (p.jerk_ < 0 || p.jerk_dec_ < 0) ++reversed;
        CheckByIntegration(p, c[1], c[6]);
        if (i >= references) ++kept[(i - references) % 4];
        if (c[2] == 0.0 && c[3] == 0.0) {  // synchronised onto a longer cruise
            double times[7];
            std::copy(p.t_, p.t_ + 7, times);
            times[3] += PERIOD * (1 + static_cast<int>(i % 50));
            p.recalculate_profile(times);
            ASSERT_FALSE(p.refused_);
            CheckByIntegration(p, c[1], c[6]);
        }
        if (HasFatalFailure()) return;
    }
    // Every kind is planned, some with a side reversed to absorb the rounding,
    // and some refused (too short to change the speed, or too little cruise).
    for (int k = 0; k < 4; ++k) EXPECT_GT(kept[k], 2000) << "kind " << k;
    EXPECT_GT(reversed, 2000);
    EXPECT_GT(refused, 5000);
}

// A profile whose stored states are markers: with jerk 0 the speed sampled in
// phase k >= 2 is the stored speed at the end of phase k-1 (here k-1), in
// phase 1 vstart_ (here 100).
int PhaseAt(SpeedProfile& p, double t) {
    const double s = Speed(p, t);
    return s == 100.0 ? 1 : static_cast<int>(s) + 1;
}

TEST(SpeedProfileSampling, BoundaryTimesBelongToThePhaseEndingThere) {
    SpeedProfile p;
    p.vstart_ = 100.0;
    for (int k = 0; k < 7; ++k) {
        p.t_[k] = 1.0;  // phases end at 1, 2, ..., 7
        p.phase_end_[k][kPhaseSpeed] = k + 1;
    }
    // {time, phase}; 1e-5 is the boundary tolerance. Outside [0, total] phase 7
    // extrapolates.
    const double full[][2] = {{-5e-6, 1}, {0, 1}, {1, 1}, {1 + 5e-6, 1}, {1 + 2e-5, 2}, {2 - 5e-6, 2},
                              {2, 2},     {3, 3}, {3.5, 4}, {5, 5},      {6 + 5e-6, 6}, {6.5, 7},
                              {7, 7},     {9, 7}, {-1, 7}};
    for (const auto& c : full) EXPECT_EQ(PhaseAt(p, c[0]), c[1]) << "t=" << c[0];
    // Zero-length phases 2, 4, 6 are skipped: ends at 1, 1, 2, 2, 3, 3, 4.
    p.t_[1] = p.t_[3] = p.t_[5] = 0.0;
    const double skipped[][2] = {{1, 1}, {1.5, 3}, {2, 3}, {2.5, 5}, {3.5, 7}};
    for (const auto& c : skipped) EXPECT_EQ(PhaseAt(p, c[0]), c[1]) << "t=" << c[0];
}

TEST(SpeedProfileBisection, EndsOnInputsThatCannotReachItsTolerance) {
    // Peaks near 2e4 units/s: adjacent doubles are 3.6e-12 apart there.
    const double m = 20000.123;
    EXPECT_NEAR(bisection_method_f2(0.0, 1e5, 2.0, 1.0, 0.0, 0.0, 2 * m * std::sqrt(m)), m, 1e-8);
    // A bracket already down to two adjacent doubles.
    const double lo = 16384.0, hi = std::nextafter(lo, 1e9);
    const double r = bisection_method_f1(lo, hi, 2.0, 1.0, 0.0, 0.0, 1e9);
    EXPECT_TRUE(r == lo || r == hi);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_TRUE(std::isnan(bisection_method_f1(nan, 1.0, 1.0, 1.0, 0.0, 0.0, 1.0)));
    EXPECT_FALSE(std::isfinite(bisection_method_f2(0.0, inf, 1.0, 1.0, 0.0, 0.0, 1.0)));
    EXPECT_NEAR(bisection_method_f3(0.0, 1.0, 1.0, 1.0, 0.0, 0.0, nan), 0.0, 1e-12);

    // The planner returns on zero jerk, acceleration or speed, a NaN or
    // infinite distance, boundary speeds above the limit, a peak far above 8192.
    const double cases[][7] = {{1, 1, 0, 0, 1, 1, 0},   {1, 1, 0, 0, 0, 0, 1},   {1, 0, 0, 0, 1, 1, 1},
                               {nan, 1, 0, 0, 1, 1, 1}, {inf, 1, 0, 0, 1, 1, 1}, {1, 1, 2, 3, 1, 1, 1},
                               {1e6, 1e5, 0, 0, 1e7, 1e7, 1e3}};
    for (const auto& c : cases) {
        SpeedProfile p;
        p.set_parameters(c[0], c[1], c[2], c[3], c[4], c[5], c[6]);
        p.jerk_limit_profile_rounding();
    }
}

}  // namespace

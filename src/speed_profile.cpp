// Seven-phase jerk-limited speed profile: planning, rounding to the control
// period, synchronisation and sampling.
//
// Notation in the comments: h distance, v peak speed, vs/ve start/end speed,
// a/d acceleration/deceleration limit, j jerk.
#include "speed_profile.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

// Bracket width at which the peak-speed search is done.
constexpr double kBisectionGap = 1e-12;

// Distance covered with peak speed m under one of the three shapes of the
// planner (see bisection_method_f1/f2/f3 in the header).
using DistanceModel = double (*)(double m, double a, double j, double vs, double ve);

double DistanceF1(double m, double a, double j, double vs, double ve) {
    return (m + vs) / 2 * (a / j + (m - vs) / a) + (m + ve) * std::sqrt((m - ve) / j);
}

double DistanceF2(double m, double /*a*/, double j, double vs, double ve) {
    return (m + vs) * std::sqrt((m - vs) / j) + (m + ve) * std::sqrt((m - ve) / j);
}

double DistanceF3(double m, double d, double j, double vs, double ve) {
    return (m + ve) / 2 * (d / j + (m - ve) / d) + (m + vs) * std::sqrt((m - vs) / j);
}

// Halves [lo, hi] towards model(m) == h. Always ends: it stops at the 1e-12
// gap, when the midpoint equals an end (adjacent doubles, e.g. above about
// 8192 units/s the spacing of doubles exceeds 1e-12), or when a bound is
// not finite.
double Bisect(DistanceModel model, double lo, double hi, double a, double j, double vs,
              double ve, double h) {
    do {
        if (!std::isfinite(lo) || !std::isfinite(hi)) break;
        const double m = (lo + hi) / 2;
        if (m == lo || m == hi) break;
        if (model(m, a, j, vs, ve) < h) {
            lo = m;
        } else {
            hi = m;
        }
    } while (!(std::fabs(lo - hi) < kBisectionGap));
    return (lo + hi) / 2;
}

// ceil(T / PERIOD) * PERIOD, with durations below the tolerance set to 0.
double RoundUpToPeriod(double t) {
    if (std::fabs(t) < em) return 0.0;
    return std::ceil(t / PERIOD) * PERIOD;
}

// Peak speed when both the acceleration and the deceleration reach their
// limit; the acceleration limit a serves both sides.
double ClosedFormPeak(double a, double j, double vs, double ve, double h) {
    const double radicand =
        a * a * a * a - 2 * j * (a * a * (vs + ve) - j * (vs * vs + ve * ve) - 2 * a * j * h);
    return (-a * a / j + std::sqrt(radicand) / j) / 2;
}

// Stores the durations of a profile whose jerk phases are equal on each side
// (Tj1, Tac, Tj1, Tv, Tj2, Tdc, Tj2; s) and the three totals.
void StoreDurations(SpeedProfile& p, double tj1, double tac, double tv, double tj2, double tdc) {
    p.t_[0] = tj1;
    p.t_[1] = tac;
    p.t_[2] = tj1;
    p.t_[3] = tv;
    p.t_[4] = tj2;
    p.t_[5] = tdc;
    p.t_[6] = tj2;
    p.ta_ = 2 * tj1 + tac;
    p.td_ = 2 * tj2 + tdc;
    p.ttotal_ = p.ta_ + tv + p.td_;
}

// Jerk that covers distance_ in the stored durations; 0 for a profile of no
// duration (nothing to divide by).
double FittedJerk(SpeedProfile& p) {
    return std::fabs(p.ttotal_) < 1e-5 ? 0.0 : recalculate_profile1(p.distance_, p.t_);
}

// ---- Distinct acceleration and deceleration limits (amax_ != dmax_).
//
// Each side, phases 1-3 from vs up to the peak and phases 5-7 from the peak
// down to ve, is planned with its own limit and re-fitted with its own jerk.
// A side's acceleration is a pulse symmetric in time, so its mean speed is the
// mean of its end speeds whatever its jerk: a plan with peak v covers
// (vs + v) Ta/2 + v Tv + (v + ve) Td/2.

// Relative slack on the limits for the rounding errors of a re-fit.
constexpr double kLimitSlack = 1e-9;
// Longest jerk pulse (in periods) that rounding tries before refusing.
constexpr long kMaxPulsePeriods = 1L << 20;

// Jerk that drives phases 5-7.
double DecelerationJerk(const SpeedProfile& p) { return p.amax_ == p.dmax_ ? p.jerk_ : p.jerk_dec_; }

// Jerk phase tj and constant phase tc (s) of a side that changes the speed by
// dv >= 0 under the limit lim and the jerk j.
void SideTimes(double dv, double lim, double j, double* tj, double* tc) {
    if (dv >= lim * lim / j) {
        *tj = lim / j;
        *tc = std::max(0.0, dv / lim - lim / j);
    } else {
        *tj = std::sqrt(dv / j);
        *tc = 0.0;
    }
}

// Distance covered by a side between the speeds v0 and v >= v0.
double SideDistance(double v, double v0, double lim, double j) {
    double tj, tc;
    SideTimes(v - v0, lim, j, &tj, &tc);
    return (v + v0) / 2 * (2 * tj + tc);
}

// Leaves a motionless profile that callers recognise by refused_.
void Refuse(SpeedProfile& p) {
    StoreDurations(p, 0.0, 0.0, 0.0, 0.0, 0.0);
    p.jerk_ = 0.0;
    p.jerk_dec_ = 0.0;
    p.refused_ = true;
}

// Plans a profile of length >= em: the commanded peak with a cruise when the
// two sides fit into the distance, else the peak in [max(vs, ve), vmax] at
// which they just fill it. Both jerks stay the given jerk.
void PlanDistinctLimits(SpeedProfile& p) {
    const double h = p.distance_, vs = p.vstart_, ve = p.vend_, a = p.amax_, d = p.dmax_, j = p.jerk_;
    double v = p.vmax_;
    for (double x : {h, v, vs, ve, a, d, j}) {
        if (!std::isfinite(x)) return Refuse(p);
    }
    if (!(a > 0 && d > 0 && j > 0 && v > 0 && vs >= 0 && ve >= 0) || v < std::max(vs, ve)) return Refuse(p);

    auto covered = [&](double m) { return SideDistance(m, vs, a, j) + SideDistance(m, ve, d, j); };
    double tv = 0.0;
    const double full = covered(v);
    if (full <= h) {
        tv = (h - full) / v;
    } else {
        // covered() grows with the peak: halve down to adjacent doubles, take
        // the lower end and let a cruise of rounding size close the gap.
        double lo = std::max(vs, ve), hi = v;
        if (covered(lo) > h) return Refuse(p);  // too short for the change of speed
        for (;;) {
            const double m = lo + (hi - lo) / 2;
            if (m <= lo || m >= hi) break;
            (covered(m) <= h ? lo : hi) = m;
        }
        v = lo > 0 ? lo : hi;
        tv = std::max(0.0, (h - covered(v)) / v);
        p.vmax_ = v;
    }
    double tj1, tac, tj2, tdc;
    SideTimes(v - vs, a, j, &tj1, &tac);
    SideTimes(v - ve, d, j, &tj2, &tdc);
    StoreDurations(p, tj1, tac, tv, tj2, tdc);
}

// Peak and the two jerks with which the stored durations cover distance_ from
// vstart_ to vend_. False when there are none: a side whose two jerk phases
// differ, a side without jerk phase whose end speeds differ, a negative or
// non-finite peak or jerk.
bool FitSides(const SpeedProfile& p, double* jerk_acc, double* jerk_dec) {
    const double* t = p.t_;
    if (t[0] != t[2] || t[4] != t[6]) return false;
    const double peak = (p.distance_ - p.vstart_ * p.ta_ / 2 - p.vend_ * p.td_ / 2) / (p.ta_ / 2 + t[3] + p.td_ / 2);
    if (!(peak >= 0) || !std::isfinite(peak)) return false;
    auto side = [peak](double v0, double tj, double tc, double* jerk) {
        *jerk = 0.0;
        if (tj == 0) return tc == 0 && std::fabs(peak - v0) <= 1e-12 * std::max(peak, v0);
        *jerk = (peak - v0) / (tj * (tj + tc));
        return std::isfinite(*jerk);
    };
    return side(p.vstart_, t[0], t[1], jerk_acc) && side(p.vend_, t[4], t[5], jerk_dec);
}

// Rounds a planned profile to whole periods and re-fits the peak and both
// jerks (FitSides). The jerk and constant phases are rounded up and the cruise
// is the shortest whole number of periods that keeps the peak at or below
// vmax_, so a side that still rises to the peak keeps its jerk and
// acceleration within the plan's. A side whose planned change of speed is
// smaller than that lowering of the peak, or that has no duration at all (a
// start at vmax_), changes its speed a little the other way (negative jerk);
// when that breaks a limit, every jerk phase is lengthened to k periods,
// k = 1, 2, ..., spreading the change while the cruise pays for the time.
// Refused once the cruise is used up.
void RoundDistinctLimits(SpeedProfile& p) {
    if (p.refused_) return;
    if (p.distance_ < em) {
        StoreDurations(p, 0.0, 0.0, 0.0, 0.0, 0.0);
        p.jerk_ = p.jerk_dec_ = 0.0;
        return;
    }
    const double h = p.distance_, v = p.vmax_, vs = p.vstart_, ve = p.vend_;
    const double jerk = std::fabs(p.jerk_), a = p.amax_ * (1 + kLimitSlack), d = p.dmax_ * (1 + kLimitSlack);
    if (!(std::isfinite(h) && std::isfinite(v) && v > 0)) return Refuse(p);
    double tj1 = RoundUpToPeriod(p.t_[0]), tj2 = RoundUpToPeriod(p.t_[4]);
    const double tac = RoundUpToPeriod(p.t_[1]), tdc = RoundUpToPeriod(p.t_[5]);
    // A constant phase needs a jerk phase on each side of it.
    if (tj1 == 0 && tac > 0) tj1 = PERIOD;
    if (tj2 == 0 && tdc > 0) tj2 = PERIOD;
    for (long k = 0;; ++k) {
        const double t1 = std::max(tj1, k * PERIOD), t2 = std::max(tj2, k * PERIOD);
        const double ta = 2 * t1 + tac, td = 2 * t2 + tdc;
        // Cruise (s) that keeps the peak exactly at v.
        const double ideal = (h - vs * ta / 2 - ve * td / 2) / v - ta / 2 - td / 2;
        StoreDurations(p, t1, tac, ideal > 0 ? std::ceil(ideal / PERIOD) * PERIOD : 0.0, t2, tdc);
        double ja, jd;
        if (FitSides(p, &ja, &jd) && std::fabs(ja) <= jerk * (1 + kLimitSlack) && std::fabs(ja) * t1 <= a &&
            std::fabs(jd) <= jerk * (1 + kLimitSlack) && std::fabs(jd) * t2 <= d) {
            p.jerk_ = ja;
            p.jerk_dec_ = jd;
            return;
        }
        if (!(ideal > 0) || k >= kMaxPulsePeriods) return Refuse(p);
    }
}

}  // namespace

double bisection_method_f1(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance) {
    return Bisect(&DistanceF1, lo, hi, a, jerk, vstart, vend, distance);
}

double bisection_method_f2(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance) {
    return Bisect(&DistanceF2, lo, hi, a, jerk, vstart, vend, distance);
}

double bisection_method_f3(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance) {
    return Bisect(&DistanceF3, lo, hi, a, jerk, vstart, vend, distance);
}

double recalculate_profile1(double distance, double* times) {
    const double* t = times;
    return distance / (t[3] + (t[0] + t[1] + t[2]) / 2 + (t[4] + t[5] + t[6]) / 2) /
           (t[0] / 2 + t[2] / 2 + t[1]) / t[0];
}

void SpeedProfile::set_parameters(double distance, double vmax, double vstart, double vend,
                                  double amax, double dmax, double jerk) {
    distance_ = distance;
    vmax_ = vmax;
    vstart_ = vstart;
    vend_ = vend;
    amax_ = amax;
    dmax_ = dmax;
    jerk_ = jerk;
    jerk_dec_ = jerk;
    refused_ = false;
}

void SpeedProfile::calculate_jerk_limit_profile_time() {
    const double h = distance_;
    const double vs = vstart_;
    const double ve = vend_;
    const double a = amax_;
    const double d = dmax_;
    const double j = jerk_;

    refused_ = false;
    if (h < 1e-5) {
        // ta_, td_ and ttotal_ keep their values; time_rounding zeroes them.
        for (double& t : t_) t = 0.0;
        return;
    }
    if (a != d) return PlanDistinctLimits(*this);

    // Both sides planned with the commanded peak.
    double v = vmax_;
    double tj1, tac, tj2, tdc;
    if (v - vs >= a * a / j) {
        tj1 = a / j;
        tac = (v - vs) / a - a / j;
    } else {
        tj1 = std::sqrt((v - vs) / j);
        tac = 0.0;
    }
    if (v - ve >= d * d / j) {
        tj2 = d / j;
        tdc = (v - ve) / d - d / j;
    } else {
        tj2 = std::sqrt((v - ve) / j);
        tdc = 0.0;
    }
    const double no_cruise = (v + vs) * (2 * tj1 + tac) / 2 + (v + ve) * (2 * tj2 + tdc) / 2;
    double tv = 0.0;

    // Shapes of a profile whose commanded peak is not reached. Each sets the
    // lowered peak in vmax_ and the four durations.
    auto both_limits = [&]() {
        vmax_ = ClosedFormPeak(a, j, vs, ve, h);
        v = vmax_;
        tj1 = a / j;
        tac = (v - vs) / a - a / j;
        tj2 = d / j;
        tdc = (v - ve) / d - d / j;
    };
    auto acc_limit_only = [&](double lo, double hi) {
        vmax_ = bisection_method_f1(lo, hi, a, j, vs, ve, h);
        v = vmax_;
        tj1 = a / j;
        tac = (v - vs) / a - a / j;
        tj2 = std::sqrt((v - ve) / j);
        tdc = 0.0;
    };
    auto dec_limit_only = [&](double lo, double hi) {
        vmax_ = bisection_method_f3(lo, hi, d, j, vs, ve, h);
        v = vmax_;
        tj1 = std::sqrt((v - vs) / j);
        tac = 0.0;
        tj2 = d / j;
        tdc = (v - ve) / d - d / j;
    };
    auto jerk_only = [&](double lo, double hi) {
        vmax_ = bisection_method_f2(lo, hi, a, j, vs, ve, h);
        v = vmax_;
        tj1 = std::sqrt((v - vs) / j);
        tj2 = std::sqrt((v - ve) / j);
        tac = 0.0;
        tdc = 0.0;
    };

    if (no_cruise < h) {
        tv = (h - no_cruise) / v;
    } else if (std::fabs(h - no_cruise) < 1e-5) {
        tv = 0.0;
    } else if (vs < ve) {
        // The durations tj1, tj2 of the commanded peak enter this test on purpose.
        const double vb = ve + d * d / j;
        const double tac_b = (vb - vs) / a - a / j;
        const double dist_b = (vs + vb) * (2 * tj1 + tac_b) / 2 + (ve + vb) * tj2;
        if (dist_b < h) {
            both_limits();
        } else {
            const double va = vs + a * a / j;
            if (va <= ve) {
                acc_limit_only(va, ve + d * d / j);
            } else {
                vmax_ = va;
                const double dist_a =
                    (va + vs) * std::sqrt((va - vs) / j) + (ve + va) * std::sqrt((va - ve) / j);
                if (dist_a >= h) {
                    jerk_only(ve, va);
                } else {
                    acc_limit_only(va, ve + d * d / j);
                }
            }
        }
    } else {
        // Mirror image; here the closed form is also taken on equality.
        const double va = vs + a * a / j;
        const double tdc_a = (va - ve) / d - d / j;
        const double dist_a = (vs + va) * tj1 + (ve + va) * (2 * tj2 + tdc_a) / 2;
        if (dist_a <= h) {
            both_limits();
        } else {
            const double vb = ve + d * d / j;
            if (vb <= vs) {
                dec_limit_only(vb, vs + a * a / j);
            } else {
                vmax_ = vb;
                const double dist_b =
                    (vb + vs) * std::sqrt((vb - vs) / j) + (ve + vb) * std::sqrt((vb - ve) / j);
                if (dist_b >= h) {
                    jerk_only(vs, vb);
                } else {
                    dec_limit_only(vb, vs + a * a / j);
                }
            }
        }
    }

    StoreDurations(*this, tj1, tac, tv, tj2, tdc);
}

void SpeedProfile::time_rounding() {
    if (amax_ != dmax_) return RoundDistinctLimits(*this);
    StoreDurations(*this, RoundUpToPeriod(t_[0]), RoundUpToPeriod(t_[1]), RoundUpToPeriod(t_[3]),
                   RoundUpToPeriod(t_[4]), RoundUpToPeriod(t_[5]));
    // The longer durations need a smaller jerk to cover the same distance.
    jerk_ = FittedJerk(*this);
}

void SpeedProfile::calculate_flow_parameters() {
    const double j = jerk_;
    const double jd = DecelerationJerk(*this);
    const double* tau = t_;
    double(*s)[3] = phase_end_;

    // Phase 1: jerk +j from rest acceleration.
    s[0][kPhaseAcceleration] = j * tau[0];
    s[0][kPhaseSpeed] = vstart_ + j * tau[0] * tau[0] / 2;
    s[0][kPhasePosition] = vstart_ * tau[0] + j * tau[0] * tau[0] * tau[0] / 6;
    // Phase 2: constant acceleration.
    const double a1 = s[0][kPhaseAcceleration];
    s[1][kPhaseAcceleration] = a1;
    s[1][kPhaseSpeed] = s[0][kPhaseSpeed] + a1 * tau[1];
    s[1][kPhasePosition] = s[0][kPhasePosition] + s[0][kPhaseSpeed] * tau[1] + a1 * tau[1] * tau[1] / 2;
    // Phase 3: jerk -j back to zero acceleration.
    s[2][kPhaseAcceleration] = a1 - j * tau[2];
    s[2][kPhaseSpeed] = s[1][kPhaseSpeed] + a1 * tau[2] - j * tau[2] * tau[2] / 2;
    s[2][kPhasePosition] = s[1][kPhasePosition] + s[1][kPhaseSpeed] * tau[2] +
                           a1 * tau[2] * tau[2] / 2 - j * tau[2] * tau[2] * tau[2] / 6;
    // Phase 4: cruise at the peak speed.
    s[3][kPhaseAcceleration] = 0.0;
    s[3][kPhaseSpeed] = s[2][kPhaseSpeed];
    s[3][kPhasePosition] = s[2][kPhasePosition] + s[2][kPhaseSpeed] * tau[3];
    // Phase 5: jerk -jd into the deceleration.
    const double a4 = s[3][kPhaseAcceleration];
    s[4][kPhaseAcceleration] = a4 - jd * tau[4];
    s[4][kPhaseSpeed] = s[3][kPhaseSpeed] + a4 * tau[4] - jd * tau[4] * tau[4] / 2;
    s[4][kPhasePosition] = s[3][kPhasePosition] + s[3][kPhaseSpeed] * tau[4] +
                           a4 * tau[4] * tau[4] / 2 - jd * tau[4] * tau[4] * tau[4] / 6;
    // Phase 6: constant deceleration.
    const double a5 = s[4][kPhaseAcceleration];
    s[5][kPhaseAcceleration] = a5;
    s[5][kPhaseSpeed] = s[4][kPhaseSpeed] + a5 * tau[5];
    s[5][kPhasePosition] = s[4][kPhasePosition] + s[4][kPhaseSpeed] * tau[5] + a5 * tau[5] * tau[5] / 2;
    // Phase 7: jerk +jd back to rest acceleration.
    const double a6 = s[5][kPhaseAcceleration];
    s[6][kPhaseAcceleration] = a6 + jd * tau[6];
    s[6][kPhaseSpeed] = s[5][kPhaseSpeed] + a6 * tau[6] + jd * tau[6] * tau[6] / 2;
    s[6][kPhasePosition] = s[5][kPhasePosition] + s[5][kPhaseSpeed] * tau[6] +
                           a6 * tau[6] * tau[6] / 2 + jd * tau[6] * tau[6] * tau[6] / 6;
}

void SpeedProfile::jerk_limit_profile() {
    calculate_jerk_limit_profile_time();
    calculate_flow_parameters();
}

void SpeedProfile::jerk_limit_profile_rounding() {
    calculate_jerk_limit_profile_time();
    time_rounding();
    calculate_flow_parameters();
}

void SpeedProfile::recalculate_profile(double* times) {
    if (refused_) return calculate_flow_parameters();  // stays motionless
    for (int i = 0; i < 7; ++i) t_[i] = times[i];
    ta_ = 2 * t_[0] + t_[1];
    td_ = 2 * t_[4] + t_[5];
    ttotal_ = ta_ + t_[3] + td_;
    if (amax_ == dmax_) {
        jerk_ = FittedJerk(*this);
    } else if (std::fabs(ttotal_) < em) {
        // No time: only a zero-length move fits.
        if (!(distance_ < em)) Refuse(*this);
        jerk_ = jerk_dec_ = 0.0;
    } else if (!FitSides(*this, &jerk_, &jerk_dec_)) {
        Refuse(*this);
    }
    calculate_flow_parameters();
}

void SpeedProfile::calculate_current_speed(double t, double* out) {
    const double j = jerk_;
    const double jd = DecelerationJerk(*this);
    const double* tau = t_;
    const double(*s)[3] = phase_end_;
    // Cumulative ends of phases 1..6 (s).
    double c[6];
    c[0] = tau[0];
    for (int k = 1; k < 6; ++k) c[k] = c[k - 1] + tau[k];

    // A time on a boundary (within the tolerance) belongs to the phase ending there.
    auto ends_phase = [&](int k) {  // k = 0..5 for phases 1..6
        const double begin = k == 0 ? 0.0 : c[k - 1];
        return (begin < t && t < c[k]) || std::fabs(t - c[k]) < 1e-5;
    };

    double tp;
    if ((0 < t && t < c[0]) || std::fabs(t) < 1e-5 || std::fabs(t - c[0]) < 1e-5) {
        tp = t;
        out[1] = vstart_ + j * tp * tp / 2;
        out[0] = vstart_ * tp + j * tp * tp * tp / 6;
    } else if (ends_phase(1)) {
        tp = t - c[0];
        out[1] = s[0][kPhaseSpeed] + s[0][kPhaseAcceleration] * tp;
        out[0] = s[0][kPhasePosition] + s[0][kPhaseSpeed] * tp + s[0][kPhaseAcceleration] * tp * tp / 2;
    } else if (ends_phase(2)) {
        tp = t - c[1];
        out[1] = s[1][kPhaseSpeed] + s[1][kPhaseAcceleration] * tp - j * tp * tp / 2;
        out[0] = s[1][kPhasePosition] + s[1][kPhaseSpeed] * tp +
                 s[1][kPhaseAcceleration] * tp * tp / 2 - j * tp * tp * tp / 6;
    } else if (ends_phase(3)) {
        tp = t - c[2];
        out[1] = s[2][kPhaseSpeed];
        out[0] = s[2][kPhasePosition] + s[2][kPhaseSpeed] * tp;
    } else if (ends_phase(4)) {
        tp = t - c[3];
        out[1] = s[3][kPhaseSpeed] + s[3][kPhaseAcceleration] * tp - jd * tp * tp / 2;
        out[0] = s[3][kPhasePosition] + s[3][kPhaseSpeed] * tp +
                 s[3][kPhaseAcceleration] * tp * tp / 2 - jd * tp * tp * tp / 6;
    } else if (ends_phase(5)) {
        tp = t - c[4];
        out[1] = s[4][kPhaseSpeed] + s[4][kPhaseAcceleration] * tp;
        out[0] = s[4][kPhasePosition] + s[4][kPhaseSpeed] * tp + s[4][kPhaseAcceleration] * tp * tp / 2;
    } else {
        // Phase 7; also extrapolates times beyond the end.
        tp = t - c[5];
        out[1] = s[5][kPhaseSpeed] + s[5][kPhaseAcceleration] * tp + jd * tp * tp / 2;
        out[0] = s[5][kPhasePosition] + s[5][kPhaseSpeed] * tp +
                 s[5][kPhaseAcceleration] * tp * tp / 2 + jd * tp * tp * tp / 6;
    }
}

void SpeedProfile::print_profile() {
    std::cout << "profile vmax = " << phase_end_[2][kPhaseSpeed] * 180.0 / 3.1415926
              << "  Command vmax = " << vmax_ * 180.0 / 3.1415926 << std::endl;
}

// ---------------------------------------------------------------- StopProfile

namespace {

// State (speed, acceleration, position) after time t of constant jerk j from
// (v, a, x).
void Advance(const double* from, double j, double t, double* to) {
    const double v = from[0], a = from[1], x = from[2];
    to[0] = v + a * t + 0.5 * j * t * t;
    to[1] = a + j * t;
    to[2] = x + v * t + 0.5 * a * t * t + j * t * t * t / 6.0;
}

}  // namespace

int StopProfile::Plan(double v0, double a0, double deceleration, double jerk) {
    *this = StopProfile();
    start_[1] = std::isfinite(a0) ? a0 : 0.0;
    start_[0] = std::isfinite(v0) ? v0 : 0.0;
    for (auto& e : end_) {
        e[0] = 0.0;
        e[1] = 0.0;
        e[2] = 0.0;
    }
    if (!std::isfinite(v0 + a0 + deceleration + jerk) || v0 < 0.0 || deceleration < 0.0 || jerk < 0.0) return -1;
    if (v0 == 0.0 && a0 == 0.0) return 0;
    if (deceleration == 0.0 || jerk == 0.0) return -1;
    // Speed lost by bringing the acceleration from a0 to -p and back to 0 at
    // the jerk limit, holding -p for h: v0 + (a0^2 - p^2) / (2 jerk) - p h -
    // p^2 / (2 jerk) when a0 >= -p.
    double p = deceleration;
    double hold = 0.0;
    double last_jerk = jerk;
    if (a0 >= -p) {
        hold = (v0 + a0 * a0 / (2.0 * jerk) - p * p / jerk) / p;
        if (hold < 0.0) {
            // The speed runs out before the limit is reached: a lower peak.
            hold = 0.0;
            p = std::sqrt(jerk * v0 + 0.5 * a0 * a0);
            if (p < -a0) {
                // Already decelerating too hard to return to 0 within the
                // jerk limit: return at once with the jerk that meets rest.
                p = -a0;
                last_jerk = v0 > 0.0 ? a0 * a0 / (2.0 * v0) : HUGE_VAL;
            }
        }
    } else {
        // Decelerating beyond the limit: back to -p at +jerk, then as above.
        const double t1 = (-a0 - p) / jerk;
        const double v1 = v0 + a0 * t1 + 0.5 * jerk * t1 * t1;
        hold = (v1 - p * p / (2.0 * jerk)) / p;
        if (hold < 0.0) {
            // v0 < a0^2 / (2 jerk): whatever the peak, rest comes too early
            // at the jerk limit; return from a0 at once with the jerk that
            // meets it.
            hold = 0.0;
            p = -a0;
            last_jerk = v0 > 0.0 ? a0 * a0 / (2.0 * v0) : HUGE_VAL;
        }
    }
    if (!std::isfinite(last_jerk)) return 0;  // at rest already (v0 = 0, a0 < 0): stop here
    peak_ = p;
    const double change = -p - start_[1];
    t_[0] = std::fabs(change) / jerk;
    jerk_[0] = change < 0.0 ? -jerk : jerk;
    t_[1] = hold;
    jerk_[1] = 0.0;
    t_[2] = p / last_jerk;
    jerk_[2] = last_jerk;
    const double* from = start_;
    for (int k = 0; k < 3; ++k) {
        Advance(from, jerk_[k], t_[k], end_[k]);
        from = end_[k];
    }
    // Rounding leaves a speed of the order of 1e-16 times v0: the stop ends
    // at rest by definition.
    end_[2][0] = 0.0;
    end_[2][1] = 0.0;
    return 0;
}

void StopProfile::At(double t, double* position, double* speed, double* acceleration) const {
    const double* from = start_;
    double state[3] = {start_[0], start_[1], start_[2]};
    if (!(t > 0.0)) t = 0.0;
    for (int k = 0; k < 3; ++k) {
        if (t <= t_[k]) {
            Advance(from, jerk_[k], t, state);
            break;
        }
        t -= t_[k];
        from = end_[k];
        for (int i = 0; i < 3; ++i) state[i] = end_[k][i];
    }
    if (state[0] < 0.0) state[0] = 0.0;
    if (position != nullptr) *position = state[2];
    if (speed != nullptr) *speed = state[0];
    if (acceleration != nullptr) *acceleration = state[1];
}

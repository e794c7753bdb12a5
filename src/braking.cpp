// Braking stops of streamed motions: the look-ahead, the rate profile and the
// measurement of the brake's set-points.
#include "braking.h"

#include <cmath>

#include "database.h"
#include "interpolation.h"
#include "speed_profile.h"

bool BrakingWanted() { return GetResourceDate()->braking_switch; }

namespace {

// A stop profile's deceleration and jerk limits.
struct Limits {
    double deceleration, jerk;
};

constexpr double kStretchStep = 1.25;
constexpr int kSplineMargin = 4;

int JointCount(Robot* robot) {
    const int n = robot != nullptr ? robot->GetRobotJointNum() : 0;
    return n < 0 ? 0 : (n > kMaxJointNum ? kMaxJointNum : n);
}

}  // namespace

StreamBrake::StreamBrake(Robot* robot, double period, bool armed)
    : robot_(robot), n_(JointCount(robot)), period_(period), armed_(armed && period > 0.0 && n_ > 0) {
    if (armed_) {
        ahead_.resize(static_cast<size_t>(kMaxLookAhead) * n_);
        arc_.resize(static_cast<size_t>(kMaxLookAhead) + 1);
        second_.resize(static_cast<size_t>(kMaxLookAhead + kHistory + 1) * n_);
        scratch_.resize(static_cast<size_t>(kMaxLookAhead + kHistory + 1));
        out_.resize(static_cast<size_t>(kMaxLookAhead) * n_);
    }
}

void StreamBrake::Sent(const double* q) {
    for (int back = kHistory - 1; back > 0; --back)
        for (int i = 0; i < n_; ++i) history_[back][i] = history_[back - 1][i];
    for (int i = 0; i < n_; ++i) history_[0][i] = q[i];
    if (history_count_ < kHistory) ++history_count_;
}

bool StreamBrake::Start() {
    count_ = 0;
    if (!armed_ || history_count_ < 2) return false;
    bool moving = false;
    for (int i = 0; i < n_; ++i) moving = moving || history_[0][i] != history_[1][i];
    if (!moving) return false;
    fed_ = 0;
    rest_ = -1;
    try_ = 0;
    wanted_ = kSplineMargin + 1;  // the path at the brake's start, away from the spline's free end
    arc_count_ = 0;
    best_try_ = -1;
    best_need_ = HUGE_VAL;
    collecting_ = true;
    return true;
}

const double* StreamBrake::Nominal(int index) const {
    if (rest_ >= 0 && index > rest_) index = rest_;
    if (index > fed_) index = fed_;
    if (index <= 0) {
        int back = -index;
        if (back >= history_count_) back = history_count_ - 1;
        return history_[back < 0 ? 0 : back];
    }
    return &ahead_[static_cast<size_t>(index - 1) * n_];
}

void StreamBrake::Solve() {
    first_knot_ = 1 - history_count_;
    last_knot_ = rest_ >= 0 ? rest_ : fed_;
    const int m = last_knot_ - first_knot_ + 1;
    double* c = scratch_.data();
    for (int j = 0; j < n_; ++j) {
        double* second = &second_[static_cast<size_t>(j) * (kMaxLookAhead + kHistory + 1)];
        for (int k = 0; k < m; ++k) second[k] = 0.0;
        if (m < 3) continue;
        // Natural spline on unit knot spacing: M[k-1] + 4 M[k] + M[k+1] =
        // 6 (y[k-1] - 2 y[k] + y[k+1]), M = 0 at both ends (the Thomas
        // algorithm; the ends' effect fades by 0.27 per knot).
        double previous_c = 0.0, previous_d = 0.0;
        for (int k = 1; k < m - 1; ++k) {
            const int at = first_knot_ + k;
            const double rhs = 6.0 * (Nominal(at - 1)[j] - 2.0 * Nominal(at)[j] + Nominal(at + 1)[j]);
            const double denominator = 4.0 - previous_c;
            c[k] = 1.0 / denominator;
            second[k] = (rhs - previous_d) / denominator;
            previous_c = c[k];
            previous_d = second[k];
        }
        for (int k = m - 3; k >= 1; --k) second[k] -= c[k] * second[k + 1];
    }
}

void StreamBrake::Evaluate(double tau, double* q, double* tangent, double* curvature) const {
    const int last = last_knot_;
    if (!(tau < last)) tau = last;
    if (tau < first_knot_) tau = first_knot_;
    int i = static_cast<int>(std::floor(tau));
    if (i > last - 1) i = last - 1;
    const double u = tau - i, w = 1.0 - u;
    const double* y0 = Nominal(i);
    const double* y1 = Nominal(i + 1);
    const size_t stride = static_cast<size_t>(kMaxLookAhead + kHistory + 1);
    for (int j = 0; j < n_; ++j) {
        const double* second = &second_[j * stride];
        const double m0 = i >= first_knot_ ? second[i - first_knot_] : 0.0;
        const double m1 = i + 1 <= last ? second[i + 1 - first_knot_] : 0.0;
        if (q != nullptr) q[j] = w * y0[j] + u * y1[j] + ((w * w * w - w) * m0 + (u * u * u - u) * m1) / 6.0;
        if (tangent != nullptr)
            tangent[j] = y1[j] - y0[j] + (-(3.0 * w * w - 1.0) * m0 + (3.0 * u * u - 1.0) * m1) / 6.0;
        if (curvature != nullptr) curvature[j] = w * m0 + u * m1;
    }
}

double StreamBrake::Speed(double tau) const {
    double tangent[kMaxJointNum];
    Evaluate(tau, nullptr, tangent, nullptr);
    double sum = 0.0;
    for (int j = 0; j < n_; ++j) sum += tangent[j] * tangent[j];
    return std::sqrt(sum);
}

double StreamBrake::PartialArc(int interval, double u) const {
    // Simpson's rule: the speed along one interval is a smooth quadratic-like
    // norm, and the error is far below a set-point's resolution.
    return u / 6.0 * (Speed(interval) + 4.0 * Speed(interval + 0.5 * u) + Speed(interval + u));
}

void StreamBrake::ExtendArc(int upto) {
    if (upto > kMaxLookAhead) upto = kMaxLookAhead;
    while (arc_count_ < upto) {
        arc_[arc_count_ + 1] = arc_[arc_count_] + PartialArc(arc_count_, 1.0);
        ++arc_count_;
    }
}

double StreamBrake::IndexAtArc(double s, int* hint) const {
    if (!(s > 0.0)) return 0.0;
    int i = *hint;
    while (i < arc_count_ && arc_[i + 1] <= s) ++i;
    *hint = i;
    if (i >= arc_count_) return arc_count_;
    const double length = arc_[i + 1] - arc_[i];
    const double target = s - arc_[i];
    if (!(length > 0.0)) return i;
    // Newton on the interval's arc length, kept inside a shrinking bracket.
    double lo = 0.0, hi = 1.0, u = target / length;
    for (int k = 0; k < 30; ++k) {
        const double error = PartialArc(i, u) - target;
        if (std::fabs(error) <= 1e-14 * (1.0 + s)) break;
        if (error > 0.0) hi = u; else lo = u;
        const double speed = Speed(i + u);
        double next = speed > 0.0 ? u - error / speed : 0.5 * (lo + hi);
        if (!(next > lo && next < hi)) next = 0.5 * (lo + hi);
        u = next;
    }
    return i + u;
}

double StreamBrake::Measure(const double* points, int count, double* orders) const {
    JointLimitMeter meter(robot_, period_);
    double increment[kMaxJointNum] = {};
    // The history: the speed and acceleration the brake starts from.
    for (int back = (history_count_ < 3 ? history_count_ : 3) - 1; back > 0; --back) {
        for (int j = 0; j < n_; ++j) increment[j] = history_[back - 1][j] - history_[back][j];
        meter.Step(increment);
    }
    double need = 0.0;
    const double* before = history_[0];
    for (int k = 0; k < count; ++k) {
        const double* q = points + static_cast<size_t>(k) * n_;
        for (int j = 0; j < n_; ++j) increment[j] = q[j] - before[j];
        need = std::fmax(need, meter.Step(increment, orders));
        before = q;
    }
    for (int k = 0; k < 3; ++k) need = std::fmax(need, meter.Step(nullptr, orders));  // then at rest
    return need;
}

void StreamBrake::StreamNeed(int span, double* orders) const {
    JointLimitMeter meter(robot_, period_);
    double increment[kMaxJointNum] = {};
    double ignored[3] = {};
    for (int k = -1; k <= span; ++k) {
        const double* q = Nominal(k);
        const double* before = Nominal(k - 1);
        for (int j = 0; j < n_; ++j) increment[j] = q[j] - before[j];
        meter.Step(increment, k >= 1 ? orders : ignored);
    }
}

int StreamBrake::Fill(const StopProfile& stop, bool along_arc) {
    const double ticks_real = std::ceil(stop.Duration() / period_ - 1e-9);
    if (!(ticks_real <= kMaxLookAhead)) return -1;
    const int ticks = ticks_real < 1.0 ? 1 : static_cast<int>(ticks_real);
    int hint = 0;
    double index = 0.0;
    for (int m = 1; m <= ticks; ++m) {
        double s = 0.0;
        stop.At(m * period_, &s, nullptr, nullptr);
        index = along_arc ? IndexAtArc(s, &hint) : s / period_;
        Evaluate(index, &out_[static_cast<size_t>(m - 1) * n_], nullptr, nullptr);
    }
    reach_ = index;
    return ticks;
}

int StreamBrake::RunOn() {
    count_ = rest_;
    for (int k = 0; k < count_; ++k)
        for (int j = 0; j < n_; ++j) out_[static_cast<size_t>(k) * n_ + j] = Nominal(k + 1)[j];
    stretch_ = 0.0;
    need_ = Measure(out_.data(), count_);
    return 1;
}

int StreamBrake::Try(bool final_call) {
    if (rest_ < 0 && fed_ <= kSplineMargin) return final_call ? -1 : 0;
    if (rest_ == 0) return RunOn();  // the stream rests where it stands
    if (first_knot_ != 1 - history_count_ || last_knot_ != (rest_ >= 0 ? rest_ : fed_)) {
        Solve();
        arc_count_ = 0;  // the spline moved: its arc lengths too
    }
    // The path at the last set-point sent: its direction, its speed and
    // acceleration along itself (central differences: the brake must continue
    // the set-points' own second differences, or their third differences,
    // the jerk, jump at its start), and each joint's speed.
    double tangent[kMaxJointNum], curvature[kMaxJointNum];
    Evaluate(0.0, nullptr, tangent, nullptr);
    for (int j = 0; j < n_; ++j) curvature[j] = Nominal(1)[j] - 2.0 * Nominal(0)[j] + Nominal(-1)[j];
    const double speed = Speed(0.0);
    if (!(speed > 0.0)) return rest_ >= 0 ? RunOn() : -1;
    double along = 0.0;
    Limits arc = {HUGE_VAL, HUGE_VAL}, clock = {HUGE_VAL, HUGE_VAL};
    for (int j = 0; j < n_; ++j) {
        along += tangent[j] / speed * curvature[j];
        const AccDecDate& limit = robot_->link_[j].joint_speed_data_;
        const double unit = std::fabs(tangent[j]) / speed;  // share of the path's speed
        if (unit > 0.0) {
            arc.deceleration = std::fmin(arc.deceleration, limit.acceleration / unit);
            arc.jerk = std::fmin(arc.jerk, limit.jerk / unit);
        }
        const double joint_speed = std::fabs(Nominal(0)[j] - Nominal(-1)[j]) / period_;
        if (joint_speed > 0.0) {
            clock.deceleration = std::fmin(clock.deceleration, limit.acceleration / joint_speed);
            clock.jerk = std::fmin(clock.jerk, limit.jerk / joint_speed);
        }
    }
    // A hair inside the limits: the brake's differences land on them exactly.
    for (Limits* l : {&arc, &clock}) {
        l->deceleration /= 1.0 + kScalingMargin;
        l->jerk /= 1.0 + kScalingMargin;
    }
    // Never faster than from full rate to rest in one period.
    clock.deceleration = std::fmin(clock.deceleration, 1.0 / period_);
    clock.jerk = std::fmin(clock.jerk, 1.0 / (period_ * period_));
    const double v0 = speed / period_;              // rad/s along the path
    const double a0 = along / (period_ * period_);  // rad/s^2 along the path
    // Intervals the spline's free end no longer bends (its effect fades by
    // 0.27 per knot: 0.5 % after four).
    const int usable = rest_ >= 0 ? rest_ : fed_ - kSplineMargin;
    ExtendArc(usable);
    // Tries in pairs, each pair 1.25 times longer than the one before: the
    // path's arc length braked from its speed and acceleration (exact where
    // the joints move in proportion), then the stream's clock braked from
    // full rate (the stream's own accelerations only shrink: for curved paths).
    for (; try_ < 2 * kStretches; ++try_) {
        const bool along_arc = try_ % 2 == 0;
        const double stretch = std::pow(kStretchStep, try_ / 2);
        const Limits& l = along_arc ? arc : clock;
        StopProfile stop;
        if (stop.Plan(along_arc ? v0 : 1.0, along_arc ? a0 : 0.0, l.deceleration / stretch,
                      l.jerk / (stretch * stretch)) < 0)
            continue;
        // How far along the stream the brake reaches (in set-points).
        double reach = 0.0;
        if (along_arc) {
            const double distance = stop.Distance();
            if (rest_ >= 0 && arc_[rest_] <= distance) return RunOn();  // the stream rests first
            if (arc_[arc_count_] <= distance) {
                if (!final_call && fed_ < kMaxLookAhead) {
                    // More look-ahead: as far again as the path covers per period now.
                    const double more = (distance - arc_[arc_count_]) / speed;
                    wanted_ = fed_ + kSplineMargin + static_cast<int>(std::fmin(std::ceil(more), kMaxLookAhead));
                    return 0;
                }
                continue;
            }
            int hint = 0;
            reach = IndexAtArc(distance, &hint);
        } else {
            reach = stop.Distance() / period_;
            if (rest_ >= 0 && reach >= rest_) return RunOn();
            if (rest_ < 0 && reach > usable) {
                if (!final_call && fed_ < kMaxLookAhead) {
                    wanted_ = static_cast<int>(std::fmin(std::ceil(reach) + 1 + kSplineMargin, kMaxLookAhead));
                    return 0;
                }
                continue;
            }
        }
        const int ticks = Fill(stop, along_arc);
        if (ticks < 0) continue;
        double brake[3] = {}, stream[3] = {};
        const double need = Measure(out_.data(), ticks, brake);
        // A brake need not beat a stream that is itself beyond the limits
        // over the same stretch of path (the scaling switch off, a replay's
        // file), order by order: speed, acceleration, jerk.
        const int span = static_cast<int>(std::ceil(reach)) + 1;
        StreamNeed(span < fed_ ? span : fed_, stream);
        bool within = true;
        for (int o = 0; o < 3; ++o) within = within && brake[o] <= std::fmax(kScalingWithin, stream[o]);
        if (within) {
            count_ = ticks;
            stretch_ = stretch;
            need_ = need;
            return 1;
        }
        if (need < best_need_) {
            best_need_ = need;
            best_try_ = try_;
        }
    }
    if (best_try_ < 0) return -1;
    // None within: the best measured.
    const bool along_arc = best_try_ % 2 == 0;
    const double stretch = std::pow(kStretchStep, best_try_ / 2);
    const Limits& l = along_arc ? arc : clock;
    StopProfile stop;
    stop.Plan(along_arc ? v0 : 1.0, along_arc ? a0 : 0.0, l.deceleration / stretch, l.jerk / (stretch * stretch));
    count_ = Fill(stop, along_arc);
    stretch_ = stretch;
    need_ = best_need_;
    best_try_ = -1;
    return count_ > 0 ? 1 : -1;
}

bool StreamBrake::Feed(const double* q) {
    if (!collecting_) return true;
    if (fed_ < kMaxLookAhead) {
        double* slot = &ahead_[static_cast<size_t>(fed_) * n_];
        for (int j = 0; j < n_; ++j) slot[j] = q[j];
        ++fed_;
    }
    if (fed_ < wanted_ && fed_ < kMaxLookAhead) return false;
    const int result = Try(fed_ >= kMaxLookAhead);
    if (result == 0) return false;
    if (result < 0) count_ = 0;
    collecting_ = false;
    return true;
}

bool StreamBrake::Finish(bool failed) {
    if (!collecting_) return count_ > 0;
    if (!failed) rest_ = fed_;
    const int result = Try(true);
    if (result <= 0) count_ = 0;
    collecting_ = false;
    return count_ > 0;
}

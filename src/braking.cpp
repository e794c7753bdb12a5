// Braking stops of streamed motions: the look-ahead, the rate profile and the
// measurement of the brake's set-points.
#include "braking.h"

#include <cmath>

#include "database.h"
#include "interpolation.h"
#include "speed_profile.h"

bool BrakingWanted() { return GetResourceDate()->braking_switch; }

namespace {

constexpr double kStretchStep = 1.25;

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
        out_.resize(static_cast<size_t>(kMaxLookAhead) * n_);
    }
}

void StreamBrake::Sent(const double* q) {
    for (int i = 0; i < n_; ++i) {
        history_[2][i] = history_[1][i];
        history_[1][i] = history_[0][i];
        history_[0][i] = q[i];
    }
    if (history_count_ < 3) ++history_count_;
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
    wanted_ = 2;  // the path's tangent at the brake's start needs two set-points ahead
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

namespace {

// Catmull-Rom weights of p0..p3 for position, first and second derivative
// (per index) at fraction u of the interval p1 -> p2.
void Weights(double u, double* w, double* d, double* dd) {
    const double u2 = u * u, u3 = u2 * u;
    w[0] = -0.5 * u + u2 - 0.5 * u3;
    w[1] = 1.0 - 2.5 * u2 + 1.5 * u3;
    w[2] = 0.5 * u + 2.0 * u2 - 1.5 * u3;
    w[3] = -0.5 * u2 + 0.5 * u3;
    d[0] = -0.5 + 2.0 * u - 1.5 * u2;
    d[1] = -5.0 * u + 4.5 * u2;
    d[2] = 0.5 + 4.0 * u - 4.5 * u2;
    d[3] = -u + 1.5 * u2;
    dd[0] = 2.0 - 3.0 * u;
    dd[1] = -5.0 + 9.0 * u;
    dd[2] = 4.0 - 9.0 * u;
    dd[3] = -1.0 + 3.0 * u;
}

}  // namespace

void StreamBrake::Evaluate(double tau, double* q, double* tangent, double* curvature) const {
    const double whole = std::floor(tau);
    const int i = static_cast<int>(whole);
    double w[4], d[4], dd[4];
    Weights(tau - whole, w, d, dd);
    const double* p[4] = {Nominal(i - 1), Nominal(i), Nominal(i + 1), Nominal(i + 2)};
    for (int j = 0; j < n_; ++j) {
        if (q != nullptr) q[j] = w[0] * p[0][j] + w[1] * p[1][j] + w[2] * p[2][j] + w[3] * p[3][j];
        if (tangent != nullptr) tangent[j] = d[0] * p[0][j] + d[1] * p[1][j] + d[2] * p[2][j] + d[3] * p[3][j];
        if (curvature != nullptr)
            curvature[j] = dd[0] * p[0][j] + dd[1] * p[1][j] + dd[2] * p[2][j] + dd[3] * p[3][j];
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

double StreamBrake::Measure(const double* points, int count) const {
    JointLimitMeter meter(robot_, period_);
    double increment[kMaxJointNum] = {};
    // The history: the speed and acceleration the brake starts from.
    for (int back = history_count_ - 1; back > 0; --back) {
        for (int j = 0; j < n_; ++j) increment[j] = history_[back - 1][j] - history_[back][j];
        meter.Step(increment);
    }
    double need = 0.0;
    const double* before = history_[0];
    for (int k = 0; k < count; ++k) {
        const double* q = points + static_cast<size_t>(k) * n_;
        for (int j = 0; j < n_; ++j) increment[j] = q[j] - before[j];
        need = std::fmax(need, meter.Step(increment));
        before = q;
    }
    for (int k = 0; k < 3; ++k) need = std::fmax(need, meter.Step(nullptr));  // then at rest
    return need;
}

double StreamBrake::StreamNeed(int span) const {
    JointLimitMeter meter(robot_, period_);
    double increment[kMaxJointNum] = {};
    double need = 0.0;
    for (int k = -1; k <= span; ++k) {
        const double* q = Nominal(k);
        const double* before = Nominal(k - 1);
        for (int j = 0; j < n_; ++j) increment[j] = q[j] - before[j];
        const double step = meter.Step(increment);
        if (k >= 1) need = std::fmax(need, step);
    }
    return need;
}

int StreamBrake::Fill(const StopProfile& stop) {
    const double ticks_real = std::ceil(stop.Duration() / period_ - 1e-9);
    if (!(ticks_real <= kMaxLookAhead)) return -1;
    const int ticks = ticks_real < 1.0 ? 1 : static_cast<int>(ticks_real);
    int hint = 0;
    double last_index = 0.0;
    for (int m = 1; m <= ticks; ++m) {
        double s = 0.0;
        stop.At(m * period_, &s, nullptr, nullptr);
        last_index = IndexAtArc(s, &hint);
        Evaluate(last_index, &out_[static_cast<size_t>(m - 1) * n_], nullptr, nullptr);
    }
    reach_ = last_index;
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
    if (rest_ < 0 && fed_ < 2) {
        if (!final_call) return 0;
        return -1;
    }
    if (rest_ == 0) return RunOn();  // the stream rests where it stands
    // The path at the brake's start (the last set-point sent): its speed,
    // its acceleration along itself and the direction the joints share.
    // Central differences at the last set-point sent: the acceleration the
    // brake starts from must continue the set-points' own second
    // differences, or their third differences (the jerk) jump at the start.
    double tangent[kMaxJointNum], curvature[kMaxJointNum];
    Evaluate(0.0, nullptr, tangent, nullptr);
    for (int j = 0; j < n_; ++j) curvature[j] = Nominal(1)[j] - 2.0 * Nominal(0)[j] + Nominal(-1)[j];
    const double speed = Speed(0.0);
    if (!(speed > 0.0)) return rest_ >= 0 ? RunOn() : -1;
    double along = 0.0, deceleration = HUGE_VAL, jerk = HUGE_VAL;
    for (int j = 0; j < n_; ++j) {
        const double unit = std::fabs(tangent[j]) / speed;
        along += tangent[j] / speed * curvature[j];
        if (!(unit > 0.0)) continue;
        const AccDecDate& limit = robot_->link_[j].joint_speed_data_;
        deceleration = std::fmin(deceleration, limit.acceleration / unit);
        jerk = std::fmin(jerk, limit.jerk / unit);
    }
    // A hair inside the limits: the brake's differences land on them exactly.
    deceleration /= 1.0 + kScalingMargin;
    jerk /= 1.0 + kScalingMargin;
    const double v0 = speed / period_;                 // rad/s along the path
    const double a0 = along / (period_ * period_);     // rad/s^2 along the path
    const int usable = rest_ >= 0 ? rest_ : fed_ - 2;  // intervals known whole
    ExtendArc(usable);
    for (; try_ < kStretches; ++try_) {
        const double stretch = std::pow(kStretchStep, try_);
        StopProfile stop;
        if (stop.Plan(v0, a0, deceleration / stretch, jerk / (stretch * stretch)) < 0) break;
        const double distance = stop.Distance();
        if (rest_ >= 0 && arc_[rest_] <= distance) return RunOn();  // the stream rests first
        if (rest_ < 0 && arc_[arc_count_] <= distance) {
            if (!final_call && fed_ < kMaxLookAhead) {
                // More look-ahead: as far again as the path covers per period now.
                const double per_index = arc_count_ > 0 ? arc_[arc_count_] / arc_count_ : speed;
                const double more = per_index > 0.0 ? (distance - arc_[arc_count_]) / per_index : 1.0;
                wanted_ = fed_ + 2 + static_cast<int>(std::fmin(std::ceil(more), kMaxLookAhead));
                return 0;
            }
            break;  // longer tries reach further still
        }
        const int ticks = Fill(stop);
        if (ticks < 0) break;
        const double need = Measure(out_.data(), ticks);
        // A brake need not beat a stream that is itself beyond the limits
        // over the same stretch of path (the scaling switch off).
        const int span = static_cast<int>(std::ceil(reach_)) + 1;
        if (need <= std::fmax(kScalingWithin, StreamNeed(span < fed_ ? span : fed_))) {
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
    const double stretch = std::pow(kStretchStep, best_try_);
    StopProfile stop;
    stop.Plan(v0, a0, deceleration / stretch, jerk / (stretch * stretch));
    count_ = Fill(stop);
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

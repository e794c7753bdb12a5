// Jogging: one fixed step of one joint, or of the flange along / about one
// axis of the base frame, as a complete rest-to-rest move at a quarter of the
// speed limits. A step that would take the arm out of its workspace (or past
// a soft limit) stops at the boundary: it is shortened to the longest step
// whose whole stream passes the pre-flight.
#include <algorithm>
#include <array>
#include <atomic>
#include <vector>
#include <cmath>
#include <iostream>

#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"
#include "timing.h"

namespace {

// Share of the speed limits used by a jog.
constexpr double kJogSpeedFactor = 0.25;

// A step from a host must be a number; anything else is refused before the
// arm is read or moved.
bool StepUsable(double step) {
    if (std::isfinite(step)) return true;
    std::cout << "Jog step " << step << " is not a finite number" << std::endl;
    return false;
}

// Bisections of the step: a resolution of 1/4096 of it.
constexpr int kBoundarySearch = 12;

// move(step) jogs by `step`. A step refused by the pre-flight is shortened to
// the longest share of it that passes (the arm stops at the boundary it would
// cross); none at all leaves it refused as it stands, with its message.
// The share (0 .. 1) of `step` that move() passes the pre-flight with: 1
// when the whole step does, else the bisection's longest passing share.
template <typename Move>
double PassingShare(double step, Move move) {
    auto passes = [&](double s) {
        tql::PreflightScope dry;
        QuietStdout quiet;
        return move(s) >= 0;
    };
    if (passes(step)) return 1.0;
    double lo = 0.0, hi = 1.0;
    for (int k = 0; k < kBoundarySearch; ++k) {
        const double mid = 0.5 * (lo + hi);
        (passes(mid * step) ? lo : hi) = mid;
    }
    return lo;
}

template <typename Move>
int JogToBoundary(double step, Move move) {
    const double share = PassingShare(step, move);
    if (share == 1.0 || share == 0.0) return move(step);
    std::cout << "Jog stopped at the boundary after " << share * step << " of " << step << "." << std::endl;
    return move(share * step);
}

}  // namespace

int JogInJointCoordinateSystem(int joint, double step) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    if (joint < 0 || joint > n - 1 || n > kMaxJointNum) return -1;
    if (!StepUsable(step)) return -1;

    double current[kMaxJointNum];
    AccDecDate limits[kMaxJointNum];
    robot->GetStartJoints(current);
    robot->GetJointSpeedAccDecParameters(limits);
    for (int i = 0; i < n; ++i) limits[i].speed *= kJogSpeedFactor;

    return JogToBoundary(step, [&](double degrees) {
        double target[kMaxJointNum];
        for (int i = 0; i < n; ++i) target[i] = current[i];
        target[joint] += degrees * 3.1415926 / 180;  // degrees to radians
        return MoveJointPath(robot, current, target, limits);
    });
}

int JogInCartesianCoordinateSystem(int axis, double step) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    // The joint count bounds the axis; six joints admit exactly the six axes.
    if (axis < 0 || axis > n - 1 || n > kMaxJointNum) return -1;
    if (!StepUsable(step)) return -1;

    double current[kMaxJointNum];
    robot->GetStartJoints(current);
    // The flange frame as a matrix: a tool pointing straight down is a half
    // turn (quaternion w = 0), where a round trip through the pose's unit
    // quaternion turns it (the conversion takes x, y, z's signs from terms
    // that are then zero).
    double start_frame[4][4];
    if (robot->ForwardFrame(current, start_frame) < 0) return -1;
    AccDecDate linear, rotation;
    robot->GetLineSpeedAccDecParameters(&linear);
    robot->GetRotateSpeedAccDecParameters(&rotation);
    linear.speed *= kJogSpeedFactor;
    rotation.speed *= kJogSpeedFactor;

    return JogToBoundary(step, [&](double amount) {
        double target[kMaxJointNum];
        for (int i = 0; i < n; ++i) target[i] = current[i];
        // Translation steps add to the flange position in base coordinates;
        // rotation steps turn the orientation about the base axis and keep
        // the position (MatrixLeftMul adds the translations, unrotated).
        double jog[4][4], moved[4][4];
        CalcTransmatrix(jog, axis, axis > 2 ? amount * kProgramDegreeToRadian : amount);
        MatrixLeftMul(moved, jog, start_frame);
        if (robot->FollowFrame(target, moved) < 0) return -1;
        AccDecDate line = linear, turn = rotation;
        return MoveLinearPath(robot, current, target, &line, &turn);
    });
}

// ---------------------------------------------------------------- hold to run

namespace {

// Renewals from the host's thread; the jog reads them each period.
std::atomic<double> last_renewal{0.0};  // library clock, s
std::atomic<bool> released{false};

// The furthest a held jog may go in one go: a turn of a joint, a metre along
// a base axis, a turn about one.
constexpr double kHeldJointReach = 2.0 * M_PI;  // rad
constexpr double kHeldLineReach = 1000.0;      // mm
constexpr double kHeldTurnReach = 2.0 * M_PI;  // rad
// The path's sampling for its joint-limit bound, and that bound's margin
// (the differences of a sampled profile are not its derivatives).
constexpr double kPathSampleLength = 1.0;  // mm
constexpr double kPathSampleAngle = 2e-3;  // rad
constexpr double kSlowDownMargin = 1.02;

// One dimension of jerk-limited motion, s''' within +-jerk, s'' within
// +-acceleration, s' within 0 .. speed, advanced a period h at a time
// towards a wanted speed. Of the three next accelerations a period's jerk
// allows (up, towards zero, down), it takes the one whose speed, once the
// acceleration is brought back to zero period by period, settles nearest to
// the wanted speed without passing it; the position integrates the speed at
// the period's end, so the set-points' differences keep every limit.
struct HeldProfile {
    double speed, acceleration, jerk, h;
    double s = 0.0, v = 0.0, a = 0.0;

    // The speed reached from (v, a) bringing a to 0 at the jerk limit.
    double Settles(double v0, double a0) const {
        const double dj = jerk * h;
        for (int k = 0; k < 100000 && a0 != 0.0; ++k) {
            const double next = a0 - std::clamp(a0, -dj, dj);
            v0 += 0.5 * (a0 + next) * h;
            a0 = next;
        }
        return v0;
    }
    void Step(double wanted) {
        const double dj = jerk * h;
        const double options[3] = {std::min(a + dj, acceleration), a - std::clamp(a, -dj, dj),
                                   std::max(a - dj, -acceleration)};
        const bool rising = Settles(v, a) < wanted;
        double best = options[1], best_miss = HUGE_VAL;
        for (double next : options) {
            const double settles = Settles(v + 0.5 * (a + next) * h, next);
            // Passing the wanted speed counts far worse than falling short.
            const double miss = rising ? (settles > wanted ? 1e6 * (settles - wanted) : wanted - settles)
                                       : (settles < wanted ? 1e6 * (wanted - settles) : settles - wanted);
            if (miss < best_miss) best = next, best_miss = miss;
        }
        double v_next = v + 0.5 * (a + best) * h;
        if (wanted == 0.0 && v_next <= 0.25 * dj * h && std::fabs(best) <= dj) {
            v_next = 0.0;  // at rest: the last step within the acceleration and jerk limits
            best = 0.0;
        }
        a = best;
        v = std::clamp(v_next, 0.0, speed);
        s += v * h;
    }
    // Where braking from now (wanted speed 0) comes to rest.
    double RestingPlace() const {
        HeldProfile brake = *this;
        for (int k = 0; k < 100000 && (brake.v > 0.0 || brake.a != 0.0); ++k) brake.Step(0.0);
        return brake.s;
    }
    bool AtRest() const { return v == 0.0 && a == 0.0; }
};

}  // namespace

void RenewJog() { last_renewal.store(tql::NowSeconds()); }
void ReleaseJog() { released.store(true); }

int JogWhileHeld(int kind, int index, int direction, double speed_share) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    const bool joint = kind == kHeldJogJoint;
    if ((kind != kHeldJogJoint && kind != kHeldJogCartesian) || index < 0 || index > n - 1 || n > kMaxJointNum ||
        (direction != 1 && direction != -1) || !(speed_share > 0.0 && speed_share <= 1.0))
        return -1;
    released.store(false);
    RenewJog();

    double start[kMaxJointNum];
    robot->GetStartJoints(start);
    double start_frame[4][4];
    if (!joint && robot->ForwardFrame(start, start_frame) < 0) return -1;
    AccDecDate limits[kMaxJointNum], line, turn;
    robot->GetJointSpeedAccDecParameters(limits);
    robot->GetLineSpeedAccDecParameters(&line);
    robot->GetRotateSpeedAccDecParameters(&turn);
    const AccDecDate own = joint ? limits[index] : (index < 3 ? line : turn);
    double reach = joint ? kHeldJointReach : (index < 3 ? kHeldLineReach : kHeldTurnReach);
    if (joint) {
        // No further than the joint's soft limit: no samples beyond it.
        double lo[kMaxJointNum], hi[kMaxJointNum];
        robot->GetMinLimitData(lo);
        robot->GetMaxLimitData(hi);
        const double room = direction > 0 ? hi[index] - start[index] : start[index] - lo[index];
        reach = std::clamp(room, 0.0, reach);
    }

    // The set-point `s` along the jog (rad, or mm along / rad about a base
    // axis), its inverse kinematics seeded with `seed`.
    auto place = [&](double s, const double* seed, double* q) {
        for (int i = 0; i < n; ++i) q[i] = seed[i];
        if (joint) {
            q[index] = start[index] + direction * s;
            return 0;
        }
        // Along a base axis: the frame moved; about one: turned, its
        // position kept (MatrixLeftMul adds the translations, unrotated).
        double jog[4][4], moved[4][4];
        CalcTransmatrix(jog, index, direction * s);
        MatrixLeftMul(moved, jog, start_frame);
        return robot->FollowFrame(q, moved);
    };
    // How far the jog may go, before it starts: its path sampled every
    // `delta` from the start, each sample solved by the inverse kinematics
    // and passing the set-point checks (soft limits, the actuators' speed
    // from the sample before over a period, which also ends the path short of
    // a singularity, and the workspace); the extent ends at the last sample
    // before the first that does not. The set-points in between are checked
    // again as they are sent. The cost grows with the path's length, not with
    // its duration at the jog speed: the first set-point follows the press at
    // once.
    const double delta = joint ? kPathSampleAngle : (index < 3 ? kPathSampleLength : kPathSampleAngle);
    const int most = static_cast<int>(std::min(std::floor(reach / delta), 1e5));
    std::vector<std::array<double, kMaxJointNum>> path(1);
    for (int i = 0; i < n; ++i) path[0][i] = start[i];
    {
        tql::PreflightScope dry;
        QuietStdout quiet;
        std::array<double, kMaxJointNum> q{};
        for (int k = 1; k <= most; ++k) {
            std::array<double, kMaxJointNum> before = path.back();
            if (place(k * delta, before.data(), q.data()) < 0 ||
                robot->CheckPositionTick(q.data(), before.data(), true) < 0)
                break;
            path.push_back(q);
        }
    }
    const int samples = static_cast<int>(path.size()) - 1;
    const double extent = samples * delta;

    // The jog's own limits, slowed k times (speed / k, acceleration / k^2,
    // jerk / k^3) where its path needs more of a joint than the joint's own
    // limits allow: along the path q(s) the chain rule bounds each joint's
    //   rate  |q'|   <= |q_s| V
    //   acc.  |q''|  <= |q_s| A + |q_ss| V^2
    //   jerk  |q'''| <= |q_s| J + 3 |q_ss| V A + |q_sss| V^3
    // wherever along the path the profile speeds up or brakes (a held jog
    // brakes wherever it is let go), with q_s, q_ss, q_sss by differences of
    // the sampled path.
    double V = own.speed * kJogSpeedFactor * speed_share, A = own.acceleration, J = own.jerk;
    double slow_down = 1.0;
    for (int k = 1; k + 2 <= samples; ++k) {
        for (int i = 0; i < n; ++i) {
            const double* p[4] = {&path[k - 1][i], &path[k][i], &path[k + 1][i], &path[k + 2][i]};
            const double qs = std::fabs(*p[2] - *p[0]) / (2.0 * delta);
            const double qss = std::fabs(*p[2] - 2.0 * *p[1] + *p[0]) / (delta * delta);
            const double qsss = std::fabs(*p[3] - 3.0 * *p[2] + 3.0 * *p[1] - *p[0]) / (delta * delta * delta);
            slow_down = std::max({slow_down, qs * V / limits[i].speed, std::sqrt((qs * A + qss * V * V) / limits[i].acceleration),
                                  std::cbrt((qs * J + 3.0 * qss * V * A + qsss * V * V * V) / limits[i].jerk)});
        }
    }
    // A joint jog runs at its own joint's limits exactly; a Cartesian one with
    // a margin wherever it comes near a joint's.
    if (!joint) slow_down = std::max(1.0, slow_down * kSlowDownMargin);
    if (!std::isfinite(slow_down)) return -1;
    V /= slow_down, A /= slow_down * slow_down, J /= slow_down * slow_down * slow_down;
    HeldProfile profile{V, A, J, PERIOD};
    ArmOutput arm(robot);
    if (arm.Begin() < 0) return -1;
    arm.Restart();
    double q[kMaxJointNum], previous[kMaxJointNum];
    for (int i = 0; i < n; ++i) q[i] = start[i];
    bool braking = false, bounded = false;
    for (;;) {
        if (arm.Stopped()) return arm.Finish(-1);
        const bool held = !released.load() && tql::NowSeconds() - last_renewal.load() <= kJogRenewTimeout;
        braking = braking || !held;
        // Brake in time for the boundary: the place where braking from the
        // next period on would end must lie within the extent.
        HeldProfile next = profile;
        next.Step(braking ? 0.0 : next.speed);
        if (!braking && next.RestingPlace() > extent) {
            braking = bounded = true;
            next = profile;
            next.Step(0.0);
        }
        profile = next;
        for (int i = 0; i < n; ++i) previous[i] = q[i];
        if (place(std::min(profile.s, extent), previous, q) < 0) return arm.Finish(-1);
        if (arm.Send(q, previous, 0) < 0) return arm.Finish(-1);
        if (braking && profile.AtRest()) break;
    }
    if (bounded) std::cout << "Jog stopped at the boundary after " << profile.s << " of " << reach << "." << std::endl;
    return arm.Finish(0);
}

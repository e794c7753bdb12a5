// Joint and linear path segments and the streamed moves built on them.
//
// A streamed move samples its segment at t = tick * PERIOD, tick = 1..N, and
// sends one set-point per joint per period. Work arrays are sized once per
// move (fixed arrays of kMaxJointNum doubles on the stack); nothing inside a
// period allocates.
#include "interpolation.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "database.h"
#include "execute.h"
#include "math_fun.h"
#include "timing.h"

namespace {

// Longest segment a motion loop accepts, in periods (about 99 days).
constexpr double kMaxTicks = 2147483647.0;

// Joint count of `robot` if every joint vector of a move fits the fixed work
// arrays, otherwise -1 with a message.
int JointCountForMove(Robot* robot) {
    const int n = robot->GetRobotJointNum();
    if (n < 1 || n > kMaxJointNum) {
        std::cout << "Joint number " << n << " is out of range 1.." << kMaxJointNum << std::endl;
        return -1;
    }
    return n;
}

// Number of samples of a segment lasting `total` seconds: round(total / PERIOD).
// -1 (with a message) when the planned time is not a usable number, so a
// corrupt plan never reaches the float-to-integer conversion.
long TickCount(double total) {
    if (!std::isfinite(total) || total < 0.0 || total / PERIOD > kMaxTicks) {
        std::cout << "Invalid motion time " << total << " s" << std::endl;
        return -1;
    }
    return std::lround(total / PERIOD);
}

// Distance covered by a governing profile at time t.
double ProfilePosition(SpeedProfile& profile, double t) {
    double out[2];
    profile.calculate_current_speed(t, out);
    return out[0];
}

}  // namespace

// The Cartesian tick loop shared by linear and circular moves: sample the
// pose, solve the joints seeded by the previous set-point, hand the set-point
// to the output (the arm: send, sleep).
void CartesianStartBias(Robot* robot, const double* start, double* pose, double* bias) {
    const int n = robot->GetRobotJointNum();
    double solution[kMaxJointNum];
    for (int i = 0; i < n; ++i) {
        bias[i] = 0.0;
        solution[i] = start[i];
    }
    QuietStdout quiet;  // a start the kinematics cannot solve fails in the stream, with its message
    if (robot->FollowPose(solution, pose) < 0) return;
    double size = 0.0;
    for (int i = 0; i < n; ++i) size = std::fmax(size, std::fabs(solution[i] - start[i]));
    // Round-off only: anything larger is the path's own (a branch), left alone.
    if (size < kStartBiasLimit)
        for (int i = 0; i < n; ++i) bias[i] = solution[i] - start[i];
}

// The Cartesian tick loop, every set-point shifted by the fading start bias.
template <typename Path, typename Output>
static int StreamCartesianPath(Robot* robot, Path& path, long ticks, double* current, int n, Output& output) {
    double previous[kMaxJointNum];
    double solution[kMaxJointNum];  // the inverse kinematics' own, seeding the next period
    double bias[kMaxJointNum] = {};
    double pose[7];
    path.Interpolation(0.0, pose);
    CartesianStartBias(robot, current, pose, bias);
    for (int i = 0; i < n; ++i) solution[i] = current[i] + bias[i];
    output.Restart();
    for (long tick = 1; tick <= ticks; ++tick) {
        if (output.Stopped()) return -1;
        const double t = tick * PERIOD;
        for (int i = 0; i < n; ++i) previous[i] = current[i];
        path.Interpolation(t, pose);
        if (robot->FollowPose(solution, pose) < 0) return -1;
        const double fade = 1.0 - path.Fraction(t);
        for (int i = 0; i < n; ++i) current[i] = solution[i] - bias[i] * fade;
        if (output.Send(current, previous, 0) < 0) return -1;
    }
    return 0;
}

// ---------------------------------------------------------------- JointPath

void JointPath::SetParameters(double start, double end, double vmax, double amax, double dmax,
                              double jerk) {
    start_ = start;
    end_ = end;
    vmax_ = vmax;
    amax_ = amax;
    dmax_ = dmax;
    jerk_ = jerk;
}

void JointPath::InterpolationPreprocess() {
    direction_ = end_ - start_ > 0 ? 1.0 : -1.0;
    distance_ = std::fabs(end_ - start_);
    // The joint starts and ends at rest.
    profile_.set_parameters(distance_, vmax_, 0, 0, amax_, dmax_, jerk_);
    profile_.jerk_limit_profile_rounding();
}

double JointPath::Interpolation(double t) {
    return start_ + direction_ * ProfilePosition(profile_, t);
}

// ---------------------------------------------------------------- joint moves

int MoveJointPreprocess(Robot* robot, double* start, double* end, JointPath* paths,
                        AccDecDate* limits) {
    const int n = JointCountForMove(robot);
    if (n < 0) return -1;
    for (int i = 0; i < n; ++i) {
        paths[i].SetParameters(start[i], end[i], limits[i].speed, limits[i].acceleration,
                               limits[i].acceleration, limits[i].jerk);
        paths[i].InterpolationPreprocess();
    }
    // The slowest joint sets the durations; the lowest index wins a tie.
    int slowest = 0;
    for (int i = 1; i < n; ++i) {
        if (paths[i].profile_.ttotal_ > paths[slowest].profile_.ttotal_) slowest = i;
    }
    double times[7];
    for (int k = 0; k < 7; ++k) times[k] = paths[slowest].profile_.t_[k];
    for (int i = 0; i < n; ++i) paths[i].profile_.recalculate_profile(times);
    return 0;
}

bool PreflightWanted() { return GetResourceDate()->preflight_switch && !tql::InPreflight(); }

namespace {
template <typename Slow, typename Simulate>
double FitMove(Robot* robot, Slow slow, Simulate simulate);
}  // namespace

template <typename Output>
static int StreamJointPath(Robot* robot, double* start, double* end, AccDecDate* limits, Output& output) {
    JointPath paths[kMaxJointNum];
    if (MoveJointPreprocess(robot, start, end, paths, limits) < 0) return -1;
    const int n = robot->GetRobotJointNum();
    double current[kMaxJointNum];
    double previous[kMaxJointNum];
    for (int i = 0; i < n; ++i) current[i] = start[i];

    const long ticks = TickCount(paths[0].profile_.ttotal_);
    if (ticks < 0) return -1;

    if (output.Begin() < 0) return -1;
    output.Restart();
    for (long tick = 1; tick <= ticks; ++tick) {
        if (output.Stopped()) return -1;
        const double t = tick * PERIOD;
        for (int i = 0; i < n; ++i) {
            previous[i] = current[i];
            current[i] = paths[i].Interpolation(t);
        }
        if (output.Send(current, previous, 0) < 0) return -1;
    }
    return 0;
}

int MoveJointPath(Robot* robot, double* start, double* end, AccDecDate* limits) {
    // The joints share the slowest one's phase durations, so a joint whose
    // own limits are tighter can be asked for more than them: with row 8 ON
    // the move is slowed as a Cartesian one is.
    const int n = JointCountForMove(robot);
    if (n < 0) return -1;
    AccDecDate fitted[kMaxJointNum];
    for (int i = 0; i < n; ++i) fitted[i] = limits[i];
    if (CartesianScalingWanted() &&
        FitMove(
            robot, [&](double k) { for (int i = 0; i < n; ++i) fitted[i] = SlowedDown(limits[i], k); },
            [&](JointLimitProbe& probe) { return StreamJointPath(robot, start, end, fitted, probe); }) < 0)
        return -1;
    return RunWithPreflight([&] {
        ArmOutput arm(robot);
        return arm.Finish(StreamJointPath(robot, start, end, fitted, arm));
    });
}

int MoveToSpecifiedPosition(double* target) {
    Robot* robot = GetCurrentRobot();
    const int n = JointCountForMove(robot);
    if (n < 0) return -1;
    double current[kMaxJointNum];
    AccDecDate limits[kMaxJointNum];
    robot->GetStartJoints(current);
    robot->GetJointSpeedAccDecParameters(limits);
    for (int i = 0; i < n; ++i) limits[i].speed *= 0.5;
    return MoveJointPath(robot, current, target, limits);
}

int MoveToHomePosition() {
    double home[kMaxJointNum] = {};
    return MoveToSpecifiedPosition(home);
}

int MoveToStablePosition() {
    if (GetCurrentRobot()->GetRobotType() != 1) return -1;
    // Resting pose of robot type 1, degrees.
    double target[kMaxJointNum] = {-1.56921, -41.9171, 129.388, 105.722, -95.4584, -48.5681};
    scaling(target, kProgramDegreeToRadian, 6);
    return MoveToSpecifiedPosition(target);
}

// ---------------------------------------------------------------- orientation

double CalculateOrientation(double* q0, double* q1) {
    double x = dot_product(q0, q1, 4);
    if (x < 0) {
        // q and -q are the same orientation; take the one on the shorter arc.
        scaling(q1, -1.0, 4);
        x = dot_product(q0, q1, 4);
    }
    return std::fabs(x - 1) < 1e-5 ? 0.0 : std::acos(x);
}

void OrientationInterpolation(double* q0, double* q1, double* out, double s, double angle) {
    if (std::fabs(angle) < 1e-5) {
        for (int i = 0; i < 4; ++i) out[i] = q0[i];
        return;
    }
    const double w0 = std::sin((1 - s) * angle) / std::sin(angle);
    const double w1 = std::sin(s * angle) / std::sin(angle);
    for (int i = 0; i < 4; ++i) out[i] = q0[i] * w0 + q1[i] * w1;
}

// ---------------------------------------------------------------- LinearPath

void LinearPath::SetParameters(double* start, double* end, double vlin, double alin, double dlin,
                               double jlin, double vrot, double arot, double drot, double jrot) {
    for (int i = 0; i < 7; ++i) {
        start_pose_[i] = start[i];
        end_pose_[i] = end[i];
    }
    SetProfileLimits(linear_limits_, vlin, alin, dlin, jlin);
    SetProfileLimits(rotation_limits_, vrot, arot, drot, jrot);
}

SpeedProfile* PlanCartesianProfiles(double length, const double* linear_limits, double angle,
                                    const double* rotation_limits, SpeedProfile* linear,
                                    SpeedProfile* rotation) {
    linear->set_parameters(length, linear_limits[0], 0, 0, linear_limits[1], linear_limits[2], linear_limits[3]);
    linear->calculate_jerk_limit_profile_time();
    linear->time_rounding();
    rotation->set_parameters(angle, rotation_limits[0], 0, 0, rotation_limits[1], rotation_limits[2],
                             rotation_limits[3]);
    rotation->calculate_jerk_limit_profile_time();
    rotation->time_rounding();
    SpeedProfile* governing = linear->ttotal_ <= rotation->ttotal_ ? rotation : linear;
    governing->calculate_flow_parameters();
    return governing;
}

void LinearPath::InterpolationPreprocess() {
    sub_vector(start_pose_, end_pose_, direction_, 3);
    length_ = norm(direction_, 3);
    angle_ = CalculateOrientation(start_pose_ + 3, end_pose_ + 3);

    const SpeedProfile* governing = PlanCartesianProfiles(length_, linear_limits_, angle_, rotation_limits_,
                                                          &linear_profile_, &rotation_profile_);
    rotation_governs_ = governing == &rotation_profile_ ? 1 : 0;
    tall_ = governing->ttotal_;
    ta_ = governing->ta_;
    td_ = governing->td_;
}

void LinearPath::Interpolation(double t, double* pose) {
    SpeedProfile& governing = rotation_governs_ ? rotation_profile_ : linear_profile_;
    const double distance = rotation_governs_ ? angle_ : length_;
    const double p = ProfilePosition(governing, t);
    // A segment of no length at all stays at its start.
    const double s = distance > 0 ? p / distance : 0.0;
    for (int i = 0; i < 3; ++i) pose[i] = start_pose_[i] + direction_[i] * s;
    OrientationInterpolation(start_pose_ + 3, end_pose_ + 3, pose + 3, s, angle_);
}

double LinearPath::Fraction(double t) {
    const double distance = rotation_governs_ ? angle_ : length_;
    return distance > 0 ? ProfilePosition(rotation_governs_ ? rotation_profile_ : linear_profile_, t) / distance
                        : 1.0;
}

// ---------------------------------------------------------------- linear moves

int MoveLinearPreprocess(Robot* robot, double* start_joints, double* end_joints, LinearPath* path,
                         AccDecDate* linear, AccDecDate* rotation) {
    double start_pose[7];
    double end_pose[7];
    if (robot->ForwardKinematics(start_joints, start_pose) < 0) return -1;
    if (robot->ForwardKinematics(end_joints, end_pose) < 0) return -1;
    path->SetParameters(start_pose, end_pose, linear->speed, linear->acceleration,
                        linear->acceleration, linear->jerk, rotation->speed,
                        rotation->acceleration, rotation->acceleration, rotation->jerk);
    path->InterpolationPreprocess();
    return 0;
}

// Reports a segment whose total time is not a whole number of periods in the
// form of an assertion failure. The move is refused with -1 before any
// motion instead of aborting the host with the actuators enabled.
static void ReportPeriodMismatch(int line) {
    static const char kFunction[] = "int MoveLinearPath(Robot*, double*, double*, AccDecDate*, AccDecDate*)";
    static const char kCondition[] = "fabs(tick*PERIOD-lpath.tall_)<em";
    std::fprintf(stderr, "%s: src/interpolation.cpp:%d: %s: Assertion `%s' failed.\n",
                 program_invocation_short_name, line, kFunction, kCondition);
}

template <typename Output>
static int StreamLinearPath(Robot* robot, double* start_joints, double* end_joints, AccDecDate* linear,
                            AccDecDate* rotation, Output& output) {
    LinearPath lpath;
    // Deliberately unchecked: a path that could not be built stays zero and
    // gives a move without samples.
    MoveLinearPreprocess(robot, start_joints, end_joints, &lpath, linear, rotation);

    const int n = JointCountForMove(robot);
    if (n < 0) return -1;
    double current[kMaxJointNum];
    for (int i = 0; i < n; ++i) current[i] = start_joints[i];

    // Planned times are whole periods; anything else is a planning fault.
    if (!std::isfinite(lpath.tall_) || lpath.tall_ < 0.0 || lpath.tall_ / PERIOD > kMaxTicks) {
        if (Output::kToArm) ReportPeriodMismatch(__LINE__);
        return -1;
    }
    const long tick = std::lround(lpath.tall_ / PERIOD);
    if (!(std::fabs(tick * PERIOD - lpath.tall_) < em)) {
        if (Output::kToArm) ReportPeriodMismatch(__LINE__);
        return -1;
    }

    if (output.Begin() < 0) return -1;
    return StreamCartesianPath(robot, lpath, tick, current, n, output);
}

int MoveLinearPath(Robot* robot, double* start_joints, double* end_joints, AccDecDate* linear,
                   AccDecDate* rotation) {
    AccDecDate line = *linear;
    AccDecDate turn = *rotation;
    if (CartesianScalingWanted() && FitLinearMoveToJointLimits(robot, start_joints, end_joints, &line, &turn) < 0)
        return -1;
    return RunWithPreflight([&] {
        ArmOutput arm(robot);
        return arm.Finish(StreamLinearPath(robot, start_joints, end_joints, &line, &turn, arm));
    });
}

// ---------------------------------------------------------------- circular moves

template <typename Output>
static int StreamCircularPath(Robot* robot, double* start_joints, double* mid_joints, double* end_joints,
                              AccDecDate* linear, AccDecDate* rotation, Output& output) {
    CircularPath cpath;
    // Deliberately unchecked, as for the linear move.
    MoveCircularPreprocess(robot, start_joints, mid_joints, end_joints, &cpath, linear, rotation);

    const int n = JointCountForMove(robot);
    if (n < 0) return -1;
    double current[kMaxJointNum];
    for (int i = 0; i < n; ++i) current[i] = start_joints[i];

    const long ticks = TickCount(cpath.tall_);
    if (ticks < 0) return -1;

    if (output.Begin() < 0) return -1;
    return StreamCartesianPath(robot, cpath, ticks, current, n, output);
}

int MoveCircularPath(Robot* robot, double* start_joints, double* mid_joints, double* end_joints,
                     AccDecDate* linear, AccDecDate* rotation) {
    AccDecDate line = *linear;
    AccDecDate turn = *rotation;
    if (CartesianScalingWanted() &&
        FitCircularMoveToJointLimits(robot, start_joints, mid_joints, end_joints, &line, &turn) < 0)
        return -1;
    return RunWithPreflight([&] {
        ArmOutput arm(robot);
        return arm.Finish(StreamCircularPath(robot, start_joints, mid_joints, end_joints, &line, &turn, arm));
    });
}

// ---------------------------------------------------------------- joint limits of Cartesian moves

bool CartesianScalingWanted() { return GetResourceDate()->cartesian_scaling_switch; }

AccDecDate SlowedDown(const AccDecDate& limits, double k) {
    AccDecDate out;
    out.SetParameter(limits.speed / k, limits.acceleration / (k * k), limits.jerk / (k * k * k));
    return out;
}

JointLimitMeter::JointLimitMeter(Robot* robot, double period) {
    n_ = robot->GetRobotJointNum();
    if (n_ < 0) n_ = 0;
    if (n_ > kMaxJointNum) n_ = kMaxJointNum;
    for (int i = 0; i < n_; ++i) {
        const AccDecDate& limit = robot->link_[i].joint_speed_data_;
        speed_[i] = limit.speed * period;
        acceleration_[i] = limit.acceleration * period * period;
        jerk_[i] = limit.jerk * period * period * period;
        usable_ = usable_ && speed_[i] > 0.0 && acceleration_[i] > 0.0 && jerk_[i] > 0.0 &&
                  std::isfinite(speed_[i] + acceleration_[i] + jerk_[i]);
    }
}

void JointLimitMeter::Reset() {
    for (int i = 0; i < n_; ++i) last_[i] = before_[i] = 0.0;
}

double JointLimitMeter::Step(const double* increment, double* orders) {
    // Largest ratio of each order; the roots are taken once. A joint without
    // usable limits, or a set-point that is not a number, needs more than any
    // slow-down gives.
    double speed = usable_ ? 0.0 : HUGE_VAL, acceleration = 0.0, jerk = 0.0;
    for (int i = 0; i < n_; ++i) {
        const double d = increment != nullptr ? increment[i] : 0.0;
        if (std::isnan(d)) speed = HUGE_VAL;
        speed = std::fmax(speed, std::fabs(d) / speed_[i]);
        acceleration = std::fmax(acceleration, std::fabs(d - last_[i]) / acceleration_[i]);
        jerk = std::fmax(jerk, std::fabs(d - 2.0 * last_[i] + before_[i]) / jerk_[i]);
        before_[i] = last_[i];
        last_[i] = d;
    }
    const double need[3] = {speed, std::sqrt(acceleration), std::cbrt(jerk)};
    if (orders != nullptr)
        for (int o = 0; o < 3; ++o) orders[o] = std::fmax(orders[o], need[o]);
    return std::fmax(need[0], std::fmax(need[1], need[2]));
}

ArmOutput::ArmOutput(Robot* robot, double period, bool joint_samples)
    : robot_(robot), timer_(period), period_(period), joint_samples_(joint_samples),
      brake_(robot, period, BrakingWanted() && !tql::InPreflight()) {
    if (!tql::InPreflight()) monitor_.Arm(robot);
}

int ArmOutput::Begin() {
    if (brake_.Collecting()) return BrakeNow(false);  // a new motion: the stream rests here
    if (stopped_) return -1;
    return BeginMotion();
}

bool ArmOutput::Stopped() {
    if (stopped_) return true;
    if (brake_.Collecting()) return false;
    const bool collision = collided_ && !collision_taken_;
    if (!collision && !TakeStopRequest()) return false;
    collision_taken_ = collision_taken_ || collision;
    if (brake_.Start()) return false;  // the stream goes on as the brake's look-ahead
    stopped_ = true;
    return true;
}

int ArmOutput::Send(double* command, double* previous, int move) {
    // A move that follows another without a blend starts from rest.
    const bool from_rest = last_move_ >= 0 && move != last_move_;
    last_move_ = move;
    if (from_rest && brake_.Collecting()) return BrakeNow(false);
    return Pass(command, previous);
}

int ArmOutput::Pass(double* command, double* previous) {
    if (!brake_.Collecting()) return SendOne(command, previous);
    if (!brake_.Feed(command)) return 0;
    return SendBrake();
}

int ArmOutput::SendOne(double* command, double* previous) {
    if (yielded_) return -1;  // the arm is held where the yield left it: nothing more
    if (monitor_.armed()) monitor_.NoteSend(tql::NowSeconds());
    const int sent = joint_samples_ ? robot_->SendPosition(command, previous)
                                    : robot_->SendMachinePosition(command, previous);
    if (sent < 0) return -1;
    brake_.Sent(command);
    timer_.Wait();
    // The observer runs on through a stop, so a recording shows the residual
    // as the arm comes to rest.
    if (monitor_.armed()) {
        const int joint = WatchForCollision(robot_, &monitor_, period_);
        if (joint > 0 && !collided_) {
            std::cout << joint << "  CollisionDetection." << std::endl;
            ReportCollision(monitor_, joint);
            collided_ = true;
        }
        if (collided_ && DriveOverloadAhead()) return Yield();
    }
    return 0;
}

bool ArmOutput::DriveOverloadAhead() const {
    for (int i = 0; i < CollisionMonitor::kJoints; ++i) {
        const double ahead = std::fabs(monitor_.torque(i) + monitor_.torque_change(i));
        if (ahead > kYieldShare * robot_->link_[i].PeakTorque()) return true;
    }
    return false;
}

int ArmOutput::Yield() {
    stopped_ = true;
    yielded_ = true;
    constexpr int n = CollisionMonitor::kJoints;
    std::fprintf(stderr, "collision: the brake would overload a drive; the arm yields (floats, damped) and is held "
                         "where it comes to rest\n");
    robot_->ActivateCurrentModeAtOnce();
    double current[kMaxJointNum], dq[kMaxJointNum], q[kMaxJointNum], zero[kMaxJointNum] = {};
    double g[kMaxJointNum], column[kMaxJointNum], unit[kMaxJointNum] = {}, tau[kMaxJointNum];
    // At the controller's own period, whatever the stream's (a slowed replay's is longer).
    tql::PeriodicTimer timer(PERIOD);
    int still = 0, k = 0;
    for (; k < kYieldMaxPeriods && still < kYieldRestPeriods; ++k) {
        robot_->RequestCVPValue();
        if (robot_->controller_ != nullptr) robot_->controller_->processEvents();
        robot_->GetCurrentCVPFast(current, dq, q);
        if (robot_->InverseDynamics(q, zero, zero, g) < 0) break;
        bool slow = true;
        for (int j = 0; j < n; ++j) {
            // The joint's own inertia M_jj: damping in its units removes a
            // fixed share of its momentum per period, stable on every joint.
            unit[j] = 1.0;
            robot_->InverseDynamics(q, zero, unit, column);
            unit[j] = 0.0;
            const double inertia = std::max(column[j] - g[j], 0.0);
            const double peak = kYieldTorqueShare * robot_->link_[j].PeakTorque();
            tau[j] = std::clamp(g[j] - kYieldDampingShare / PERIOD * inertia * dq[j], -peak, peak);
            slow = slow && std::fabs(dq[j]) < kYieldRestRate;
        }
        if (robot_->SetMachineTorque(tau) < 0) break;  // a fault: held below all the same
        still = slow ? still + 1 : 0;
        timer.Wait();
    }
    if (still >= kYieldRestPeriods)
        std::fprintf(stderr, "collision: the arm came to rest in %.3f s and is held\n", k * PERIOD);
    else
        std::fprintf(stderr, "collision: the arm still moved after %.3f s and is held\n", k * PERIOD);
    robot_->ActivatePositionMode();
    double held[kMaxJointNum] = {};
    robot_->GetCurrentMachineJoint(held);
    SetRealTimePos(held);
    return -1;
}

int ArmOutput::SendBrake() {
    stopped_ = true;
    braked_ = true;
    const int n = robot_->GetRobotJointNum();
    double previous[kMaxJointNum];
    double command[kMaxJointNum];
    for (int j = 0; j < n; ++j) previous[j] = brake_.Last()[j];
    for (int k = 0; k < brake_.Count(); ++k) {
        for (int j = 0; j < n; ++j) command[j] = brake_.SetPoint(k)[j];
        if (SendOne(command, previous) < 0) return -1;
        for (int j = 0; j < n; ++j) previous[j] = command[j];
    }
    return 0;
}

int ArmOutput::BrakeNow(bool failed) {
    brake_.Finish(failed);
    SendBrake();
    return -1;
}

int ArmOutput::Rest(long periods) {
    if (brake_.Collecting()) return BrakeNow(false);
    for (long t = periods; t > 0; --t) {
        // At rest: a stop ends the wait where the arm stands.
        if (stopped_ || TakeStopRequest()) {
            stopped_ = true;
            return -1;
        }
        timer_.Wait();
    }
    return 0;
}

int ArmOutput::Finish(int result) {
    if (brake_.Collecting()) BrakeNow(result < 0);
    return stopped_ ? -1 : result;
}

JointLimitProbe::JointLimitProbe(Robot* robot, int moves)
    : n_(robot->GetRobotJointNum()), moves_(moves > 0 ? moves : 0), total_(robot),
      need_(new double[moves > 0 ? moves : 1]()), shared_(new double[moves > 0 ? moves : 1]()),
      step_(new double[moves > 0 ? moves : 1]()),
      step_at_(new double[static_cast<size_t>(moves > 0 ? moves : 1) * kMaxJointNum]()) {
    if (n_ < 0) n_ = 0;
    if (n_ > kMaxJointNum) n_ = kMaxJointNum;
    for (Track& track : tracks_) track.meter = total_;
}

int JointLimitProbe::Send(double* command, double* previous, int move) {
    double increment[kMaxJointNum];
    for (int i = 0; i < n_; ++i) increment[i] = command[i] - previous[i];
    const double* increments[1] = {increment};
    Sample(increment, &move, increments, 1);
    NoteStep(move, command, increment);
    return 0;
}

void JointLimitProbe::NoteStep(int move, const double* command, const double* increment) {
    if (move < 0 || move >= moves_) return;
    double step = 0.0;
    for (int i = 0; i < n_; ++i) step += increment[i] * increment[i];
    if (!(step > step_[move])) return;
    step_[move] = step;
    for (int i = 0; i < n_; ++i) step_at_[static_cast<size_t>(move) * kMaxJointNum + i] = command[i];
}

int JointLimitProbe::Blend(double* command, double* previous, int tail_move, const double* tail,
                           const double* tail_old, int head_move, const double* head, const double* head_old) {
    double total[kMaxJointNum], tail_step[kMaxJointNum], head_step[kMaxJointNum];
    for (int i = 0; i < n_; ++i) {
        total[i] = command[i] - previous[i];
        tail_step[i] = tail[i] - tail_old[i];
        head_step[i] = head[i] - head_old[i];
    }
    const int moves[2] = {tail_move, head_move};
    const double* increments[2] = {tail_step, head_step};
    Sample(total, moves, increments, 2);
    NoteStep(tail_move, command, tail_step);
    NoteStep(head_move, command, head_step);
    return 0;
}

int JointLimitProbe::Rest(long periods) {
    // Three periods at rest take every difference back to zero.
    for (long t = periods < 3 ? periods : 3; t > 0; --t) Sample(nullptr, nullptr, nullptr, 0);
    return 0;
}

void JointLimitProbe::Sample(const double* total, const int* moves, const double* const* increments, int count) {
    const double whole = total_.Step(total);
    bool stepped[kTracks] = {};
    double own[kTracks] = {};
    for (int c = 0; c < count; ++c) {
        Track* track = nullptr;
        for (Track& p : tracks_)
            if (p.move == moves[c]) track = &p;
        if (track == nullptr) {
            // A move's first increment: a free slot, else the one idle longest.
            track = &tracks_[0];
            for (Track& p : tracks_)
                if (p.move < 0 || (track->move >= 0 && p.idle > track->idle)) track = &p;
            track->move = moves[c];
            track->meter.Reset();
        }
        const int k = static_cast<int>(track - tracks_);
        own[k] = std::fmax(own[k], track->meter.Step(increments[c]));
        track->idle = 0;
        stepped[k] = true;
    }
    // Moves that have finished: at rest after their last increment until
    // their differences are back to zero.
    for (int k = 0; k < kTracks; ++k) {
        if (tracks_[k].move < 0 || stepped[k]) continue;
        own[k] = tracks_[k].meter.Step(nullptr);
        ++tracks_[k].idle;
        stepped[k] = true;
    }
    double own_worst = 0.0;
    for (int k = 0; k < kTracks; ++k) {
        if (!stepped[k]) continue;
        const int move = tracks_[k].move;
        if (move >= 0 && move < moves_ && !(own[k] <= need_[move])) need_[move] = own[k];
        if (!(own[k] <= own_worst)) own_worst = own[k];
    }
    // Over the limits although no move alone is: the superposition, charged
    // to every move the differences reach.
    if (!(whole <= kScalingWithin) && own_worst <= kScalingWithin) {
        for (int k = 0; k < kTracks; ++k) {
            const int move = tracks_[k].move;
            if (stepped[k] && move >= 0 && move < moves_ && !(whole <= shared_[move])) shared_[move] = whole;
        }
    }
    for (Track& p : tracks_)
        if (p.idle >= 2) p.move = -1;
}

QuietStdout::QuietStdout() : saved_(std::cout.rdbuf()), state_(static_cast<int>(std::cout.rdstate())) {
    std::cout.rdbuf(nullptr);
}

QuietStdout::~QuietStdout() {
    std::cout.rdbuf(saved_);
    std::cout.clear(static_cast<std::ios::iostate>(state_));
}

namespace {

// Slows one move until its stream, measured by simulate(probe) with the
// limits as they stand, keeps the joints' limits: slow(k) sets the move's
// limits k times slower than programmed (k = 1: as programmed).
template <typename Slow, typename Simulate>
double FitMove(Robot* robot, Slow slow, Simulate simulate) {
    double k = 1.0;
    bool beyond = false;
    double step_at[kMaxJointNum] = {};
    {
        QuietStdout quiet;
        bool fails = false;  // the move as programmed cannot be computed to its end
        for (int pass = 0; pass < kMaxScalingPasses; ++pass) {
            JointLimitProbe probe(robot, 1);
            if (simulate(probe) < 0) {
                if (pass == 0) {
                    // Refused where it fails (before motion with the
                    // pre-flight on): slowed as it needs up to there.
                    fails = true;
                } else if (!fails) {
                    // Slowed down, a stream that ran as programmed meets a
                    // pose it cannot solve: it passes that close to a
                    // singularity.
                    beyond = true;
                    break;
                }
            } else {
                probe.Finish();
            }
            const double need = probe.Need(0);
            if (need <= kScalingWithin) return k;
            k *= need * (1.0 + kScalingMargin);
            for (int i = 0; i < kMaxJointNum; ++i) step_at[i] = probe.LargestStepAt(0)[i];
            if (!(k <= kMaxSlowDown)) {
                beyond = true;
                break;
            }
            slow(k);
            // The last pass's limits stand even if not measured again.
            if (pass == kMaxScalingPasses - 1) return k;
        }
    }
    slow(1.0);
    if (!beyond) return 0.0;
    std::cout << "The path passes through or too near " << NearestSingularity(robot, step_at)
              << ": refused before motion." << std::endl;
    return -1.0;
}

template <typename Simulate>
double FitCartesianMove(Robot* robot, AccDecDate* linear, AccDecDate* rotation, Simulate simulate) {
    const AccDecDate line = *linear;
    const AccDecDate turn = *rotation;
    return FitMove(
        robot,
        [&](double k) {
            *linear = SlowedDown(line, k);
            *rotation = SlowedDown(turn, k);
        },
        simulate);
}

}  // namespace

double FitLinearMoveToJointLimits(Robot* robot, double* start_joints, double* end_joints, AccDecDate* linear,
                                  AccDecDate* rotation) {
    return FitCartesianMove(robot, linear, rotation, [&](JointLimitProbe& probe) {
        return StreamLinearPath(robot, start_joints, end_joints, linear, rotation, probe);
    });
}

double FitCircularMoveToJointLimits(Robot* robot, double* start_joints, double* mid_joints, double* end_joints,
                                    AccDecDate* linear, AccDecDate* rotation) {
    return FitCartesianMove(robot, linear, rotation, [&](JointLimitProbe& probe) {
        return StreamCircularPath(robot, start_joints, mid_joints, end_joints, linear, rotation, probe);
    });
}

std::string NearestSingularity(Robot* robot, const double* q) {
    if (robot == nullptr || robot->GetRobotJointNum() != 6) return "a singularity";
    constexpr double kToDegrees = 180.0 / 3.14159265358979323846;
    // Distances from each singularity, each on a scale of one: the wrist's
    // and the elbow's sines, the wrist centre's distance from the cylinder
    // of radius d4 about the base axis over the arm's reach a2 + a3.
    const double wrist = std::fabs(std::sin(q[4]));
    const double elbow = std::fabs(std::sin(q[2]));
    double pose[7];
    double shoulder = HUGE_VAL, radius = 0.0;
    const double d4 = robot->link_[3].mdh_[3], d6 = robot->link_[5].mdh_[3];
    const double reach = std::fabs(robot->link_[2].mdh_[2]) + std::fabs(robot->link_[3].mdh_[2]);
    if (robot->ForwardKinematics(const_cast<double*>(q), pose) >= 0 && reach > 0.0) {
        const double w = pose[3], x = pose[4], y = pose[5], z = pose[6];
        // The flange's z axis from its quaternion; the wrist centre lies d6 behind the flange on it.
        const double ax = 2 * (x * z + w * y), ay = 2 * (y * z - w * x);
        radius = std::hypot(pose[0] - d6 * ax, pose[1] - d6 * ay);
        shoulder = std::fabs(radius - std::fabs(d4)) / reach;
    }
    std::ostringstream text;
    text.precision(3);
    if (wrist <= elbow && wrist <= shoulder)
        text << "the wrist singularity (joint 5 at " << q[4] * kToDegrees << " degrees)";
    else if (elbow <= shoulder)
        text << "the elbow singularity (joint 3 at " << q[2] * kToDegrees << " degrees)";
    else
        text << "the shoulder singularity (wrist centre " << std::fabs(radius - std::fabs(d4))
             << " mm from the base axis' cylinder)";
    return text.str();
}

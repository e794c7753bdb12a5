// Replay of a trajectory file: the recorded joint samples are sent as they
// are, one per period; the speed override stretches the period instead of
// changing the samples.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <iostream>
#include <memory>
#include <new>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"
#include "program.h"
#include "progress.h"
#include "timing.h"

namespace {

// Pause between the passes of a cyclic replay, ms.
constexpr double kCyclePauseMs = 1000.0;
// The cycle counter runs 1 .. kCycleCountWrap and starts again at 1.
constexpr int kCycleCountWrap = 100000;
// Overrides offered when a stream is too fast, in steps of kOverrideStep.
constexpr double kOverrideStep = 0.01;
// Slack of the joint-limit checks, so a stream planned exactly at a limit and
// written with six significant digits is not refused for its last digit.
constexpr double kLimitSlack = 1e-6;
constexpr double kRadToDeg = 57.295780490442965;

// Whole milliseconds per sample at override ov, as the stream waits: 4 at
// override 1, 8 at 0.5, 13 at 0.3.
int SamplePeriodMs(double ov) { return static_cast<int>(4.0 / ov); }

// Joint j of sample k, the arm resting at the first sample before the stream
// and at the last after it.
double Sample(const double* samples, int rows, int n, int k, int j) {
    if (k < 0) k = 0;
    if (k >= rows) k = rows - 1;
    return samples[static_cast<size_t>(k) * n + j];
}

// The step into sample k (1 .. rows; k = rows is the stop after the last
// sample) of joint j: change of position over one period [rad] and its change
// from the previous step [rad].
void Step(const double* samples, int rows, int n, int k, int j, double* d1, double* d2) {
    const double q = k < rows ? Sample(samples, rows, n, k, j) : Sample(samples, rows, n, rows - 1, j);
    const double q1 = Sample(samples, rows, n, k - 1, j), q2 = Sample(samples, rows, n, k - 2, j);
    *d1 = q - q1;
    *d2 = q - 2.0 * q1 + q2;
}

// Shortest period [s] at which the step keeps joint j within its speed and
// acceleration limits (rows 1 and 2 of the robot type's table).
double PeriodNeeded(const LinkUnit& joint, double d1, double d2) {
    const AccDecDate& limit = joint.joint_speed_data_;
    return std::max(std::fabs(d1) / limit.speed, std::sqrt(std::fabs(d2) / limit.acceleration));
}

// The failing joint-limit check of the step into sample k at period t, with
// its message; false when the step passes.
bool JointLimitRefuses(Robot* robot, const double* samples, int rows, int k, double t) {
    const int n = robot->GetRobotJointNum();
    for (int j = 0; j < n; ++j) {
        double d1, d2;
        Step(samples, rows, n, k, j, &d1, &d2);
        const AccDecDate& limit = robot->link_[j].joint_speed_data_;
        const double speed = std::fabs(d1) / t, acceleration = std::fabs(d2) / (t * t);
        if (!(speed <= limit.speed * (1.0 + kLimitSlack))) {
            std::cout << "Joint " << j + 1 << " speed " << speed * kRadToDeg << " deg/s beyond its limit "
                      << limit.speed * kRadToDeg << " deg/s (row 1)" << std::endl;
            return true;
        }
        if (!(acceleration <= limit.acceleration * (1.0 + kLimitSlack))) {
            std::cout << "Joint " << j + 1 << " acceleration " << acceleration * kRadToDeg
                      << " deg/s^2 beyond its limit " << limit.acceleration * kRadToDeg << " deg/s^2 (row 2)"
                      << std::endl;
            return true;
        }
    }
    return false;
}

// Largest override (a multiple of kOverrideStep within the accepted range) at
// which every step keeps the joint limits, or 0 when even the slowest does
// not or the stream breaks a limit no override changes.
double LargestPassingOverride(Robot* robot, const double* samples, int rows) {
    const int n = robot->GetRobotJointNum();
    double needed = 0.0;  // s
    for (int k = 1; k <= rows; ++k) {
        for (int j = 0; j < n; ++j) {
            double d1, d2;
            Step(samples, rows, n, k, j, &d1, &d2);
            const double t = PeriodNeeded(robot->link_[j], d1, d2);
            if (!(t >= 0.0)) return 0.0;  // NaN: a limit or sample that is not a number
            needed = std::max(needed, t);
            if (k < rows) {
                const double q = Sample(samples, rows, n, k, j);
                if (!robot->link_[j].PositionAllowed(q, Sample(samples, rows, n, k - 1, j), PERIOD)) return 0.0;
            }
        }
        // Forward kinematics reads the joints only.
        double* sample = const_cast<double*>(samples) + static_cast<size_t>(std::min(k, rows - 1)) * n;
        if (robot->CheckWorkspace(sample, sample - (k < rows ? n : 0), false) < 0) return 0.0;
    }
    for (int step = static_cast<int>(kOverrideHigh / kOverrideStep + 0.5); step * kOverrideStep > kOverrideLow;
         --step) {
        const double ov = step * kOverrideStep;
        if (SamplePeriodMs(ov) * 1e-3 * (1.0 + kLimitSlack) >= needed) return ov;
    }
    return 0.0;
}

// Names the refused sample (1 = the first) and the override that would pass.
int RefuseSample(Robot* robot, const double* samples, int rows, int k) {
    std::cout << "Sample " << k + 1 << " refused before motion." << std::endl;
    const double ov = LargestPassingOverride(robot, samples, rows);
    if (ov > 0.0)
        std::cout << "It would pass at a speed override of " << ov << " or below." << std::endl;
    else
        std::cout << "No speed override (0.1 .. 1) lets it pass." << std::endl;
    return -1;
}

}  // namespace

int PreflightJointSamples(Robot* robot, double* samples, int rows, double period_s) {
    const int n = robot->GetRobotJointNum();
    {
        tql::PreflightScope dry;
        if (MoveToSpecifiedPosition(samples) < 0) return -1;
    }
    for (int k = 0; k <= rows; ++k) {
        if (k < rows) {
            double* sample = samples + static_cast<size_t>(k) * n;
            double* before = k > 0 ? sample - n : sample;
            // The tick check every sample will pass when it is sent.
            if (robot->CheckPositionTick(sample, before, false) < 0) return RefuseSample(robot, samples, rows, k);
        }
        if (k > 0 && JointLimitRefuses(robot, samples, rows, k, period_s))
            return RefuseSample(robot, samples, rows, k < rows ? k : rows - 1);
    }
    return 0;
}

int MoveTrajectoryOnce(Robot* robot, double* samples, int rows) {
    const int n = robot->GetRobotJointNum();
    if (samples == nullptr || rows < 1 || n < 1 || n > kMaxJointNum) {
        std::cout << "Replay refused: " << rows << " samples of " << n << " joints." << std::endl;
        return -1;
    }
    const double ov = GetReplayOverride();
    // A caller that bypassed SetSpeedOverride could pass any override; the
    // period below must stay a sane whole number of milliseconds.
    if (!(ov > kOverrideLow && ov <= kOverrideHigh)) {
        std::cout << "speed override = " << ov << std::endl;
        std::cout << "The value of speed override is invalid(0.1-1)." << std::endl;
        return -1;
    }
    const int wait_ms = SamplePeriodMs(ov);
    if (PreflightWanted() && PreflightJointSamples(robot, samples, rows, wait_ms * 1e-3) < 0) return -1;
    if (MoveToSpecifiedPosition(samples) < 0) return -1;

    // The sample clock is what a stop brakes.
    ArmOutput arm(robot, wait_ms * 1e-3, true);
    if (arm.Begin() < 0) return -1;
    const bool collision = GetResourceDate()->collision_switch;
    if (collision) InitC();
    arm.Restart();
    int result = 0;
    tql::Progress progress("replay", 1, rows - 1);
    for (int k = 1; k < rows && result == 0; ++k) {
        if (arm.Stopped()) {
            result = -1;
            break;
        }
        if (collision && !arm.LookingAhead()) robot->RequestCVPValue();
        double* sample = samples + static_cast<size_t>(k) * n;
        result = arm.Send(sample, sample - n, 0);
        progress.Update(k);
    }
    return arm.Finish(result);
}

int MoveTrajectory(Robot* robot, std::string file_name, bool cyclic) {
    robot->ActivatePositionMode();
    if (IsTerminal() && GetReplayOverrideFromTerminal() < 0) return -1;
    if (SetSpeedOverride() < 0) return -1;

    const int n = robot->GetRobotJointNum();
    if (n < 1 || n > kMaxJointNum) {
        std::cout << "Replay refused: " << n << " joints." << std::endl;
        return -1;
    }
    // Zeroed, so a short line replays its missing joints as 0 like a
    // non-number, never as leftover memory.
    const size_t size = static_cast<size_t>(kMaxTrajectoryRows) * n;
    std::unique_ptr<double[]> samples(new (std::nothrow) double[size]());
    if (!samples) {
        std::cout << "New memory failure ." << std::endl;
        return -1;
    }
    int rows = 0;
    if (ReadTrajectoryForReplay(file_name, samples.get(), kMaxTrajectoryRows, n, &rows) < 0) return -1;
    scaling(samples.get(), kProgramDegreeToRadian, rows * n);

    if (!cyclic) {
        if (MoveTrajectoryOnce(robot, samples.get(), rows) < 0) return -1;
    } else {
        // The operator's stop ends a cyclic replay, and that is its normal
        // end: the result stays 0. A refusal or a fault ends it with -1. A stop
        // asked for during the pause between passes ends it too (the next
        // approach move would clear the flag).
        for (int count = 1;; count = count % kCycleCountWrap + 1) {
            std::cout << "Cycle count : " << count << std::endl;
            if (MoveTrajectoryOnce(robot, samples.get(), rows) < 0) {
                if (!GetStopFlag()) return -1;
                break;
            }
            tql::SleepMilliseconds(kCyclePauseMs);
            if (TakeStopRequest()) break;
        }
    }
    std::cout << " " << std::endl;
    std::cout << "Replay end " << std::endl;
    return 0;
}

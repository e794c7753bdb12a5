// Jogging: one fixed step of one joint, or of the flange along / about one
// axis of the base frame, as a complete rest-to-rest move at a quarter of the
// speed limits. A step that would take the arm out of its workspace (or past
// a soft limit) stops at the boundary: it is shortened to the longest step
// whose whole stream passes the pre-flight.
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
template <typename Move>
int JogToBoundary(double step, Move move) {
    auto passes = [&](double s) {
        tql::PreflightScope dry;
        QuietStdout quiet;
        return move(s) >= 0;
    };
    if (passes(step)) return move(step);
    double lo = 0.0, hi = 1.0;
    for (int k = 0; k < kBoundarySearch; ++k) {
        const double mid = 0.5 * (lo + hi);
        (passes(mid * step) ? lo : hi) = mid;
    }
    if (lo == 0.0) return move(step);
    std::cout << "Jog stopped at the boundary after " << lo * step << " of " << step << "." << std::endl;
    return move(lo * step);
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
    double start_pose[7];
    if (robot->ForwardKinematics(current, start_pose) < 0) return -1;
    AccDecDate linear, rotation;
    robot->GetLineSpeedAccDecParameters(&linear);
    robot->GetRotateSpeedAccDecParameters(&rotation);
    linear.speed *= kJogSpeedFactor;
    rotation.speed *= kJogSpeedFactor;

    return JogToBoundary(step, [&](double amount) {
        double target[kMaxJointNum];
        for (int i = 0; i < n; ++i) target[i] = current[i];
        double pose[7];
        for (int i = 0; i < 7; ++i) pose[i] = start_pose[i];
        // Translation steps add to the flange position in base coordinates;
        // rotation steps turn the orientation about the base axis and keep
        // the position (the composition does not rotate the translation).
        double jog[4][4], flange[4][4], moved[4][4];
        CalcTransmatrix(jog, axis, axis > 2 ? amount * kProgramDegreeToRadian : amount);
        UnitQuaternionToMatrix(flange, pose);
        MatrixLeftMul(moved, jog, flange);
        MatrixToUnitQuaternion(moved, pose);
        if (robot->InverseKinematics(target, pose) < 0) return -1;
        AccDecDate line = linear, turn = rotation;
        return MoveLinearPath(robot, current, target, &line, &turn);
    });
}

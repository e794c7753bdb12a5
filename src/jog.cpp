// Jogging: one fixed step of one joint, or of the flange along / about one
// axis of the base frame, as a complete rest-to-rest move at a quarter of the
// speed limits.
#include <cmath>
#include <iostream>

#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"

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

}  // namespace

int JogInJointCoordinateSystem(int joint, double step) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    if (joint < 0 || joint > n - 1 || n > kMaxJointNum) return -1;
    if (!StepUsable(step)) return -1;

    double current[kMaxJointNum];
    AccDecDate limits[kMaxJointNum];
    robot->GetCurrentMachineJoint(current);
    robot->GetJointSpeedAccDecParameters(limits);
    for (int i = 0; i < n; ++i) limits[i].speed *= kJogSpeedFactor;

    double target[kMaxJointNum];
    for (int i = 0; i < n; ++i) target[i] = current[i];
    target[joint] += step * 3.1415926 / 180;  // degrees to radians
    return MoveJointPath(robot, current, target, limits);
}

int JogInCartesianCoordinateSystem(int axis, double step) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    // The joint count bounds the axis; six joints admit exactly the six axes.
    if (axis < 0 || axis > n - 1 || n > kMaxJointNum) return -1;
    if (!StepUsable(step)) return -1;

    double current[kMaxJointNum];
    robot->GetCurrentMachineJoint(current);
    double target[kMaxJointNum];
    for (int i = 0; i < n; ++i) target[i] = current[i];

    double pose[7];
    if (robot->ForwardKinematics(current, pose) < 0) return -1;
    if (axis > 2) step *= kProgramDegreeToRadian;

    // Translation steps add to the flange position in base coordinates;
    // rotation steps turn the orientation about the base axis and keep the
    // position (the composition does not rotate the translation).
    double jog[4][4], flange[4][4], moved[4][4];
    CalcTransmatrix(jog, axis, step);
    UnitQuaternionToMatrix(flange, pose);
    MatrixLeftMul(moved, jog, flange);
    MatrixToUnitQuaternion(moved, pose);
    if (robot->InverseKinematics(target, pose) < 0) return -1;

    AccDecDate linear, rotation;
    robot->GetLineSpeedAccDecParameters(&linear);
    robot->GetRotateSpeedAccDecParameters(&rotation);
    linear.speed *= kJogSpeedFactor;
    rotation.speed *= kJogSpeedFactor;
    return MoveLinearPath(robot, current, target, &linear, &rotation);
}

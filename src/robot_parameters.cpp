// Applying the parameter record to the robot: joint count, actuator types,
// kinematic parameters, speed limits and directions.
#include <cmath>
#include <iostream>

#include "database.h"
#include "kinematics.h"
#include "mechnical_unit.h"

namespace {

// Degrees to radians with the system's short pi, in this order of operations.
double DegToRad(double deg) { return deg * 3.1415926 / 180.0; }

struct RobotTypeLayout {
    int code;
    int joints;
    int type_field;
    int actuator_types[6];
};

constexpr RobotTypeLayout kLayouts[] = {
    {kTypeGL_4L3, 4, 0, {1, 1, 1, 1, 0, 0}},
    {kTypeGL_6L3, 6, 1, {1, 1, 1, 1, 1, 1}},
    {kTypeGL_2P8_P6_3P3, 6, 2, {6, 6, 7, 8, 8, 8}},
    {kTypeGL_6L6, 6, 3, {0, 0, 0, 0, 0, 0}},
    {kTypeGL_2L6_4L3, 6, 4, {0, 0, 1, 1, 1, 1}},
};

constexpr int kFreeCombinationType = 6;
constexpr int kFreeCombinationActuator = 9;

}  // namespace

double JointPeakTorque(int robot_type, int joint) {
    ActuatorType type = -1;
    if (robot_type == kTypeFreeCombination && joint >= 0 && joint < kMaxJointNum) type = kFreeCombinationActuator;
    for (const RobotTypeLayout& l : kLayouts)
        if (l.code == robot_type && joint >= 0 && joint < l.joints) type = l.actuator_types[joint];
    LinkUnit unit;
    return type >= 0 && unit.InitActuator(0, type) == 0 ? unit.PeakTorque() : 0.0;
}

int Robot::GetParametersFromDatabase() {
    ResourceData* rd = GetResourceDate();
    const int id_count = static_cast<int>(actuator_ids_.size());
    ActuatorType types[kMaxJointNum] = {};

    if (rd->robot_type == kTypeFreeCombination) {
        if (id_count > kMaxJointNum) {
            std::cout << " ID size = " << id_count << " > " << kMaxJointNum << std::endl;
            return -1;
        }
        joint_num_ = id_count;
        robot_type_ = kFreeCombinationType;
        for (int i = 0; i < joint_num_; ++i) {
            types[i] = kFreeCombinationActuator;
            rd->joint_direction[i] = 1.0;
            rd->joint_speed[i] = 360.0;
            rd->joint_acceleration[i] = 1800.0;
            rd->joint_jerk[i] = 9000.0;
        }
    } else {
        const RobotTypeLayout* layout = nullptr;
        for (const RobotTypeLayout& l : kLayouts)
            if (l.code == rd->robot_type) layout = &l;
        if (layout == nullptr) {
            std::cout << "Mechnial type is invalid." << std::endl;
            return -1;
        }
        joint_num_ = layout->joints;
        robot_type_ = layout->type_field;
        for (int i = 0; i < joint_num_; ++i) types[i] = layout->actuator_types[i];
    }

    // Modified-DH values per joint: twist alpha [rad], link length a [mm],
    // link offset d [mm]. Row 12 of a six-joint type holds d1, a2, a3, d4, d5, d6.
    double alpha[kMaxJointNum] = {};
    double a[kMaxJointNum] = {};
    double d[kMaxJointNum] = {};
    if (robot_type_ >= 1 && robot_type_ <= 4) {
        const double twist[6] = {0, 1.5707963, 0, -1.5707963, 0, 0};
        for (int i = 0; i < 6; ++i) alpha[i] = twist[i];
        ModifiedDhFromLengths(rd->kinematic_lengths, a, d);
    }

    if (id_count != joint_num_) {
        std::cout << " ID size = " << id_count << (id_count > joint_num_ ? " > " : " < ") << joint_num_
                  << std::endl;
        return -1;
    }

    // Nothing moves on a limit that is not a usable number: a negative
    // acceleration would plan a move of no periods, a zero direction divide
    // set-points by zero. Free combinations set their own joint limits.
    if (CheckRobotParameters(rd, joint_num_, robot_type_ >= 1 && robot_type_ <= 4) < 0) return -1;

    std::cout << "Current Axis Num : " << joint_num_ << std::endl;
    std::cout << "ID vector: " << std::endl;
    for (int i = 0; i < joint_num_; ++i) {
        std::cout << static_cast<int>(actuator_ids_[i]) << " ";
        if (link_[i].InitActuator(actuator_ids_[i], types[i]) < 0) return -1;
        link_[i].SetActuatorPointer(controller_);
        link_[i].SetMdhParameters(alpha[i], 0.0, a[i], d[i]);
        link_[i].SetSpeedData(DegToRad(rd->joint_speed[i]), DegToRad(rd->joint_acceleration[i]),
                              DegToRad(rd->joint_jerk[i]));
        link_[i].SetDirect(static_cast<int>(rd->joint_direction[i]));
    }
    std::cout << std::endl;

    const double* c = rd->cartesian_limits;
    line_speed_data_.SetParameter(c[0], c[1], c[2]);
    rotate_speed_data_.SetParameter(DegToRad(c[3]), DegToRad(c[4]), DegToRad(c[5]));
    return 0;
}

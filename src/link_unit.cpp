// One joint over one actuator: unit conversion at the actuator boundary and the
// checks every set-point passes before it is sent.
#include <cmath>
#include <iostream>

#include "mechnical_unit.h"

namespace {

// The system's short pi, used for every joint/actuator conversion.
constexpr double kPi = 3.1415926;
constexpr double kTwoPi = 6.2831852;

struct ActuatorTypeData {
    double reduction_ratio;
    double kt;
    double peak_current;  // A: the most the drive may be commanded
};

// Reduction ratio, torque constant and peak current per actuator type 0..9.
// The peak currents are the drives' rated peaks as this controller assumes
// them (type 1, the demo arm's and the simulated bus's actuator: 10 A); an
// integrator fitting other actuators takes them from the maker's data sheet.
constexpr ActuatorTypeData kActuatorTypes[] = {
    {36.0, 2.3794, 20.0}, {36.0, 1.0623, 10.0}, {36.0, 1.0, 10.0},   {36.0, 1.0, 10.0},    {36.0, 1.0, 10.0},
    {36.0, 1.0, 10.0},    {101.0, 10.1, 30.0},  {81.0, 4.9086, 20.0}, {51.0, 1.7748, 15.0}, {1.0, 1.0, 10.0},
};
constexpr int kActuatorTypeCount = sizeof(kActuatorTypes) / sizeof(kActuatorTypes[0]);

double ToDegree(double rad) { return rad * 180.0 / kPi; }

}  // namespace

int LinkUnit::InitActuator(unsigned char id, ActuatorType type) {
    direct_ = 1;
    actuator_id_ = id;
    actuator_type_ = type;
    if (type < 0 || type >= kActuatorTypeCount) {
        std::cout << "Type is invalid." << std::endl;
        return -1;
    }
    reduction_ratio_ = kActuatorTypes[type].reduction_ratio;
    kt_ = kActuatorTypes[type].kt;
    peak_current_ = kActuatorTypes[type].peak_current;
    return 0;
}

unsigned char LinkUnit::GetActuatorId() { return actuator_id_; }

void LinkUnit::SetActuatorPointer(ActuatorController* controller) { controller_ = controller; }

void LinkUnit::SetMdhParameters(double alpha, double zero, double a, double d) {
    mdh_[0] = alpha;
    mdh_[1] = zero;
    mdh_[2] = a;
    mdh_[3] = d;
}

void LinkUnit::SetSpeedData(double speed, double acceleration, double jerk) {
    joint_speed_data_.SetParameter(speed, acceleration, jerk);
}

void LinkUnit::SetDirect(int direct) { direct_ = direct; }

double LinkUnit::ActuatorToJoint(double revolutions) const {
    return revolutions * direct_ / reduction_ratio_ * 2 * kPi;
}

double LinkUnit::ActuatorSpeed(double position, double last_position, double period) const {
    return reduction_ratio_ * ((position - last_position) / period) / kTwoPi * 60.0;
}

bool LinkUnit::PositionAllowed(double position, double last_position, double period) const {
    // Written so that a NaN position, speed or limit is refused too.
    return std::fabs(ActuatorSpeed(position, last_position, period)) <= speed_limit_ &&
           position <= max_soft_limit_ && position >= min_soft_limit_;
}

int LinkUnit::CheckPosition(double position, double last_position, double period) {
    if (std::isnan(position)) {
        std::cout << "NAN" << std::endl;
        return -1;
    }
    const double speed = ActuatorSpeed(position, last_position, period);  // rpm
    if (!(std::fabs(speed) <= speed_limit_)) {
        std::cout << speed << "\t " << speed_limit_ << std::endl;
        std::cout << "ID " << static_cast<int>(actuator_id_) << " beyond speed limit" << std::endl;
        return -1;
    }
    if (position > max_soft_limit_) {
        std::cout << "ID " << static_cast<int>(actuator_id_) << " beyond joint max soft limit" << std::endl;
        std::cout << "CUR = " << ToDegree(position) << " (degree) " << std::endl;
        std::cout << "MAX SOFT LIMIT = " << ToDegree(max_soft_limit_) << " (degree) " << std::endl;
        return -1;
    }
    if (position < min_soft_limit_) {
        std::cout << "ID " << static_cast<int>(actuator_id_) << " beyond joint min soft limit" << std::endl;
        std::cout << "Current position = " << ToDegree(position) << " (degree) " << std::endl;
        std::cout << "Min soft limit = " << ToDegree(min_soft_limit_) << " (degree) " << std::endl;
        return -1;
    }
    return 0;
}

int LinkUnit::CheckTorque(double torque) {
    if (std::fabs(kt_) < 1e-5) {
        std::cout << "kt error ." << std::endl;
        return -1;
    }
    const double current = torque / kt_ / static_cast<double>(direct_);
    if (!std::isfinite(current)) {
        std::cout << "tmp NAN" << std::endl;
        return -1;
    }
    // Beyond its peak the drive cannot follow: the command is not what the
    // arm would get, so it is refused rather than sent.
    if (std::fabs(current) > peak_current_) {
        std::cout << "ID " << static_cast<int>(actuator_id_) << " current " << current << " A beyond peak current "
                  << peak_current_ << " A" << std::endl;
        return -1;
    }
    return 0;
}

int LinkUnit::DisableActuator() {
    if (!controller_) return -1;
    if (!controller_->isEnable(actuator_id_, "")) {
        std::cout << "Disable error." << std::endl;
        std::cout << "Please check " << " ID " << static_cast<int>(actuator_id_) << std::endl;
    }
    controller_->disableActuator(actuator_id_, "");
    return 0;
}

int LinkUnit::GetActuatorData() {
    if (!controller_) return -1;
    if (!controller_->isEnable(actuator_id_, "")) {
        std::cout << "ID " << static_cast<int>(actuator_id_) << " is not enabled ! " << std::endl;
        return -1;
    }
    const double lo = ActuatorToJoint(controller_->getMinimumPosition(actuator_id_, true, ""));
    const double hi = ActuatorToJoint(controller_->getMaximumPosition(actuator_id_, true, ""));
    speed_limit_ = controller_->getVelocityLimit(actuator_id_, true, "");
    // A reversed joint sees the actuator's range mirrored.
    if (direct_ < 1) {
        min_soft_limit_ = hi;
        max_soft_limit_ = lo;
    } else {
        min_soft_limit_ = lo;
        max_soft_limit_ = hi;
    }
    return 0;
}

void LinkUnit::SetActuatorPosition(double q) {
    if (controller_) controller_->setPosition(actuator_id_, (q / kTwoPi) * reduction_ratio_ / direct_, "");
}

void LinkUnit::SetActuatorTorque(double t) {
    if (controller_) controller_->setCurrent(actuator_id_, t / kt_ / direct_, "");
}

double LinkUnit::GetActuatorPositionFast() {
    return controller_ ? ActuatorToJoint(controller_->getPosition(actuator_id_, false, "")) : 0.0;
}

double LinkUnit::GetActuatorPositionSlow() {
    return controller_ ? ActuatorToJoint(controller_->getPosition(actuator_id_, true, "")) : 0.0;
}

void LinkUnit::GetActuatorCVPFast(double* c, double* v, double* p) {
    if (!controller_) {
        *c = *v = *p = 0.0;
        return;
    }
    *c = controller_->getCurrent(actuator_id_, false, "") * direct_;
    *v = controller_->getVelocity(actuator_id_, false, "") * direct_ / (reduction_ratio_ * 60.0) * 2 * kPi;
    *p = ActuatorToJoint(controller_->getPosition(actuator_id_, false, ""));
}

void LinkUnit::GetActuatorTVPFast(double* t, double* v, double* p) {
    GetActuatorCVPFast(t, v, p);
    *t *= kt_;
}

void LinkUnit::RequestCVPValue() {
    if (controller_) controller_->requestCVPValue(actuator_id_, "");
}

void LinkUnit::SetActuatorPositionPidData(double kp, double ki, double kd) {
    if (!controller_) return;
    controller_->setPositionKp(actuator_id_, kp, "");
    controller_->setPositionKi(actuator_id_, ki, "");
    controller_->setPositionKd(actuator_id_, kd, "");
}

void LinkUnit::SetActuatorVelocityPiData(double kp, double ki) {
    if (!controller_) return;
    controller_->setVelocityKp(actuator_id_, kp, "");
    controller_->setVelocityKi(actuator_id_, ki, "");
}

void LinkUnit::SetActuatorLimitData(double min, double max) {
    if (!controller_) return;
    controller_->setMinimumPosition(actuator_id_, min, "");
    controller_->setMaximumPosition(actuator_id_, max, "");
}

void LinkUnit::SetLockEnergy(double e) {
    if (controller_) controller_->setLockEnergy(actuator_id_, e, "");
}

void LinkUnit::SetActuatorHomingPosition() {
    if (!controller_) return;
    const double p = controller_->getPosition(actuator_id_, true, "");
    controller_->setHomingPosition(actuator_id_, p, "");
}

unsigned LinkUnit::GetErrorCode() { return controller_ ? controller_->getErrorCode(actuator_id_, "") : 0u; }

void LinkUnit::ClearActuatorError() {
    if (controller_) controller_->clearError(actuator_id_, "");
}

bool LinkUnit::SaveActuatorParameters() { return controller_ ? controller_->saveAllParams(actuator_id_, "") : false; }

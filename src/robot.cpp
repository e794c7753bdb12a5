// The arm: bring-up over the actuator controller, modes, queries, settings and
// the per-period set-points.
#include <cmath>
#include <iostream>

#include "mechnical_unit.h"
#include "timing.h"

Robot::Robot() = default;
Robot::~Robot() = default;

int Robot::ServerInit(ActuatorController* controller, std::vector<unsigned char> ids,
                      std::vector<ActuatorController::UnifiedID> uids) {
    set_point_valid_ = false;  // a fresh boot: nothing sent yet
    if (controller == nullptr) {
        std::cout << "Enable failure." << std::endl;
        return -1;
    }
    controller_ = controller;
    actuator_ids_ = ids;
    unified_ids_ = uids;
    if (GetParametersFromDatabase() < 0) return -1;
    std::cout << "Enable ... " << std::endl;
    if (!controller_->enableActuatorInBatch(unified_ids_)) {
        std::cout << "Enable failure." << std::endl;
        return -1;
    }
    controller_->addErrorCallback(ErrorCallBack);
    if (GetParametersFromActuator() < 0) return -1;
    std::cout << "Enable robot successfully." << std::endl;
    return 0;
}

int Robot::InitRobot(LinkUnit* units, int n) {
    controller_ = ActuatorController::initController();
    if (controller_ == nullptr) {
        std::cout << "Enable failure." << std::endl;
        return -1;
    }
    Actuator::ErrorsDefine err = Actuator::ERR_NONE;
    unified_ids_ = controller_->lookupActuators(err);
    actuator_ids_ = controller_->getActuatorIdArray();
    std::cout << "Enable ... " << std::endl;
    if (!controller_->enableActuatorInBatch(unified_ids_)) {
        std::cout << "Enable failure." << std::endl;
        return -1;
    }
    controller_->addErrorCallback(ErrorCallBack);
    if (AddLinkUnit(units, n) < 0) return -1;
    robot_type_ = 6;
    std::cout << "Enable robot successfully." << std::endl;
    return 0;
}

int Robot::AddLinkUnit(LinkUnit* units, int n) {
    const int count = static_cast<int>(actuator_ids_.size());
    if (n < 0 || n > kMaxJointNum || units == nullptr) {
        std::cout << " Joint number " << n << " is invalid (0.." << kMaxJointNum << ")." << std::endl;
        return -1;
    }
    joint_num_ = n;
    if (count != n) {
        std::cout << " ID size = " << count << (count > n ? " > " : " < ") << n << std::endl;
        return -1;
    }
    for (int i = 0; i < n; ++i) {
        link_[i] = units[i];
        link_[i].SetActuatorPointer(controller_);
    }
    return GetParametersFromActuator();
}

int Robot::GetParametersFromActuator() {
    for (int i = 0; i < joint_num_; ++i)
        if (link_[i].GetActuatorData() < 0) return -1;
    return 0;
}

void Robot::DisableRobot() {
    for (int i = 0; i < joint_num_; ++i) link_[i].DisableActuator();
    tql::SleepMilliseconds(200);
}

void Robot::DisableAllRobot() {
    if (controller_)
        for (unsigned char id : actuator_ids_) controller_->disableActuator(id, "");
    tql::SleepMilliseconds(200);
    std::cout << "Done. " << std::endl;
    std::cout << "Disable robot size = " << actuator_ids_.size() << std::endl;
}

int Robot::SaveParameters() {
    for (int i = 0; i < joint_num_; ++i) {
        if (!link_[i].SaveActuatorParameters()) {
            std::cout << "Save parameters failed!" << std::endl;
            return -1;
        }
    }
    std::cout << "Save parameters sucessfully!" << std::endl;
    return 0;
}

int Robot::GetRobotJointNum() { return joint_num_; }
int Robot::GetRobotType() { return robot_type_; }

int Robot::GetErrorCode() {
    for (int i = 0; i < joint_num_; ++i) {
        const unsigned code = link_[i].GetErrorCode();
        if (code != 0) {
            std::cout << "Axis " << (i + 1) << " error : " << std::hex << code << std::dec << std::endl;
            return static_cast<int>(code);
        }
    }
    return joint_num_;
}

void Robot::GetCurrentMachineJoint(double* q) {
    for (int i = 0; i < joint_num_; ++i) q[i] = link_[i].GetActuatorPositionSlow();
}

void Robot::GetStartJoints(double* q) {
    GetCurrentMachineJoint(q);
    if (!set_point_valid_) return;
    // The arm holds the last set-point within its tracking error; one found
    // farther away (moved behind the controller's back: homed, pushed, a
    // drive that gave way) starts from where it stands.
    double last[kMaxJointNum];
    for (int i = 0; i < joint_num_; ++i) {
        last[i] = last_set_point_[i];
        if (!(std::fabs(last[i] - q[i]) <= kSetPointHeld)) return;
    }
    for (int i = 0; i < joint_num_; ++i) q[i] = last[i];
}

void Robot::GetCurrentMachineJointFast(double* q) {
    for (int i = 0; i < joint_num_; ++i) q[i] = link_[i].GetActuatorPositionFast();
}

void Robot::GetCurrentCVPFast(double* c, double* v, double* p) {
    for (int i = 0; i < joint_num_; ++i) link_[i].GetActuatorCVPFast(&c[i], &v[i], &p[i]);
}

void Robot::GetCurrentTVPFast(double* t, double* v, double* p) {
    for (int i = 0; i < joint_num_; ++i) link_[i].GetActuatorTVPFast(&t[i], &v[i], &p[i]);
}

void Robot::GetJointSpeedAccDecParameters(AccDecDate* out) {
    for (int i = 0; i < joint_num_; ++i) out[i] = link_[i].joint_speed_data_;
}

void Robot::GetLineSpeedAccDecParameters(AccDecDate* out) { *out = line_speed_data_; }
void Robot::GetRotateSpeedAccDecParameters(AccDecDate* out) { *out = rotate_speed_data_; }

void Robot::GetMinLimitData(double* out) {
    for (int i = 0; i < joint_num_; ++i) out[i] = link_[i].min_soft_limit_;
}

void Robot::GetMaxLimitData(double* out) {
    for (int i = 0; i < joint_num_; ++i) out[i] = link_[i].max_soft_limit_;
}

void Robot::ActivateMode(Actuator::ActuatorMode mode, double settle_ms) {
    if (controller_) controller_->activateActuatorModeInBantch(actuator_ids_, mode);
    tql::SleepMilliseconds(settle_ms);
}

void Robot::ActivateHomingMode() { ActivateMode(Actuator::Mode_Homing, 500); }
void Robot::ActivateCurrentMode() {
    set_point_valid_ = false;  // the arm floats: its set-point no longer holds it
    ActivateMode(Actuator::Mode_Cur, 200);
}
void Robot::ActivateCurrentModeAtOnce() {
    set_point_valid_ = false;
    ActivateMode(Actuator::Mode_Cur, 0.0);
}
void Robot::ActivateVelocityMode() { ActivateMode(Actuator::Mode_Vel, 200); }
void Robot::ActivatePositionMode() { ActivateMode(Actuator::Mode_Pos, 200); }

void Robot::RequestCVPValue() {
    for (int i = 0; i < joint_num_; ++i) link_[i].RequestCVPValue();
}

void Robot::AddParaRequestCallback(void (*cb)(ActuatorController::UnifiedID, unsigned char, double)) {
    if (controller_ && cb) controller_->addParaRequestCallback(cb);
}

void Robot::ClearAllActuatorCallbacks() {
    if (controller_) controller_->clearCallbackHandlers();
}

bool Robot::JointErrorFree(int i, bool id_as_number) {
    const unsigned code = link_[i].GetErrorCode();
    if (code == 0) return true;
    std::cout << "ID ";
    if (id_as_number)
        std::cout << static_cast<int>(link_[i].GetActuatorId());
    else
        std::cout << link_[i].GetActuatorId();
    std::cout << " error : " << std::hex << code << std::dec << std::endl;
    return false;
}

// Every command of a tick is checked, on every joint, before any joint is
// sent: a tick goes out whole or not at all, so nothing follows a fault on any
// joint and no joint runs ahead of the others.
int Robot::CheckPositionTick(double* q, double* q_last, bool id_as_number, double* workspace_last) {
    for (int i = 0; i < joint_num_; ++i) {
        if (!JointErrorFree(i, id_as_number)) return -1;
        if (link_[i].CheckPosition(q[i], q_last[i], PERIOD) < 0) return -1;
    }
    return CheckWorkspace(q, workspace_last != nullptr ? workspace_last : q_last);
}

void Robot::SendPositionTick(double* q) {
    for (int i = 0; i < joint_num_; ++i) {
        link_[i].SetActuatorPosition(q[i]);
        last_set_point_[i] = q[i];
    }
    set_point_valid_ = true;
}

int Robot::SendMachinePosition(double* q, double* q_last) {
    if (CheckPositionTick(q, q_last, true) < 0) return -1;
    if (tql::InPreflight()) return 0;  // the pre-flight checks only
    SendPositionTick(q);
    SetRealTimePos(q);
    return 0;
}

// The replay's and the excitation's set-points: the same checks as
// SendMachinePosition (soft limits, the actuators' speed over one period),
// published as the real-time position.
int Robot::SendPosition(double* q, double* q_last) {
    if (CheckPositionTick(q, q_last, false) < 0) return -1;
    if (tql::InPreflight()) return 0;
    SendPositionTick(q);
    SetRealTimePos(q);
    return 0;
}

// One set-point with no previous one to measure a speed against: checked
// against the soft limits only.
int Robot::SetPosition(double* q) {
    // The soft limits, and the workspace against the last set-point sent.
    double last[kMaxJointNum] = {};
    CopyRealTimePos(last, joint_num_);
    if (CheckPositionTick(q, q, false, last) < 0) return -1;
    if (tql::InPreflight()) return joint_num_;
    SendPositionTick(q);
    return joint_num_;
}

int Robot::SetMachineTorque(double* tau) {
    for (int i = 0; i < joint_num_; ++i) {
        if (!JointErrorFree(i, false)) return -1;
        if (link_[i].CheckTorque(tau[i]) < 0) return -1;
    }
    if (tql::InPreflight()) return joint_num_;
    for (int i = 0; i < joint_num_; ++i) link_[i].SetActuatorTorque(tau[i]);
    return joint_num_;
}

int Robot::SetHomingPosition() {
    set_point_valid_ = false;  // the positions read change frame
    for (int i = 0; i < joint_num_; ++i) link_[i].SetActuatorHomingPosition();
    return 0;
}

int Robot::SetLimitData(double* min, double* max) {
    for (int i = 0; i < joint_num_; ++i) link_[i].SetActuatorLimitData(min[i], max[i]);
    return 0;
}

int Robot::SetLockEnergy(double* e) {
    for (int i = 0; i < joint_num_; ++i) link_[i].SetLockEnergy(e[i]);
    return 0;
}

int Robot::SetPositionPidData(double* kp, double* ki, double* kd) {
    for (int i = 0; i < joint_num_; ++i) link_[i].SetActuatorPositionPidData(kp[i], ki[i], kd[i]);
    return 0;
}

int Robot::SetVelocityPiData(double* kp, double* ki) {
    for (int i = 0; i < joint_num_; ++i) link_[i].SetActuatorVelocityPiData(kp[i], ki[i]);
    return 0;
}

// Hand guiding: the monitoring loop that keeps the arm floating in current
// mode under gravity-compensation torques while an operator moves it, and the
// process-wide running mode that tells the loop when to end.
//
// The loop runs on its own thread beside a recorder, or on a host's thread.
// The running mode, the stop flag and the system status are its only
// cross-thread state: lock-free atomics, polled once per period.
#include <atomic>
#include <iostream>
#include <limits>

#include "database.h"
#include "execute.h"
#include "interpolation.h"
#include "timing.h"

namespace {

std::atomic<int> running_mode{kDragTeachingMode};
static_assert(std::atomic<int>::is_always_lock_free, "the running mode is polled every period");

// Gravity compensation during hand guiding: the dynamics switch of the
// parameter record.
bool GravityCompensationOn() { return GetResourceDate()->dynamics_switch; }

}  // namespace

void SetRunningMode(RunningMode mode) {
    running_mode.store(mode);
    // Whatever motion or recording is running ends with the mode it was
    // started in.
    SetStopFlag();
}

RunningMode GetCurrentRunningMode() { return static_cast<RunningMode>(running_mode.load()); }

int ReplayMode() {
    Robot* robot = GetCurrentRobot();
    robot->ActivatePositionMode();
    double q[kMaxJointNum] = {};
    robot->GetCurrentMachineJoint(q);
    SetRealTimePos(q);
    return 0;
}

int RealTimeMonitoring() {
    if (GetCurrentRunningMode() != kDragTeachingMode) {
        SetSystemStatus(false);
        SendErrorCode(0, 2, "Current mode is not drag teaching mode");
        return -1;
    }
    Robot* robot = GetCurrentRobot();
    robot->ActivateCurrentMode();
    // Sized once: currents (A), velocities (rad/s), positions (rad).
    double current[kMaxJointNum] = {};
    double velocity[kMaxJointNum] = {};
    double position[kMaxJointNum] = {};
    const bool compensate = GravityCompensationOn();
    tql::PeriodicTimer timer(PERIOD);
    while (GetCurrentRunningMode() == kDragTeachingMode) {
        robot->RequestCVPValue();
        timer.Wait();
        if (robot->controller_ != nullptr) robot->controller_->processEvents();
        robot->GetCurrentCVPFast(current, velocity, position);
        SetRealTimePos(position);
        if (compensate && robot->GravityCompensation(position, velocity) < 0) {
            SetSystemStatus(false);
            SendErrorCode(1, 3, "Gravity Compensation error ");
            break;
        }
    }
    const RunningMode next = GetCurrentRunningMode();
    if (IsTerminal() || (next != kReplayTrajectoryMode && next != kReplayPathMode))
        robot->ActivateCurrentMode();  // the operator holds the arm (see MultiThreadTrigger)
    else
        ReplayMode();
    return 0;
}

void MultiThreadTrigger() {
    if (!IsTerminal()) return;
    if (GravityCompensationOn()) {
        // Compensation stops with the loop: the arm must be held before then.
        std::cout << "Please hold the arm with your hand " << "and then press enter to continue ..." << std::endl;
        std::cin.clear();
        std::cin.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
        std::cin.get();
        std::cout << "Done." << std::endl;
    }
    SetRunningMode(kReplayTrajectoryMode);
}

void ActuatorCallBack(ActuatorController::UnifiedID id, unsigned char attribute, double value) {
    const int number = id.actuatorID;
    switch (attribute) {
        case Actuator::ACTUAL_VELOCITY:
            std::cout << "Actuator " << number << " velocity is " << value << "RPM" << std::endl;
            break;
        case Actuator::ACTUAL_POSITION:
            std::cout << "Actuator " << number << " position is " << value << "R" << std::endl;
            break;
        case Actuator::ACTUAL_CURRENT:
            std::cout << "Actuator " << number << " current is " << value << "A" << std::endl;
            break;
        default:
            break;
    }
}

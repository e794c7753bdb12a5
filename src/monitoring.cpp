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
#include <mutex>
#include <thread>

#include "collision_monitor.h"
#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "timing.h"

namespace {

std::atomic<int> running_mode{kDragTeachingMode};
static_assert(std::atomic<int>::is_always_lock_free, "the running mode is polled every period");

// A continuous recording the loop fills: every period's positions appended
// to the recorder's buffer by the loop itself, so the recording holds each
// period exactly once however the two threads run (a recorder sampling on its
// own clock reads one period twice and skips the next; on a virtual clock it
// could fall any number of periods behind). The mutex is held for one append
// or for the recorder's start and stop: never across a sleep.
std::mutex recording_mutex;
double* recording = nullptr;  // J values per sample; null: no recording
long recording_capacity = 0;  // samples
int recording_joints = 0;
long recorded = 0;              // samples appended
std::atomic<bool> monitoring{false};  // the loop is delivering positions
std::atomic<long> monitoring_checks{0};  // loops that have read the running mode at their start
std::atomic<long> session_checks{-1};    // their count when a session's threads started; -1: none

void DeliverPosition(const double* q) {
    // A recording ends with the stop that ends it, not when its recorder
    // next looks.
    if (GetStopFlag()) return;
    std::lock_guard<std::mutex> lock(recording_mutex);
    const long k = recorded;
    if (recording == nullptr || k >= recording_capacity) return;  // past the capacity: kept no more
    for (int j = 0; j < recording_joints; ++j) recording[k * recording_joints + j] = q[j];
    recorded = k + 1;
}

// Gravity compensation during hand guiding: the dynamics switch of the
// parameter record.
bool GravityCompensationOn() { return GetResourceDate()->dynamics_switch; }

}  // namespace

void SetRunningMode(RunningMode mode) {
    running_mode.store(mode);
    // Whatever motion or recording is running ends with the mode it was
    // started in; the next motion's start forgets this stop.
    SetStopFlagTaken();
}

void StartMonitoredRecording(double* buffer, long capacity, int joints) {
    std::lock_guard<std::mutex> lock(recording_mutex);
    recording = buffer;
    recording_capacity = buffer != nullptr && capacity > 0 ? capacity : 0;
    recording_joints = joints;
    recorded = 0;
}

long StopMonitoredRecording() {
    std::lock_guard<std::mutex> lock(recording_mutex);
    recording = nullptr;
    return recorded;
}

bool MonitoringRunning() { return monitoring.load(); }

void NoteMonitoringSession() { session_checks.store(monitoring_checks.load()); }

bool InMonitoringSession() { return session_checks.load() >= 0; }

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
    const RunningMode mode = GetCurrentRunningMode();
    monitoring_checks.fetch_add(1);
    if (mode != kDragTeachingMode) {
        SetSystemStatus(false);
        SendErrorCode(0, 2, "Current mode is not drag teaching mode");
        return -1;
    }
    Robot* robot = GetCurrentRobot();
    const bool compensate = GravityCompensationOn();
    // A host starts the loop directly: the model is checked here too before
    // the arm is let go.
    if (compensate && CheckDynamicParameters(robot) < 0) {
        SetSystemStatus(false);
        return -1;
    }
    robot->ActivateCurrentMode();
    // Sized once: currents (A), velocities (rad/s), positions (rad).
    double current[kMaxJointNum] = {};
    double velocity[kMaxJointNum] = {};
    double position[kMaxJointNum] = {};
    bool faulted = false, collided = false;
    // The collision monitor watches the floating arm against the torques it
    // is commanded: the operator's hand shows in the residual too, but a
    // guiding hand pushes gently where an impact strikes.
    CollisionMonitor monitor;
    if (compensate) monitor.Arm(robot);
    double sent[kMaxJointNum] = {};
    monitoring.store(true);
    tql::PeriodicTimer timer(PERIOD);
    while (GetCurrentRunningMode() == kDragTeachingMode) {
        robot->RequestCVPValue();
        timer.Wait();
        if (robot->controller_ != nullptr) robot->controller_->processEvents();
        robot->GetCurrentCVPFast(current, velocity, position);
        SetRealTimePos(position);
        DeliverPosition(position);
        // Over the period just ended the joints gave what was sent before it.
        const int joint = monitor.armed() ? ObserveCollision(&monitor, position, velocity, sent, PERIOD) : 0;
        if (joint > 0) {
            std::cout << joint << "  CollisionDetection." << std::endl;
            ReportCollision(monitor, joint);
            SetSystemStatus(false);
            faulted = collided = true;
            break;
        }
        if (compensate && robot->GravityCompensation(position, velocity, sent) < 0) {
            SetSystemStatus(false);
            SendErrorCode(1, 3, "Gravity Compensation error ");
            faulted = true;
            break;
        }
    }
    monitoring.store(false);
    // The arm is never left floating with nobody commanding it: after a fault,
    // and when the operator ends teaching (holding the arm, see
    // MultiThreadTrigger), it holds where it is in position mode.
    const RunningMode next = GetCurrentRunningMode();
    if (faulted || IsTerminal() || next == kReplayTrajectoryMode || next == kReplayPathMode)
        ReplayMode();
    else
        robot->ActivateCurrentMode();
    return collided ? -1 : 0;
}

void MultiThreadTrigger() {
    if (!IsTerminal()) return;
    // A session the operator ends at once must not change the mode under a
    // loop that has not looked at it yet (it would refuse to start).
    const long started = session_checks.exchange(-1);
    while (started >= 0 && monitoring_checks.load() == started) std::this_thread::yield();
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

// Hand guiding: the monitoring loop that keeps the arm floating in current
// mode under gravity-compensation torques while an operator moves it, and the
// process-wide running mode that tells the loop when to end.
//
// The loop runs on its own thread beside a recorder, or on a host's thread.
// The running mode, the stop flag and the system status are its only
// cross-thread state: lock-free atomics, polled once per period.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <limits>
#include <mutex>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "timing.h"

namespace {

std::atomic<int> running_mode{kDragTeachingMode};
static_assert(std::atomic<int>::is_always_lock_free, "the running mode is polled every period");

// The positions the loop delivered, one per period, for a recorder on another
// thread: a single-producer single-consumer ring, so the recorder keeps every
// period's sample exactly once however the two threads' periods fall against
// each other (reading the last delivered value on its own clock, it would
// sometimes read one twice and skip the next).
constexpr unsigned kRingPeriods = 256;  // a second of periods
double ring[kRingPeriods][kMaxJointNum];
std::atomic<unsigned> ring_head{0};  // periods written (producer)
std::atomic<unsigned> ring_tail{0};  // periods taken (consumer)
std::atomic<long> ring_lost{0};      // periods the recorder fell too far behind to take
std::atomic<bool> monitoring{false};  // the loop is delivering positions
std::atomic<long> monitoring_checks{0};  // loops that have read the running mode at their start

// Wakes a recorder waiting for the next position. The recorder waits on the
// wall clock, never on the timing seam: on the simulated bus's virtual clock
// only the loop's own periods then advance time, however slowly either
// thread runs.
std::mutex ring_mutex;
std::condition_variable ring_filled;

void DeliverPosition(const double* q, int n) {
    const unsigned head = ring_head.load(std::memory_order_relaxed);
    if (head - ring_tail.load(std::memory_order_acquire) >= kRingPeriods) {
        ring_lost.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    for (int j = 0; j < n; ++j) ring[head % kRingPeriods][j] = q[j];
    ring_head.store(head + 1, std::memory_order_release);
    // Taken and released so that a recorder between its look and its wait
    // cannot miss the wake-up.
    { std::lock_guard<std::mutex> passed(ring_mutex); }
    ring_filled.notify_one();
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

void DiscardMonitoredPositions() {
    ring_tail.store(ring_head.load(std::memory_order_acquire), std::memory_order_release);
    ring_lost.store(0);
}

bool NextMonitoredPosition(double* q, int n) {
    const unsigned tail = ring_tail.load(std::memory_order_relaxed);
    if (tail == ring_head.load(std::memory_order_acquire)) return false;
    for (int j = 0; j < n && j < kMaxJointNum; ++j) q[j] = ring[tail % kRingPeriods][j];
    ring_tail.store(tail + 1, std::memory_order_release);
    return true;
}

long LostMonitoredPositions() { return ring_lost.load(); }

bool WaitForMonitoredPosition(double timeout_s) {
    std::unique_lock<std::mutex> lock(ring_mutex);
    return ring_filled.wait_for(lock, std::chrono::duration<double>(timeout_s), [] {
        return ring_tail.load(std::memory_order_acquire) != ring_head.load(std::memory_order_acquire);
    });
}

bool MonitoringRunning() { return monitoring.load(); }

long MonitoringModeChecks() { return monitoring_checks.load(); }

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
    bool faulted = false;
    monitoring.store(true);
    tql::PeriodicTimer timer(PERIOD);
    while (GetCurrentRunningMode() == kDragTeachingMode) {
        robot->RequestCVPValue();
        timer.Wait();
        if (robot->controller_ != nullptr) robot->controller_->processEvents();
        robot->GetCurrentCVPFast(current, velocity, position);
        SetRealTimePos(position);
        DeliverPosition(position, robot->GetRobotJointNum());
        if (compensate && robot->GravityCompensation(position, velocity) < 0) {
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

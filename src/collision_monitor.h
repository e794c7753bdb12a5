// The collision reflex's detector: a generalised-momentum observer on the
// robot type's dynamic model (row 13), fed every period with the measured
// joint angles, rates and torques.
//
// With p = M(q) dq the generalised momentum, the arm's dynamics give
//   dp/dt = tau + tau_ext - beta(q, dq),  beta = C dq + g + f - dM/dt dq,
// and the residual r = K (p - p0 - integral of (tau - beta + r) dt) follows an
// external torque tau_ext through a first-order lag. Sampled every h seconds
// it is r_k = (1 - K h) r_{k-1} + K (the period's momentum change not
// explained by the model): K h = kGainPeriod = 0.5 follows a step by
// 1 - 0.5^k after k periods (87.5 % after three) and never overshoots or
// alternates (the described observer's K h = 2 alternates forever).
// Units: rad, rad/s, N*m, s.
#ifndef TQL_COLLISION_MONITOR_H
#define TQL_COLLISION_MONITOR_H

#include "dynamics.h"
#include "mechnical_unit.h"

class CollisionMonitor {
public:
    static constexpr double kGainPeriod = 0.5;
    static constexpr double kTickTolerance = 0.1;
    static constexpr int kSteadyTicks = 2;
    static constexpr int kConfirmPeriods = 2;
    static constexpr int kJoints = 6;
    static constexpr int kDynamicParameterCount = kModelParameterCount;

    // Watches `robot` from its next Step: true when the collision switch
    // (row 4) is on, the robot has the six-joint dynamic model and the robot
    // type's thresholds (row 17, N*m per joint, times the sensitivity of
    // row 5) are all positive; otherwise the monitor stays off.
    bool Arm(Robot* robot);
    // Watches an arm described directly: modified-DH lengths a and d (m),
    // the 48 values of row 13 (base parameters, then viscous and Coulomb
    // friction) and each joint's threshold (N*m; infinity never reports).
    // The identification uses it to measure the residual of its own fit.
    void Start(const double* a, const double* d, const double* parameters, const double* thresholds);
    bool armed() const { return armed_; }
    // The last residual of a 0-based joint, N*m: the external torque as the
    // observer sees it.
    double residual(int joint) const { return r_[joint]; }
    double threshold(int joint) const { return threshold_[joint]; }
    // The torque a 0-based joint gave in the last period (N*m), and its
    // change since the period before.
    double torque(int joint) const { return torque_[joint]; }
    double torque_change(int joint) const { return torque_[joint] - torque_before_[joint]; }
    // One period of h seconds, its readings taken dt seconds after the ones
    // before (dt = h on time; a late reading integrates over what really
    // passed): the first 1-based joint whose residual has been beyond its
    // threshold for kConfirmPeriods readings in a row, or 0. The first Step
    // only starts the observer, and so does a Step that does not follow
    // kSteadyTicks readings dt within kTickTolerance of h: after a pause
    // between moves the discrete observer would not be stable, and a late
    // tick (and the one the pacing sends right after it) jerks the drives
    // with set-points unevenly spaced in time, a torque impulse between two
    // readings that no sampled observer sees but whose momentum change it
    // would.
    int Step(const double* q, const double* dq, const double* tau, double h, double dt);
    int Step(const double* q, const double* dq, const double* tau, double h) { return Step(q, dq, tau, h, h); }
    // Readings' time of the last Step (s, the library's clock), for the next
    // Step's dt.
    double last_reading_time = 0.0;
    // A stream of set-points notes when it sends each (s, the library's
    // clock), before the Step of its period: a set-point sent off its time (a
    // computation the scheduler delayed, and the catch-up sent right after
    // it) jerks the drives as a late reading does, while the readings, which
    // wait for the period's end, stay on time. Without notes, only the
    // readings' times count.
    void NoteSend(double now) {
        send_interval_ = now - last_send_time_;
        last_send_time_ = now;
    }

private:
    bool armed_ = false;
    bool started_ = false;
    int steady_ = 0;  // readings (and sends) on time in a row
    double last_send_time_ = -1e9, send_interval_ = -1.0;  // s; no send noted yet
    int beyond_[kJoints] = {};  // readings in a row beyond the threshold
    double a_[kJoints] = {}, d_[kJoints] = {};  // the links' DH lengths, m
    double parameters_[kDynamicParameterCount] = {};
    double threshold_[kJoints] = {};
    double q_prev_[kJoints] = {};
    double integral_[kJoints] = {};  // p0 + the integral of (tau - beta + r) dt
    double r_[kJoints] = {};
    double torque_[kJoints] = {}, torque_before_[kJoints] = {};
};

// Reads the arm's joints, rates and torques now (the bus's latest readings,
// asked for this period) and steps `monitor`: as CollisionMonitor::Step.
int WatchForCollision(Robot* robot, CollisionMonitor* monitor, double h);
// Steps `monitor` on readings taken now (q, dq) and the torques the joints
// gave (measured, or in current mode the commanded ones): as Step, with dt
// from the library's clock and the torques and residuals noted in the
// flight recorder.
int ObserveCollision(CollisionMonitor* monitor, const double* q, const double* dq, const double* tau, double h);
// Says on standard error (and in the simulated bus's flight recorder) which
// joint's residual passed its threshold, and by how much.
void ReportCollision(const CollisionMonitor& monitor, int joint);

#endif  // TQL_COLLISION_MONITOR_H

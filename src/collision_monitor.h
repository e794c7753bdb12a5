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

#include "mechnical_unit.h"

class CollisionMonitor {
public:
    static constexpr double kGainPeriod = 0.5;
    static constexpr int kJoints = 6;

    // Watches `robot` from its next Step: true when the collision switch
    // (row 4) is on, the robot has the six-joint dynamic model and the robot
    // type's thresholds (row 17, N*m per joint, times the sensitivity of
    // row 5) are all positive; otherwise the monitor stays off.
    bool Arm(Robot* robot);
    bool armed() const { return armed_; }
    // One period, h seconds after the one before: the first 1-based joint
    // whose residual is beyond its threshold, or 0 (the first Step only
    // starts the observer).
    int Step(const double* q, const double* dq, const double* tau, double h);

private:
    bool armed_ = false;
    bool started_ = false;
    double a_[kJoints] = {}, d_[kJoints] = {};  // the links' DH lengths, m
    double threshold_[kJoints] = {};
    double q_prev_[kJoints] = {};
    double integral_[kJoints] = {};  // p0 + the integral of (tau - beta + r) dt
    double r_[kJoints] = {};
};

// Reads the arm's joints, rates and torques now (the bus's latest readings,
// asked for this period) and steps `monitor`: as CollisionMonitor::Step.
int WatchForCollision(Robot* robot, CollisionMonitor* monitor, double h);

#endif  // TQL_COLLISION_MONITOR_H

// The collision reflex's generalised-momentum observer.
#include "collision_monitor.h"

#include <cmath>

#include "database.h"
#include "dynamics.h"

bool CollisionMonitor::Arm(Robot* robot) {
    armed_ = started_ = false;
    const ResourceData* rd = GetResourceDate();
    if (robot == nullptr || !rd->collision_switch || !rd->collision_threshold_set ||
        robot->robot_type_ != kTypeGL_6L3 || robot->GetRobotJointNum() != kJoints)
        return false;
    for (int i = 0; i < kJoints; ++i) {
        threshold_[i] = rd->collision_threshold[i] * rd->collision_factor;
        if (!(threshold_[i] > 0.0) || !std::isfinite(threshold_[i])) return false;
        a_[i] = robot->link_[i].mdh_[2] / 1000.0;
        d_[i] = robot->link_[i].mdh_[3] / 1000.0;
        r_[i] = 0.0;
    }
    armed_ = true;
    return true;
}

int CollisionMonitor::Step(const double* q_in, const double* dq_in, const double* tau, double h) {
    if (!armed_ || !(h > 0.0)) return 0;
    double* P = GetResourceDate()->dynamic_parameters;
    double q[kJoints], dq[kJoints], zero[kJoints] = {};
    for (int i = 0; i < kJoints; ++i) q[i] = q_in[i], dq[i] = dq_in[i];
    // A: Coriolis, gravity and friction; B - G = M(q) dq (dq passed as an
    // acceleration), the momentum; the same at the previous angles gives
    // dM/dt dq by its change over the period.
    double A[kJoints], G[kJoints], B[kJoints];
    InverserDynamicsUr(a_, d_, q, dq, zero, A, P);
    InverserDynamicsUr(a_, d_, q, zero, zero, G, P);
    InverserDynamicsUr(a_, d_, q, zero, dq, B, P);
    if (!started_) {
        for (int i = 0; i < kJoints; ++i) {
            integral_[i] = B[i] - G[i];  // p0: the residual starts at 0
            r_[i] = 0.0;
            q_prev_[i] = q[i];
        }
        started_ = true;
        return 0;
    }
    double Gp[kJoints], Bp[kJoints];
    InverserDynamicsUr(a_, d_, q_prev_, zero, zero, Gp, P);
    InverserDynamicsUr(a_, d_, q_prev_, zero, dq, Bp, P);
    const double gain = kGainPeriod / h;
    int hit = 0;
    for (int i = 0; i < kJoints; ++i) {
        const double p = B[i] - G[i];
        const double beta = A[i] - (p - (Bp[i] - Gp[i])) / h;
        integral_[i] += (tau[i] - beta + r_[i]) * h;
        r_[i] = gain * (p - integral_[i]);
        q_prev_[i] = q[i];
        if (hit == 0 && !(std::fabs(r_[i]) <= threshold_[i])) hit = i + 1;
    }
    return hit;
}

int WatchForCollision(Robot* robot, CollisionMonitor* monitor, double h) {
    if (!monitor->armed()) return 0;
    double tau[kMaxJointNum], dq[kMaxJointNum], q[kMaxJointNum];
    robot->RequestCVPValue();
    if (robot->controller_ != nullptr) robot->controller_->processEvents();
    robot->GetCurrentTVPFast(tau, dq, q);
    return monitor->Step(q, dq, tau, h);
}

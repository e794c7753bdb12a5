// The collision reflex's generalised-momentum observer.
#include "collision_monitor.h"

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "database.h"
#include "dynamics.h"
#include "timing.h"

namespace {

// The simulated bus's flight recorder takes the monitor's figures as notes
// (thresholds when armed, each period's residuals, the detection), so a
// recording shows why the arm stopped. The maker's library has no such call:
// then nothing is written. Looked up once.
using NoteFunction = void (*)(int, const char*, double);
NoteFunction RecorderNote() {
    static const NoteFunction note = reinterpret_cast<NoteFunction>(dlsym(RTLD_DEFAULT, "tql_sim_record_note"));
    return note;
}

}  // namespace

bool CollisionMonitor::Arm(Robot* robot) {
    armed_ = started_ = false;
    const ResourceData* rd = GetResourceDate();
    if (robot == nullptr || !rd->collision_switch || !rd->collision_threshold_set ||
        robot->robot_type_ != kTypeGL_6L3 || robot->GetRobotJointNum() != kJoints)
        return false;
    double a[kJoints], d[kJoints], threshold[kJoints];
    for (int i = 0; i < kJoints; ++i) {
        threshold[i] = rd->collision_threshold[i] * rd->collision_factor;
        if (!(threshold[i] > 0.0) || !std::isfinite(threshold[i])) return false;
        a[i] = robot->link_[i].mdh_[2] / 1000.0;
        d[i] = robot->link_[i].mdh_[3] / 1000.0;
    }
    double P[kModelParameterCount];
    ModelParameters(*robot, P);
    Start(a, d, P, threshold);
    if (NoteFunction note = RecorderNote())
        for (int i = 0; i < kJoints; ++i) note(i + 1, "threshold", threshold[i]);
    return true;
}

void CollisionMonitor::Start(const double* a, const double* d, const double* parameters, const double* thresholds) {
    for (int i = 0; i < kJoints; ++i) {
        a_[i] = a[i];
        d_[i] = d[i];
        threshold_[i] = thresholds[i];
        r_[i] = 0.0;
    }
    std::copy(parameters, parameters + kDynamicParameterCount, parameters_);
    started_ = false;
    steady_ = 0;
    armed_ = true;
}

int CollisionMonitor::Step(const double* q_in, const double* dq_in, const double* tau, double h, double dt) {
    if (!armed_ || !(h > 0.0)) return 0;
    for (int i = 0; i < kJoints; ++i) {
        torque_before_[i] = started_ ? torque_[i] : tau[i];
        torque_[i] = tau[i];
    }
    // Observe only over periods that follow kSteadyTicks on time.
    const bool sent_on_time = send_interval_ < 0.0 || std::fabs(send_interval_ - h) <= kTickTolerance * h;
    steady_ = std::fabs(dt - h) <= kTickTolerance * h && sent_on_time ? steady_ + 1 : 0;
    if (steady_ < kSteadyTicks) started_ = false;
    double* P = parameters_;
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
            beyond_[i] = 0;
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
        const double beta = A[i] - (p - (Bp[i] - Gp[i])) / dt;
        integral_[i] += (tau[i] - beta + r_[i]) * dt;
        r_[i] = gain * (p - integral_[i]);
        q_prev_[i] = q[i];
        // Beyond its threshold in kConfirmPeriods readings in a row: a
        // contact lasts, a disturbance of one reading (a tick the pacing
        // sent late, with the drives' torque jerking for it) does not.
        beyond_[i] = std::fabs(r_[i]) <= threshold_[i] ? 0 : beyond_[i] + 1;
        if (hit == 0 && beyond_[i] >= kConfirmPeriods) hit = i + 1;
    }
    return hit;
}

int WatchForCollision(Robot* robot, CollisionMonitor* monitor, double h) {
    if (!monitor->armed()) return 0;
    double tau[kMaxJointNum], dq[kMaxJointNum], q[kMaxJointNum];
    robot->RequestCVPValue();
    if (robot->controller_ != nullptr) robot->controller_->processEvents();
    // A faulted actuator's readings say nothing of the world, and the fault
    // is the stream's to report (its next send): no verdict this period.
    for (int i = 0; i < CollisionMonitor::kJoints; ++i)
        if (robot->link_[i].GetErrorCode() != 0) return 0;
    robot->GetCurrentTVPFast(tau, dq, q);
    return ObserveCollision(monitor, q, dq, tau, h);
}

int ObserveCollision(CollisionMonitor* monitor, const double* q, const double* dq, const double* tau, double h) {
    const double now = tql::NowSeconds();
    const int hit = monitor->Step(q, dq, tau, h, now - monitor->last_reading_time);
    monitor->last_reading_time = now;
    if (NoteFunction note = RecorderNote()) {
        for (int i = 0; i < CollisionMonitor::kJoints; ++i) {
            note(i + 1, "torque", tau[i]);
            note(i + 1, "residual", monitor->residual(i));
        }
    }
    return hit;
}

void ReportCollision(const CollisionMonitor& monitor, int joint) {
    const double r = monitor.residual(joint - 1), limit = monitor.threshold(joint - 1);
    std::fprintf(stderr, "collision: joint %d, external torque %.3g N*m beyond its threshold %.3g N*m\n", joint, r,
                 limit);
    if (NoteFunction note = RecorderNote()) note(joint, "collision", r);
}

// The dynamic model over the generated regressor, gravity compensation and
// the generalised-momentum collision observer.
#include "dynamics.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <iostream>
#include <sstream>

#include "database.h"
#include "math_fun.h"

namespace {

// Model shift of joints 2 and 4 (the system's truncated pi/2).
constexpr double kHalfPi = 1.5707963;

// Gravity-compensation gain accepted as it is; anything else reads 1.0.
constexpr double kMinGravityGain = 0.4999999;
constexpr double kMaxGravityGain = 1.50001;

// Collision observer: sample period [s], gain [1/s], safety multiplier, and
// the joints' base thresholds of the residual [N*m], joint 1 first.
constexpr double kObserverPeriod = 0.004;
constexpr double kObserverGain = 500.0;
constexpr double kObserverSafety = 1.5;
constexpr double kCollisionThreshold[kDynamicsJointNum] = {120.413, 107.86, 68.3858, 72.4671, 32.6425, 16.3231};

// Observer state: the running integral [N*m*s] and the residual, the estimate
// of the external torque on each joint [N*m]. Only one thread runs the observer.
double tmp_intg[kDynamicsJointNum] = {};
double r_ext[kDynamicsJointNum] = {};

// a, d [m] from the joints' modified-DH values (held in mm).
void GeometryInMetres(const Robot& robot, double* a, double* d) {
    for (int i = 0; i < kDynamicsJointNum; ++i) {
        a[i] = robot.link_[i].mdh_[2] / 1000.0;
        d[i] = robot.link_[i].mdh_[3] / 1000.0;
    }
}

// The payload in use (kg; centre x, y, z in mm, flange frame): row 18 as
// booted until the host sets another. Guarded: the host sets it from its own
// thread while a monitoring loop may be reading it.
std::mutex payload_mutex;

}  // namespace

int SetPayload(double mass_kg, const double* com_mm) {
    if (com_mm == nullptr) return -1;
    const double payload[4] = {mass_kg, com_mm[0], com_mm[1], com_mm[2]};
    if (!PayloadUsable(payload)) return -1;
    std::lock_guard<std::mutex> lock(payload_mutex);
    std::copy(payload, payload + 4, GetResourceDate()->payload);
    return 0;
}

void GetPayload(double* payload) {
    std::lock_guard<std::mutex> lock(payload_mutex);
    std::copy(GetResourceDate()->payload, GetResourceDate()->payload + 4, payload);
}

void ModelParameters(const Robot& robot, double* P) {
    const double* row = GetResourceDate()->dynamic_parameters;
    std::copy(row, row + kModelParameterCount, P);
    double payload[4];
    GetPayload(payload);
    const double m = payload[0];
    if (!(m > 0.0)) return;
    // The point mass's standard parameters on link 6 (about the link frame's
    // origin): the inertia m (|c|^2 I - c c^T), the first moments m c, m.
    const double x = payload[1] / 1000.0, y = payload[2] / 1000.0, z = payload[3] / 1000.0;
    double standard[10 * kDynamicsJointNum] = {};
    double* link6 = standard + 10 * (kDynamicsJointNum - 1);
    const double values[10] = {m * (y * y + z * z), -m * x * y, -m * x * z, m * (x * x + z * z), -m * y * z,
                               m * (x * x + y * y), m * x, m * y, m * z, m};
    std::copy(values, values + 10, link6);
    double a[kDynamicsJointNum], d[kDynamicsJointNum], shift[kBaseParameterNum];
    GeometryInMetres(robot, a, d);
    standard_to_base_parameters(a, kModelAlpha, d, standard, shift);
    for (int i = 0; i < kBaseParameterNum; ++i) P[i] += shift[i];
}

double signd(double x) {
    if (x > 1e-5) return 1.0;
    if (x < -1e-5) return -1.0;
    return 0.0;
}

void ModelAngles(const double* q, double* theta) {
    for (int i = 0; i < kDynamicsJointNum; ++i) theta[i] = q[i];
    theta[1] += kHalfPi;
    theta[3] -= kHalfPi;
}

void InverserDynamicsUr(double* a, double* d, double* q, double* dq, double* ddq, double* tau, double* P) {
    double theta[kDynamicsJointNum];
    ModelAngles(q, theta);
    double Y[kDynamicsJointNum][kBaseParameterNum];
    parameter_linearization(theta, dq, ddq, a, kModelAlpha, d, Y);
    mul_matrix(&Y[0][0], P, tau, kDynamicsJointNum, kBaseParameterNum, 1);
}

int Robot::InverseDynamics(double* q, double* dq, double* ddq, double* tau) {
    if (robot_type_ != kTypeGL_6L3) {
        std::cout << "Wait to add..." << std::endl;
        return -1;
    }
    double a[kDynamicsJointNum], d[kDynamicsJointNum];
    GeometryInMetres(*this, a, d);
    double P[kModelParameterCount];
    ModelParameters(*this, P);
    InverserDynamicsUr(a, d, q, dq, ddq, tau, P);
    return 0;
}

namespace {

// The compensation gain in use: the record's, or 1.0 outside the accepted
// range (written so that a NaN gain falls back to 1.0 as well).
double GravityGain() {
    const double gain = GetResourceDate()->gravity_gain;
    return gain >= kMinGravityGain && gain <= kMaxGravityGain ? gain : 1.0;
}

// The compensation torques [N*m] at user-zero q: the model's static torques
// times the gain.
void CompensationTorques(Robot& robot, double* q, double* tau) {
    double a[kDynamicsJointNum], d[kDynamicsJointNum];
    GeometryInMetres(robot, a, d);
    double zero[kDynamicsJointNum] = {}, P[kModelParameterCount];
    ModelParameters(robot, P);
    InverserDynamicsUr(a, d, q, zero, zero, tau, P);
    scaling(tau, GravityGain(), kDynamicsJointNum);
}

}  // namespace

int Robot::GravityCompensation(double* q, double* dq) { return GravityCompensation(q, dq, nullptr); }

int Robot::GravityCompensation(double* q, double* /*dq*/, double* sent) {
    if (robot_type_ != kTypeGL_6L3) return 0;
    double tau[kDynamicsJointNum];
    CompensationTorques(*this, q, tau);
    if (SetMachineTorque(tau) < 0) return -1;
    if (sent != nullptr) std::copy(tau, tau + kDynamicsJointNum, sent);
    return 0;
}

namespace {

// Values of row 13 the model and the friction terms read: the 36 base
// parameters, then a viscous and a Coulomb coefficient per joint.
constexpr int kDynamicRowValues = kBaseParameterNum + 2 * kDynamicsJointNum;
constexpr int kDynamicRow = 13;
constexpr double kRadToDeg = 57.295780490442965;
constexpr double kQuarterTurn = 1.5707963;

// Angles [rad] at which a joint's static torques are examined: both soft
// limits, zero and the quarter turns (where gravity's lever arms are longest)
// that lie between them. Returns the count (at most 5).
int GridAngles(const LinkUnit& joint, double* out) {
    const double candidates[] = {joint.min_soft_limit_, -kQuarterTurn, 0.0, kQuarterTurn, joint.max_soft_limit_};
    int count = 0;
    for (double v : candidates)
        if (v >= joint.min_soft_limit_ && v <= joint.max_soft_limit_) out[count++] = v;
    return count;
}

}  // namespace

int CheckDynamicParameters(Robot* robot) {
    if (robot->GetRobotType() != kTypeGL_6L3 || robot->GetRobotJointNum() != kDynamicsJointNum) return 0;
    const ResourceData* rd = GetResourceDate();
    for (int i = 0; i < kDynamicRowValues; ++i) {
        const double v = rd->dynamic_parameters[i];
        if (!std::isfinite(v)) {
            std::ostringstream text;
            text << ", entry " << i + 1 << ", value " << v << ": a dynamic parameter must be finite";
            return RefuseParameterRow(rd->robot_type, kDynamicRow, text.str());
        }
    }
    // An arm let go on a model of nothing falls: a row never identified holds zeros.
    bool identified = false;
    for (int i = 0; i < kBaseParameterNum; ++i) identified = identified || rd->dynamic_parameters[i] != 0.0;
    if (!identified)
        return RefuseParameterRow(rd->robot_type, kDynamicRow,
                                  ": no identified parameters (all zero); identify the arm first (tql admin, "
                                  "tql-identify --write)");
    // Joint 1 turns about the vertical: gravity's torques do not depend on it.
    double grid[kDynamicsJointNum][5];
    int counts[kDynamicsJointNum] = {1, 0, 0, 0, 0, 0};
    grid[0][0] = 0.5 * (robot->link_[0].min_soft_limit_ + robot->link_[0].max_soft_limit_);
    for (int j = 1; j < kDynamicsJointNum; ++j) counts[j] = GridAngles(robot->link_[j], grid[j]);
    int index[kDynamicsJointNum] = {};
    double worst_ratio = 0.0, worst_torque = 0.0, worst_q[kDynamicsJointNum] = {};
    int worst_joint = -1;
    for (;;) {
        double q[kDynamicsJointNum], tau[kDynamicsJointNum];
        for (int j = 0; j < kDynamicsJointNum; ++j) q[j] = counts[j] > 0 ? grid[j][index[j]] : 0.0;
        CompensationTorques(*robot, q, tau);
        for (int j = 0; j < kDynamicsJointNum; ++j) {
            const double ratio = std::fabs(tau[j]) / robot->link_[j].PeakTorque();
            if (!(ratio <= worst_ratio)) {  // NaN too
                worst_ratio = ratio;
                worst_torque = tau[j];
                worst_joint = j;
                for (int k = 0; k < kDynamicsJointNum; ++k) worst_q[k] = q[k];
            }
        }
        int j = 0;
        while (j < kDynamicsJointNum && ++index[j] >= counts[j]) index[j++] = 0;
        if (j == kDynamicsJointNum) break;
    }
    if (worst_joint >= 0 && worst_ratio > 1.0) {
        const LinkUnit& joint = robot->link_[worst_joint];
        std::ostringstream text;
        text << ": joint " << worst_joint + 1 << " needs " << std::fabs(worst_torque) << " N*m at (";
        for (int k = 0; k < kDynamicsJointNum; ++k) text << (k ? ", " : "") << worst_q[k] * kRadToDeg + 0.0;
        text << ") degrees, beyond its peak torque " << joint.PeakTorque() << " N*m (" << joint.peak_current_
             << " A)";
        if (GravityGain() != 1.0) text << " with the gravity gain " << GravityGain();
        double payload[4];
        GetPayload(payload);
        if (payload[0] > 0.0) text << ", carrying the payload of " << payload[0] << " kg";
        return RefuseParameterRow(rd->robot_type, kDynamicRow, text.str());
    }
    // Friction at the joint's speed limit must be a torque the drive can give.
    for (int j = 0; j < kDynamicsJointNum; ++j) {
        const double viscous = rd->dynamic_parameters[kBaseParameterNum + j];
        const double coulomb = rd->dynamic_parameters[kBaseParameterNum + kDynamicsJointNum + j];
        const double friction = std::fabs(viscous) * robot->link_[j].joint_speed_data_.speed + std::fabs(coulomb);
        if (!(friction <= robot->link_[j].PeakTorque())) {
            std::ostringstream text;
            text << ": joint " << j + 1 << "'s friction (viscous " << viscous << ", Coulomb " << coulomb
                 << ") gives " << friction << " N*m at its speed limit, beyond its peak torque "
                 << robot->link_[j].PeakTorque() << " N*m";
            return RefuseParameterRow(rd->robot_type, kDynamicRow, text.str());
        }
    }
    return 0;
}

void InitC() {
    for (int i = 0; i < kDynamicsJointNum; ++i) {
        r_ext[i] = 0.0;
        tmp_intg[i] = 0.0;
    }
}

const double* GetCollisionResidual() { return r_ext; }

int Robot::CollisionDetection(double* q_prev, double* q, double* dq, double* tau, double* /*spare*/) {
    if (robot_type_ != kTypeGL_6L3) return 0;
    double a[kDynamicsJointNum], d[kDynamicsJointNum];
    GeometryInMetres(*this, a, d);
    double* P = GetResourceDate()->dynamic_parameters;
    double zero[kDynamicsJointNum] = {};
    // A: Coriolis, gravity (and the model's velocity terms); G, G': static
    // torques now and one period ago; B - G = M(q) dq, the generalised momentum
    // (dq passed as an acceleration), and the same at q_prev.
    double A[kDynamicsJointNum], G[kDynamicsJointNum], B[kDynamicsJointNum];
    double G_prev[kDynamicsJointNum], B_prev[kDynamicsJointNum];
    InverserDynamicsUr(a, d, q, dq, zero, A, P);
    InverserDynamicsUr(a, d, q, zero, zero, G, P);
    InverserDynamicsUr(a, d, q, zero, dq, B, P);
    InverserDynamicsUr(a, d, q_prev, zero, zero, G_prev, P);
    InverserDynamicsUr(a, d, q_prev, zero, dq, B_prev, P);

    double p[kDynamicsJointNum];
    for (int i = 0; i < kDynamicsJointNum; ++i) {
        p[i] = B[i] - G[i];
        const double p_prev = B_prev[i] - G_prev[i];
        // Coriolis, gravity and friction less the finite-difference dM/dt * dq.
        const double beta = A[i] - (p[i] - p_prev) / kObserverPeriod;
        tmp_intg[i] += (tau[i] - beta + r_ext[i]) * kObserverPeriod;
        r_ext[i] = (p[i] - tmp_intg[i]) * kObserverGain;
    }
    const double sensitivity = GetResourceDate()->collision_factor;
    const int n = joint_num_ < kDynamicsJointNum ? joint_num_ : kDynamicsJointNum;
    for (int i = 0; i < n; ++i) {
        if (std::fabs(r_ext[i]) > sensitivity * kCollisionThreshold[i] * kObserverSafety) {
            std::cout << (i + 1) << "  CollisionDetection." << std::endl;
            return -1;
        }
    }
    return 0;
}

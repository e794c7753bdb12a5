// The collision monitor's observer against motion generated from the model
// itself: the measured torques are the inverse dynamics of a smooth seeded
// trajectory minus an external torque, so the residual must be that external
// torque seen through the first-order lag 1 - 0.5^n, and nothing without it.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "collision_monitor.h"
#include "dynamics.h"

namespace {

constexpr int kJ = CollisionMonitor::kJoints;
constexpr double kH = 0.004;  // s
// The demo arm's modified-DH lengths (m).
const double kA[kJ] = {0, 0, 0.28, 0.24, 0, 0};
const double kD[kJ] = {0.17, 0, 0, 0.12, 0.09, 0.085};

struct Motion {
    double q0[kJ], amp[kJ], w[kJ];
    void At(double t, double* q, double* dq, double* ddq) const {
        for (int i = 0; i < kJ; ++i) {
            q[i] = q0[i] + amp[i] * std::sin(w[i] * t);
            dq[i] = amp[i] * w[i] * std::cos(w[i] * t);
            ddq[i] = -amp[i] * w[i] * w[i] * std::sin(w[i] * t);
        }
    }
};

// The torques the drives give at period k of `m` when `external` pushes.
void Measured(const Motion& m, double* P, int k, const double* external, double* q, double* dq, double* tau) {
    double ddq[kJ], a[kJ], d[kJ];
    std::copy(kA, kA + kJ, a);
    std::copy(kD, kD + kJ, d);
    m.At(k * kH, q, dq, ddq);
    InverserDynamicsUr(a, d, q, dq, ddq, tau, P);
    for (int i = 0; i < kJ; ++i) tau[i] -= external[i];
}

TEST(CollisionMonitor, ResidualIsTheExternalTorqueThroughItsLagAndRestartsOnUnevenTicksAndSends) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 8; ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial));
        // Seeded base parameters of an arm's size and viscous friction (the
        // Coulomb terms stay 0: their sign steps are not smooth).
        double P[CollisionMonitor::kDynamicParameterCount] = {};
        for (int c = 0; c < 36; ++c) P[c] = 0.2 * u(rng);
        for (int i = 0; i < kJ; ++i) P[36 + i] = 0.1 + 0.05 * u(rng);
        Motion m;
        for (int i = 0; i < kJ; ++i) m.q0[i] = u(rng), m.amp[i] = 0.3 * u(rng), m.w[i] = 2.0 + u(rng);
        const int joint = trial % kJ;
        const double push = 3.0 * (trial % 2 ? -1.0 : 1.0);  // N*m, from period 50 on
        const double thresholds[kJ] = {1, 1, 1, 1, 1, 1};
        CollisionMonitor monitor;
        monitor.Start(kA, kD, P, thresholds);
        double q[kJ], dq[kJ], tau[kJ], none[kJ] = {}, external[kJ] = {};
        external[joint] = push;
        for (int k = 0; k < 60; ++k) {
            Measured(m, P, k, k >= 50 ? external : none, q, dq, tau);
            const int hit = monitor.Step(q, dq, tau, kH);
            if (k < 50) {
                ASSERT_EQ(hit, 0) << "period " << k;
                for (int i = 0; i < kJ; ++i) EXPECT_NEAR(monitor.residual(i), 0.0, 0.02) << "joint " << i + 1;
                continue;
            }
            const int n = k - 49;  // periods of push seen
            EXPECT_NEAR(monitor.residual(joint), push * (1.0 - std::pow(0.5, n)), 0.02 * std::fabs(push)) << n;
            EXPECT_EQ(hit, n >= 2 ? joint + 1 : 0);  // beyond 1 N*m from the first period, confirmed in the second
        }
        // A reading 1.5 periods late restarts the observer, and so does the
        // next; from the second reading on time it follows the push again.
        monitor.Start(kA, kD, P, thresholds);
        for (int k = 0; k < 10; ++k) {
            Measured(m, P, k, external, q, dq, tau);
            const double dt = k == 5 ? 1.5 * kH : kH;
            const int hit = monitor.Step(q, dq, tau, kH, dt);
            if (k == 5 || k == 6) {
                EXPECT_EQ(hit, 0);
                EXPECT_EQ(monitor.residual(joint), 0.0);
            }
        }
        EXPECT_NEAR(monitor.residual(joint), push * 0.875, 0.02 * std::fabs(push));  // 3 periods
        // A set-point sent 0.8 periods late and the one sent right after it,
        // their readings on time, restart it likewise (two more periods).
        monitor.Start(kA, kD, P, thresholds);
        double sent = 0.0;
        for (int k = 0; k < 10; ++k) {
            Measured(m, P, k, external, q, dq, tau);
            sent += k == 5 ? 1.8 * kH : k == 6 ? 0.2 * kH : kH;
            monitor.NoteSend(sent);
            const int hit = monitor.Step(q, dq, tau, kH);
            if (k >= 5 && k <= 7) {
                EXPECT_EQ(hit, 0);
                EXPECT_EQ(monitor.residual(joint), 0.0);
            }
        }
        EXPECT_NEAR(monitor.residual(joint), push * 0.75, 0.02 * std::fabs(push));  // 2 periods
    }
}

TEST(CollisionMonitor, InfiniteThresholdsNeverReport) {
    double P[CollisionMonitor::kDynamicParameterCount] = {}, q[kJ] = {}, dq[kJ] = {}, tau[kJ] = {100, 0, 0, 0, 0, 0};
    const double never[kJ] = {INFINITY, INFINITY, INFINITY, INFINITY, INFINITY, INFINITY};
    CollisionMonitor monitor;
    monitor.Start(kA, kD, P, never);
    for (int k = 0; k < 20; ++k) EXPECT_EQ(monitor.Step(q, dq, tau, kH), 0);
    EXPECT_NEAR(std::fabs(monitor.residual(0)), 100.0, 1.0);
}

}  // namespace

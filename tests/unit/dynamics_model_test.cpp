// The generated dynamics regressor, base-parameter map and flange Jacobian
// (tools/gen_dynamics.py) against Orocos KDL's Newton-Euler and Jacobian
// solvers and against central differences of fk_ur.
#include <gtest/gtest.h>
#include <kdl/chain.hpp>
#include <kdl/chainidsolver_recursive_newton_euler.hpp>
#include <kdl/chainjnttojacsolver.hpp>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <random>

#include "dynamics.h"
#include "kinematics.h"

namespace {

constexpr double kHalfPi = 1.5707963267948966;

struct Arm {
    double a[6], alpha[6], d[6];  // link lengths and offsets (m or mm), twists (rad)
};
// Demo arm in metres, with the database's truncated twist angles.
const Arm kDemo = {{0, 0, 0.244, 0.213, 0, 0}, {0, 1.5707963, 0, 0, -1.5707963, 1.5707963},
                   {0.152, 0, 0, 0.112, 0.085, 0.082}};

// The modified-DH arm as a KDL chain. KDL turns a segment's joint at its root
// and takes its inertia in its tip frame, so link i is a massless fixed
// segment Rx(alpha_i) Tx(a_i), then the joint RotZ with tip Tz(d_i): MDH frame
// i, where the standard parameters live. (Tip Tz(d_i) Rx(alpha_i+1) Tx(a_i+1)
// would put link i's inertia in joint i+1's frame.) Chain tip: the flange.
KDL::Chain MdhChain(const Arm& arm, const KDL::RigidBodyInertia* links) {
    KDL::Chain chain;
    for (int i = 0; i < 6; ++i) {
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::None),
                                      KDL::Frame(KDL::Rotation::RotX(arm.alpha[i]), KDL::Vector(arm.a[i], 0, 0))));
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), KDL::Frame(KDL::Vector(0, 0, arm.d[i])),
                                      links ? links[i] : KDL::RigidBodyInertia::Zero()));
    }
    return chain;
}

// A physically valid link: mass 0.5..5 kg, centre of mass c in a 0.2 m box,
// inertia about c diag(Ly+Lz, Lx+Lz, Lx+Ly) along randomly turned axes, second
// moments L > 0 (positive definite, triangle inequality). Writes its ten
// standard parameters about the link origin (KDL's reference point) to p.
KDL::RigidBodyInertia RandomLink(std::mt19937& rng, double* p) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    double r[10], L[3];
    for (double& x : r) x = u(rng);
    const double m = 0.5 + 4.5 * r[0];
    for (int k = 0; k < 3; ++k) L[k] = m * (5e-4 + 0.01 * r[1 + k]);
    const KDL::Frame axes_at_c(KDL::Rotation::RPY(7 * r[4], 7 * r[5], 7 * r[6]),
                               KDL::Vector(0.2 * r[7] - 0.1, 0.2 * r[8] - 0.1, 0.2 * r[9] - 0.1));
    const KDL::RotationalInertia Ic(L[1] + L[2], L[0] + L[2], L[0] + L[1]);
    const KDL::RigidBodyInertia link = axes_at_c * KDL::RigidBodyInertia(m, KDL::Vector::Zero(), Ic);
    const KDL::RotationalInertia J = link.getRotationalInertia();  // about the origin (parallel axes)
    const KDL::Vector mc = m * link.getCOG();
    const double v[10] = {J.data[0], J.data[1], J.data[2], J.data[4], J.data[5], J.data[8], mc(0), mc(1), mc(2), m};
    std::copy(v, v + 10, p);
    return link;
}

// Over the demo arm and random arms (lengths, offsets, twists; joint 1
// vertical) with random links and states: Y(q, dq, ddq) *
// standard_to_base_parameters(standard) reproduces KDL's inverse dynamics
// (gravity -z for KDL = upward base acceleration here). The moment part plus
// the Coriolis/gravity part is Y, the gravity part is Y at rest, and joint i's
// row has no column of links before i. 20 demo-arm states stacked leave the 36
// base columns independent.
TEST(DynamicsRegressor, MatchesKdlNewtonEulerAddsUpItsPartsAndHasFullRank) {
    std::mt19937 rng(303);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Eigen::MatrixXd W(120, 36);
    for (int arm_no = 0; arm_no < 5; ++arm_no) {
        Arm arm = kDemo;
        for (int i = 0; i < 6 && arm_no > 0; ++i) arm.a[i] = 0.3 * u(rng), arm.d[i] = 0.3 * u(rng);
        for (int i = 1; i < 6 && arm_no > 0; ++i) arm.alpha[i] = 3.1 * u(rng);
        double standard[60], P[36], geometry[18];  // geometry: a, alpha, d
        for (int i = 0; i < 6; ++i) geometry[i] = arm.a[i], geometry[6 + i] = arm.alpha[i], geometry[12 + i] = arm.d[i];
        KDL::RigidBodyInertia links[6];
        for (int i = 0; i < 6; ++i) links[i] = RandomLink(rng, standard + 10 * i);
        standard_to_base_parameters(arm.a, arm.alpha, arm.d, standard, P);
        const KDL::Chain chain = MdhChain(arm, links);  // the solver keeps a reference
        KDL::ChainIdSolver_RNE rne(chain, KDL::Vector(0, 0, -kGravity));
        for (int t = 0; t < 200; ++t) {
            KDL::JntArray jq(6), jdq(6), jddq(6), tau(6);
            for (int i = 0; i < 6; ++i) jq(i) = 4 * u(rng), jdq(i) = 3 * u(rng), jddq(i) = 10 * u(rng);
            const double *q = jq.data.data(), *dq = jdq.data.data(), *ddq = jddq.data.data(), zero[6] = {};
            ASSERT_GE(rne.CartToJnt(jq, jdq, jddq, KDL::Wrenches(12, KDL::Wrench::Zero()), tau), 0);
            double Y[6][36], Ym[6][36], Ycg[6][36], Yt[6][36], Yg[6][36], Yrest[6][36];
            parameter_linearization(q, dq, ddq, arm.a, arm.alpha, arm.d, Y);
            calculate_moment(geometry, q, ddq, Ym);
            calculate_cg(geometry, q, dq, Ycg);
            calculate_torque_matrix(geometry, q, dq, ddq, Yt);
            calculate_gravity(geometry, q, Yg);
            parameter_linearization(q, zero, zero, arm.a, arm.alpha, arm.d, Yrest);
            const Eigen::Map<Eigen::Matrix<double, 6, 36, Eigen::RowMajor>> Ymap(&Y[0][0]);
            if (arm_no == 0 && t < 20) W.middleRows(6 * t, 6) = Ymap;
            const double scale = std::max(1.0, tau.data.cwiseAbs().maxCoeff());
            for (int i = 0; i < 6; ++i) {
                ASSERT_NEAR(Ymap.row(i).dot(Eigen::Map<Eigen::VectorXd>(P, 36)), tau(i), 1e-9 * scale)
                    << "arm " << arm_no << " state " << t << " joint " << i;
                for (int k = 0; k < 36; ++k) {
                    ASSERT_EQ(Yt[i][k], Y[i][k]);
                    ASSERT_NEAR(Ym[i][k] + Ycg[i][k], Y[i][k], 1e-12 * (1 + std::fabs(Y[i][k])));
                    ASSERT_EQ(Yg[i][k], Yrest[i][k]);
                    ASSERT_TRUE(k >= (i == 0 ? 0 : 1 + 7 * (i - 1)) || Y[i][k] == 0.0) << i << " " << k;
                }
            }
            ASSERT_EQ(Y[0][0], ddq[0]);  // ZZR1 sees joint 1's acceleration only
        }
    }
    const Eigen::VectorXd s = Eigen::JacobiSVD<Eigen::MatrixXd>(W).singularValues();
    EXPECT_GT(s(35) / s(0), 1e-4);  // the generator sees about 3e-2
}

// Flange Jacobian (demo arm, mm) against KDL's (reference point at the chain
// tip, base frame) and central differences of fk_ur: position rows, and the
// angular rows from omega^ = dR R^T.
TEST(FlangeJacobian, MatchesKdlAndFiniteDifferencesOfFk) {
    const Arm mm = {{0, 0, 244, 213, 0, 0}, {0, kHalfPi, 0, 0, -kHalfPi, kHalfPi}, {152, 0, 0, 112, 85, 82}};
    const double L[6] = {152, 112, 85, 82, 244, 213}, offset[6] = {0, kHalfPi, 0, -kHalfPi, 0, 0}, h = 1e-6;
    const KDL::Chain chain = MdhChain(mm, nullptr);
    KDL::ChainJntToJacSolver kdl_jacobian(chain);
    std::mt19937 rng(606);
    std::uniform_real_distribution<double> angle(-4 * kHalfPi, 4 * kHalfPi);
    for (int t = 0; t < 500; ++t) {
        double q[6], J[36], T[4][4], Tp[4][4], Tm[4][4];
        KDL::JntArray jq(6);
        KDL::Jacobian K(6);
        for (int i = 0; i < 6; ++i) q[i] = angle(rng), jq(i) = q[i] + offset[i];
        calculate_jacobian_ur(mm.a, mm.d, q, J);
        ASSERT_GE(kdl_jacobian.JntToJac(jq, K), 0);
        fk_ur(q, T, L);
        for (int c = 0; c < 6; ++c) {
            double qp[6], qm[6], W[3][3] = {};  // W = dR/dq_c R^T
            for (int i = 0; i < 6; ++i) qp[i] = q[i] + (i == c ? h : 0), qm[i] = q[i] - (i == c ? h : 0);
            fk_ur(qp, Tp, L);
            fk_ur(qm, Tm, L);
            for (int r = 0; r < 3; ++r)
                for (int k = 0; k < 3; ++k)
                    for (int l = 0; l < 3; ++l) W[r][k] += (Tp[r][l] - Tm[r][l]) / (2 * h) * T[k][l];
            double fd[6] = {0, 0, 0, W[2][1], W[0][2], W[1][0]};
            for (int r = 0; r < 6; ++r) {
                if (r < 3) fd[r] = (Tp[r][3] - Tm[r][3]) / (2 * h);
                ASSERT_NEAR(J[6 * r + c], K(r, c), r < 3 ? 1e-9 : 1e-12) << "row " << r << " col " << c;
                ASSERT_NEAR(J[6 * r + c], fd[r], r < 3 ? 1e-6 : 1e-8) << "row " << r << " col " << c;
            }
        }
    }
}

}  // namespace

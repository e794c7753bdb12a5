// Six-axis kinematics of the offset-wrist arm: forward kinematics against an
// independent KDL chain, inverse round trips over seeded random joint vectors,
// singular and unreachable cases, and the Robot operations.
#include "kinematics.h"

#include <gtest/gtest.h>
#include <kdl/chain.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "math_fun.h"
#include "mechnical_unit.h"
#include "test_support.h"

namespace {

constexpr double kPiFull = 3.14159265358979323846;
constexpr double kHalfPi = kPiFull / 2;

// Demo arm GL_6L3, mm.
constexpr double d1 = 152, a2 = 244, a3 = 213, d4 = 112, d5 = 85, d6 = 82;
double kL[6] = {d1, d4, d5, d6, a2, a3};

// The same arm as a modified-DH (Craig) chain: per joint a fixed segment
// RotX(alpha_{i-1}) TransX(a_{i-1}) RotZ(offset_i) TransZ(d_i), then the
// revolute joint about z. Offsets +pi/2 on joint 2 and -pi/2 on joint 4 turn
// the user's joint zero into the model zero.
KDL::Chain DemoChain() {
    const double alpha[6] = {0, kHalfPi, 0, 0, -kHalfPi, kHalfPi};
    const double a[6] = {0, 0, a2, a3, 0, 0}, d[6] = {d1, 0, 0, d4, d5, d6};
    const double offset[6] = {0, kHalfPi, 0, -kHalfPi, 0, 0};
    KDL::Chain chain;
    for (int i = 0; i < 6; ++i) {
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::None),
                                      KDL::Frame::DH_Craig1989(a[i], alpha[i], d[i], offset[i])));
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), KDL::Frame::Identity()));
    }
    return chain;
}

// Smallest angle between the two candidates of any branch choice of ik_ur for
// the true joint vector q (rad); a seed off by less than half of it picks the
// true branch. Shoulder: 2 atan2(r, d4), r the distance of the wrist-centre
// projection from the d4 cylinder's tangent; wrist: +-q5; elbow: the two q2
// solutions, 2 atan2(a3 |sin q3|, a2 + a3 cos q3) apart.
double BranchSeparation(const double* q) {
    const double t2 = q[1] + kHalfPi, t4 = q[3] - kHalfPi;
    const double r = a2 * std::cos(t2) + a3 * std::cos(t2 + q[2]) - d5 * std::sin(t2 + q[2] + t4);
    const double shoulder = 2.0 * std::atan2(std::fabs(r), d4);
    const double w = std::fabs(std::remainder(q[4], 2 * kPiFull));
    const double wrist = 2.0 * std::min(w, kPiFull - w);
    const double elbow = 2.0 * std::atan2(a3 * std::fabs(std::sin(q[2])), std::fabs(a2 + a3 * std::cos(q[2])));
    return std::min(shoulder, std::min(wrist, elbow));
}

// Tolerances of the inverse round trips. The closed form is exact to ~1e-12
// rad; the rest comes from truncated constants (a one-turn alias of 6.2831852,
// a zero shift of 1.5707963 on joints 2 and 4), amplified roughly as
// 1/separation^2 near a singularity: 1.8e-5 rad at a separation of 0.2 rad.
constexpr double kJointTol = 1e-4;          // rad
constexpr double kPositionTol = 1e-3;       // mm
constexpr double kRotationTol = 1e-6;       // rotation matrix entries
constexpr double kSeparationMargin = 0.2;   // rad; skips about 17 % of samples
constexpr double kSeedPerturbation = 0.02;  // rad, < kSeparationMargin / 2

// True when the flange pose of q is T within the round-trip tolerances.
bool Reproduces(const double* q, double T[4][4]) {
    double T2[4][4];
    fk_ur(q, T2, kL);
    bool ok = true;
    for (int k = 0; k < 12; ++k)
        ok = ok && std::fabs(T[k / 4][k % 4] - T2[k / 4][k % 4]) < (k % 4 == 3 ? kPositionTol : kRotationTol);
    return ok;
}

double MaxJointDiff(const double* a, const double* b) {
    double d = 0.0;
    for (int i = 0; i < 6; ++i) d = std::max(d, std::fabs(a[i] - b[i]));
    return d;
}

TEST(ForwardKinematics, MatchesKdlChain) {
    // Arm straight up at zero: an independent check of the chain itself.
    double zero[6] = {}, T[4][4];
    fk_ur(zero, T, kL);
    EXPECT_NEAR(T[0][3], 0.0, 1e-12);
    EXPECT_NEAR(T[1][3], -(d4 + d6), 1e-12);
    EXPECT_NEAR(T[2][3], d1 + a2 + a3 + d5, 1e-12);

    KDL::ChainFkSolverPos_recursive kdl_fk(DemoChain());
    std::mt19937 rng(101);
    // Beyond one turn too: the formulas must not assume wrapped angles.
    std::uniform_real_distribution<double> angle(-2 * kPiFull, 2 * kPiFull);
    for (int t = 0; t < 20000; ++t) {
        double q[6];
        KDL::JntArray jq(6);
        for (int i = 0; i < 6; ++i) jq(i) = q[i] = angle(rng);
        fk_ur(q, T, kL);
        KDL::Frame f;
        ASSERT_GE(kdl_fk.JntToCart(jq, f), 0);
        for (int i = 0; i < 3; ++i) {
            ASSERT_NEAR(T[i][3], f.p(i), 1e-9) << "mm, sample " << t;
            for (int j = 0; j < 3; ++j) ASSERT_NEAR(T[i][j], f.M(i, j), 1e-12) << "sample " << t;
        }
    }
}

// For each sample away from singularities: seeded with the true angles ik_ur
// returns them; seeded up to 0.02 rad off on every joint it returns the same
// branch, whose forward kinematics reproduces the target.
TEST(InverseKinematics, RoundTripOverRandomJointVectors) {
    const int samples = 100000;
    std::mt19937 rng(202);
    std::uniform_real_distribution<double> angle(-kPiFull, kPiFull);
    std::uniform_real_distribution<double> nudge(-kSeedPerturbation, kSeedPerturbation);
    int tested = 0;
    for (int t = 0; t < samples; ++t) {
        double q[6], noise[6], T[4][4];
        for (double& v : q) v = angle(rng);
        for (double& v : noise) v = nudge(rng);
        if (BranchSeparation(q) < kSeparationMargin) continue;
        ++tested;
        fk_ur(q, T, kL);
        for (int pass = 0; pass < 2; ++pass) {
            double sol[6];
            for (int i = 0; i < 6; ++i) sol[i] = q[i] + (pass == 1 ? noise[i] : 0.0);
            ASSERT_EQ(ik_ur(sol, T, kL), 0) << "sample " << t << " pass " << pass;
            ASSERT_LT(MaxJointDiff(sol, q), kJointTol) << "sample " << t << " pass " << pass;
            ASSERT_TRUE(Reproduces(sol, T)) << "sample " << t << " pass " << pass;
        }
    }
    EXPECT_GT(tested, samples * 3 / 4);

    // Results are not wrapped: the alias one (truncated) turn away wins when it
    // is nearer the seed.
    const double q[6] = {0.2, -0.3, 0.8, 0.4, 1.0, -3.1};
    double T[4][4], sol[6] = {0.2, -0.3, 0.8, 0.4, 1.0, 3.14};
    fk_ur(q, T, kL);
    ASSERT_EQ(ik_ur(sol, T, kL), 0);
    EXPECT_NEAR(sol[5], -3.1 + 6.2831852, 1e-9);
    EXPECT_NEAR(sol[4], q[4], 1e-9);
}

TEST(InverseKinematics, SingularAndUnreachableTargets) {
    // Target: X = 0 the flange pose of the seed q; X < 0 the wrist centre on
    // the base axis (inside the d4 cylinder); X > 0 flange z along +x, x along
    // +y (q1 = 0, q5 = +-90 deg) with the wrist centre at (X, -d4, d1 + d5):
    // the two arm links must span X horizontally.
    const struct { const char* what; double X; double q[6]; int code; const char* message; } cases[] = {
        {"shoulder", -1, {0.1, 0.2, 0.3, 0.4, 0.5, 0.6}, kIkShoulderSingular, "Shoulder singular\n"},
        {"q5 = 0", 0, {0.3, -0.4, 1.1, 0.2, 0.0, -0.5}, kIkWristSingular, "Wrist singularity\n"},
        {"|sin q5| < 1e-5", 0, {0.3, -0.4, 1.1, 0.2, -5e-6, -0.5}, kIkWristSingular, "Wrist singularity\n"},
        {"|sin q5| > 1e-5", 0, {0.3, -0.4, 1.1, 0.2, 5e-5, -0.5}, kIkOk, ""},
        {"arm stretched", 0, {0.3, -0.4, 0.0, 0.2, 0.9, -0.5}, kIkElbowSingular, "Elbow singularity\n"},
        {"inside the reach", a2 + a3 - 1.0, {0, 0, 0.1, 0, 1.0, 0}, kIkOk, ""},
        {"at the reach", a2 + a3, {0, 0, 0, 0, 1.0, 0}, kIkElbowSingular, "Elbow singularity\n"},
        // Here m = X, n = 0: k = (X^2 + a2^2 - a3^2) / (2 a2), e = X^2 - k^2.
        {"beyond the reach", 500.0, {0, 0, 0, 0, 1.0, 0}, kIkOutOfReach, "ik error,  t4 = -43033.6\n"},
    };
    for (const auto& c : cases) {
        double q[6], T[4][4] = {{0, 0, 1, c.X + d6}, {1, 0, 0, -d4}, {0, 1, 0, d1 + d5}, {0, 0, 0, 1}};
        const double S[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 500}, {0, 0, 0, 1}};
        std::copy(c.q, c.q + 6, q);
        if (c.X == 0) fk_ur(q, T, kL);
        if (c.X < 0) std::copy(&S[0][0], &S[0][0] + 16, &T[0][0]);
        std::string out;
        EXPECT_EQ(tqltest::Quiet([&] { return ik_ur(q, T, kL); }, &out), c.code) << c.what;
        EXPECT_EQ(out, c.message) << c.what;
        EXPECT_TRUE(c.code != kIkOk || Reproduces(q, T)) << c.what;
    }

    // Non-finite target entries are refused.
    for (int k = 0; k < 12; ++k) {
        double T[4][4], q[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5};
        fk_ur(q, T, kL);
        T[k / 4][k % 4] = (k % 2) ? std::nan("") : INFINITY;
        std::string out;
        EXPECT_EQ(tqltest::Quiet([&] { return ik_ur(q, T, kL); }, &out), kIkInvalidInput) << k;
        EXPECT_EQ(out, "ik error, non-finite target or geometry\n");
    }
}

// Types 1-4 share the model: the seven-value pose is the flange frame of
// fk_ur as position and quaternion, and it round trips through the inverse
// (to the truncated-constant residue). Other types touch nothing.
TEST(RobotKinematics, SevenValuePosesOfServedTypes) {
    Robot robot;
    robot.joint_num_ = 6;
    // The link parameters the database gives the demo arm: (alpha, 0, a, d).
    const double alpha[6] = {0, 1.5707963, 0, -1.5707963, 0, 0}, a[6] = {0, 0, a2, a3, 0, 0},
                 d[6] = {d1, 0, 0, d4, d5, d6};
    for (int i = 0; i < 6; ++i) robot.link_[i].SetMdhParameters(alpha[i], 0.0, a[i], d[i]);
    for (int type : {-1, 0, 1, 2, 3, 4, 5, 6}) {
        robot.robot_type_ = type;
        double q[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5}, sol[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5};
        double pose[7] = {7, 8, 9, 10, 11, 12, 13}, expected[7], back[7], T[4][4];
        if (type < 1 || type > 4) {
            EXPECT_EQ(tqltest::Stdout([&] {
                          EXPECT_EQ(robot.ForwardKinematics(q, pose), -1);
                          EXPECT_EQ(robot.InverseKinematics(sol, pose), -1);
                      }),
                      "Wait to add...\nWait to add...\n");
            for (int i = 0; i < 7; ++i) EXPECT_EQ(pose[i], i + 7.0);
            for (int i = 0; i < 6; ++i) EXPECT_EQ(sol[i], q[i]);
            continue;
        }
        ASSERT_EQ(robot.ForwardKinematics(q, pose), 0);
        fk_ur(q, T, kL);
        MatrixToUnitQuaternion(T, expected);
        for (int i = 0; i < 7; ++i) EXPECT_NEAR(pose[i], expected[i], 1e-12) << type << " " << i;
        ASSERT_EQ(robot.InverseKinematics(sol, pose), 0);
        EXPECT_LT(MaxJointDiff(sol, q), kJointTol);
        ASSERT_EQ(robot.ForwardKinematics(sol, back), 0);
        for (int i = 0; i < 7; ++i) EXPECT_NEAR(back[i], pose[i], i < 3 ? kPositionTol : kRotationTol);
    }
}

}  // namespace

// Four-link mechanism: the end point is l2 from both driven-arm tips, z follows
// the screw, Rz(v[3]) is the rotation; the placeholder inverse repeats the
// forward transform with a lead of 12 mm whatever s is.
TEST(LinkMechanism, ForwardTransformAndPlaceholderInverse) {
    const double cases[][4] = {{0, 0, 0, 0}, {6.2831852, 0.3, -0.5, 0.5}, {-2.0, 1.7, 0.9, -2.5}};
    const double want_z[] = {0.0, 12.0, -2.0 / 6.2831852 * 12.0};
    for (int k = 0; k < 3; ++k) {
        double v[4] = {cases[k][0], cases[k][1], cases[k][2], cases[k][3]}, T[4][4], inv[4][4];
        LinkMechanismForwardKinematicsSolution(v, T);
        LinkMechanismInverseKinematicsSolution(v, inv);
        for (int a = 1; a <= 2; ++a)
            EXPECT_NEAR(std::hypot(T[0][3] - l1 * std::cos(v[a]), T[1][3] - l1 * std::sin(v[a])), l2, 1e-9);
        EXPECT_EQ(T[2][3], want_z[k]);
        const double c = std::cos(v[3]), sn = std::sin(v[3]);
        const double R[4][3] = {{c, -sn, 0}, {sn, c, 0}, {0, 0, 1}, {0, 0, 0}};
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                EXPECT_EQ(inv[i][j], T[i][j]) << k << " " << i << j;
                if (j < 3) { EXPECT_EQ(T[i][j], R[i][j]) << k << " " << i << j; }
            }
        EXPECT_EQ(T[3][3], 1.0);
    }
    double v[4] = {6.2831852, 0, 0, 0}, T[4][4];
    LinkMechanismForwardKinematicsSolution(v, T);
    EXPECT_DOUBLE_EQ(T[0][3], 263.78);  // l1 + l2 on the x axis
    EXPECT_EQ(T[1][3], 0.0);
    s = 5.0;  // the forward lead changes, the inverse keeps 12
    LinkMechanismForwardKinematicsSolution(v, T);
    EXPECT_EQ(T[2][3], 5.0);
    LinkMechanismInverseKinematicsSolution(v, T);
    EXPECT_EQ(T[2][3], 12.0);
    s = 12.0;
    v[1] = 2.0, v[2] = -2.0;  // l1 sin 2 > l2: beyond reach
    LinkMechanismForwardKinematicsSolution(v, T);
    EXPECT_TRUE(std::isnan(T[0][3]) && std::isnan(T[1][3]));
    EXPECT_EQ(T[2][3], 12.0);
}

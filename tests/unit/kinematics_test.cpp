// Six-axis kinematics of the offset-wrist arm: forward kinematics against an
// independent KDL chain, inverse round trips over seeded random joint vectors,
// every singular and unreachable case with its code and message, and the
// Robot operations on hand-set link parameters.
#include "kinematics.h"

#include <gtest/gtest.h>
#include <kdl/chain.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <sstream>
#include <string>

#include "math_fun.h"
#include "mechnical_unit.h"

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
    const double a[6] = {0, 0, a2, a3, 0, 0};
    const double d[6] = {d1, 0, 0, d4, d5, d6};
    const double offset[6] = {0, kHalfPi, 0, -kHalfPi, 0, 0};
    KDL::Chain chain;
    for (int i = 0; i < 6; ++i) {
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::None),
                                      KDL::Frame::DH_Craig1989(a[i], alpha[i], d[i], offset[i])));
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), KDL::Frame::Identity()));
    }
    return chain;
}

// Number of random samples of the round-trip sweep (TQL_KIN_SAMPLES overrides).
int SampleCount() {
    const char* env = std::getenv("TQL_KIN_SAMPLES");
    if (env != nullptr && std::atoi(env) > 0) return std::atoi(env);
    return 100000;
}

// Angle between the two candidates of each branch choice of ik_ur, for the
// true joint vector q (rad). A seed that is off by less than half of the
// smallest one picks the true branch at every joint.
//   shoulder: the two q1 solutions differ by 2 atan2(r, d4), r the distance
//             of the wrist-centre projection from the d4 cylinder's tangent;
//   wrist:    +q5 and -q5;
//   elbow:    the two q2 solutions differ by 2 atan2(a3 |sin q3|, a2 + a3 cos q3).
double BranchSeparation(const double* q) {
    const double t2 = q[1] + kHalfPi, t4 = q[3] - kHalfPi;
    const double r = a2 * std::cos(t2) + a3 * std::cos(t2 + q[2]) - d5 * std::sin(t2 + q[2] + t4);
    const double shoulder = 2.0 * std::atan2(std::fabs(r), d4);
    const double w = std::fabs(std::remainder(q[4], 2 * kPiFull));
    const double wrist = 2.0 * std::min(w, kPiFull - w);
    const double elbow =
        2.0 * std::atan2(a3 * std::fabs(std::sin(q[2])), std::fabs(a2 + a3 * std::cos(q[2])));
    return std::min(shoulder, std::min(wrist, elbow));
}

double MaxPositionDiff(double A[4][4], double B[4][4]) {
    double d = 0.0;
    for (int i = 0; i < 3; ++i) d = std::max(d, std::fabs(A[i][3] - B[i][3]));
    return d;
}

double MaxRotationDiff(double A[4][4], double B[4][4]) {
    double d = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) d = std::max(d, std::fabs(A[i][j] - B[i][j]));
    return d;
}

double MaxJointDiff(const double* a, const double* b) {
    double d = 0.0;
    for (int i = 0; i < 6; ++i) d = std::max(d, std::fabs(a[i] - b[i]));
    return d;
}

// Runs ik_ur and captures what it prints.
int IkCapture(double* q, double T[4][4], std::string* out) {
    testing::internal::CaptureStdout();
    int ret = ik_ur(q, T, kL);
    *out = testing::internal::GetCapturedStdout();
    return ret;
}

// Target with flange z axis along +x, x axis along +y (q1 = 0, q5 = +-90 deg,
// q2+q3+q4 at model zero) whose wrist centre lies at (X, -d4, d1 + d5): the
// two arm links must then span X exactly, horizontally from the shoulder.
void HorizontalReachTarget(double X, double T[4][4]) {
    const double R[3][3] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) T[i][j] = R[i][j];
    T[0][3] = X + d6;
    T[1][3] = -d4;
    T[2][3] = d1 + d5;
    T[3][0] = T[3][1] = T[3][2] = 0.0;
    T[3][3] = 1.0;
}

// ---------------------------------------------------------------- forward

TEST(ForwardKinematics, ZeroPoseArmStraightUp) {
    const double q[6] = {0, 0, 0, 0, 0, 0};
    double T[4][4];
    fk_ur(q, T, kL);
    const double expected[4][4] = {{1, 0, 0, 0},
                                   {0, 0, -1, -(d4 + d6)},
                                   {0, 1, 0, d1 + a2 + a3 + d5},
                                   {0, 0, 0, 1}};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_NEAR(T[i][j], expected[i][j], 1e-12) << i << j;
}

TEST(ForwardKinematics, MatchesKdlChain) {
    KDL::Chain chain = DemoChain();
    ASSERT_EQ(chain.getNrOfJoints(), 6u);
    KDL::ChainFkSolverPos_recursive kdl_fk(chain);
    std::mt19937 rng(101);
    // Beyond one turn too: the formulas must not assume wrapped angles.
    std::uniform_real_distribution<double> angle(-2 * kPiFull, 2 * kPiFull);
    double worst_p = 0.0, worst_r = 0.0;
    for (int t = 0; t < 20000; ++t) {
        double q[6], T[4][4];
        KDL::JntArray jq(6);
        for (int i = 0; i < 6; ++i) jq(i) = q[i] = angle(rng);
        fk_ur(q, T, kL);
        KDL::Frame f;
        ASSERT_GE(kdl_fk.JntToCart(jq, f), 0);
        for (int i = 0; i < 3; ++i) {
            worst_p = std::max(worst_p, std::fabs(T[i][3] - f.p(i)));
            for (int j = 0; j < 3; ++j) worst_r = std::max(worst_r, std::fabs(T[i][j] - f.M(i, j)));
        }
        EXPECT_EQ(T[3][0], 0.0);
        EXPECT_EQ(T[3][3], 1.0);
    }
    EXPECT_LT(worst_p, 1e-9) << "mm";
    EXPECT_LT(worst_r, 1e-12);
}

// ---------------------------------------------------------------- inverse sweep

// Tolerances of the inverse round trips. The closed form itself is exact to
// ~1e-12 rad; what remains comes from the truncated constants: a one-turn alias
// is 6.2831852, 7.2e-8 rad short of 2 pi, and the zero shift of joints 2 and 4
// is 1.5707963, 2.7e-8 rad short of pi/2. An aliased joint angle carries that
// error into the joints solved after it, amplified roughly as 1/separation^2
// near a singularity (1.3e-4 rad seen at a branch separation of 0.05 rad,
// 1.8e-5 rad at 0.2 rad, ~1e-6 rad far from singularities).
constexpr double kJointTol = 1e-4;     // rad
constexpr double kPositionTol = 1e-3;  // mm
constexpr double kRotationTol = 1e-6;  // rotation matrix entries
// Samples whose smallest branch separation is below this are skipped (about
// 17 % of uniform joint vectors): it keeps the amplified residue 5x below
// kJointTol and leaves room for the seed perturbation.
constexpr double kSeparationMargin = 0.2;  // rad
constexpr double kSeedPerturbation = 0.02;  // rad, < kSeparationMargin / 2

// For each sample away from singularities: seeded with the true angles ik_ur
// must return them; seeded up to 0.02 rad off on every joint it must return
// the same branch, whose forward kinematics reproduces the target.
TEST(InverseKinematics, RoundTripOverRandomJointVectors) {
    const int samples = SampleCount();
    const double margin = kSeparationMargin;
    const double perturbation = kSeedPerturbation;
    std::mt19937 rng(202);
    std::uniform_real_distribution<double> angle(-kPiFull, kPiFull);
    std::uniform_real_distribution<double> nudge(-perturbation, perturbation);
    int tested = 0, failures = 0;
    double worst_q = 0.0, worst_p = 0.0, worst_r = 0.0;
    std::string first_failure;
    testing::internal::CaptureStdout();  // nothing expected; keeps the log clean if not
    for (int t = 0; t < samples; ++t) {
        double q[6];
        for (int i = 0; i < 6; ++i) q[i] = angle(rng);
        double seed_noise[6];
        for (int i = 0; i < 6; ++i) seed_noise[i] = nudge(rng);
        if (BranchSeparation(q) < margin) continue;
        ++tested;
        double T[4][4], T2[4][4];
        fk_ur(q, T, kL);
        for (int pass = 0; pass < 2; ++pass) {
            double sol[6];
            for (int i = 0; i < 6; ++i) sol[i] = q[i] + (pass == 1 ? seed_noise[i] : 0.0);
            int ret = ik_ur(sol, T, kL);
            fk_ur(sol, T2, kL);
            double dq = MaxJointDiff(sol, q);
            double dp = MaxPositionDiff(T, T2), dr = MaxRotationDiff(T, T2);
            if (ret != 0 || !(dq < kJointTol) || !(dp < kPositionTol) || !(dr < kRotationTol)) {
                if (failures++ == 0) {
                    std::ostringstream s;
                    s.precision(17);
                    s << "sample " << t << " pass " << pass << " ret " << ret << " dq " << dq
                      << " dp " << dp << " q";
                    for (double v : q) s << " " << v;
                    first_failure = s.str();
                }
                continue;
            }
            worst_q = std::max(worst_q, dq);
            worst_p = std::max(worst_p, dp);
            worst_r = std::max(worst_r, dr);
        }
    }
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "");
    EXPECT_EQ(failures, 0) << first_failure;
    EXPECT_GT(tested, samples * 3 / 4);
    RecordProperty("tested", tested);
    std::cout << "round trips: " << tested << " of " << samples << " samples, max |dq| "
              << worst_q << " rad, max |dp| " << worst_p << " mm, max |dR| " << worst_r << "\n";
}

// The seed picks the branch joint by joint and nothing else is tried: a wrist
// seed of the other sign selects the other wrist solution, which reaches the
// target here ...
TEST(InverseKinematics, SeedSelectsWristBranch) {
    const double q[6] = {0.3, -0.4, 1.6, 0.2, 0.9, -0.5};
    double T[4][4], T2[4][4];
    fk_ur(q, T, kL);
    double sol[6] = {0.3, -0.4, 1.6, 0.2, -0.9, -0.5};
    ASSERT_EQ(ik_ur(sol, T, kL), 0);
    EXPECT_NEAR(sol[4], -0.9, 1e-6);
    EXPECT_NEAR(sol[0], q[0], 1e-6);
    EXPECT_NEAR(sol[5], q[5] - kPiFull, 1e-6);  // flange turned half a turn back
    fk_ur(sol, T2, kL);
    EXPECT_LT(MaxPositionDiff(T, T2), kPositionTol);
    EXPECT_LT(MaxRotationDiff(T, T2), kRotationTol);

    // ... but not here, where the flipped wrist puts the arm out of reach: the
    // call fails although the seed's own branch has a solution.
    const double q2[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5};
    fk_ur(q2, T, kL);
    double sol2[6] = {0.3, -0.4, 1.1, 0.2, -0.9, -0.5};
    std::string out;
    EXPECT_EQ(IkCapture(sol2, T, &out), kIkOutOfReach);
    EXPECT_EQ(out.rfind("ik error,  t4 = -", 0), 0u) << out;
}

// Results are not wrapped: the alias one (truncated) turn away wins when it is
// nearer the seed.
TEST(InverseKinematics, AliasNearSeedIsChosen) {
    const double q[6] = {0.2, -0.3, 0.8, 0.4, 1.0, -3.1};
    double T[4][4];
    fk_ur(q, T, kL);
    double sol[6] = {0.2, -0.3, 0.8, 0.4, 1.0, 3.14};
    ASSERT_EQ(ik_ur(sol, T, kL), 0);
    EXPECT_NEAR(sol[5], -3.1 + 6.2831852, 1e-9);
    EXPECT_NEAR(sol[0], q[0], 1e-9);
    EXPECT_NEAR(sol[4], q[4], 1e-9);
    EXPECT_NEAR(sol[1], q[1], kJointTol);
}

// A seed exactly between two candidates keeps the first one (+sqrt branch).
TEST(InverseKinematics, TieKeepsFirstCandidate) {
    double T[4][4];
    HorizontalReachTarget(400.0, T);  // wrist candidates exactly +-pi/2
    double q[6] = {0, 0, 0, 0, 0, 0};
    ASSERT_EQ(ik_ur(q, T, kL), 0);
    EXPECT_NEAR(q[4], kHalfPi, 1e-12);
    EXPECT_EQ(q[0], 0.0);
}

// The zero shift of joints 2 and 4 is the truncated 1.5707963 in the inverse
// and the full pi/2 in the forward direction: the round trip is off by their
// difference, 2.68e-8 rad, on joint 2 (+) and joint 4 (-).
TEST(InverseKinematics, TruncatedHalfPiResidue) {
    const double q[6] = {0.5, -0.6, 1.2, -0.3, 0.7, 0.1};
    double T[4][4];
    fk_ur(q, T, kL);
    double sol[6];
    std::memcpy(sol, q, sizeof sol);
    ASSERT_EQ(ik_ur(sol, T, kL), 0);
    const double residue = kHalfPi - 1.5707963;
    EXPECT_NEAR(sol[1] - q[1], residue, 1e-12);
    EXPECT_NEAR(sol[3] - q[3], -residue, 1e-12);
    EXPECT_NEAR(sol[2], q[2], 1e-12);
}

// ---------------------------------------------------------------- failures

TEST(InverseKinematicsFailures, ShoulderSingular) {
    // Wrist centre on the base axis, inside the d4 cylinder.
    double T[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 500}, {0, 0, 0, 1}};
    double q[6] = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
    std::string out;
    EXPECT_EQ(IkCapture(q, T, &out), kIkShoulderSingular);
    EXPECT_EQ(out, "Shoulder singular\n");
    // q is spoiled: the seed shift of joints 2 and 4 is not undone.
    EXPECT_EQ(q[1], 0.2 + 1.5707963);
    EXPECT_EQ(q[3], 0.4 - 1.5707963);
}

TEST(InverseKinematicsFailures, WristSingularity) {
    const double qs[6] = {0.3, -0.4, 1.1, 0.2, 0.0, -0.5};
    double T[4][4];
    fk_ur(qs, T, kL);
    double q[6];
    std::memcpy(q, qs, sizeof q);
    std::string out;
    EXPECT_EQ(IkCapture(q, T, &out), kIkWristSingular);
    EXPECT_EQ(out, "Wrist singularity\n");

    // The threshold is |sin q5| < 1e-5.
    for (double q5 : {5e-6, -5e-6, 5e-5, -5e-5}) {
        double qn[6] = {0.3, -0.4, 1.1, 0.2, q5, -0.5};
        fk_ur(qn, T, kL);
        double sol[6];
        std::memcpy(sol, qn, sizeof sol);
        int expected = std::fabs(q5) < 1e-5 ? kIkWristSingular : kIkOk;
        EXPECT_EQ(IkCapture(sol, T, &out), expected) << q5;
        if (expected == kIkOk) {
            EXPECT_NEAR(sol[4], q5, 1e-9);
        }
    }
}

TEST(InverseKinematicsFailures, ElbowSingularityArmStretched) {
    const double qs[6] = {0.3, -0.4, 0.0, 0.2, 0.9, -0.5};
    double T[4][4];
    fk_ur(qs, T, kL);
    double q[6];
    std::memcpy(q, qs, sizeof q);
    std::string out;
    EXPECT_EQ(IkCapture(q, T, &out), kIkElbowSingular);
    EXPECT_EQ(out, "Elbow singularity\n");
}

TEST(InverseKinematicsFailures, ReachBoundaryAndBeyond) {
    double T[4][4];
    std::string out;
    // Just inside the reach a2 + a3: solvable, and the pose is reproduced.
    HorizontalReachTarget(a2 + a3 - 1.0, T);
    double q[6] = {0, 0, 0.1, 0, 1.0, 0};
    ASSERT_EQ(IkCapture(q, T, &out), 0);
    EXPECT_EQ(out, "");
    double T2[4][4];
    fk_ur(q, T2, kL);
    EXPECT_LT(MaxPositionDiff(T, T2), kPositionTol);
    EXPECT_LT(MaxRotationDiff(T, T2), kRotationTol);

    // Exactly at the reach: e = 0 up to rounding.
    HorizontalReachTarget(a2 + a3, T);
    double q1[6] = {0, 0, 0, 0, 1.0, 0};
    EXPECT_EQ(IkCapture(q1, T, &out), kIkElbowSingular);
    EXPECT_EQ(out, "Elbow singularity\n");

    // Beyond: here m = X and n = 0, so k = (X^2 + a2^2 - a3^2) / (2 a2) and
    // the reported e = X^2 - k^2 < 0.
    const double X = 500.0;
    HorizontalReachTarget(X, T);
    double q2[6] = {0, 0, 0, 0, 1.0, 0};
    const double k = (X * X + a2 * a2 - a3 * a3) / (2 * a2);
    std::ostringstream expected;
    expected << "ik error,  t4 = " << (X * X - k * k) << "\n";
    EXPECT_EQ(IkCapture(q2, T, &out), kIkOutOfReach);
    EXPECT_EQ(out, expected.str());
    EXPECT_EQ(out, "ik error,  t4 = -43033.6\n");
}

TEST(InverseKinematicsFailures, NonFiniteInputRejected) {
    const double qs[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5};
    double T[4][4];
    std::string out;
    for (int entry = 0; entry < 12; ++entry) {
        fk_ur(qs, T, kL);
        T[entry / 4][entry % 4] = (entry % 2) ? std::nan("") : INFINITY;
        double q[6];
        std::memcpy(q, qs, sizeof q);
        EXPECT_EQ(IkCapture(q, T, &out), kIkInvalidInput) << entry;
        EXPECT_EQ(out, "ik error, non-finite target or geometry\n");
    }
    // Degenerate geometry never yields a "successful" non-finite solution.
    fk_ur(qs, T, kL);
    for (int g = 0; g < 6; ++g) {
        double L[6] = {d1, d4, d5, d6, a2, a3};
        L[g] = (g == 4 || g == 5) ? 0.0 : std::nan("");
        double q[6];
        std::memcpy(q, qs, sizeof q);
        testing::internal::CaptureStdout();
        int ret = ik_ur(q, T, L);
        testing::internal::GetCapturedStdout();
        if (ret == 0) {
            for (double v : q) EXPECT_TRUE(std::isfinite(v)) << g;
        }
    }
}

// ---------------------------------------------------------------- Robot

// A six-joint robot with the link parameters the database gives the demo arm:
// (alpha, 0, a, d) per joint.
void SetDemoLinks(Robot& robot, int type) {
    robot.joint_num_ = 6;
    robot.robot_type_ = type;
    const double alpha[6] = {0, 1.5707963, 0, -1.5707963, 0, 0};
    const double a[6] = {0, 0, a2, a3, 0, 0};
    const double d[6] = {d1, 0, 0, d4, d5, d6};
    for (int i = 0; i < 6; ++i) robot.link_[i].SetMdhParameters(alpha[i], 0.0, a[i], d[i]);
}

TEST(RobotKinematics, ForwardGivesSevenValuePose) {
    Robot robot;
    for (int type = 1; type <= 4; ++type) {
        SetDemoLinks(robot, type);
        double q[6] = {0.3, -0.4, 1.1, 0.2, 0.9, -0.5};
        double pose[7], expected[7], T[4][4];
        ASSERT_EQ(robot.ForwardKinematics(q, pose), 0);
        fk_ur(q, T, kL);
        MatrixToUnitQuaternion(T, expected);
        for (int i = 0; i < 7; ++i) EXPECT_EQ(pose[i], expected[i]) << type << " " << i;
        double qn = 0.0;
        for (int i = 3; i < 7; ++i) qn += pose[i] * pose[i];
        EXPECT_NEAR(qn, 1.0, 1e-12);
    }
}

// Seven-value pose round trip. The quaternion's components are taken from
// separate radicands with a 1e-5 guard, so samples keep every component above
// 0.01 and the orientation survives the conversion to ~1e-12; what remains is
// the truncated-constant residue of the inverse.
TEST(RobotKinematics, InverseRoundTripThroughSevenValuePose) {
    Robot robot;
    SetDemoLinks(robot, 1);
    std::mt19937 rng(303);
    std::uniform_real_distribution<double> angle(-kPiFull, kPiFull);
    int tested = 0;
    while (tested < 2000) {
        double q[6], pose[7];
        for (int i = 0; i < 6; ++i) q[i] = angle(rng);
        if (BranchSeparation(q) < kSeparationMargin) continue;
        ASSERT_EQ(robot.ForwardKinematics(q, pose), 0);
        bool guarded = false;
        for (int i = 3; i < 7; ++i) guarded = guarded || std::fabs(pose[i]) < 0.01;
        if (guarded) continue;
        ++tested;
        double sol[6];
        std::memcpy(sol, q, sizeof sol);
        ASSERT_EQ(robot.InverseKinematics(sol, pose), 0);
        EXPECT_LT(MaxJointDiff(sol, q), kJointTol);
        double back[7];
        ASSERT_EQ(robot.ForwardKinematics(sol, back), 0);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(back[i], pose[i], kPositionTol);
        for (int i = 3; i < 7; ++i) EXPECT_NEAR(back[i], pose[i], kRotationTol);
    }
}

TEST(RobotKinematics, InverseFailureGivesMinusOne) {
    Robot robot;
    SetDemoLinks(robot, 2);
    double pose[7] = {2000, 0, 0, 1, 0, 0, 0};  // far out of reach
    double q[6] = {0, 0, 0.5, 0, 1.0, 0};
    testing::internal::CaptureStdout();
    EXPECT_EQ(robot.InverseKinematics(q, pose), -1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("ik error,  t4 = -", 0), 0u) << out;
}

TEST(RobotKinematics, UnservedTypesTouchNothing) {
    Robot robot;
    for (int type : {0, 5, 6, -1}) {
        SetDemoLinks(robot, type);
        double q[6] = {1, 2, 3, 4, 5, 6};
        double pose[7] = {7, 8, 9, 10, 11, 12, 13};
        testing::internal::CaptureStdout();
        EXPECT_EQ(robot.ForwardKinematics(q, pose), -1);
        EXPECT_EQ(robot.InverseKinematics(q, pose), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Wait to add...\nWait to add...\n");
        for (int i = 0; i < 6; ++i) EXPECT_EQ(q[i], i + 1.0);
        for (int i = 0; i < 7; ++i) EXPECT_EQ(pose[i], i + 7.0);
    }
}

}  // namespace

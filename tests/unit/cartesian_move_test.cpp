// Linear and circular segments, the Cartesian moves and jog on the simulated
// arm in virtual time. Geometry checks use the forward kinematics of the joint
// set-points actually sent; expected orientations come from KDL, independently
// of the quaternion code under test.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <kdl/frames.hpp>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "execute.h"
#include "interpolation.h"
#include "kinematics.h"
#include "math_fun.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr int kJoints = 6;
constexpr double kDeg = 0.017453292222222222;  // 3.1415926 / 180
constexpr double kPi = 3.14159265358979;

using tqltest::Quiet;
using Joints = std::array<double, kJoints>;

// The real-time position after each period's sleep holds what was sent.
struct Spy {
    std::vector<Joints> sent;
    long stop_at = -1;  // stop request from another thread after this many ticks
} spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-12) {
        Joints q;
        CopyRealTimePos(q.data(), kJoints);
        spy.sent.push_back(q);
        if (static_cast<long>(spy.sent.size()) == spy.stop_at) std::thread([] { SetStopFlag(); }).join();
    }
    tql_sim_sleep(seconds);
}

struct Frame {
    double p[3];  // mm, base frame
    KDL::Rotation r;
};

// Flange frame of joint vector q, straight from the closed-form model.
Frame FlangeFrame(Robot* robot, const Joints& q) {
    const LinkUnit* l = robot->link_;
    const double geometry[6] = {l[0].mdh_[3], l[3].mdh_[3], l[4].mdh_[3],
                                l[5].mdh_[3], l[2].mdh_[2], l[3].mdh_[2]};
    double t[4][4];
    fk_ur(q.data(), t, geometry);
    return {{t[0][3], t[1][3], t[2][3]},
            KDL::Rotation(t[0][0], t[0][1], t[0][2], t[1][0], t[1][1], t[1][2], t[2][0], t[2][1], t[2][2])};
}

double RotationGap(const KDL::Rotation& a, const KDL::Rotation& b) {
    double gap = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) gap = std::max(gap, std::fabs(a(i, j) - b(i, j)));
    return gap;
}

// Rotation a fraction s of the way from r0 to r1 about their fixed relative axis.
KDL::Rotation Geodesic(const KDL::Rotation& r0, const KDL::Rotation& r1, double s) {
    KDL::Vector axis;
    const double angle = (r0.Inverse() * r1).GetRotAngle(axis);
    return r0 * KDL::Rotation::Rot(axis, s * angle);
}

double Distance3(const double* a, const double* b) { return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]); }

class CartesianMoves : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        spy = Spy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&SpySleep));
        std::string out;
        robot_ = GetCurrentRobot();
        robot_->GetLineSpeedAccDecParameters(&line_);
        robot_->GetRotateSpeedAccDecParameters(&rotate_);
        // The demo arm powers up at all zeros (wrist singular): leave it for a
        // comfortable pose (wrist centre off the base axis, elbow bent).
        Joints target = {10 * kDeg, 25 * kDeg, 60 * kDeg, 5 * kDeg, -70 * kDeg, 15 * kDeg};
        ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }, &out), 0) << out;
        spy.sent.clear();
    }
    Joints Current() {
        Joints q;
        robot_->GetCurrentMachineJoint(q.data());
        return q;
    }
    // Joints for a flange pose (seven values), seeded with q.
    Joints Solve(const double* pose, Joints q) {
        double p[7];
        std::copy(pose, pose + 7, p);
        EXPECT_EQ(robot_->InverseKinematics(q.data(), p), 0);
        return q;
    }
    int Linear(Joints start, Joints end, AccDecDate* line, AccDecDate* turn, std::string* out = nullptr) {
        return Quiet([&] { return MoveLinearPath(robot_, start.data(), end.data(), line, turn); }, out);
    }

    // Every sent sample lies on the segment start -> end (within 0.01 mm),
    // progresses by at most one period at `speed`, and its orientation is the
    // geodesic at the position's fraction. Returns the last fraction.
    double ExpectOnSegment(const Joints& start, const Joints& end, double speed) {
        const Frame f0 = FlangeFrame(robot_, start), f1 = FlangeFrame(robot_, end);
        double d[3], last_p[3], last_s = 0.0;
        for (int i = 0; i < 3; ++i) d[i] = f1.p[i] - f0.p[i], last_p[i] = f0.p[i];
        const double len2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        const double s_tol = 1e-4 / std::sqrt(len2);  // the kinematics round trip leaves ~1e-5 mm
        for (size_t k = 0; k < spy.sent.size(); ++k) {
            const Frame f = FlangeFrame(robot_, spy.sent[k]);
            const double s =
                ((f.p[0] - f0.p[0]) * d[0] + (f.p[1] - f0.p[1]) * d[1] + (f.p[2] - f0.p[2]) * d[2]) / len2;
            const double foot[3] = {f0.p[0] + s * d[0], f0.p[1] + s * d[1], f0.p[2] + s * d[2]};
            EXPECT_LT(Distance3(f.p, foot), 0.01) << "tick " << k + 1;
            EXPECT_GE(s, last_s - s_tol) << "tick " << k + 1;
            EXPECT_LE(s, 1.0 + s_tol) << "tick " << k + 1;
            EXPECT_LE(Distance3(f.p, last_p), speed * PERIOD + 0.01) << "tick " << k + 1;
            EXPECT_LT(RotationGap(f.r, Geodesic(f0.r, f1.r, s)), 1e-6) << "tick " << k + 1;
            last_s = s;
            std::copy(f.p, f.p + 3, last_p);
        }
        return last_s;
    }

    Robot* robot_ = nullptr;
    AccDecDate line_, rotate_;
};

}  // namespace

TEST(Orientation, SlerpFollowsTheFixedAxisRotation) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 200; ++trial) {
        const KDL::Rotation r0 = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        const KDL::Rotation r1 = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        double q0[4], q1[4], out[4];
        r0.GetQuaternion(q0[1], q0[2], q0[3], q0[0]);
        r1.GetQuaternion(q1[1], q1[2], q1[3], q1[0]);
        if (trial % 2 == 1) {
            for (double& v : q1) v = -v;  // the same rotation from the other hemisphere
        }
        const double angle = CalculateOrientation(q0, q1);
        KDL::Vector axis;
        EXPECT_NEAR(2 * angle, (r0.Inverse() * r1).GetRotAngle(axis), 1e-9);
        for (double s : {0.0, 0.25, 0.5, 0.9, 1.0}) {
            OrientationInterpolation(q0, q1, out, s, angle);
            const KDL::Rotation r = KDL::Rotation::Quaternion(out[1], out[2], out[3], out[0]);
            EXPECT_LT(RotationGap(r, Geodesic(r0, r1, s)), 1e-9) << trial << " " << s;
        }
    }
}

TEST(CircularSegment, RandomCirclesInSpace) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 300; ++trial) {
        // Central angles start -> middle and middle -> end, up to pi. Every third
        // trial the middle is opposite the start, where the start and middle radii
        // give no plane; in trials 0 and 1 exactly so, turning either way.
        const bool exact = trial < 2;
        const KDL::Rotation rot = exact ? KDL::Rotation::RotX(trial * kPi)
                                        : KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        const KDL::Vector c =
            exact ? KDL::Vector::Zero() : KDL::Vector(300 * u(rng), 300 * u(rng), 300 * u(rng));
        const double r = exact ? 100 : 20 + 200 * (u(rng) + 1);
        const double a1 = exact || trial % 3 == 0 ? kPi : 0.2 + 1.2 * (u(rng) + 1);
        const double a2 = exact ? kPi / 2 : 0.2 + 1.2 * (u(rng) + 1);
        double p[3][7] = {{0, 0, 0, 1, 0, 0, 0}, {0, 0, 0, 1, 0, 0, 0}, {0, 0, 0, 1, 0, 0, 0}};
        const double phi[3] = {0, a1, a1 + a2};
        for (int k = 0; k < 3; ++k) {
            const KDL::Vector v = c + rot * KDL::Vector(r * std::cos(phi[k]), r * std::sin(phi[k]), 0);
            for (int i = 0; i < 3; ++i) p[k][i] = exact ? std::round(v(i)) : v(i);
        }
        CircularPath path;
        path.SetParameters(p[0], p[1], p[2], 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
        path.InterpolationPreprocess();
        EXPECT_NEAR(path.sector_angles_[0], a1, 1e-7) << trial;
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(path.frame_[j][2], rot(j, 2), 1e-6) << trial;  // the normal
        // Every sample on the circle, in its plane, at the central angle of the
        // arc length travelled (so through the middle), and to the end.
        double pose[7], out[2];
        for (int k = 0; k <= 80; ++k) {
            const double t = path.tall_ * k / 80;
            path.Interpolation(t, pose);
            const KDL::Vector local = rot.Inverse() * (KDL::Vector(pose[0], pose[1], pose[2]) - c);
            ASSERT_NEAR(local.z(), 0.0, 1e-6 * r) << trial << " " << k;
            ASSERT_NEAR(std::hypot(local.x(), local.y()), r, 1e-6 * r) << trial << " " << k;
            path.linear_profile_.calculate_current_speed(t, out);
            const double along = std::atan2(local.y(), local.x());  // central angle, (-pi, pi]
            const double expect = std::remainder(out[0] / r, 2 * kPi);
            ASSERT_NEAR(std::remainder(along - expect, 2 * kPi), 0.0, 1e-6) << trial << " " << k;
        }
        EXPECT_LT(Distance3(pose, p[2]), 1e-6 * r) << trial;
    }
}

TEST(CircularSegment, CollinearPointsAreReportedAndLeaveAZeroCircle) {
    double p1[7] = {0, 0, 0, 1, 0, 0, 0}, p2[7] = {10, 10, 10, 1, 0, 0, 0}, p3[7] = {30, 30, 30, 1, 0, 0, 0};
    CircularPath path;
    path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
    testing::internal::CaptureStdout();
    path.InterpolationPreprocess();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failure to compute inverse matrix\n");
    EXPECT_EQ(path.arc_length_, 0.0);
    EXPECT_EQ(path.tall_, 0.0);
}

// There and back, the second time with a rotation limit slow enough to govern
// the timing: position and orientation still move together.
TEST_F(CartesianMoves, LinearMoveStaysOnTheSegment) {
    const Joints start = Current();
    Joints end = start;
    const double delta[kJoints] = {25, -10, 15, 5, 10, -10};
    for (int j = 0; j < kJoints; ++j) end[j] += delta[j] * kDeg;
    AccDecDate slow_turn = rotate_;
    slow_turn.speed /= 20;
    for (int pass = 0; pass < 2; ++pass) {
        const Joints from = pass == 0 ? start : end, to = pass == 0 ? end : start;
        AccDecDate* rotation = pass == 0 ? &rotate_ : &slow_turn;
        LinearPath plan;
        ASSERT_EQ(MoveLinearPreprocess(robot_, Joints(from).data(), Joints(to).data(), &plan, &line_, rotation), 0);
        EXPECT_EQ(plan.rotation_governs_, pass);
        spy.sent.clear();
        ASSERT_EQ(Linear(from, to, &line_, rotation), 0);
        ASSERT_EQ(static_cast<long>(spy.sent.size()), std::lround(plan.tall_ / PERIOD));
        ASSERT_GT(spy.sent.size(), 10u);
        EXPECT_NEAR(ExpectOnSegment(from, to, line_.speed), 1.0, 1e-6);
        for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(spy.sent.back()[j], to[j], 1e-6) << "joint " << j + 1;
    }
}

TEST_F(CartesianMoves, UnreachablePoseMidPathEndsTheMoveAfterTheReachablePart) {
    // Swinging joint 1 by 160 degrees: the straight line between the two
    // flange positions passes within the shoulder offset of the base axis.
    Joints start = {-80 * kDeg, 30 * kDeg, 60 * kDeg, 0, -60 * kDeg, 20 * kDeg};
    ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(start.data()); }), 0);
    spy.sent.clear();
    Joints end = start;
    end[0] = 80 * kDeg;
    AccDecDate slow = line_;  // so the joints near the unreachable region stay within their speed
    slow.speed = 5.0;
    std::string out;
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Linear(start, end, &slow, &rotate_, &out), -1);
    EXPECT_NE(out.find("Shoulder singular"), std::string::npos) << out.substr(0, 500);
    ASSERT_GT(spy.sent.size(), 10u);
    EXPECT_EQ(tql_sim_setpoint_count(1), before + static_cast<long>(spy.sent.size()));
    EXPECT_GT(Distance3(FlangeFrame(robot_, spy.sent.back()).p, FlangeFrame(robot_, end).p), 100.0);
    ExpectOnSegment(start, end, slow.speed);
}

// A plan that is not a whole number of periods fails the internal check
// before any motion.
TEST_F(CartesianMoves, PeriodCheckRefusesACorruptPlan) {
    Joints end = Current();
    end[0] += 10 * kDeg;
    AccDecDate broken = line_;
    broken.jerk = std::nan("");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Linear(Current(), end, &broken, &rotate_), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Assertion `fabs(tick*PERIOD-lpath.tall_)<em' failed."), std::string::npos) << err;
    EXPECT_TRUE(spy.sent.empty());
}

TEST_F(CartesianMoves, QuarterCircleArc) {
    const Joints start = Current();
    double mid[7], end[7];
    ASSERT_EQ(robot_->ForwardKinematics(Joints(start).data(), mid), 0);
    // Horizontal quarter circle of radius 80 mm, same orientation throughout.
    const double r = 80.0, centre[3] = {mid[0] - r, mid[1], mid[2]};
    std::copy(mid, mid + 7, end);
    mid[0] = centre[0] + r * std::sqrt(0.5);
    mid[1] = centre[1] + r * std::sqrt(0.5);
    end[0] = centre[0];
    end[1] = centre[1] + r;
    Joints s = start, m = Solve(mid, start), e = Solve(end, m);
    ASSERT_EQ(Quiet([&] { return MoveCircularPath(robot_, s.data(), m.data(), e.data(), &line_, &rotate_); }), 0);
    const Frame f0 = FlangeFrame(robot_, start);
    const double quarter = r * kPi / 2;
    double last[3] = {f0.p[0], f0.p[1], f0.p[2]}, travelled = 0.0, at_half = -1.0;
    for (size_t k = 0; k < spy.sent.size(); ++k) {
        const Frame f = FlangeFrame(robot_, spy.sent[k]);
        EXPECT_NEAR(std::hypot(f.p[0] - centre[0], f.p[1] - centre[1]), r, 0.01) << k;
        EXPECT_NEAR(f.p[2], centre[2], 0.01) << k;
        EXPECT_LT(RotationGap(f.r, f0.r), 1e-6) << k;
        travelled += Distance3(f.p, last);
        std::copy(f.p, f.p + 3, last);
        if (at_half < 0 && travelled >= quarter / 2) at_half = Distance3(f.p, mid);
    }
    EXPECT_NEAR(travelled, quarter, 0.05);
    // Within one period's travel of the middle point when half the arc is done.
    EXPECT_LT(at_half, line_.speed * PERIOD + 0.01);
    EXPECT_LT(Distance3(last, end), 0.01);
}

TEST_F(CartesianMoves, CartesianJog) {
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(-1, 10.0); }), -1);
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(kJoints, 10.0); }), -1);
    for (double bad : {std::nan(""), HUGE_VAL}) {
        std::string out;
        EXPECT_EQ(Quiet([&] { return JogInCartesianCoordinateSystem(4, bad); }, &out), -1);
        EXPECT_NE(out.find("is not a finite number"), std::string::npos) << out;
    }
    std::string out;
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(0, 2000.0); }, &out), -1);  // out of reach
    EXPECT_NE(out.find("ik error,  t4 = "), std::string::npos) << out;
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
    // A zero step stays put (up to the micrometres of the kinematics round trip).
    Frame f0 = FlangeFrame(robot_, Current());
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(1, 0.0); }), 0);
    EXPECT_LT(Distance3(FlangeFrame(robot_, Current()).p, f0.p), 1e-3);

    // +10 mm along base z on a straight line, orientation unchanged.
    spy.sent.clear();
    Joints start = Current();
    f0 = FlangeFrame(robot_, start);
    ASSERT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(2, 10.0); }), 0);
    Frame f1 = FlangeFrame(robot_, Current());
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(f1.p[i], f0.p[i] + (i == 2 ? 10.0 : 0.0), 0.01);
    EXPECT_LT(RotationGap(f1.r, f0.r), 1e-6);
    ExpectOnSegment(start, Current(), 0.25 * line_.speed);

    // 90 degrees about base z, the position kept throughout.
    spy.sent.clear();
    f0 = FlangeFrame(robot_, Current());
    ASSERT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(5, 90.0); }), 0);
    ASSERT_FALSE(spy.sent.empty());
    f1 = FlangeFrame(robot_, Current());
    EXPECT_LT(Distance3(f1.p, f0.p), 0.01);
    EXPECT_LT(RotationGap(f1.r, KDL::Rotation::RotZ(90 * kDeg) * f0.r), 1e-6);
    for (const Joints& q : spy.sent) EXPECT_LT(Distance3(FlangeFrame(robot_, q).p, f0.p), 0.01);
}

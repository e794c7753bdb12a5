// Linear and circular segments, the Cartesian moves and jog on the simulated
// arm in virtual time. Geometry checks use the forward kinematics of the joint
// set-points actually sent; expected orientations come from KDL, independently
// of the quaternion code under test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <kdl/frames.hpp>
#include <random>
#include <string>
#include <vector>

#include "database.h"
#include "execute.h"
#include "interpolation.h"
#include "kinematics.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

constexpr double kPi = 3.14159265358979;

using tqltest::CurrentJoints;
using tqltest::Joints;
using tqltest::kDeg;
using tqltest::Quiet;
using tqltest::tick_spy;

// Flange frame (mm, base frame) of joint vector q, straight from the closed-form model.
KDL::Frame Flange(const Joints& q) {
    const LinkUnit* l = GetCurrentRobot()->link_;
    const double geometry[6] = {l[0].mdh_[3], l[3].mdh_[3], l[4].mdh_[3], l[5].mdh_[3], l[2].mdh_[2], l[3].mdh_[2]};
    double t[4][4];
    fk_ur(q.data(), t, geometry);
    return KDL::Frame(KDL::Rotation(t[0][0], t[0][1], t[0][2], t[1][0], t[1][1], t[1][2], t[2][0], t[2][1], t[2][2]),
                      KDL::Vector(t[0][3], t[1][3], t[2][3]));
}

double RotationGap(const KDL::Rotation& a, const KDL::Rotation& b) {
    double gap = 0.0;
    for (int i = 0; i < 9; ++i) gap = std::max(gap, std::fabs(a(i / 3, i % 3) - b(i / 3, i % 3)));
    return gap;
}

// Rotation a fraction s of the way from r0 to r1 about their fixed relative axis.
KDL::Rotation Geodesic(const KDL::Rotation& r0, const KDL::Rotation& r1, double s) {
    KDL::Vector axis;
    const double angle = (r0.Inverse() * r1).GetRotAngle(axis);
    return r0 * KDL::Rotation::Rot(axis, s * angle);
}

// Largest ratio, over the joints, of speed, acceleration and jerk to the
// joint's own limits, by finite differences of the set-points sent after
// `start`, the arm at rest before and after.
struct JointPeaks {
    double speed = 0.0, acceleration = 0.0, jerk = 0.0;
    double Worst() const { return std::max({speed, acceleration, jerk}); }
};
JointPeaks PeaksOf(const Joints& start, const std::vector<Joints>& sent) {
    std::vector<Joints> q(3, start);
    q.insert(q.end(), sent.begin(), sent.end());
    q.insert(q.end(), 3, q.back());
    JointPeaks p;
    for (size_t k = 3; k < q.size(); ++k)
        for (int j = 0; j < 6; ++j) {
            const AccDecDate& limit = GetCurrentRobot()->link_[j].joint_speed_data_;
            const double d1 = q[k][j] - q[k - 1][j], d2 = d1 - (q[k - 1][j] - q[k - 2][j]);
            const double d3 = d2 - (q[k - 1][j] - 2 * q[k - 2][j] + q[k - 3][j]);
            p.speed = std::max(p.speed, std::fabs(d1) / PERIOD / limit.speed);
            p.acceleration = std::max(p.acceleration, std::fabs(d2) / (PERIOD * PERIOD) / limit.acceleration);
            p.jerk = std::max(p.jerk, std::fabs(d3) / (PERIOD * PERIOD * PERIOD) / limit.jerk);
        }
    return p;
}

class CartesianMoves : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        tick_spy = tqltest::TickSpy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&tqltest::TickSleep));
        robot_ = GetCurrentRobot();
        robot_->GetLineSpeedAccDecParameters(&line_);
        robot_->GetRotateSpeedAccDecParameters(&rotate_);
        // The demo arm powers up at all zeros (wrist singular): leave it for a
        // comfortable pose (wrist centre off the base axis, elbow bent).
        ASSERT_NO_FATAL_FAILURE(MoveTo(tqltest::Degrees({10, 25, 60, 5, -70, 15})));
    }
    void MoveTo(Joints q) {
        ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(q.data()); }), 0);
        tick_spy.sent.clear();
    }
    int Linear(Joints start, Joints end, AccDecDate* line, AccDecDate* turn, std::string* out = nullptr) {
        return Quiet([&] { return MoveLinearPath(robot_, start.data(), end.data(), line, turn); }, out);
    }
    int Arc(Joints start, Joints mid, Joints end, AccDecDate* line, AccDecDate* turn, std::string* out = nullptr) {
        return Quiet([&] { return MoveCircularPath(robot_, start.data(), mid.data(), end.data(), line, turn); }, out);
    }
    int Jog(int axis, double step, std::string* out = nullptr) {
        return Quiet([&] { return JogInCartesianCoordinateSystem(axis, step); }, out);
    }

    // Every sent sample lies on the segment start -> end (within 0.01 mm),
    // progresses by at most one period at `speed`, and its orientation is the
    // geodesic at the position's fraction. Returns the last fraction.
    double ExpectOnSegment(const Joints& start, const Joints& end, double speed) {
        const KDL::Frame f0 = Flange(start), f1 = Flange(end);
        const KDL::Vector d = f1.p - f0.p;
        const double s_tol = 1e-4 / d.Norm();  // the kinematics round trip leaves ~1e-5 mm
        KDL::Vector last_p = f0.p;
        double last_s = 0.0;
        for (size_t k = 0; k < tick_spy.sent.size(); ++k) {
            const KDL::Frame f = Flange(tick_spy.sent[k]);
            const double s = KDL::dot(f.p - f0.p, d) / KDL::dot(d, d);
            SCOPED_TRACE("tick " + std::to_string(k + 1));
            EXPECT_LT((f.p - f0.p - d * s).Norm(), 0.01);
            EXPECT_GE(s, last_s - s_tol);
            EXPECT_LE(s, 1.0 + s_tol);
            EXPECT_LE((f.p - last_p).Norm(), speed * PERIOD + 0.01);
            EXPECT_LT(RotationGap(f.M, Geodesic(f0.M, f1.M, s)), 1e-6);
            last_s = s, last_p = f.p;
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
        if (trial % 2 == 1)
            for (double& v : q1) v = -v;  // the same rotation from the other hemisphere
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

TEST(CircularSegment, RandomCirclesInSpaceAndCollinearPoints) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 300; ++trial) {
        // Central angles start -> middle and middle -> end, up to pi. Every third
        // trial the middle is opposite the start, where the start and middle radii
        // give no plane; in trials 0 and 1 exactly so, turning either way.
        const bool exact = trial < 2;
        const KDL::Rotation rot = exact ? KDL::Rotation::RotX(trial * kPi)
                                        : KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        const KDL::Vector c = exact ? KDL::Vector::Zero() : KDL::Vector(300 * u(rng), 300 * u(rng), 300 * u(rng));
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
        EXPECT_LT(std::hypot(pose[0] - p[2][0], pose[1] - p[2][1], pose[2] - p[2][2]), 1e-6 * r) << trial;
    }
    // Collinear points: reported, and a zero circle is left.
    double p1[7] = {0, 0, 0, 1, 0, 0, 0}, p2[7] = {10, 10, 10, 1, 0, 0, 0}, p3[7] = {30, 30, 30, 1, 0, 0, 0};
    CircularPath path;
    path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
    EXPECT_EQ(tqltest::Stdout([&] { path.InterpolationPreprocess(); }), "Failure to compute inverse matrix\n");
    EXPECT_TRUE(path.arc_length_ == 0.0 && path.tall_ == 0.0);
}

// There and back, the second time with a rotation limit slow enough to govern
// the timing: position and orientation still move together.
TEST_F(CartesianMoves, LinearMoveStaysOnTheSegment) {
    GetResourceDate()->cartesian_scaling_switch = false;  // the planned timing, joints as they come
    const Joints start = CurrentJoints(), end = tqltest::Degrees({35, 15, 75, 10, -60, 5});
    AccDecDate slow_turn = rotate_;
    slow_turn.speed /= 20;
    for (int pass = 0; pass < 2; ++pass) {
        Joints from = pass == 0 ? start : end, to = pass == 0 ? end : start;
        AccDecDate* rotation = pass == 0 ? &rotate_ : &slow_turn;
        LinearPath plan;
        ASSERT_EQ(MoveLinearPreprocess(robot_, from.data(), to.data(), &plan, &line_, rotation), 0);
        EXPECT_EQ(plan.rotation_governs_, pass);
        tick_spy.sent.clear();
        ASSERT_EQ(Linear(from, to, &line_, rotation), 0);
        ASSERT_EQ(static_cast<long>(tick_spy.sent.size()), std::lround(plan.tall_ / PERIOD));
        ASSERT_GT(tick_spy.sent.size(), 10u);
        EXPECT_NEAR(ExpectOnSegment(from, to, line_.speed), 1.0, 1e-6);
        for (int j = 0; j < 6; ++j) EXPECT_NEAR(tick_spy.sent.back()[j], to[j], 1e-6) << "joint " << j + 1;
    }
}

TEST_F(CartesianMoves, UnreachablePoseMidPathEndsTheMoveAfterTheReachablePart) {
    // Swinging joint 1 by 160 degrees: the straight line between the two
    // flange positions passes within the shoulder offset of the base axis.
    const Joints start = tqltest::Degrees({-80, 30, 60, 0, -60, 20}), end = tqltest::Degrees({80, 30, 60, 0, -60, 20});
    ASSERT_NO_FATAL_FAILURE(MoveTo(start));
    AccDecDate slow = line_;  // so the joints near the unreachable region stay within their speed
    slow.speed = 5.0;
    // The scaling pass (row 8) refuses it before any set-point, naming the
    // singularity, whatever the pre-flight says; without it the pre-flight
    // refuses it, and with neither the arm moves along the reachable part
    // and stops there.
    for (int c = 0; c < 3; ++c) {
        const bool scaling = c == 0, preflight = c == 1;
        GetResourceDate()->cartesian_scaling_switch = scaling;
        GetResourceDate()->preflight_switch = preflight;
        tick_spy = tqltest::TickSpy();
        std::string out;
        const long before = tql_sim_setpoint_count(1);
        EXPECT_EQ(Linear(start, end, &slow, &rotate_, &out), -1);
        EXPECT_NE(out.find(scaling ? "too near the shoulder singularity" : "Shoulder singular"), std::string::npos)
            << out.substr(0, 500);
        EXPECT_EQ(tql_sim_setpoint_count(1), before + static_cast<long>(tick_spy.sent.size()));
        if (scaling || preflight) {
            EXPECT_TRUE(tick_spy.sent.empty());
            continue;
        }
        ASSERT_GT(tick_spy.sent.size(), 10u);
        EXPECT_GT((Flange(tick_spy.sent.back()).p - Flange(end).p).Norm(), 100.0);
        ExpectOnSegment(start, end, slow.speed);
    }
    GetResourceDate()->preflight_switch = true;
    GetResourceDate()->cartesian_scaling_switch = true;
}

// A plan that is not a whole number of periods fails the internal check
// before any motion.
TEST_F(CartesianMoves, PeriodCheckRefusesACorruptPlan) {
    Joints end = CurrentJoints();
    end[0] += 10 * kDeg;
    AccDecDate broken = line_;
    broken.jerk = std::nan("");
    const std::string err = tqltest::Stderr([&] { EXPECT_EQ(Linear(CurrentJoints(), end, &broken, &rotate_), -1); });
    EXPECT_NE(err.find("Assertion `fabs(tick*PERIOD-lpath.tall_)<em' failed."), std::string::npos) << err;
    EXPECT_TRUE(tick_spy.sent.empty());
}

// A horizontal quarter circle of radius 80 mm through its middle, the
// orientation kept throughout.
TEST_F(CartesianMoves, QuarterCircleArc) {
    const Joints s = CurrentJoints();
    const KDL::Frame f0 = Flange(s);
    const double r = 80.0, quarter = r * kPi / 2;
    const KDL::Vector centre = f0.p - KDL::Vector(r, 0, 0), mid = centre + KDL::Vector(r, r, 0) * std::sqrt(0.5),
                      end = centre + KDL::Vector(0, r, 0);
    double pose[7];
    ASSERT_EQ(robot_->ForwardKinematics(Joints(s).data(), pose), 0);
    auto solve = [&](const KDL::Vector& p, Joints q) {
        for (int i = 0; i < 3; ++i) pose[i] = p(i);
        EXPECT_EQ(robot_->InverseKinematics(q.data(), pose), 0);
        return q;
    };
    Joints from = s, m = solve(mid, s), e = solve(end, m);
    ASSERT_EQ(Quiet([&] { return MoveCircularPath(robot_, from.data(), m.data(), e.data(), &line_, &rotate_); }), 0);
    KDL::Vector last = f0.p;
    double travelled = 0.0, at_half = -1.0;
    for (size_t k = 0; k < tick_spy.sent.size(); ++k) {
        const KDL::Frame f = Flange(tick_spy.sent[k]);
        EXPECT_NEAR(std::hypot(f.p.x() - centre.x(), f.p.y() - centre.y()), r, 0.01) << k;
        EXPECT_NEAR(f.p.z(), centre.z(), 0.01) << k;
        EXPECT_LT(RotationGap(f.M, f0.M), 1e-6) << k;
        travelled += (f.p - last).Norm();
        last = f.p;
        if (at_half < 0 && travelled >= quarter / 2) at_half = (f.p - mid).Norm();
    }
    EXPECT_NEAR(travelled, quarter, 0.05);
    // Within one period's travel of the middle point when half the arc is done.
    EXPECT_LT(at_half, line_.speed * PERIOD + 0.01);
    EXPECT_LT((last - end).Norm(), 0.01);
}

// Refused axes and steps send nothing; a step along base z moves on a straight
// line, one about base z turns in place.
TEST_F(CartesianMoves, CartesianJog) {
    const long before = tql_sim_setpoint_count(1);
    std::string out;
    for (int axis : {-1, 6}) EXPECT_EQ(Jog(axis, 10.0), -1);
    for (double bad : {std::nan(""), HUGE_VAL}) {
        EXPECT_EQ(Jog(4, bad, &out), -1);
        EXPECT_NE(out.find("is not a finite number"), std::string::npos) << out;
    }
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
    // 2 m down stops at the workspace box's floor (the table, z = 0), within
    // 1/4096 of the step; back up again.
    const KDL::Frame home = Flange(CurrentJoints());
    EXPECT_EQ(Jog(2, -2000.0, &out), 0);
    EXPECT_NE(out.find("Jog stopped at the boundary after "), std::string::npos) << out;
    const double reached = Flange(CurrentJoints()).p.z();  // mm
    EXPECT_GE(reached, 0.0);
    EXPECT_LT(reached, 2000.0 / 4096);
    EXPECT_EQ(Jog(2, home.p.z() - reached), 0);
    // A zero step stays put (up to the micrometres of the kinematics round trip).
    const KDL::Frame f0 = Flange(CurrentJoints());
    EXPECT_EQ(Jog(1, 0.0), 0);
    EXPECT_LT((Flange(CurrentJoints()).p - f0.p).Norm(), 1e-3);

    const Joints start = CurrentJoints();
    tick_spy.sent.clear();
    ASSERT_EQ(Jog(2, 10.0), 0);
    const KDL::Frame f1 = Flange(CurrentJoints());
    EXPECT_LT((f1.p - f0.p - KDL::Vector(0, 0, 10)).Norm(), 0.01);
    EXPECT_LT(RotationGap(f1.M, f0.M), 1e-6);
    ExpectOnSegment(start, CurrentJoints(), 0.25 * line_.speed);

    tick_spy.sent.clear();
    ASSERT_EQ(Jog(5, 90.0), 0);
    ASSERT_FALSE(tick_spy.sent.empty());
    EXPECT_LT(RotationGap(Flange(CurrentJoints()).M, KDL::Rotation::RotZ(90 * kDeg) * f1.M), 1e-6);
    for (const Joints& q : tick_spy.sent) EXPECT_LT((Flange(q).p - f1.p).Norm(), 0.01);

    // With the tool pointing straight down (a half turn: quaternion w = 0,
    // where a round trip through the pose's quaternion turns the tool by
    // 100 degrees about z), a step down keeps the orientation.
    Joints down = tqltest::Degrees({-40, 20, 60, 10, -90, 0});
    ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(down.data()); }), 0);
    const KDL::Frame f2 = Flange(CurrentJoints());
    ASSERT_EQ(Jog(2, -30.0), 0);
    EXPECT_LT((Flange(CurrentJoints()).p - f2.p - KDL::Vector(0, 0, -30)).Norm(), 0.01);
    EXPECT_LT(RotationGap(Flange(CurrentJoints()).M, f2.M), 1e-6);
}

// Random lines and arcs within reach, their Cartesian limits up to three times
// slower than the robot's: streamed with the scaling switch (row 8) off and
// on from the same start. On, every joint keeps its speed, acceleration and
// jerk limits in the set-points sent, or nothing is sent; a move within its
// limits off is sent bit for bit the same on; a slowed one ends where it
// would have ended.
TEST_F(CartesianMoves, ScalingKeepsEveryJointWithinItsLimits) {
    std::mt19937 rng(29);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int slowed = 0, untouched = 0, refused = 0;
    for (int trial = 0; trial < 40; ++trial) {
        const bool arc = trial % 2 == 1;
        const Joints s = tqltest::Degrees({10 + 30 * u(rng), 25 + 10 * u(rng), 60 + 20 * u(rng), 5 + 40 * u(rng),
                                           -70 + 25 * u(rng), 15 + 40 * u(rng)});
        Joints e, m;
        for (int j = 0; j < 6; ++j) {
            e[j] = s[j] + (j == 0 ? 30 : j < 3 ? 10 : 40) * u(rng) * tqltest::kDeg;
            m[j] = (s[j] + e[j]) / 2 + 8 * u(rng) * tqltest::kDeg;
        }
        const double slower = 1 + 0.25 * (u(rng) + 1);
        AccDecDate line = SlowedDown(line_, slower), turn = SlowedDown(rotate_, slower);
        int result[2];
        std::vector<Joints> sent[2];
        for (int on = 0; on < 2; ++on) {
            ASSERT_NO_FATAL_FAILURE(MoveTo(s));
            GetResourceDate()->cartesian_scaling_switch = on == 1;
            result[on] = arc ? Arc(s, m, e, &line, &turn) : Linear(s, e, &line, &turn);
            sent[on] = tick_spy.sent;
        }
        SCOPED_TRACE("trial " + std::to_string(trial));
        if (result[1] < 0) {
            EXPECT_TRUE(sent[1].empty());
            ++refused;
            continue;
        }
        EXPECT_LE(PeaksOf(s, sent[1]).Worst(), 1 + 1e-6);
        // The segment's own end: an arc runs on past its middle by the
        // middle-to-end angle, which ends at e only when m lies between.
        KDL::Vector end = Flange(e).p;
        if (arc) {
            CircularPath path;
            double pose[7];
            ASSERT_EQ(MoveCircularPreprocess(robot_, Joints(s).data(), m.data(), e.data(), &path, &line, &turn), 0);
            path.Interpolation(path.tall_, pose);
            end = KDL::Vector(pose[0], pose[1], pose[2]);
        }
        EXPECT_LT((Flange(sent[1].back()).p - end).Norm(), 1e-3);
        if (result[0] == 0 && PeaksOf(s, sent[0]).Worst() <= 1.0) {
            EXPECT_EQ(sent[1], sent[0]);
            ++untouched;
        } else {
            EXPECT_GT(sent[1].size(), sent[0].size());
            ++slowed;
        }
    }
    EXPECT_GE(slowed, 10);
    EXPECT_GE(untouched, 8);
    EXPECT_LE(refused, 10);
}

// A line past the wrist singularity: at the programmed speed joints 4 and 6
// would turn faster than their actuators allow, and the pre-flight refuses it.
// With scaling it runs slowed down, on the same segment, every joint within
// its limits. A slow-down beyond kMaxSlowDown (here: joint 4's jerk limit
// divided by 1e8) is not attempted: the line keeps its programmed timing and
// is refused as without scaling.
TEST_F(CartesianMoves, LineNearTheWristSingularityRunsSlowed) {
    const Joints s = tqltest::Degrees({10, 26, 56, -42, -3, -37}), e = tqltest::Degrees({9, 31, 59, -95, -19, 46});
    LinearPath plan;
    ASSERT_EQ(MoveLinearPreprocess(robot_, Joints(s).data(), Joints(e).data(), &plan, &line_, &rotate_), 0);
    const size_t planned = std::lround(plan.tall_ / PERIOD);
    const double jerk = robot_->link_[3].joint_speed_data_.jerk;
    const struct { bool on; double jerk_limit; int result; std::string printed; } cases[] = {
        {false, jerk, -1, "ID 6 beyond speed limit"},
        {true, jerk, 0, ""},
        {true, jerk / 1e8, -1, "too near the wrist singularity"},
    };
    for (const auto& c : cases) {
        ASSERT_NO_FATAL_FAILURE(MoveTo(s));
        GetResourceDate()->cartesian_scaling_switch = c.on;
        robot_->link_[3].joint_speed_data_.jerk = c.jerk_limit;
        std::string out;
        EXPECT_EQ(Linear(s, e, &line_, &rotate_, &out), c.result) << out.substr(0, 300);
        EXPECT_NE(out.find(c.printed), std::string::npos) << out.substr(0, 300);
        if (c.result < 0) {
            EXPECT_TRUE(tick_spy.sent.empty());
            continue;
        }
        EXPECT_GT(tick_spy.sent.size(), 3 * planned);
        EXPECT_LE(PeaksOf(s, tick_spy.sent).Worst(), 1 + 1e-6);
        EXPECT_NEAR(ExpectOnSegment(s, e, line_.speed), 1.0, 1e-6);
        AccDecDate line = line_, turn = rotate_;
        const double k = FitLinearMoveToJointLimits(robot_, Joints(s).data(), Joints(e).data(), &line, &turn);
        EXPECT_TRUE(k > 3 && k < kMaxSlowDown) << k;
        EXPECT_DOUBLE_EQ(line.jerk, line_.jerk / (k * k * k));
    }
    robot_->link_[3].joint_speed_data_.jerk = jerk;
}

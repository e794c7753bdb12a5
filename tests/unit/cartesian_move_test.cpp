// Linear and circular segments and the Cartesian moves built on them, with
// the Cartesian jog. Geometry checks use the forward kinematics of the joint
// set-points actually sent; the expected orientations are computed with KDL
// (rotation about the fixed axis of the relative rotation), independently of
// the quaternion code under test.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <kdl/frames.hpp>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sim_control.h"
#include "execute.h"
#include "interpolation.h"
#include "kinematics.h"
#include "math_fun.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr int kJoints = 6;
constexpr double kDeg = 0.017453292222222222;  // 3.1415926 / 180

using Joints = std::array<double, kJoints>;

// A comfortable pose of the demo arm: wrist centre far from the base axis,
// elbow bent, wrist axes apart, orientation without special symmetry.
const Joints kComfortable = {10 * kDeg, 25 * kDeg, 60 * kDeg, 5 * kDeg, -70 * kDeg, 15 * kDeg};

struct Spy {
    std::vector<Joints> sent;
    long stop_at = -1;
};
Spy spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-12) {
        Joints q;
        CopyRealTimePos(q.data(), kJoints);
        spy.sent.push_back(q);
        if (static_cast<long>(spy.sent.size()) == spy.stop_at) std::thread([] { SetStopFlag(); }).join();
    }
    tql_sim_sleep(seconds);
}

// Flange frame of joint vector q on `robot`, straight from the closed-form model.
struct Frame {
    double p[3];
    KDL::Rotation r;
};

Frame FlangeFrame(Robot* robot, const double* q) {
    const LinkUnit* l = robot->link_;
    const double geometry[6] = {l[0].mdh_[3], l[3].mdh_[3], l[4].mdh_[3],
                                l[5].mdh_[3], l[2].mdh_[2], l[3].mdh_[2]};
    double t[4][4];
    fk_ur(q, t, geometry);
    Frame f;
    for (int i = 0; i < 3; ++i) f.p[i] = t[i][3];
    f.r = KDL::Rotation(t[0][0], t[0][1], t[0][2], t[1][0], t[1][1], t[1][2], t[2][0], t[2][1], t[2][2]);
    return f;
}

KDL::Rotation FromQuaternion(const double* wxyz) {
    return KDL::Rotation::Quaternion(wxyz[1], wxyz[2], wxyz[3], wxyz[0]);
}

// Largest element difference of two rotations.
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

double Distance3(const double* a, const double* b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                     (a[2] - b[2]) * (a[2] - b[2]));
}

class CartesianMoves : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::make_unique<tqltest::ScratchDir>();
        spy = Spy();
        std::string out;
        ASSERT_EQ(tqltest::BootSimulatedArm(&SpySleep, &out), 0) << out;
        robot_ = GetCurrentRobot();
        ASSERT_EQ(robot_->GetRobotJointNum(), kJoints);
        robot_->GetLineSpeedAccDecParameters(&line_);
        robot_->GetRotateSpeedAccDecParameters(&rotate_);
        // The demo arm powers up at all zeros (wrist singular): leave it first.
        Joints target = kComfortable;
        testing::internal::CaptureStdout();
        const int moved = MoveToSpecifiedPosition(target.data());
        out = testing::internal::GetCapturedStdout();
        ASSERT_EQ(moved, 0) << out;
        spy.sent.clear();
    }

    void TearDown() override {
        EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
        tqltest::RestoreRealTime();
        dir_.reset();
    }

    Joints Current() {
        Joints q;
        robot_->GetCurrentMachineJoint(q.data());
        return q;
    }

    // Joints for a flange pose (seven values), seeded from `seed`.
    Joints Solve(const double* pose, const Joints& seed) {
        Joints q = seed;
        double p[7];
        for (int i = 0; i < 7; ++i) p[i] = pose[i];
        EXPECT_EQ(robot_->InverseKinematics(q.data(), p), 0);
        return q;
    }

    template <typename F>
    int Quiet(F f, std::string* out = nullptr) {
        testing::internal::CaptureStdout();
        const int r = f();
        const std::string printed = testing::internal::GetCapturedStdout();
        if (out != nullptr) *out = printed;
        return r;
    }

    // Every sent sample lies on the segment start -> end, progresses, and
    // turns with the position's fraction; returns the fractions.
    std::vector<double> ExpectOnSegment(const Joints& start, const Joints& end, double speed) {
        const Frame f0 = FlangeFrame(robot_, start.data());
        const Frame f1 = FlangeFrame(robot_, end.data());
        double pose0[7], pose1[7];
        robot_->ForwardKinematics(Joints(start).data(), pose0);
        robot_->ForwardKinematics(Joints(end).data(), pose1);
        CalculateOrientation(pose0 + 3, pose1 + 3);
        const KDL::Rotation r0 = FromQuaternion(pose0 + 3);
        const KDL::Rotation r1 = FromQuaternion(pose1 + 3);
        double d[3];
        for (int i = 0; i < 3; ++i) d[i] = f1.p[i] - f0.p[i];
        const double len2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        // The kinematics round trip leaves about 1e-5 mm; 1e-4 mm as a fraction.
        const double s_tol = 1e-4 / std::sqrt(len2);

        std::vector<double> fractions;
        double last_s = 0.0;
        double last_p[3] = {f0.p[0], f0.p[1], f0.p[2]};
        for (size_t k = 0; k < spy.sent.size(); ++k) {
            const Frame f = FlangeFrame(robot_, spy.sent[k].data());
            double rel[3];
            for (int i = 0; i < 3; ++i) rel[i] = f.p[i] - f0.p[i];
            const double s = (rel[0] * d[0] + rel[1] * d[1] + rel[2] * d[2]) / len2;
            double foot[3];
            for (int i = 0; i < 3; ++i) foot[i] = f0.p[i] + s * d[i];
            EXPECT_LT(Distance3(f.p, foot), 0.01) << "tick " << k + 1;
            EXPECT_GE(s, last_s - s_tol) << "tick " << k + 1;
            EXPECT_LE(s, 1.0 + s_tol) << "tick " << k + 1;
            EXPECT_LE(Distance3(f.p, last_p), speed * PERIOD + 0.01) << "tick " << k + 1;
            EXPECT_LT(RotationGap(f.r, Geodesic(r0, r1, s)), 1e-6) << "tick " << k + 1;
            fractions.push_back(s);
            last_s = s;
            for (int i = 0; i < 3; ++i) last_p[i] = f.p[i];
        }
        return fractions;
    }

    std::unique_ptr<tqltest::ScratchDir> dir_;
    Robot* robot_ = nullptr;
    AccDecDate line_;
    AccDecDate rotate_;
};

}  // namespace

// ---------------------------------------------------------------- orientation

TEST(Orientation, ShortArcAngleAndSlerp) {
    const double h = std::sqrt(0.5);
    double q0[4] = {1, 0, 0, 0};
    double q1[4] = {h, 0, 0, h};  // 90 degrees about z
    EXPECT_NEAR(CalculateOrientation(q0, q1), 3.14159265358979 / 4, 1e-12);
    double out[4];
    OrientationInterpolation(q0, q1, out, 0.5, 3.14159265358979 / 4);
    EXPECT_NEAR(out[0], std::cos(3.14159265358979 / 8), 1e-12);
    EXPECT_NEAR(out[3], std::sin(3.14159265358979 / 8), 1e-12);
    OrientationInterpolation(q0, q1, out, 1.0, 3.14159265358979 / 4);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(out[i], q1[i], 1e-12);

    // The opposite hemisphere: q1 is negated and the short way taken.
    double q2[4] = {-h, 0, 0, -h};
    EXPECT_NEAR(CalculateOrientation(q0, q2), 3.14159265358979 / 4, 1e-12);
    EXPECT_NEAR(q2[0], h, 1e-15);
    EXPECT_NEAR(q2[3], h, 1e-15);

    // Equal orientations: angle exactly 0 and the start quaternion throughout.
    double q3[4] = {0.5, 0.5, 0.5, 0.5};
    double q4[4] = {0.5, 0.5, 0.5, 0.5 + 1e-7};
    EXPECT_EQ(CalculateOrientation(q3, q4), 0.0);
    OrientationInterpolation(q3, q4, out, 0.7, 0.0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], q3[i]);
}

TEST(Orientation, SlerpFollowsTheFixedAxisRotation) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 200; ++trial) {
        KDL::Rotation r0 = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        KDL::Rotation r1 = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        double q0[4], q1[4];
        r0.GetQuaternion(q0[1], q0[2], q0[3], q0[0]);
        r1.GetQuaternion(q1[1], q1[2], q1[3], q1[0]);
        const double angle = CalculateOrientation(q0, q1);
        KDL::Vector axis;
        EXPECT_NEAR(2 * angle, (r0.Inverse() * r1).GetRotAngle(axis), 1e-9);
        for (double s : {0.0, 0.25, 0.5, 0.9, 1.0}) {
            double out[4];
            OrientationInterpolation(q0, q1, out, s, angle);
            EXPECT_LT(RotationGap(FromQuaternion(out), Geodesic(r0, r1, s)), 1e-9) << trial << " " << s;
        }
    }
}

// ---------------------------------------------------------------- linear segment

namespace {

LinearPath PlanLine(double* start, double* end, double vlin, double vrot) {
    LinearPath path;
    path.SetParameters(start, end, vlin, 1000, 1000, 5000, vrot, 6.0, 6.0, 30.0);
    path.InterpolationPreprocess();
    return path;
}

}  // namespace

TEST(LinearSegment, PositionAndOrientationArriveTogether) {
    const double h = std::sqrt(0.5);
    double start[7] = {100, 0, 300, 1, 0, 0, 0};
    double end[7] = {100, 200, 300, h, h, 0, 0};  // 200 mm and 90 degrees about x
    for (double vrot : {0.2, 5.0}) {  // rotation governs, then translation governs
        LinearPath path = PlanLine(start, end, 250, vrot);
        EXPECT_EQ(path.rotation_governs_, vrot < 1.0 ? 1 : 0);
        EXPECT_NEAR(path.length_, 200.0, 1e-12);
        EXPECT_NEAR(path.angle_, 3.14159265358979 / 4, 1e-12);
        const SpeedProfile& g = path.rotation_governs_ ? path.rotation_profile_ : path.linear_profile_;
        EXPECT_EQ(path.tall_, g.ttotal_);
        EXPECT_EQ(path.ta_, g.ta_);
        EXPECT_EQ(path.td_, g.td_);
        for (int k = 0; k <= 20; ++k) {
            const double t = path.tall_ * k / 20;
            double pose[7];
            path.Interpolation(t, pose);
            const double s = pose[1] / 200.0;
            EXPECT_NEAR(pose[0], 100, 1e-12);
            EXPECT_NEAR(pose[2], 300, 1e-12);
            const double half = s * 3.14159265358979 / 4;
            EXPECT_NEAR(pose[3], std::cos(half), 1e-9);
            EXPECT_NEAR(pose[4], std::sin(half), 1e-9);
        }
        double pose[7];
        path.Interpolation(path.tall_, pose);
        for (int i = 0; i < 7; ++i) EXPECT_NEAR(pose[i], end[i], 1e-9);
    }
}

TEST(LinearSegment, EdgeCases) {
    // Same position, different orientation: the rotation governs, the point stays.
    double a[7] = {10, 20, 30, 1, 0, 0, 0};
    double b[7] = {10, 20, 30, 0, 0, 0, 1};
    LinearPath turn = PlanLine(a, b, 250, 1.0);
    EXPECT_EQ(turn.length_, 0.0);
    EXPECT_EQ(turn.linear_profile_.ttotal_, 0.0);
    EXPECT_EQ(turn.rotation_governs_, 1);
    double pose[7];
    turn.Interpolation(turn.tall_ / 2, pose);
    EXPECT_EQ(pose[0], 10);
    EXPECT_EQ(pose[1], 20);
    EXPECT_EQ(pose[2], 30);

    // Same orientation, different position: the start quaternion throughout.
    double c[7] = {0, 0, 0, 0.5, 0.5, 0.5, 0.5};
    double d[7] = {0, 50, 0, 0.5, 0.5, 0.5, 0.5};
    LinearPath slide = PlanLine(c, d, 250, 1.0);
    EXPECT_EQ(slide.angle_, 0.0);
    EXPECT_EQ(slide.rotation_governs_, 0);
    slide.Interpolation(slide.tall_ / 3, pose);
    for (int i = 3; i < 7; ++i) EXPECT_EQ(pose[i], 0.5);

    // Opposite hemisphere: the stored end quaternion is negated.
    double e[7] = {0, 0, 0, -1, 0, 0, 0};
    LinearPath flip = PlanLine(c, e, 250, 1.0);
    EXPECT_EQ(flip.end_pose_[3], 1.0);
    EXPECT_NEAR(flip.angle_, std::acos(0.5), 1e-12);

    // Equal totals: the rotation governs. Same distance, same limits.
    double f[7] = {0, 0, 0, 1, 0, 0, 0};
    double g[7] = {0.5, 0, 0, std::cos(0.5), std::sin(0.5), 0, 0};
    LinearPath tie;
    tie.SetParameters(f, g, 1.0, 2.0, 2.0, 10.0, 1.0, 2.0, 2.0, 10.0);
    tie.InterpolationPreprocess();
    ASSERT_NEAR(tie.angle_, 0.5, 1e-12);
    ASSERT_EQ(tie.linear_profile_.ttotal_, tie.rotation_profile_.ttotal_);
    EXPECT_EQ(tie.rotation_governs_, 1);

    // Nothing to do at all: no samples, and the start pose if sampled.
    LinearPath still = PlanLine(c, c, 250, 1.0);
    EXPECT_EQ(still.tall_, 0.0);
    still.Interpolation(0.0, pose);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(pose[i], c[i]);
}

// ---------------------------------------------------------------- circle

TEST(CircularSegment, QuarterCircleInTheXyPlane) {
    const double r = 100.0, m = 100.0 * std::sqrt(0.5);
    double p1[7] = {100, 0, 0, 1, 0, 0, 0};
    double p2[7] = {m, m, 0, 1, 0, 0, 0};
    double p3[7] = {0, 100, 0, 1, 0, 0, 0};
    double centre[3], radius, frame[3][3], sectors[2];
    ASSERT_EQ(CalculateCircularExpression(p1, p2, p3, centre, &radius, frame, sectors), 0);
    for (double c : centre) EXPECT_NEAR(c, 0.0, 1e-9);
    EXPECT_NEAR(radius, r, 1e-9);
    EXPECT_NEAR(sectors[0], 3.14159265358979 / 4, 1e-9);
    EXPECT_NEAR(sectors[1], 3.14159265358979 / 4, 1e-9);
    // Columns: x towards the start, y in the plane, normal +z.
    EXPECT_NEAR(frame[0][0], 1, 1e-12);
    EXPECT_NEAR(frame[1][1], 1, 1e-12);
    EXPECT_NEAR(frame[2][2], 1, 1e-12);

    CircularPath path;
    path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
    path.InterpolationPreprocess();
    EXPECT_EQ(path.rotation_governs_, 0);
    EXPECT_NEAR(path.arc_length_, r * 3.14159265358979 / 2, 1e-9);
    double pose[7];
    path.Interpolation(path.tall_ / 2, pose);  // symmetric profile: half the arc
    EXPECT_NEAR(pose[0], m, 1e-9);
    EXPECT_NEAR(pose[1], m, 1e-9);
    path.Interpolation(path.tall_, pose);
    EXPECT_NEAR(pose[0], 0, 1e-9);
    EXPECT_NEAR(pose[1], 100, 1e-9);
    path.Interpolation(0.0, pose);
    EXPECT_NEAR(pose[0], 100, 1e-12);
    EXPECT_EQ(pose[3], 1.0);  // constant orientation
    for (int k = 0; k <= 50; ++k) {
        path.Interpolation(path.tall_ * k / 50, pose);
        EXPECT_NEAR(std::hypot(pose[0], pose[1]), r, 1e-9);
        EXPECT_EQ(pose[2], 0.0);
    }

    // The rotation governs when it is slower: same circle, arc fraction
    // follows the orientation fraction.
    double q3[7] = {0, 100, 0, std::cos(0.5), 0, 0, std::sin(0.5)};
    CircularPath slow;
    slow.SetParameters(p1, p2, q3, 100, 1000, 1000, 5000, 0.05, 2.0, 2.0, 10.0);
    slow.InterpolationPreprocess();
    EXPECT_EQ(slow.rotation_governs_, 1);
    slow.Interpolation(slow.tall_ / 2, pose);
    EXPECT_NEAR(pose[0], m, 1e-9);
    EXPECT_NEAR(pose[6], std::sin(0.25), 1e-9);
}

TEST(CircularSegment, RandomCirclesInSpace) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 200; ++trial) {
        const KDL::Rotation rot = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        const KDL::Vector c(300 * u(rng), 300 * u(rng), 300 * u(rng));
        const double r = 20 + 200 * (u(rng) + 1);
        const double a1 = 0.2 + 1.2 * (u(rng) + 1);  // start -> middle
        const double a2 = 0.2 + 1.2 * (u(rng) + 1);  // middle -> end (both below pi)
        auto point = [&](double phi, double* out) {
            const KDL::Vector p = c + rot * KDL::Vector(r * std::cos(phi), r * std::sin(phi), 0);
            for (int i = 0; i < 3; ++i) out[i] = p(i);
        };
        double p1[7] = {0, 0, 0, 1, 0, 0, 0}, p2[7] = {0, 0, 0, 1, 0, 0, 0}, p3[7] = {0, 0, 0, 1, 0, 0, 0};
        point(0, p1);
        point(a1, p2);
        point(a1 + a2, p3);
        CircularPath path;
        path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
        path.InterpolationPreprocess();
        EXPECT_NEAR(path.radius_, r, 1e-6 * r) << trial;
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(path.centre_[i], c(i), 1e-6 * r) << trial;
        EXPECT_NEAR(path.sector_angles_[0], a1, 1e-7) << trial;
        EXPECT_NEAR(path.sector_angles_[1], a2, 1e-7) << trial;
        // The frame is orthonormal and its normal is the circle's.
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) {
                double dot = 0;
                for (int i = 0; i < 3; ++i) dot += path.frame_[i][j] * path.frame_[i][k];
                EXPECT_NEAR(dot, j == k ? 1.0 : 0.0, 1e-9);
            }
            EXPECT_NEAR(path.frame_[j][2], rot(j, 2), 1e-7);
        }
        // Through the middle at its central angle, and to the end.
        double pose[7];
        const double t_mid = [&] {
            double lo = 0, hi = path.tall_;
            for (int i = 0; i < 100; ++i) {
                const double m = (lo + hi) / 2;
                double out[2];
                path.linear_profile_.calculate_current_speed(m, out);
                (out[0] < a1 * path.radius_ ? lo : hi) = m;
            }
            return lo;
        }();
        path.Interpolation(t_mid, pose);
        EXPECT_LT(Distance3(pose, p2), 1e-5 * r) << trial;
        path.Interpolation(path.tall_, pose);
        EXPECT_LT(Distance3(pose, p3), 1e-6 * r) << trial;
    }
}

// A middle point diametrically opposite the start: the start and middle radii
// alone give no plane, the arc must still run start -> middle -> end in the
// circle's own plane.
TEST(CircularSegment, MiddleOppositeTheStart) {
    const double pi = 3.14159265358979;
    // Exact points, both turning senses.
    for (double end_y : {-100.0, 100.0}) {
        double p1[7] = {100, 0, 0, 1, 0, 0, 0};
        double p2[7] = {-100, 0, 0, 1, 0, 0, 0};
        double p3[7] = {0, end_y, 0, 1, 0, 0, 0};
        CircularPath path;
        path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
        path.InterpolationPreprocess();
        EXPECT_NEAR(path.arc_angle_, 1.5 * pi, 1e-9) << end_y;
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(path.frame_[j][2], j == 2 ? -end_y / 100 : 0.0, 1e-12);
        double pose[7];
        for (int k = 0; k <= 60; ++k) {
            path.Interpolation(path.tall_ * k / 60, pose);
            ASSERT_TRUE(std::isfinite(pose[0]) && std::isfinite(pose[1]) && std::isfinite(pose[2]));
            EXPECT_NEAR(std::hypot(pose[0], pose[1]), 100.0, 1e-9);
            EXPECT_EQ(pose[2], 0.0);
            // start -> middle -> end never enters the quarter between the end
            // and the start.
            EXPECT_FALSE(pose[0] > 1e-6 && pose[1] * end_y > 1e-6) << k;
        }
        path.Interpolation(path.tall_, pose);
        EXPECT_LT(Distance3(pose, p3), 1e-9);
    }
    // Points in a random plane: the computed centre carries rounding noise, so
    // the start and middle radii are antiparallel only to rounding error.
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int trial = 0; trial < 200; ++trial) {
        const KDL::Rotation rot = KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng));
        const KDL::Vector c(300 * u(rng), 300 * u(rng), 300 * u(rng));
        const double r = 20 + 200 * (u(rng) + 1);
        const double a2 = 0.2 + 1.2 * (u(rng) + 1);  // middle -> end
        auto point = [&](double phi, double* out) {
            const KDL::Vector p = c + rot * KDL::Vector(r * std::cos(phi), r * std::sin(phi), 0);
            for (int i = 0; i < 3; ++i) out[i] = p(i);
        };
        double p1[7] = {0, 0, 0, 1, 0, 0, 0}, p2[7] = {0, 0, 0, 1, 0, 0, 0}, p3[7] = {0, 0, 0, 1, 0, 0, 0};
        point(0, p1);
        point(pi, p2);
        point(pi + a2, p3);
        CircularPath path;
        path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
        path.InterpolationPreprocess();
        // The circle's own normal (the sense start -> middle -> end).
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(path.frame_[j][2], rot(j, 2), 1e-6) << trial;
        double pose[7];
        double worst = 0.0;
        for (int k = 0; k <= 40; ++k) {
            path.Interpolation(path.tall_ * k / 40, pose);
            const KDL::Vector local = rot.Inverse() * (KDL::Vector(pose[0], pose[1], pose[2]) - c);
            worst = std::max(worst, std::fabs(local.z()));  // out of the circle's plane
        }
        EXPECT_LT(worst, 1e-6 * r) << trial;
        path.Interpolation(path.tall_, pose);
        EXPECT_LT(Distance3(pose, p3), 1e-6 * r) << trial;
    }
}

TEST(CircularSegment, CollinearPointsAreReportedAndLeaveAZeroCircle) {
    double p1[7] = {0, 0, 0, 1, 0, 0, 0};
    double p2[7] = {10, 10, 10, 1, 0, 0, 0};
    double p3[7] = {30, 30, 30, 1, 0, 0, 0};
    double centre[3] = {7, 7, 7}, radius = 7, frame[3][3] = {}, sectors[2] = {7, 7};
    testing::internal::CaptureStdout();
    EXPECT_EQ(CalculateCircularExpression(p1, p2, p3, centre, &radius, frame, sectors), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failure to compute inverse matrix\n");
    EXPECT_EQ(centre[0], 7);
    EXPECT_EQ(radius, 7);
    EXPECT_EQ(sectors[1], 7);

    CircularPath path;
    path.SetParameters(p1, p2, p3, 100, 1000, 1000, 5000, 1.0, 2.0, 2.0, 10.0);
    testing::internal::CaptureStdout();
    path.InterpolationPreprocess();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failure to compute inverse matrix\n");
    EXPECT_EQ(path.radius_, 0.0);
    EXPECT_EQ(path.arc_length_, 0.0);
    EXPECT_EQ(path.tall_, 0.0);
}

// ---------------------------------------------------------------- moves on the arm

TEST_F(CartesianMoves, LinearMoveStaysOnTheSegment) {
    const Joints start = Current();
    Joints end = start;
    const double delta[kJoints] = {25, -10, 15, 5, 10, -10};
    for (int j = 0; j < kJoints; ++j) end[j] += delta[j] * kDeg;

    LinearPath planned;
    ASSERT_EQ(MoveLinearPreprocess(robot_, Joints(start).data(), end.data(), &planned, &line_, &rotate_), 0);
    const long n = std::lround(planned.tall_ / PERIOD);
    ASSERT_GT(n, 10);

    ASSERT_EQ(Quiet([&] { return MoveLinearPath(robot_, Joints(start).data(), end.data(), &line_, &rotate_); }), 0);
    ASSERT_EQ(static_cast<long>(spy.sent.size()), n);
    const std::vector<double> s = ExpectOnSegment(start, end, line_.speed);
    EXPECT_NEAR(s.back(), 1.0, 1e-6);
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(spy.sent.back()[j], end[j], 1e-6) << "joint " << j + 1;
}

TEST_F(CartesianMoves, TurnOnTheSpot) {
    const Joints start = Current();
    double pose[7];
    ASSERT_EQ(robot_->ForwardKinematics(Joints(start).data(), pose), 0);
    // 40 degrees about the base y axis, same position.
    double turn[4][4], flange[4][4], moved[4][4];
    CalcTransmatrix(turn, 4, 40 * kDeg);
    UnitQuaternionToMatrix(flange, pose);
    MatrixLeftMul(moved, turn, flange);
    MatrixToUnitQuaternion(moved, pose);
    const Joints end = Solve(pose, start);

    ASSERT_EQ(Quiet([&] { return MoveLinearPath(robot_, Joints(start).data(), Joints(end).data(), &line_, &rotate_); }), 0);
    ASSERT_FALSE(spy.sent.empty());
    const Frame f0 = FlangeFrame(robot_, start.data());
    const Frame f1 = FlangeFrame(robot_, end.data());
    EXPECT_LT(Distance3(f0.p, f1.p), 0.01);
    for (const Joints& q : spy.sent) EXPECT_LT(Distance3(FlangeFrame(robot_, q.data()).p, f0.p), 0.01);
    EXPECT_LT(RotationGap(FlangeFrame(robot_, spy.sent.back().data()).r, f1.r), 1e-6);
}

TEST_F(CartesianMoves, StopRequestEndsTheLinearMove) {
    const Joints start = Current();
    Joints end = start;
    end[0] += 30 * kDeg;
    spy.stop_at = 40;
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([&] { return MoveLinearPath(robot_, Joints(start).data(), end.data(), &line_, &rotate_); }), -1);
    EXPECT_EQ(spy.sent.size(), 40u);
    EXPECT_EQ(tql_sim_setpoint_count(1), before + 40);
}

TEST_F(CartesianMoves, UnreachablePoseMidPathEndsTheMoveAfterTheReachablePart) {
    // Swinging joint 1 by 160 degrees: the straight line between the two
    // flange positions passes within the shoulder offset of the base axis.
    Joints start = {-80 * kDeg, 30 * kDeg, 60 * kDeg, 0, -60 * kDeg, 20 * kDeg};
    ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(start.data()); }), 0);
    spy.sent.clear();
    Joints end = start;
    end[0] = 80 * kDeg;
    // Slow, so the joints near the unreachable region stay within their speed.
    AccDecDate slow = line_;
    slow.speed = 5.0;

    LinearPath planned;
    ASSERT_EQ(MoveLinearPreprocess(robot_, start.data(), end.data(), &planned, &slow, &rotate_), 0);
    const long n = std::lround(planned.tall_ / PERIOD);
    std::string out;
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([&] { return MoveLinearPath(robot_, start.data(), end.data(), &slow, &rotate_); }, &out), -1);
    EXPECT_NE(out.find("Shoulder singular"), std::string::npos) << out.substr(0, 500);
    ASSERT_GT(spy.sent.size(), 10u);
    EXPECT_LT(static_cast<long>(spy.sent.size()), n);
    EXPECT_EQ(tql_sim_setpoint_count(1), before + static_cast<long>(spy.sent.size()));
    ExpectOnSegment(start, end, slow.speed);
}

TEST_F(CartesianMoves, PeriodCheckRefusesACorruptPlan) {
    const Joints start = Current();
    Joints end = start;
    end[0] += 10 * kDeg;
    AccDecDate broken = line_;
    broken.jerk = std::nan("");
    testing::internal::CaptureStderr();
    const int r = Quiet([&] { return MoveLinearPath(robot_, Joints(start).data(), end.data(), &broken, &rotate_); });
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(r, -1);
    EXPECT_NE(err.find(": src/interpolation.cpp:"), std::string::npos) << err;
    EXPECT_NE(err.find(": int MoveLinearPath(Robot*, double*, double*, AccDecDate*, AccDecDate*): "
                       "Assertion `fabs(tick*PERIOD-lpath.tall_)<em' failed.\n"),
              std::string::npos)
        << err;
    EXPECT_TRUE(spy.sent.empty());
}

TEST_F(CartesianMoves, QuarterCircleArc) {
    const Joints start = Current();
    double pose[7];
    ASSERT_EQ(robot_->ForwardKinematics(Joints(start).data(), pose), 0);
    // Horizontal quarter circle of radius 80 mm, same orientation throughout.
    const double r = 80.0;
    const double centre[3] = {pose[0] - r, pose[1], pose[2]};
    double mid[7], end[7];
    for (int i = 0; i < 7; ++i) mid[i] = end[i] = pose[i];
    mid[0] = centre[0] + r * std::sqrt(0.5);
    mid[1] = centre[1] + r * std::sqrt(0.5);
    end[0] = centre[0];
    end[1] = centre[1] + r;
    const Joints mid_q = Solve(mid, start);
    const Joints end_q = Solve(end, mid_q);

    CircularPath planned;
    ASSERT_EQ(MoveCircularPreprocess(robot_, Joints(start).data(), Joints(mid_q).data(), Joints(end_q).data(),
                                     &planned, &line_, &rotate_),
              0);
    const long n = std::lround(planned.tall_ / PERIOD);
    ASSERT_EQ(Quiet([&] {
                  return MoveCircularPath(robot_, Joints(start).data(), Joints(mid_q).data(),
                                          Joints(end_q).data(), &line_, &rotate_);
              }),
              0);
    ASSERT_EQ(static_cast<long>(spy.sent.size()), n);
    const Frame f0 = FlangeFrame(robot_, start.data());
    const double quarter = r * 3.14159265358979 / 2;
    double last[3] = {f0.p[0], f0.p[1], f0.p[2]};
    double travelled = 0.0;
    double at_half = -1.0;
    for (size_t k = 0; k < spy.sent.size(); ++k) {
        const Frame f = FlangeFrame(robot_, spy.sent[k].data());
        EXPECT_NEAR(std::hypot(f.p[0] - centre[0], f.p[1] - centre[1]), r, 0.01) << k;
        EXPECT_NEAR(f.p[2], centre[2], 0.01) << k;
        EXPECT_LT(RotationGap(f.r, f0.r), 1e-6) << k;
        travelled += Distance3(f.p, last);
        for (int i = 0; i < 3; ++i) last[i] = f.p[i];
        if (at_half < 0 && travelled >= quarter / 2) at_half = Distance3(f.p, mid);
    }
    EXPECT_NEAR(travelled, quarter, 0.05);
    // Within one period's travel of the middle point when half the arc is done.
    EXPECT_LT(at_half, line_.speed * PERIOD + 0.01);
    EXPECT_LT(Distance3(last, end), 0.01);

    // Sampled at half its time the arc is at the middle point (to the
    // micrometres the kinematics round trip moved the middle off 45 degrees).
    planned.Interpolation(planned.tall_ / 2, pose);
    EXPECT_LT(Distance3(pose, planned.mid_pose_), 1e-4);
}

// ---------------------------------------------------------------- Cartesian jog

TEST_F(CartesianMoves, CartesianJog) {
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(-1, 10.0); }), -1);
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(kJoints, 10.0); }), -1);
    for (double bad : {std::nan(""), HUGE_VAL}) {
        std::string out;
        EXPECT_EQ(Quiet([&] { return JogInCartesianCoordinateSystem(4, bad); }, &out), -1);
        EXPECT_NE(out.find("is not a finite number"), std::string::npos) << out;
    }
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
    // A zero step stays put (the kinematics round trip may leave a move of a
    // few micrometres).
    Frame here = FlangeFrame(robot_, Current().data());
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(1, 0.0); }), 0);
    EXPECT_LT(Distance3(FlangeFrame(robot_, Current().data()).p, here.p), 1e-3);
    const long after_zero = tql_sim_setpoint_count(1);
    // Far outside the workspace: refused before any motion.
    std::string out;
    EXPECT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(0, 2000.0); }, &out), -1);
    EXPECT_NE(out.find("ik error,  t4 = "), std::string::npos) << out;
    EXPECT_EQ(tql_sim_setpoint_count(1), after_zero);

    // +10 mm along base z, orientation unchanged.
    Joints start = Current();
    Frame f0 = FlangeFrame(robot_, start.data());
    ASSERT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(2, 10.0); }), 0);
    Frame f1 = FlangeFrame(robot_, Current().data());
    EXPECT_NEAR(f1.p[0], f0.p[0], 0.01);
    EXPECT_NEAR(f1.p[1], f0.p[1], 0.01);
    EXPECT_NEAR(f1.p[2], f0.p[2] + 10.0, 0.01);
    EXPECT_LT(RotationGap(f1.r, f0.r), 1e-6);
    ExpectOnSegment(start, Current(), 0.25 * line_.speed);

    // 90 degrees about base z, position kept.
    spy.sent.clear();
    start = Current();
    f0 = FlangeFrame(robot_, start.data());
    ASSERT_EQ(Quiet([] { return JogInCartesianCoordinateSystem(5, 90.0); }), 0);
    ASSERT_FALSE(spy.sent.empty());
    f1 = FlangeFrame(robot_, Current().data());
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(f1.p[i], f0.p[i], 0.01);
    const KDL::Rotation expect = KDL::Rotation::RotZ(90 * kDeg) * f0.r;
    EXPECT_LT(RotationGap(f1.r, expect), 1e-6);
    for (const Joints& q : spy.sent) EXPECT_LT(Distance3(FlangeFrame(robot_, q.data()).p, f0.p), 0.01);
}

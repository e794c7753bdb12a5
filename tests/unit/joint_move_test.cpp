// Joint moves and joint jogging on the simulated arm, in virtual time:
// synchronisation of the joints, speed limits, the ready-made moves, stop
// requests (another thread, SIGINT), refused set-points; and the host call
// surface: program points appended, limits and the real-time pose in degrees,
// checked against the closed-form forward kinematics.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "database.h"
#include "editor.h"
#include "execute.h"
#include "interface.h"
#include "interpolation.h"
#include "kinematics.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

using tqltest::CurrentJoints;
using tqltest::Degrees;
using tqltest::Joints;
using tqltest::kDeg;
using tqltest::Quiet;
using tqltest::tick_spy;

// Largest speed of joint j over the set-points sent since `from` (rad/s).
double PeakSpeed(const Joints& from, int j) {
    double peak = 0.0, last = from[j];
    for (const Joints& q : tick_spy.sent) peak = std::max(peak, std::fabs(q[j] - last) / PERIOD), last = q[j];
    return peak;
}

class JointMoves : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        tick_spy = tqltest::TickSpy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&tqltest::TickSleep));
        GetCurrentRobot()->GetJointSpeedAccDecParameters(limits_);
        tick_spy.sent.clear();
    }
    int Move(Joints start, Joints target, std::string* out = nullptr) {
        return Quiet([&] { return MoveJointPath(GetCurrentRobot(), start.data(), target.data(), limits_); }, out);
    }
    int MoveTo(Joints target) { return Quiet([&] { return MoveToSpecifiedPosition(target.data()); }); }
    void ExpectAt(const Joints& q) {
        for (int j = 0; j < 6; ++j) EXPECT_NEAR(CurrentJoints()[j], q[j], 1e-9) << "joint " << j + 1;
    }

    AccDecDate limits_[kMaxJointNum];
};
using HostSurface = JointMoves;

constexpr double kToDeg = 57.295780490442965;

}  // namespace

TEST_F(JointMoves, AllJointsStartAndFinishOnTheSameTick) {
    const Joints start = CurrentJoints();
    Joints target = start;
    target[0] += 60 * kDeg;  // long
    target[1] -= 5 * kDeg;   // short
    target[4] += 20 * kDeg;  // joints 3, 4, 6 stay
    ASSERT_EQ(Move(start, target), 0);
    SpeedProfile alone;  // the long joint planned on its own
    alone.set_parameters(60 * kDeg, limits_[0].speed, 0, 0, limits_[0].acceleration, limits_[0].acceleration,
                         limits_[0].jerk);
    alone.jerk_limit_profile_rounding();
    const long n = std::lround(alone.ttotal_ / PERIOD);
    ASSERT_EQ(static_cast<long>(tick_spy.sent.size()), n);
    ExpectAt(target);
    for (int j = 0; j < 6; ++j) {
        SCOPED_TRACE("joint " + std::to_string(j + 1));
        EXPECT_NEAR(tick_spy.sent.back()[j], target[j], 1e-12);
        if (target[j] == start[j]) {
            for (const Joints& q : tick_spy.sent) ASSERT_EQ(q[j], start[j]);
            continue;
        }
        EXPECT_NE(tick_spy.sent[0][j], start[j]);       // moving on the first tick
        EXPECT_NE(tick_spy.sent[n - 2][j], target[j]);  // still moving on the last but one
        EXPECT_LE(PeakSpeed(start, j), limits_[j].speed * (1 + 1e-9));
    }
    // The long joint runs near its limit, the short one far below its own.
    EXPECT_GT(PeakSpeed(start, 0), 0.9 * limits_[0].speed);
    EXPECT_LT(PeakSpeed(start, 1), 0.2 * limits_[1].speed);
}

// With braking off (row 9), a stop request from another thread or by Ctrl-C,
// or a refused set-point, ends the move before the next set-point; the arm
// holds the last one sent.
TEST_F(JointMoves, StopsAndRefusalsEndTheMove) {
    GetResourceDate()->braking_switch = false;
    const Joints start = CurrentJoints();
    Joints target = start;
    target[2] += 40 * kDeg;
    // Asked for before the move and acted on by nothing: it ends the job
    // before the move (no set-point); acted on, it is forgotten.
    SetStopFlag();
    const long before = tql_sim_setpoint_count(3);
    std::string out;
    EXPECT_EQ(Move(start, target, &out), -1);
    EXPECT_EQ(out, "Stop requested: no further motion.\n");
    EXPECT_EQ(tql_sim_setpoint_count(3), before);
    tick_spy.stop_at = 25;
    EXPECT_EQ(Move(start, target), -1);
    EXPECT_EQ(tick_spy.sent.size(), 25u);
    EXPECT_EQ(tql_sim_setpoint_count(3), before + 25);
    EXPECT_NEAR(CurrentJoints()[2], tick_spy.sent.back()[2], 1e-9);

    target = CurrentJoints();
    target[0] -= 30 * kDeg;
    tick_spy = tqltest::TickSpy();
    tick_spy.stop_at = 10, tick_spy.by_signal = true;
    EXPECT_EQ(MoveTo(target), -1);
    EXPECT_EQ(tick_spy.sent.size(), 10u);
    tick_spy = tqltest::TickSpy();  // the next move forgets the stop acted on and runs to its end
    EXPECT_EQ(MoveTo(target), 0);
    EXPECT_NEAR(CurrentJoints()[0], target[0], 1e-9);

    // Beyond a soft limit (170 degrees): refused before any set-point, or
    // with the pre-flight switched off at the failing period.
    Joints beyond = target;
    beyond[0] = 175 * kDeg;
    for (bool preflight : {true, false}) {
        GetResourceDate()->preflight_switch = preflight;
        tick_spy = tqltest::TickSpy();
        const long sent_before = tql_sim_setpoint_count(1);
        std::string out;
        EXPECT_EQ(Move(target, beyond, &out), -1);
        EXPECT_EQ(tqltest::CountOf(out, "ID 1 beyond joint max soft limit"), 1) << out;
        ASSERT_EQ(tick_spy.sent.empty(), preflight);
        if (preflight) {
            EXPECT_EQ(tql_sim_setpoint_count(1), sent_before);
            continue;
        }
        EXPECT_LE(tick_spy.sent.back()[0], 170 * kDeg);
        EXPECT_NEAR(CurrentJoints()[0], tick_spy.sent.back()[0], 1e-9);
    }
    GetResourceDate()->preflight_switch = true;
}

// Ready-made moves run at half the speed limits, the joint jog at a quarter.
TEST_F(JointMoves, ReadyMadeMovesAndJog) {
    Joints start = CurrentJoints();
    const Joints target = Degrees({40, -30, 60, -30, 90, 10});
    ASSERT_EQ(MoveTo(target), 0);
    ExpectAt(target);
    double worst = 0.0;  // joint 5, farthest relative to its limit, runs near half its limit
    for (int j = 0; j < 6; ++j) worst = std::max(worst, PeakSpeed(start, j) / limits_[j].speed);
    EXPECT_TRUE(worst > 0.45 && worst <= 0.5 * (1 + 1e-9)) << worst;
    ASSERT_EQ(Quiet([] { return MoveToStablePosition(); }), 0);
    ExpectAt(Degrees({-1.56921, -41.9171, 129.388, 105.722, -95.4584, -48.5681}));
    ASSERT_EQ(Quiet([] { return MoveToHomePosition(); }), 0);
    ExpectAt({});

    const long before = tql_sim_setpoint_count(1);
    tick_spy.sent.clear();
    for (int joint : {-1, 6}) EXPECT_EQ(Quiet([&] { return JogInJointCoordinateSystem(joint, 5.0); }), -1);
    EXPECT_EQ(Quiet([] { return JogInJointCoordinateSystem(2, 0.0); }), 0);
    for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        std::string out;
        EXPECT_EQ(Quiet([&] { return JogInJointCoordinateSystem(2, bad); }, &out), -1);
        EXPECT_NE(out.find("is not a finite number"), std::string::npos) << out;
    }
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
    EXPECT_TRUE(tick_spy.sent.empty());
    start = CurrentJoints();
    ASSERT_EQ(Quiet([] { return JogInJointCoordinateSystem(1, 10.0); }), 0);
    ExpectAt({start[0], start[1] + 10.0 * kDeg, start[2], start[3], start[4], start[5]});
    EXPECT_LE(PeakSpeed(start, 1), 0.25 * limits_[1].speed * (1 + 1e-9));
}

TEST_F(HostSurface, RecordPointAppendsThePresentPose) {
    tqltest::WriteFile("file/data.txt", "// kept\n");
    RecordPoint("file/data.txt", GetCurrentRobot());
    ExecuteCommandRecord(3, nullptr);  // arguments are not used
    EXPECT_EQ(tqltest::ReadFile("file/data.txt"), "// kept\nMOVJ VJ=100 z5 0,0,0,0,0,0\nMOVJ VJ=100 z5 0,0,0,0,0,0\n");
    EXPECT_EQ(tqltest::Stdout([] { RecordPoint("no/such/dir.txt", GetCurrentRobot()); }),
              "Open no/such/dir.txt failure! \n");
}

TEST_F(HostSurface, LimitsAndRealTimePoseInDegrees) {
    double lo[6], hi[6];
    GetMinLimit(lo);
    GetMaxLimit(hi);
    for (int j = 0; j < 6; ++j) {  // factory limits: +-17 actuator turns of a ratio-36 joint
        EXPECT_NEAR(lo[j], -170.0, 1e-9) << j;
        EXPECT_NEAR(hi[j], 170.0, 1e-9) << j;
    }
    const tqltest::Joints a = tqltest::Degrees({0, 20, 60, 10, -90, 30});
    tqltest::Joints target = a;
    ASSERT_EQ(tqltest::Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    double q[6], pose[6];
    GetRealTimePos(q, pose);
    const double L[6] = {152, 112, 85, 82, 244, 213};  // d1, d4, d5, d6, a2, a3 (mm)
    double T[4][4];
    fk_ur(a.data(), T, L);
    for (int j = 0; j < 6; ++j) EXPECT_NEAR(q[j], a[j] * kToDeg, 1e-9);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(pose[i], T[i][3], 1e-9);
    // R = Rz * Ry * Rx of the reported angles against the transform's rotation
    // (the pose passes through a quaternion: a few thousandths of a radian).
    const double x = pose[3] / kToDeg, y = pose[4] / kToDeg, z = pose[5] / kToDeg;
    const double R[3][3] = {
        {std::cos(z) * std::cos(y), std::cos(z) * std::sin(y) * std::sin(x) - std::sin(z) * std::cos(x),
         std::cos(z) * std::sin(y) * std::cos(x) + std::sin(z) * std::sin(x)},
        {std::sin(z) * std::cos(y), std::sin(z) * std::sin(y) * std::sin(x) + std::cos(z) * std::cos(x),
         std::sin(z) * std::sin(y) * std::cos(x) - std::cos(z) * std::sin(x)},
        {-std::sin(y), std::cos(y) * std::sin(x), std::cos(y) * std::cos(x)}};
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(R[i][k], T[i][k], 5e-3) << i << k;
}

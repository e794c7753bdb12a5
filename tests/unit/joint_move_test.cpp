// Joint moves and joint jogging on the simulated arm, in virtual time:
// synchronisation of the joints, speed limits, the ready-made moves, stop
// requests (another thread, SIGINT), refused set-points.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim_control.h"
#include "execute.h"
#include "interpolation.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr int kJoints = 6;
constexpr double kDeg = 0.017453292222222222;  // 3.1415926 / 180

using Joints = std::array<double, kJoints>;

// Every motion loop sleeps once after each tick's set-points were sent; the
// real-time position then holds exactly what was sent.
struct Spy {
    std::vector<Joints> sent;
    long stop_at = -1;   // stop request after this many ticks
    bool by_signal = false;
};
Spy spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-12) {
        Joints q;
        CopyRealTimePos(q.data(), kJoints);
        spy.sent.push_back(q);
        if (static_cast<long>(spy.sent.size()) == spy.stop_at) {
            if (spy.by_signal) {
                std::raise(SIGINT);
            } else {
                std::thread([] { SetStopFlag(); }).join();
            }
        }
    }
    tql_sim_sleep(seconds);
}

class JointMoves : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::make_unique<tqltest::ScratchDir>();
        spy = Spy();
        std::string out;
        ASSERT_EQ(tqltest::BootSimulatedArm(&SpySleep, &out), 0) << out;
        robot_ = GetCurrentRobot();
        ASSERT_EQ(robot_->GetRobotJointNum(), kJoints);
        robot_->GetJointSpeedAccDecParameters(limits_);
        spy.sent.clear();
    }

    void TearDown() override {
        // No set-point of any test went beyond an actuator's limits.
        EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
        tqltest::RestoreRealTime();
        dir_.reset();
    }

    Joints Current() {
        Joints q;
        robot_->GetCurrentMachineJoint(q.data());
        return q;
    }

    // Runs f with standard output captured into *out.
    template <typename F>
    int Quiet(F f, std::string* out = nullptr) {
        testing::internal::CaptureStdout();
        const int r = f();
        const std::string printed = testing::internal::GetCapturedStdout();
        if (out != nullptr) *out = printed;
        return r;
    }

    std::unique_ptr<tqltest::ScratchDir> dir_;
    Robot* robot_ = nullptr;
    AccDecDate limits_[kMaxJointNum];
};

// Largest speed of joint j over a stream of set-points (rad/s), starting from `from`.
double PeakSpeed(const std::vector<Joints>& sent, const Joints& from, int j) {
    double peak = 0.0;
    double last = from[j];
    for (const Joints& q : sent) {
        peak = std::max(peak, std::fabs(q[j] - last) / PERIOD);
        last = q[j];
    }
    return peak;
}

// Ticks of a rest-to-rest profile planned alone.
long PlannedTicks(double distance, const AccDecDate& l) {
    SpeedProfile p;
    p.set_parameters(distance, l.speed, 0, 0, l.acceleration, l.acceleration, l.jerk);
    p.jerk_limit_profile_rounding();
    return std::lround(p.ttotal_ / PERIOD);
}

}  // namespace

TEST(JointPreprocess, SlowestJointSetsTheDurationsOfAll) {
    Robot robot;
    robot.joint_num_ = 3;
    double start[3] = {0.1, -0.2, 0.5};
    double end[3] = {1.6, -0.1, 0.5};  // long, short, none
    AccDecDate limits[3];
    for (AccDecDate& l : limits) l.SetParameter(1.5, 3.0, 15.0);
    limits[1].SetParameter(0.2, 0.5, 2.0);  // slow limits on the short move
    JointPath paths[3];
    ASSERT_EQ(MoveJointPreprocess(&robot, start, end, paths, limits), 0);

    // Each joint planned alone; the slower of the two moving joints governs.
    SpeedProfile alone[2];
    alone[0].set_parameters(1.5, 1.5, 0, 0, 3.0, 3.0, 15.0);
    alone[0].jerk_limit_profile_rounding();
    alone[1].set_parameters(0.1, 0.2, 0, 0, 0.5, 0.5, 2.0);
    alone[1].jerk_limit_profile_rounding();
    const SpeedProfile& slowest = alone[0].ttotal_ >= alone[1].ttotal_ ? alone[0] : alone[1];
    for (const JointPath& p : paths) {
        for (int k = 0; k < 7; ++k) EXPECT_DOUBLE_EQ(p.profile_.t_[k], slowest.t_[k]);
        EXPECT_DOUBLE_EQ(p.profile_.ttotal_, slowest.ttotal_);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(paths[i].Interpolation(paths[i].profile_.ttotal_), end[i], 1e-12) << i;
        EXPECT_DOUBLE_EQ(paths[i].Interpolation(0.0), start[i]) << i;
    }
    EXPECT_EQ(paths[0].direction_, 1.0);
    EXPECT_EQ(paths[2].direction_, -1.0);  // a joint that does not move
    EXPECT_EQ(paths[2].profile_.jerk_, 0.0);
    EXPECT_EQ(paths[2].Interpolation(paths[2].profile_.ttotal_ / 3), 0.5);

    // Joint count beyond the work arrays is refused.
    robot.joint_num_ = kMaxJointNum + 1;
    std::string out;
    testing::internal::CaptureStdout();
    EXPECT_EQ(MoveJointPreprocess(&robot, start, end, paths, limits), -1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("out of range"), std::string::npos);
}

TEST(JointPreprocess, EqualTotalsImposeTheLowerJoint) {
    Robot robot;
    robot.joint_num_ = 2;
    // Joint 2 reaches its speed limit (cruise), joint 1 does not; choose joint
    // 1's distance so both totals are equal after rounding.
    double start[2] = {0.0, 0.0};
    double end[2] = {0.0, 2.0};
    AccDecDate limits[2];
    limits[0].SetParameter(10.0, 2.0, 10.0);
    limits[1].SetParameter(0.5, 2.0, 10.0);
    SpeedProfile target;
    target.set_parameters(2.0, 0.5, 0, 0, 2.0, 2.0, 10.0);
    target.jerk_limit_profile_rounding();
    // Longest distance for joint 1 whose rounded total still equals joint 2's.
    double lo = 0.0, hi = 100.0;
    for (int i = 0; i < 200; ++i) {
        const double m = (lo + hi) / 2;
        SpeedProfile p;
        p.set_parameters(m, 10.0, 0, 0, 2.0, 2.0, 10.0);
        p.jerk_limit_profile_rounding();
        (p.ttotal_ <= target.ttotal_ + 1e-12 ? lo : hi) = m;
    }
    end[0] = lo;
    SpeedProfile first;
    first.set_parameters(lo, 10.0, 0, 0, 2.0, 2.0, 10.0);
    first.jerk_limit_profile_rounding();
    ASSERT_EQ(first.ttotal_, target.ttotal_);
    bool differ = false;
    for (int k = 0; k < 7; ++k) differ = differ || first.t_[k] != target.t_[k];
    ASSERT_TRUE(differ) << "the two joints need different phase durations";

    JointPath paths[2];
    ASSERT_EQ(MoveJointPreprocess(&robot, start, end, paths, limits), 0);
    for (int k = 0; k < 7; ++k) {
        EXPECT_EQ(paths[1].profile_.t_[k], first.t_[k]) << k;
    }
}

TEST_F(JointMoves, AllJointsStartAndFinishOnTheSameTick) {
    const Joints start = Current();
    Joints target = start;
    target[0] += 60 * kDeg;   // long
    target[1] -= 5 * kDeg;    // short
    target[4] += 20 * kDeg;
    // joints 3, 4, 6 stay
    ASSERT_EQ(Quiet([&] { return MoveJointPath(robot_, Joints(start).data(), target.data(), limits_); }), 0);

    const long n = PlannedTicks(60 * kDeg, limits_[0]);
    ASSERT_EQ(static_cast<long>(spy.sent.size()), n);
    for (int j = 0; j < kJoints; ++j) {
        EXPECT_NEAR(spy.sent.back()[j], target[j], 1e-12) << "joint " << j + 1;
        if (target[j] == start[j]) {
            for (const Joints& q : spy.sent) ASSERT_EQ(q[j], start[j]);
            continue;
        }
        // Moving on the first tick, still moving on the last.
        EXPECT_NE(spy.sent[0][j], start[j]) << "joint " << j + 1;
        EXPECT_NE(spy.sent[n - 2][j], target[j]) << "joint " << j + 1;
        EXPECT_LE(PeakSpeed(spy.sent, start, j), limits_[j].speed * (1 + 1e-9)) << "joint " << j + 1;
    }
    // The long joint runs near its limit, the short ones far below theirs.
    EXPECT_GT(PeakSpeed(spy.sent, start, 0), 0.9 * limits_[0].speed);
    EXPECT_LT(PeakSpeed(spy.sent, start, 1), 0.2 * limits_[1].speed);
    // The arm is where it was sent.
    const Joints now = Current();
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], target[j], 1e-9);
}

TEST_F(JointMoves, MoveToTheStartSendsNothing) {
    Joints q = Current();
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([&] { return MoveJointPath(robot_, Joints(q).data(), q.data(), limits_); }), 0);
    EXPECT_TRUE(spy.sent.empty());
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
}

TEST_F(JointMoves, StopFromAnotherThreadEndsBeforeTheNextSetPoint) {
    const Joints start = Current();
    Joints target = start;
    target[2] += 40 * kDeg;
    // A stop request left over from before the move is forgotten.
    SetStopFlag();
    spy.stop_at = 25;
    const long before = tql_sim_setpoint_count(3);
    EXPECT_EQ(Quiet([&] { return MoveJointPath(robot_, Joints(start).data(), target.data(), limits_); }), -1);
    EXPECT_EQ(spy.sent.size(), 25u);
    EXPECT_EQ(tql_sim_setpoint_count(3), before + 25);
    // The arm holds the last sent set-point.
    EXPECT_NEAR(Current()[2], spy.sent.back()[2], 1e-9);
}

TEST_F(JointMoves, CtrlCStopsTheMove) {
    Joints target = Current();
    target[0] -= 30 * kDeg;
    spy.stop_at = 10;
    spy.by_signal = true;
    EXPECT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), -1);
    EXPECT_EQ(spy.sent.size(), 10u);
    // The next move clears the flag and runs to its end.
    spy = Spy();
    EXPECT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    EXPECT_NEAR(Current()[0], target[0], 1e-9);
}

TEST_F(JointMoves, ActuatorErrorEndsTheMove) {
    Joints start = Current();
    Joints target = start;
    for (double& q : target) q += 20 * kDeg;
    ASSERT_EQ(tql_sim_inject_error(3, 0x4, 30), 0);
    std::string out;
    EXPECT_EQ(Quiet([&] { return MoveJointPath(robot_, start.data(), target.data(), limits_); }, &out), -1);
    EXPECT_NE(out.find("ID 3 error : 4"), std::string::npos) << out;
    EXPECT_LT(static_cast<long>(spy.sent.size()), PlannedTicks(20 * kDeg, limits_[0]));
    EXPECT_GE(spy.sent.size(), 29u);
}

TEST_F(JointMoves, SoftLimitRefusesTheSetPointThatWouldCrossIt) {
    Joints start = Current();
    Joints target = start;
    target[0] = 175 * kDeg;  // soft limit 170 degrees
    std::string out;
    EXPECT_EQ(Quiet([&] { return MoveJointPath(robot_, start.data(), target.data(), limits_); }, &out), -1);
    EXPECT_NE(out.find("ID 1 beyond joint max soft limit"), std::string::npos) << out;
    ASSERT_FALSE(spy.sent.empty());
    EXPECT_LE(spy.sent.back()[0], 170 * kDeg);
}

TEST_F(JointMoves, ReadyMadeMovesUseHalfSpeedAndReachTheirTargets) {
    Joints target = {40 * kDeg, -30 * kDeg, 60 * kDeg, -30 * kDeg, 90 * kDeg, 10 * kDeg};
    const Joints start = Current();
    ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    Joints now = Current();
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], target[j], 1e-9);
    // Joint 5 moves farthest relative to its limit; it runs at up to half of it.
    double worst = 0.0;
    for (int j = 0; j < kJoints; ++j) {
        const double ratio = PeakSpeed(spy.sent, start, j) / limits_[j].speed;
        EXPECT_LE(ratio, 0.5 * (1 + 1e-9)) << "joint " << j + 1;
        worst = std::max(worst, ratio);
    }
    EXPECT_GT(worst, 0.45);

    spy = Spy();
    ASSERT_EQ(Quiet([&] { return MoveToHomePosition(); }), 0);
    now = Current();
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], 0.0, 1e-9);

    const double stable[kJoints] = {-1.56921, -41.9171, 129.388, 105.722, -95.4584, -48.5681};
    ASSERT_EQ(robot_->GetRobotType(), 1);
    ASSERT_EQ(Quiet([&] { return MoveToStablePosition(); }), 0);
    now = Current();
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], stable[j] * kDeg, 1e-9);

    // Other robot types have no resting pose.
    robot_->robot_type_ = 2;
    spy = Spy();
    EXPECT_EQ(Quiet([&] { return MoveToStablePosition(); }), -1);
    EXPECT_TRUE(spy.sent.empty());
    robot_->robot_type_ = 1;
}

TEST_F(JointMoves, JointJog) {
    const long before = tql_sim_setpoint_count(1);
    EXPECT_EQ(Quiet([] { return JogInJointCoordinateSystem(-1, 5.0); }), -1);
    EXPECT_EQ(Quiet([] { return JogInJointCoordinateSystem(kJoints, 5.0); }), -1);
    EXPECT_EQ(Quiet([] { return JogInJointCoordinateSystem(2, 0.0); }), 0);
    for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        std::string out;
        EXPECT_EQ(Quiet([&] { return JogInJointCoordinateSystem(2, bad); }, &out), -1);
        EXPECT_NE(out.find("is not a finite number"), std::string::npos) << out;
    }
    EXPECT_EQ(tql_sim_setpoint_count(1), before);
    EXPECT_TRUE(spy.sent.empty());

    const Joints start = Current();
    ASSERT_EQ(Quiet([] { return JogInJointCoordinateSystem(1, 10.0); }), 0);
    const Joints now = Current();
    for (int j = 0; j < kJoints; ++j) {
        const double expect = start[j] + (j == 1 ? 10.0 * 3.1415926 / 180 : 0.0);
        EXPECT_NEAR(now[j], expect, 1e-9) << "joint " << j + 1;
    }
    // A quarter of the speed limit.
    EXPECT_LE(PeakSpeed(spy.sent, start, 1), 0.25 * limits_[1].speed * (1 + 1e-9));

    spy = Spy();
    ASSERT_EQ(Quiet([] { return JogInJointCoordinateSystem(1, -10.0); }), 0);
    EXPECT_NEAR(Current()[1], start[1], 1e-9);
}

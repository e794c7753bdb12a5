// Joint moves and joint jogging on the simulated arm, in virtual time:
// synchronisation of the joints, speed limits, the ready-made moves, stop
// requests (another thread, SIGINT), refused set-points.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "execute.h"
#include "interpolation.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr int kJoints = 6;
constexpr double kDeg = 0.017453292222222222;  // 3.1415926 / 180

using tqltest::Quiet;
using Joints = std::array<double, kJoints>;

// Every motion loop sleeps one period after each tick's set-points were sent;
// the real-time position then holds exactly what was sent.
struct Spy {
    std::vector<Joints> sent;
    long stop_at = -1;  // stop request after this many ticks
    bool by_signal = false;
} spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-12) {
        Joints q;
        CopyRealTimePos(q.data(), kJoints);
        spy.sent.push_back(q);
        const bool stop = static_cast<long>(spy.sent.size()) == spy.stop_at;
        if (stop && spy.by_signal) std::raise(SIGINT);
        if (stop && !spy.by_signal) std::thread([] { SetStopFlag(); }).join();
    }
    tql_sim_sleep(seconds);
}

// Largest speed of joint j over the set-points sent since `from` (rad/s).
double PeakSpeed(const Joints& from, int j) {
    double peak = 0.0, last = from[j];
    for (const Joints& q : spy.sent) {
        peak = std::max(peak, std::fabs(q[j] - last) / PERIOD);
        last = q[j];
    }
    return peak;
}

class JointMoves : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        spy = Spy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&SpySleep));
        robot_ = GetCurrentRobot();
        robot_->GetJointSpeedAccDecParameters(limits_);
        spy.sent.clear();
    }
    Joints Current() {
        Joints q;
        robot_->GetCurrentMachineJoint(q.data());
        return q;
    }
    int Move(Joints start, Joints target, std::string* out = nullptr) {
        return Quiet([&] { return MoveJointPath(robot_, start.data(), target.data(), limits_); }, out);
    }

    Robot* robot_ = nullptr;
    AccDecDate limits_[kMaxJointNum];
};

}  // namespace

TEST_F(JointMoves, AllJointsStartAndFinishOnTheSameTick) {
    const Joints start = Current();
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
    ASSERT_EQ(static_cast<long>(spy.sent.size()), n);
    for (int j = 0; j < kJoints; ++j) {
        SCOPED_TRACE("joint " + std::to_string(j + 1));
        EXPECT_NEAR(spy.sent.back()[j], target[j], 1e-12);
        EXPECT_NEAR(Current()[j], target[j], 1e-9);
        if (target[j] == start[j]) {
            for (const Joints& q : spy.sent) ASSERT_EQ(q[j], start[j]);
            continue;
        }
        EXPECT_NE(spy.sent[0][j], start[j]);       // moving on the first tick
        EXPECT_NE(spy.sent[n - 2][j], target[j]);  // still moving on the last but one
        EXPECT_LE(PeakSpeed(start, j), limits_[j].speed * (1 + 1e-9));
    }
    // The long joint runs near its limit, the short one far below its own.
    EXPECT_GT(PeakSpeed(start, 0), 0.9 * limits_[0].speed);
    EXPECT_LT(PeakSpeed(start, 1), 0.2 * limits_[1].speed);
}

// A stop request from another thread or by Ctrl-C, or a refused set-point,
// ends the move before the next set-point; the arm holds the last one sent.
TEST_F(JointMoves, StopsAndRefusalsEndTheMove) {
    const Joints start = Current();
    Joints target = start;
    target[2] += 40 * kDeg;
    SetStopFlag();  // left over from before the move: forgotten
    spy.stop_at = 25;
    const long before = tql_sim_setpoint_count(3);
    EXPECT_EQ(Move(start, target), -1);
    EXPECT_EQ(spy.sent.size(), 25u);
    EXPECT_EQ(tql_sim_setpoint_count(3), before + 25);
    EXPECT_NEAR(Current()[2], spy.sent.back()[2], 1e-9);

    target = Current();
    target[0] -= 30 * kDeg;
    spy = Spy();
    spy.stop_at = 10;
    spy.by_signal = true;
    EXPECT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), -1);
    EXPECT_EQ(spy.sent.size(), 10u);
    spy = Spy();  // the next move clears the flag and runs to its end
    EXPECT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    EXPECT_NEAR(Current()[0], target[0], 1e-9);

    Joints beyond = target;
    beyond[0] = 175 * kDeg;  // soft limit 170 degrees
    spy = Spy();
    std::string out;
    EXPECT_EQ(Move(target, beyond, &out), -1);
    EXPECT_NE(out.find("ID 1 beyond joint max soft limit"), std::string::npos) << out;
    ASSERT_FALSE(spy.sent.empty());
    EXPECT_LE(spy.sent.back()[0], 170 * kDeg);
    EXPECT_NEAR(Current()[0], spy.sent.back()[0], 1e-9);
}

// Ready-made moves run at half the speed limits, the joint jog at a quarter.
TEST_F(JointMoves, ReadyMadeMovesAndJog) {
    Joints start = Current();
    Joints target = {40 * kDeg, -30 * kDeg, 60 * kDeg, -30 * kDeg, 90 * kDeg, 10 * kDeg};
    ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    double worst = 0.0;
    for (int j = 0; j < kJoints; ++j) {
        EXPECT_NEAR(Current()[j], target[j], 1e-9);
        EXPECT_LE(PeakSpeed(start, j) / limits_[j].speed, 0.5 * (1 + 1e-9)) << "joint " << j + 1;
        worst = std::max(worst, PeakSpeed(start, j) / limits_[j].speed);
    }
    EXPECT_GT(worst, 0.45);  // joint 5, farthest relative to its limit
    const double stable[kJoints] = {-1.56921, -41.9171, 129.388, 105.722, -95.4584, -48.5681};  // degrees
    ASSERT_EQ(Quiet([] { return MoveToStablePosition(); }), 0);
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(Current()[j], stable[j] * kDeg, 1e-9);
    ASSERT_EQ(Quiet([] { return MoveToHomePosition(); }), 0);
    for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(Current()[j], 0.0, 1e-9);

    const long before = tql_sim_setpoint_count(1);
    spy.sent.clear();
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
    start = Current();
    ASSERT_EQ(Quiet([] { return JogInJointCoordinateSystem(1, 10.0); }), 0);
    for (int j = 0; j < kJoints; ++j)
        EXPECT_NEAR(Current()[j], start[j] + (j == 1 ? 10.0 * kDeg : 0.0), 1e-9) << "joint " << j + 1;
    EXPECT_LE(PeakSpeed(start, 1), 0.25 * limits_[1].speed * (1 + 1e-9));
}

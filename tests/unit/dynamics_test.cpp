// The dynamic model on the booted demo arm: gravity compensation on the
// physical simulated arm, the collision observer's reference behaviour, and
// the excitation run.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <string>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

namespace {

using tqltest::Quiet;

class DynamicsTest : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(BootArm());
        robot_ = GetCurrentRobot();
        tql_sim_set_current_noise(0.0);
    }
    // Joint angles and rates as the joints report them after a fresh request.
    void Read(double* q, double* dq) {
        double c[6];
        robot_->RequestCVPValue();
        robot_->controller_->processEvents();
        robot_->GetCurrentCVPFast(c, dq, q);
    }
    // Holds the arm in current mode for `seconds`, compensating gravity every
    // 4 ms (or sending zero torque); returns the largest joint drift, degrees.
    double Float(double seconds, bool compensate) {
        double start[6], q[6], dq[6], zero[6] = {}, drift = 0.0;
        Read(start, dq);
        robot_->ActivateCurrentMode();
        for (int k = 0; k < static_cast<int>(seconds / PERIOD); ++k) {
            Read(q, dq);
            EXPECT_GE(compensate ? robot_->GravityCompensation(q, dq) : robot_->SetMachineTorque(zero), 0);
            tql::SleepSeconds(PERIOD);
        }
        Read(q, dq);
        robot_->ActivatePositionMode();
        for (int i = 0; i < 6; ++i) drift = std::fmax(drift, std::fabs(q[i] - start[i]) / tqltest::kDeg);
        return drift;
    }

    Robot* robot_ = nullptr;
};

TEST_F(DynamicsTest, GravityCompensationHoldsThePhysicalArmWhereNoCompensationLetsItFall) {
    if (!tql_sim_physics()) GTEST_SKIP() << "the simulated bus was built without physics";
    for (const tqltest::Joints& pose :
         {tqltest::Joints{0, 30, 40, 0, 30, 0}, {45, -40, 60, 20, -30, 10}, {-90, 20, -70, -30, 45, 90}}) {
        tqltest::Joints target = tqltest::Degrees(pose);
        ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
        EXPECT_LT(Float(2.0, true), 0.5) << "pose " << pose[1];
        ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
        EXPECT_GT(Float(0.5, false), 5.0) << "pose " << pose[1];
    }
}

// The currents sent, times kt * direction, are the model's static torques (the
// rates do not count) times the gain, which reads 1 outside 0.5..1.5 or when
// not a number. A robot type without a model sends nothing.
TEST_F(DynamicsTest, GainOutsideItsRangeReadsOneAndOtherTypesSendNothing) {
    double q[6] = {0.1, 0.5, 0.8, -0.2, 0.4, 0.0}, zero[6] = {}, tau[6];
    ASSERT_EQ(robot_->InverseDynamics(q, zero, zero, tau), 0);
    robot_->ActivateCurrentMode();
    for (double gain : {1.0, 0.3, 2.0, std::nan(""), 0.5, 1.5}) {
        GetResourceDate()->gravity_gain = gain;
        ASSERT_EQ(robot_->GravityCompensation(q, q), 0);
        const double expected = (gain == 0.5 || gain == 1.5) ? gain : 1.0;
        for (int i = 0; i < 6; ++i) {
            const LinkUnit& l = robot_->link_[i];
            const double sent = robot_->controller_->getCurrent(l.actuator_id_, true, "");
            EXPECT_NEAR(sent * l.kt_ * l.direct_, expected * tau[i], 1e-9) << gain;
        }
    }
    robot_->robot_type_ = 2;
    const long commands = tql_sim_command_count();
    EXPECT_EQ(robot_->GravityCompensation(q, q), 0);
    EXPECT_EQ(tql_sim_command_count(), commands);
    std::string out;
    EXPECT_EQ(Quiet([&] { return robot_->InverseDynamics(q, q, q, tau); }, &out), -1);
    EXPECT_EQ(out, "Wait to add...\n");
}

TEST_F(DynamicsTest, CollisionObserverResidualFollowsItsReferencePattern) {
    double q[6] = {0.2, -0.3, 0.9, 0.1, -0.6, 0.4}, zero[6] = {}, g[6], tau[6], spare[6];
    ASSERT_EQ(robot_->InverseDynamics(q, zero, zero, g), 0);
    GetResourceDate()->collision_factor = 1.0;
    // At rest with matching torques the residual stays 0; a constant mismatch
    // c at joint 6 alternates -2c, 0 (gain x period = 2), so its threshold,
    // 16.3231 x 1.5 = 24.48465 N*m, sees 2|c|.
    const double half_threshold = 16.3231 * 1.5 / 2.0;
    for (double c : {0.0, 0.75, half_threshold - 1e-6, half_threshold + 1e-6}) {
        InitC();
        for (int i = 0; i < 6; ++i) tau[i] = g[i] + (i == 5 ? c : 0.0);
        for (int step = 0; step < 6; ++step) {
            std::string out;
            const int r = Quiet([&] { return robot_->CollisionDetection(q, q, zero, tau, spare); }, &out);
            EXPECT_NEAR(GetCollisionResidual()[5], step % 2 == 0 ? -2.0 * c : 0.0, 1e-9 * (1.0 + c));
            if (c > half_threshold && step % 2 == 0) {
                EXPECT_EQ(r, -1);
                EXPECT_EQ(out, "6  CollisionDetection.\n");
                break;
            }
            EXPECT_EQ(r, 0) << c << " step " << step;
            for (int i = 0; i < 5; ++i) EXPECT_NEAR(GetCollisionResidual()[i], 0.0, 1e-9);
        }
    }
}

// Sleeps like the bus and raises the stop flag once bus time passes a mark.
double stop_at = 0.0;
void SleepThenStop(double s) {
    tql_sim_sleep(s);
    if (tql_sim_now() > stop_at) SetStopFlag();
}

TEST_F(DynamicsTest, ExcitationIsPeriodicTakesItsTimeAndStopsWithoutAFile) {
    // Per joint q0, a1..a5 (sines), b1..b5 (cosines): the series starts at
    // q0 + b1 + ... + b5, and sample 2500 (one period on) is sample 0 again.
    double* c = GetResourceDate()->identification_parameters;
    double first[6], last[6];
    ASSERT_EQ(ExcitationTrajectoriesGenerator(first, 0), 0);
    ExcitationSeries(c, 6, 2500, 2500, last);
    for (int j = 0; j < 6; ++j) {
        EXPECT_DOUBLE_EQ(first[j], std::accumulate(c + 11 * j + 6, c + 11 * j + 11, c[11 * j]));
        EXPECT_NEAR(last[j], first[j], 1e-6);
    }

    // Override 0.3: 13 ms per sample, plus 2 s of pauses per repetition.
    std::remove("file/excitation_output.txt");
    SetReplayOverride(0.3);
    const double t0 = tql_sim_now();
    ASSERT_EQ(Quiet([&] { return MoveExcitationTrajectories(robot_, 1); }), 0);
    const double move = tql_sim_now() - t0 - (2.0 + 2500 * 0.013);
    EXPECT_GT(move, 0.0);
    EXPECT_LT(move, 10.0);  // the approach move
    EXPECT_EQ(tqltest::CountOf(tqltest::ReadFile("file/excitation_output.txt"), "\n"), 2500);

    // A stop in the third repetition leaves no file behind.
    std::remove("file/excitation_output.txt");
    SetReplayOverride(1.0);
    stop_at = tql_sim_now() + 2 * 12.0 + 8.0;
    tql::SetSleepFunction(&SleepThenStop);
    EXPECT_EQ(Quiet([&] { return MoveExcitationTrajectories(robot_, 4); }), -1);
    tql::SetSleepFunction(&tql_sim_sleep);
    EXPECT_FALSE(std::ifstream("file/excitation_output.txt").good());
}

}  // namespace

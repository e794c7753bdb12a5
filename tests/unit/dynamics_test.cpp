// The dynamic model on the booted demo arm: gravity compensation on the
// physical simulated arm, the collision observer's reference behaviour, and
// the excitation run.
#include <cmath>
#include <cstdio>
#include <fstream>
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

constexpr double kDeg = 3.1415926 / 180.0;

class DynamicsTest : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(BootArm());
        robot_ = GetCurrentRobot();
        tql_sim_set_current_noise(0.0);
    }

    // Joint angles as the joints report them after a fresh request.
    void Read(double* q, double* dq = nullptr, double* current = nullptr) {
        double c[6], v[6];
        robot_->RequestCVPValue();
        robot_->controller_->processEvents();
        robot_->GetCurrentCVPFast(c, v, q);
        for (int i = 0; i < 6; ++i) {
            if (dq) dq[i] = v[i];
            if (current) current[i] = c[i];
        }
    }

    // Holds the arm in current mode for `seconds`, compensating gravity every
    // 4 ms (or sending zero torque); returns the largest joint drift, degrees.
    double Float(double seconds, bool compensate) {
        double start[6], q[6], dq[6];
        Read(start);
        robot_->ActivateCurrentMode();
        double zero[6] = {};
        for (int k = 0; k < static_cast<int>(seconds / PERIOD); ++k) {
            Read(q, dq);
            const int sent = compensate ? robot_->GravityCompensation(q, dq) : robot_->SetMachineTorque(zero);
            EXPECT_GE(sent, 0);
            tql::SleepSeconds(PERIOD);
        }
        Read(q);
        robot_->ActivatePositionMode();
        double drift = 0.0;
        for (int i = 0; i < 6; ++i) drift = std::fmax(drift, std::fabs(q[i] - start[i]) / kDeg);
        return drift;
    }

    Robot* robot_ = nullptr;
};

TEST_F(DynamicsTest, GravityCompensationHoldsThePhysicalArmWhereNoCompensationLetsItFall) {
    if (!tql_sim_physics()) GTEST_SKIP() << "the simulated bus was built without physics";
    const double poses[][6] = {{0, 30, 40, 0, 30, 0}, {45, -40, 60, 20, -30, 10}, {-90, 20, -70, -30, 45, 90}};
    for (const auto& pose : poses) {
        double target[6];
        for (int i = 0; i < 6; ++i) target[i] = pose[i] * kDeg;
        ASSERT_EQ(tqltest::Quiet([&] { return MoveToSpecifiedPosition(target); }), 0);
        EXPECT_LT(Float(2.0, true), 0.5) << "pose " << pose[1];
        ASSERT_EQ(tqltest::Quiet([&] { return MoveToSpecifiedPosition(target); }), 0);
        EXPECT_GT(Float(0.5, false), 5.0) << "pose " << pose[1];
    }
}

TEST_F(DynamicsTest, GainOutsideItsRangeReadsOneAndOtherTypesSendNothing) {
    double q[6] = {0.1, 0.5, 0.8, -0.2, 0.4, 0.0}, c[6], reference[6];
    robot_->ActivateCurrentMode();
    auto sent = [&](double gain, double* out) {
        GetResourceDate()->gravity_gain = gain;
        ASSERT_EQ(robot_->GravityCompensation(q, q), 0);
        for (int i = 0; i < 6; ++i) out[i] = robot_->controller_->getCurrent(robot_->link_[i].actuator_id_, true, "");
    };
    sent(1.0, reference);
    double tau[6], zero[6] = {};
    ASSERT_EQ(robot_->InverseDynamics(q, zero, zero, tau), 0);
    for (int i = 0; i < 6; ++i)
        EXPECT_NEAR(reference[i] * robot_->link_[i].kt_ * robot_->link_[i].direct_, tau[i], 1e-9);
    for (double gain : {0.3, 2.0, std::nan(""), 0.5, 1.5}) {
        sent(gain, c);
        const double expected = (gain == 0.5 || gain == 1.5) ? gain : 1.0;
        for (int i = 0; i < 6; ++i) EXPECT_NEAR(c[i], expected * reference[i], 1e-12) << gain;
    }
    robot_->robot_type_ = 2;
    const long commands = tql_sim_command_count();
    EXPECT_EQ(robot_->GravityCompensation(q, q), 0);
    EXPECT_EQ(tql_sim_command_count(), commands);
    std::string out;
    EXPECT_EQ(tqltest::Quiet([&] { return robot_->InverseDynamics(q, q, q, tau); }, &out), -1);
    EXPECT_EQ(out, "Wait to add...\n");
    robot_->robot_type_ = 1;
    GetResourceDate()->gravity_gain = 1.0;
    robot_->ActivatePositionMode();
}

TEST_F(DynamicsTest, CollisionObserverResidualFollowsItsReferencePattern) {
    double q[6] = {0.2, -0.3, 0.9, 0.1, -0.6, 0.4}, zero[6] = {}, g[6], tau[6], spare[6];
    ASSERT_EQ(robot_->InverseDynamics(q, zero, zero, g), 0);
    GetResourceDate()->collision_factor = 1.0;
    // At rest with matching torques the residual stays 0; a constant mismatch
    // c alternates -2c, 0 (gain x period = 2), so the threshold sees 2|c|.
    const double threshold6 = 16.3231 * 1.5 / 2.0;
    struct Case {
        double mismatch;
        int expected;
    } cases[] = {{0.0, 0}, {0.75, 0}, {threshold6 - 1e-6, 0}, {threshold6 + 1e-6, -1}};
    for (const Case& c : cases) {
        InitC();
        for (int i = 0; i < 6; ++i) tau[i] = g[i] + (i == 5 ? c.mismatch : 0.0);
        for (int step = 0; step < 6; ++step) {
            std::string out;
            const int r = tqltest::Quiet([&] { return robot_->CollisionDetection(q, q, zero, tau, spare); }, &out);
            const double r6 = GetCollisionResidual()[5];
            EXPECT_NEAR(r6, step % 2 == 0 ? -2.0 * c.mismatch : 0.0, 1e-9 * (1.0 + c.mismatch));
            if (c.expected < 0 && step % 2 == 0) {
                EXPECT_EQ(r, -1);
                EXPECT_EQ(out, "6  CollisionDetection.\n");
                break;
            }
            EXPECT_EQ(r, 0) << c.mismatch << " step " << step;
            for (int i = 0; i < 5; ++i) EXPECT_NEAR(GetCollisionResidual()[i], 0.0, 1e-9);
        }
    }
}

TEST_F(DynamicsTest, ExcitationSeriesStartsAtOffsetPlusCosinesAndIsPeriodic) {
    double* c = GetResourceDate()->identification_parameters;
    double first[6], last[6];
    ASSERT_EQ(ExcitationTrajectoriesGenerator(first, 0), 0);
    for (int j = 0; j < 6; ++j) {
        double expected = c[j * 11];
        for (int l = 1; l <= 5; ++l) expected += c[j * 11 + 5 + l];
        EXPECT_DOUBLE_EQ(first[j], expected);
    }
    ExcitationSeries(c, 6, 2500, 2500, last);
    for (int j = 0; j < 6; ++j) EXPECT_NEAR(last[j], first[j], 1e-6);
}

// Sleeps like the bus and raises the stop flag once bus time passes a mark.
double stop_at = 0.0;
void SleepThenStop(double s) {
    tql_sim_sleep(s);
    if (tql_sim_now() > stop_at) SetStopFlag();
}

TEST_F(DynamicsTest, ExcitationRunTimingOverrideAndStop) {
    // Override 0.3: 13 ms per sample, plus 2 s of pauses per repetition.
    std::remove("file/excitation_output.txt");
    SetReplayOverride(0.3);
    const double t0 = tql_sim_now();
    ASSERT_EQ(tqltest::Quiet([&] { return MoveExcitationTrajectories(robot_, 1); }), 0);
    const double move = tql_sim_now() - t0 - (2.0 + 2500 * 0.013);
    EXPECT_GT(move, 0.0);
    EXPECT_LT(move, 10.0);  // the approach move
    EXPECT_EQ(tqltest::CountOf(tqltest::ReadFile("file/excitation_output.txt"), "\n"), 2500);

    // A stop in the third repetition leaves no file behind.
    std::remove("file/excitation_output.txt");
    SetReplayOverride(1.0);
    stop_at = tql_sim_now() + 2 * 12.0 + 8.0;
    tql::SetSleepFunction(&SleepThenStop);
    EXPECT_EQ(tqltest::Quiet([&] { return MoveExcitationTrajectories(robot_, 4); }), -1);
    tql::SetSleepFunction(&tql_sim_sleep);
    EXPECT_FALSE(std::ifstream("file/excitation_output.txt").good());
}

}  // namespace

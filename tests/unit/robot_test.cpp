// Robot and joints on the simulated bus: bring-up, unit conversion at the
// actuator boundary, set-points and their refusal, settings, modes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "execute.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

using tqltest::Stdout;

namespace {

constexpr double kTwoPi = 6.2831852;  // the system's 2*pi at the actuator boundary

class RobotOnBus : public testing::Test {
protected:
    void SetUp() override {
        setenv("TQL_SIM_NOISE", "0", 1);  // exact current readings
        tql_sim_reset();
        tql::SetSleepFunction(&tql_sim_sleep);
        tql::SetClockFunction(&tql_sim_now);
        controller_ = ActuatorController::initController();
    }
    void TearDown() override { tqltest::RestoreRealTime(); }

    // Boots the process's robot from the scratch database.
    Robot* BootRobot() {
        tqltest::Stderr([] { EXPECT_EQ(tqltest::BootSimulatedArm(), 0); });
        return GetCurrentRobot();
    }
    void EnableAll() {
        Actuator::ErrorsDefine err;
        ASSERT_TRUE(controller_->enableActuatorInBatch(controller_->lookupActuators(err)));
    }

    tqltest::ScratchDir dir_;
    ActuatorController* controller_ = nullptr;
};

}  // namespace

TEST_F(RobotOnBus, ConversionsForEveryTypeAndDirection) {
    ASSERT_NO_FATAL_FAILURE(EnableAll());
    const double q = 0.3;  // rad
    for (int type = 0; type <= 9; ++type) {
        for (int dir : {1, -1}) {
            LinkUnit j;
            ASSERT_EQ(j.InitActuator(2, type), 0);
            j.SetActuatorPointer(controller_);
            j.SetDirect(dir);
            j.SetActuatorPosition(q);
            const double raw = tql_sim_last_setpoint(2);
            EXPECT_DOUBLE_EQ(raw, (q / kTwoPi) * j.reduction_ratio_ / dir) << type << "," << dir;
            // Read back through both the refreshed and the cached reading.
            EXPECT_NEAR(j.GetActuatorPositionSlow(), q, 1e-12) << type << "," << dir;
            EXPECT_NEAR(j.GetActuatorPositionFast(), q, 1e-12);
        }
    }
    // Torque: current times kt (type 7: ratio 81, kt 4.9086), in current mode.
    controller_->activateActuatorModeInBantch(controller_->getActuatorIdArray(), Actuator::Mode_Cur);
    LinkUnit j;
    ASSERT_EQ(j.InitActuator(4, 7), 0);
    j.SetActuatorPointer(controller_);
    j.SetDirect(-1);
    j.SetActuatorTorque(9.8172);  // 2 A the other way
    j.RequestCVPValue();
    controller_->processEvents();
    double t = 0, v = 0, p = 0, c = 0;
    j.GetActuatorTVPFast(&t, &v, &p);
    EXPECT_NEAR(t, 9.8172, 1e-9);
    j.GetActuatorCVPFast(&c, &v, &p);
    EXPECT_NEAR(c, 2.0, 1e-12);
    EXPECT_NEAR(controller_->getCurrent(4, false), -2.0, 1e-12);
}

TEST_F(RobotOnBus, LimitsAreReadAndMirroredForReversedJoints) {
    Robot* robot = BootRobot();
    ASSERT_EQ(robot->link_[2].direct_, -1);  // joint 3 of the demo arm turns the other way
    controller_->setMinimumPosition(3, -10.0);
    controller_->setMaximumPosition(3, 17.0);
    ASSERT_EQ(robot->GetParametersFromActuator(), 0);
    double lo[6], hi[6];
    robot->GetMinLimitData(lo);
    robot->GetMaxLimitData(hi);
    EXPECT_DOUBLE_EQ(lo[2], 17.0 * -1 / 36.0 * 2 * 3.1415926);
    EXPECT_DOUBLE_EQ(hi[2], -10.0 * -1 / 36.0 * 2 * 3.1415926);
    EXPECT_DOUBLE_EQ(lo[0], -17.0 / 36.0 * 2 * 3.1415926);
    EXPECT_DOUBLE_EQ(robot->link_[0].speed_limit_, controller_->getVelocityLimit(1, true));
    // A joint whose actuator is off cannot be read.
    controller_->disableActuator(5);
    EXPECT_EQ(Stdout([&] { EXPECT_EQ(robot->GetParametersFromActuator(), -1); }), "ID 5 is not enabled ! \n");
}

// A tick of set-points goes out whole or not at all: an actuator error or a
// step beyond the speed limit on any joint sends none of them.
TEST_F(RobotOnBus, ErrorsAndRefusedStepsStopTheSetPointLoop) {
    Robot* robot = BootRobot();
    double start[6], target[6], realtime[6];
    robot->GetCurrentMachineJoint(start);
    for (int i = 0; i < 6; ++i) target[i] = start[i] + 0.001;
    ASSERT_EQ(tql_sim_inject_error(3, 0x0C, 0), 0);
    EXPECT_EQ(Stdout([&] { EXPECT_EQ(robot->SendMachinePosition(target, start), -1); }), "ID 3 error : c\n");
    for (int i = 0; i < 6; ++i) EXPECT_EQ(tql_sim_setpoint_count(i + 1), 0) << "joint " << i + 1;
    CopyRealTimePos(realtime, 6);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(realtime[i], start[i]);
    // The other set-point paths write the id as a character.
    EXPECT_EQ(Stdout([&] {
                  EXPECT_EQ(robot->SetPosition(target), -1);
                  EXPECT_EQ(robot->GetErrorCode(), 0x0C);
              }),
              "ID \x03 error : c\nAxis 3 error : c\n");
    robot->link_[2].ClearActuatorError();
    EXPECT_EQ(robot->GetErrorCode(), 6);
    EXPECT_EQ(robot->SendMachinePosition(target, start), 0);
    CopyRealTimePos(realtime, 6);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(realtime[i], target[i]);

    double far[6];
    for (int i = 0; i < 6; ++i) far[i] = target[i] + (i == 1 ? 0.5 : 0.0);  // 0.5 rad in 4 ms
    const long sent[3] = {tql_sim_setpoint_count(1), tql_sim_setpoint_count(2), tql_sim_setpoint_count(3)};
    const long commands = tql_sim_command_count();
    const std::string out = Stdout([&] { EXPECT_EQ(robot->SendMachinePosition(far, target), -1); });
    EXPECT_NE(out.find("ID 2 beyond speed limit\n"), std::string::npos) << out;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(tql_sim_setpoint_count(i + 1), sent[i]) << "joint " << i + 1;
    EXPECT_EQ(tql_sim_command_count(), commands);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(RobotOnBus, InitRobotWithoutDatabase) {
    LinkUnit units[6];
    for (int i = 0; i < 6; ++i) ASSERT_EQ(units[i].InitActuator(static_cast<unsigned char>(i + 1), 9), 0);
    Robot robot;
    EXPECT_EQ(Stdout([&] { EXPECT_EQ(robot.InitRobot(units, 6), 0); }), "Enable ... \nEnable robot successfully.\n");
    EXPECT_EQ(robot.GetRobotType(), 6);
    EXPECT_EQ(robot.GetRobotJointNum(), 6);
    const std::string out = Stdout([&] {
        EXPECT_EQ(robot.AddLinkUnit(units, 5), -1);
        EXPECT_EQ(robot.AddLinkUnit(units, 21), -1);
    });
    EXPECT_NE(out.find(" ID size = 6 > 5\n"), std::string::npos) << out;
}

TEST_F(RobotOnBus, SettingsModesAndSaving) {
    Robot* robot = BootRobot();
    robot->ActivateCurrentMode();
    EXPECT_EQ(tql_sim_actuator_mode(4), Actuator::Mode_Cur);
    robot->ActivateHomingMode();
    EXPECT_EQ(tql_sim_actuator_mode(4), Actuator::Mode_Homing);
    robot->ActivatePositionMode();
    EXPECT_EQ(tql_sim_actuator_mode(4), Actuator::Mode_Pos);

    double lo[6] = {-5, -5, -5, -5, -5, -5}, hi[6] = {6, 6, 6, 6, 6, 6};
    EXPECT_EQ(robot->SetLimitData(lo, hi), 0);
    EXPECT_DOUBLE_EQ(controller_->getMinimumPosition(6, true), -5.0);
    EXPECT_DOUBLE_EQ(controller_->getMaximumPosition(6, true), 6.0);

    // The present position becomes the home: the arm then reads zero there.
    ASSERT_EQ(tql_sim_set_position(2, 3.6), 0);
    EXPECT_NEAR(robot->link_[1].GetActuatorPositionSlow(), 3.6 / 36.0 * 2 * 3.1415926, 1e-12);
    EXPECT_EQ(robot->SetHomingPosition(), 0);
    EXPECT_NEAR(robot->link_[1].GetActuatorPositionSlow(), 0.0, 1e-12);

    EXPECT_EQ(Stdout([&] {
                  EXPECT_EQ(robot->SaveParameters(), 0);
                  tql_sim_set_save_failure(1);
                  EXPECT_EQ(robot->SaveParameters(), -1);
              }),
              "Save parameters sucessfully!\nSave parameters failed!\n");
    EXPECT_EQ(Stdout([&] { robot->DisableAllRobot(); }), "Done. \nDisable robot size = 6\n");
    EXPECT_FALSE(controller_->isEnable(1));
    EXPECT_EQ(Stdout([&] { robot->DisableRobot(); }).substr(0, 30), "Disable error.\nPlease check  I");
}

// Parameter database: reading the two tables into the record, list parsing,
// applying the record to the robot, and the writes.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "database.h"
#include "execute.h"
#include "test_support.h"

using tqltest::ExecSql;
using tqltest::ScratchDir;

namespace {

std::string SetSystemValue(int id, const std::string& value) {
    return "UPDATE system_parameters SET VALUE='" + value + "' WHERE ID=" + std::to_string(id) + ";";
}

// Reads the scratch directory's database with stdout captured.
int Select(std::string* out = nullptr) {
    testing::internal::CaptureStdout();
    const int r = SelectFromTableList(GetResourceDate());
    const std::string text = testing::internal::GetCapturedStdout();
    if (out) *out = text;
    return r;
}

}  // namespace

TEST(GetDataFormChar, ParsesListAndKeepsTheRest) {
    double out[20];
    for (double& v : out) v = -7.0;
    ASSERT_EQ(GetDataFormChar("[1.5,-2,3e1]", out, 20), 0);
    EXPECT_DOUBLE_EQ(out[0], 1.5);
    EXPECT_DOUBLE_EQ(out[1], -2.0);
    EXPECT_DOUBLE_EQ(out[2], 30.0);
    for (int i = 3; i < 20; ++i) EXPECT_EQ(out[i], -7.0) << i;

    // Never writes beyond n, even when the text holds more values.
    double three[4] = {0, 0, 0, 99};
    ASSERT_EQ(GetDataFormChar("[1,2,3,4,5,6]", three, 3), 0);
    EXPECT_EQ(three[2], 3.0);
    EXPECT_EQ(three[3], 99.0);

    // Empty text and null pointers are handled without reading past the text.
    double one[2] = {5, 5};
    EXPECT_EQ(GetDataFormChar("", one, 2), 0);
    EXPECT_EQ(one[0], 0.0);
    EXPECT_EQ(one[1], 5.0);
    EXPECT_EQ(GetDataFormChar(nullptr, one, 2), -1);
}

TEST(SelectFromTableList, ReadsTheDemoArm) {
    ScratchDir dir;
    std::string out;
    ASSERT_EQ(Select(&out), 0);
    EXPECT_NE(out.find("Current robot type : GL_6L3\n"), std::string::npos);
    EXPECT_NE(out.find("Operation done successfully\n"), std::string::npos);
    const ResourceData* rd = GetResourceDate();
    EXPECT_EQ(rd->robot_type, kTypeGL_6L3);
    EXPECT_FALSE(rd->dynamics_switch);
    EXPECT_DOUBLE_EQ(rd->gravity_gain, 1.0);
    EXPECT_DOUBLE_EQ(rd->joint_speed[0], 90.0);
    EXPECT_DOUBLE_EQ(rd->joint_direction[2], -1.0);
    EXPECT_DOUBLE_EQ(rd->kinematic_lengths[0], 152.0);  // d1
    EXPECT_DOUBLE_EQ(rd->kinematic_lengths[5], 82.0);   // d6
    EXPECT_DOUBLE_EQ(rd->cartesian_limits[0], 250.0);
}

TEST(SelectFromTableList, GainIsClampedToItsRange) {
    ScratchDir dir;
    const struct {
        const char* text;
        double expected;
    } cases[] = {{"0.4", 1.0}, {"1.6", 1.0}, {"0.5", 0.5}, {"1.5", 1.5}, {"0.4999998", 1.0}, {"abc", 1.0}, {"nan", 1.0}};
    for (const auto& c : cases) {
        ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(3, c.text)));
        ASSERT_EQ(Select(), 0);
        EXPECT_DOUBLE_EQ(GetResourceDate()->gravity_gain, c.expected) << c.text;
    }
}

TEST(SelectFromTableList, SwitchesAreExactlyOn) {
    ScratchDir dir;
    ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(2, "ON") + SetSystemValue(4, "on")));
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);
    EXPECT_FALSE(GetResourceDate()->collision_switch);
}

TEST(SelectFromTableList, RobotTypeNamesAreExact) {
    ScratchDir dir;
    for (const char* bad : {"GL_6L3 ", "gl_6l3", ""}) {
        ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(1, bad)));
        std::string out;
        EXPECT_EQ(Select(&out), -1) << bad;
        EXPECT_EQ(out, std::string("MECHNIACL ERROR !\nThe '") + bad + "' is invalid. \n");
    }
    const struct {
        const char* name;
        int code;
    } good[] = {{"GL_4L3", 0}, {"GL_2P8_P6_3P3", 2}, {"GL_6L6", 3}, {"GL_2L6_4L3", 4}, {"FREE_COMBINATION", 50}};
    for (const auto& g : good) {
        ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(1, g.name)));
        EXPECT_EQ(Select(), 0) << g.name;
        EXPECT_EQ(GetResourceDate()->robot_type, g.code) << g.name;
    }
}

TEST(SelectFromTableList, MissingOrBrokenDatabaseFails) {
    ScratchDir dir;
    // A type whose table does not exist.
    ASSERT_TRUE(ExecSql("parameter.db", "DROP TABLE GL_6L3;"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(Select(), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("SQL error: no such table: GL_6L3\n"), std::string::npos);

    // No database at all: reported, and no empty database is left behind.
    std::remove("parameter.db");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Select(), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Can't open database: "), std::string::npos);
    EXPECT_NE(std::remove("parameter.db"), 0);

    // Not a database.
    tqltest::WriteFile("parameter.db", "this is not a database\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Select(), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("SQL error: "), std::string::npos);
}

TEST(SelectFromTableList, RowsThatDoNotFitAreRefused) {
    ScratchDir dir;
    // An over-long value would overrun its slot.
    ASSERT_TRUE(ExecSql("parameter.db", "UPDATE GL_6L3 SET VALUE='[" + std::string(3000, '1') + "]' WHERE ID=13;"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(Select(), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("too long"), std::string::npos) << err;

    // A value of 2559 characters still fits.
    ASSERT_TRUE(ExecSql("parameter.db", "UPDATE GL_6L3 SET VALUE='[" + std::string(2557, '1') + "]' WHERE ID=13;"));
    EXPECT_EQ(Select(), 0);

    // IDs outside the row buffer.
    for (const char* id : {"0", "101", "-3"}) {
        ASSERT_TRUE(ExecSql("parameter.db", std::string("INSERT INTO system_parameters VALUES (") + id +
                                                ", 'bad', 'x');"));
        testing::internal::CaptureStderr();
        EXPECT_EQ(Select(), -1) << id;
        EXPECT_NE(testing::internal::GetCapturedStderr().find("outside 1..100"), std::string::npos) << id;
        ASSERT_TRUE(ExecSql("parameter.db", std::string("DELETE FROM system_parameters WHERE ID=") + id + ";"));
    }
}

TEST(SelectFromTableList, ShortListsKeepEarlierValues) {
    ScratchDir dir;
    ASSERT_EQ(Select(), 0);
    ASSERT_TRUE(ExecSql("parameter.db", "UPDATE GL_6L3 SET VALUE='[10,20]' WHERE ID=1;"));
    ASSERT_EQ(Select(), 0);
    const ResourceData* rd = GetResourceDate();
    EXPECT_DOUBLE_EQ(rd->joint_speed[0], 10.0);
    EXPECT_DOUBLE_EQ(rd->joint_speed[1], 20.0);
    EXPECT_DOUBLE_EQ(rd->joint_speed[2], 90.0);  // from the earlier read
}

TEST(Writes, UpdateRobotTypeAndDynamicsSwitch) {
    ScratchDir dir;
    char type[] = "GL_6L6";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(UpdateRobotType(type, 1), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Opened database successfully\n"), std::string::npos);
    EXPECT_NE(err.find("Updating...: "), std::string::npos);
    EXPECT_NE(out.find("VALUE = GL_6L6\n"), std::string::npos);
    EXPECT_NE(out.find("Operation done successfully\n"), std::string::npos);
    ASSERT_EQ(Select(), 0);
    EXPECT_EQ(GetResourceDate()->robot_type, kTypeGL_6L6);

    char on[] = "ON";
    testing::internal::CaptureStdout();
    EXPECT_EQ(DynamicsSwitch(on), 0);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);

    // An unescaped quote breaks the statement: reported, nothing changed.
    char quote[] = "O'N";
    testing::internal::CaptureStderr();
    EXPECT_EQ(DynamicsSwitch(quote), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("SQL error: "), std::string::npos);
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);
}

namespace {

// Applies the record to a robot that "found" the given number of actuators.
int ApplyToRobot(Robot& robot, int ids, std::string* out) {
    robot.actuator_ids_.clear();
    for (int i = 0; i < ids; ++i) robot.actuator_ids_.push_back(static_cast<unsigned char>(i + 1));
    testing::internal::CaptureStdout();
    const int r = robot.GetParametersFromDatabase();
    *out = testing::internal::GetCapturedStdout();
    return r;
}

}  // namespace

TEST(GetParametersFromDatabase, SixJointArm) {
    ScratchDir dir;
    ASSERT_EQ(Select(), 0);
    Robot robot;
    std::string out;
    ASSERT_EQ(ApplyToRobot(robot, 6, &out), 0);
    EXPECT_EQ(out, "Current Axis Num : 6\nID vector: \n1 2 3 4 5 6 \n");
    EXPECT_EQ(robot.GetRobotJointNum(), 6);
    EXPECT_EQ(robot.GetRobotType(), 1);
    // (alpha, 0, a, d): d1 at joint 1, a2 and a3 at joints 3 and 4, d4..d6 at 4..6.
    const double expected[6][4] = {{0, 0, 0, 152},        {1.5707963, 0, 0, 0}, {0, 0, 244, 0},
                                   {-1.5707963, 0, 213, 112}, {0, 0, 0, 85},       {0, 0, 0, 82}};
    for (int i = 0; i < 6; ++i)
        for (int k = 0; k < 4; ++k) EXPECT_DOUBLE_EQ(robot.link_[i].mdh_[k], expected[i][k]) << i << "," << k;
    EXPECT_EQ(robot.link_[2].direct_, -1);
    EXPECT_DOUBLE_EQ(robot.link_[0].reduction_ratio_, 36.0);
    EXPECT_DOUBLE_EQ(robot.link_[0].kt_, 1.0623);
    EXPECT_DOUBLE_EQ(robot.link_[0].joint_speed_data_.speed, 90.0 * 3.1415926 / 180.0);
    AccDecDate rot;
    robot.GetRotateSpeedAccDecParameters(&rot);
    EXPECT_DOUBLE_EQ(rot.speed, 90.0 * 3.1415926 / 180.0);
    AccDecDate line;
    robot.GetLineSpeedAccDecParameters(&line);
    EXPECT_DOUBLE_EQ(line.speed, 250.0);
}

TEST(GetParametersFromDatabase, DirectionsMustBeOneOrMinusOne) {
    ScratchDir dir;
    for (const char* bad : {"[1,1,0.5,1,1,1]", "[1,1,1,nan,1,1]", "[1,1,1,1,1e30,1]", "[1,1,1,1,1,2]"}) {
        ASSERT_TRUE(ExecSql("parameter.db", std::string("UPDATE GL_6L3 SET VALUE='") + bad + "' WHERE ID=11;"));
        ASSERT_EQ(Select(), 0);
        Robot robot;
        std::string out;
        EXPECT_EQ(ApplyToRobot(robot, 6, &out), -1) << bad;
        EXPECT_NE(out.find("is invalid"), std::string::npos) << out;
    }
    ASSERT_TRUE(ExecSql("parameter.db", "UPDATE GL_6L3 SET VALUE='[-1.9,1,1,1,1,-1]' WHERE ID=11;"));
    ASSERT_EQ(Select(), 0);
    Robot robot;
    std::string out;
    ASSERT_EQ(ApplyToRobot(robot, 6, &out), 0);
    EXPECT_EQ(robot.link_[0].direct_, -1);  // truncated
}

TEST(GetParametersFromDatabase, IdCountMustMatch) {
    ScratchDir dir;
    ASSERT_EQ(Select(), 0);
    Robot robot;
    std::string out;
    EXPECT_EQ(ApplyToRobot(robot, 7, &out), -1);
    EXPECT_EQ(out, " ID size = 7 > 6\n");
    EXPECT_EQ(ApplyToRobot(robot, 5, &out), -1);
    EXPECT_EQ(out, " ID size = 5 < 6\n");
}

TEST(GetParametersFromDatabase, FreeCombination) {
    ScratchDir dir;
    ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(1, "FREE_COMBINATION")));
    ASSERT_EQ(Select(), 0);
    Robot robot;
    std::string out;
    EXPECT_EQ(ApplyToRobot(robot, 21, &out), -1);
    EXPECT_EQ(out, " ID size = 21 > 20\n");

    ASSERT_EQ(ApplyToRobot(robot, 20, &out), 0);
    EXPECT_EQ(robot.GetRobotJointNum(), 20);
    EXPECT_EQ(robot.GetRobotType(), 6);
    for (int i = 0; i < 20; ++i) {
        EXPECT_DOUBLE_EQ(robot.link_[i].reduction_ratio_, 1.0);
        EXPECT_EQ(robot.link_[i].direct_, 1);
        EXPECT_DOUBLE_EQ(robot.link_[i].joint_speed_data_.jerk, 9000.0 * 3.1415926 / 180.0);
        EXPECT_EQ(robot.link_[i].mdh_[3], 0.0);
    }
}

TEST(GetParametersFromDatabase, UnknownTypeCode) {
    ResourceData saved = *GetResourceDate();
    GetResourceDate()->robot_type = 7;
    Robot robot;
    std::string out;
    EXPECT_EQ(ApplyToRobot(robot, 6, &out), -1);
    EXPECT_EQ(out, "Mechnial type is invalid.\n");
    *GetResourceDate() = saved;
}

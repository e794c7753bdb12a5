// Parameter database: reading the two tables into the record, list parsing,
// applying the record to the robot, and the writes.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "database.h"
#include "execute.h"
#include "test_support.h"

using tqltest::ExecSql;
using tqltest::ScratchDir;

namespace {

std::string SetSystemValue(int id, const std::string& value) {
    return "UPDATE system_parameters SET VALUE='" + value + "' WHERE ID=" + std::to_string(id) + ";";
}
std::string SetTypeValue(int id, const std::string& value) {
    return "UPDATE GL_6L3 SET VALUE='" + value + "' WHERE ID=" + std::to_string(id) + ";";
}

// Reads the scratch directory's database with stdout captured.
int Select(std::string* out = nullptr) {
    return tqltest::Quiet([] { return SelectFromTableList(GetResourceDate()); }, out);
}

// Applies the record to a robot that "found" ids 1..ids.
int ApplyToRobot(Robot& robot, int ids, std::string* out) {
    robot.actuator_ids_.clear();
    for (int i = 0; i < ids; ++i) robot.actuator_ids_.push_back(static_cast<unsigned char>(i + 1));
    return tqltest::Quiet([&] { return robot.GetParametersFromDatabase(); }, out);
}

}  // namespace

TEST(GetDataFormChar, ParsesListAndKeepsTheRest) {
    double out[5] = {-7, -7, -7, -7, -7};
    ASSERT_EQ(GetDataFormChar("[1.5,-2,3e1]", out, 4), 0);
    EXPECT_EQ(std::vector<double>(out, out + 5), (std::vector<double>{1.5, -2, 30, -7, -7}));
    // Never writes beyond n, even when the text holds more values.
    ASSERT_EQ(GetDataFormChar("[1,2,3,4,5,6]", out, 3), 0);
    EXPECT_EQ(std::vector<double>(out, out + 4), (std::vector<double>{1, 2, 3, -7}));
    // Empty text and null pointers are handled without reading past the text.
    EXPECT_EQ(GetDataFormChar("", out, 2), 0);
    EXPECT_EQ(std::vector<double>(out, out + 2), (std::vector<double>{0, 2}));
    EXPECT_EQ(GetDataFormChar(nullptr, out, 2), -1);
}

TEST(SelectFromTableList, ValuesAsStored) {
    ScratchDir dir;
    std::string out;
    ASSERT_EQ(Select(&out), 0);
    EXPECT_EQ(out, "Current robot type : GL_6L3\nOperation done successfully\n");
    // System rows 3 (the gravity gain, kept within [0.5, 1.5], else 1) and 1
    // (the robot type, by its exact name; type -1: refused).
    const struct { int id; const char* value; double gain; int type; } cases[] = {
        {3, "0.4", 1.0, 1},       {3, "1.6", 1.0, 1},        {3, "0.5", 0.5, 1},           {3, "1.5", 1.5, 1},
        {3, "0.4999998", 1.0, 1}, {3, "abc", 1.0, 1},        {3, "nan", 1.0, 1},           {1, "GL_4L3", 1.0, 0},
        {1, "GL_6L6", 1.0, 3},    {1, "GL_2L6_4L3", 1.0, 4}, {1, "GL_2P8_P6_3P3", 1.0, 2}, {1, "GL_6L3 ", 1.0, -1},
        {1, "gl_6l3", 1.0, -1},   {1, "", 1.0, -1},          {1, "FREE_COMBINATION", 1.0, kTypeFreeCombination}};
    for (const auto& c : cases) {
        ScratchDir fresh;
        ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(c.id, c.value)));
        EXPECT_EQ(Select(&out), c.type < 0 ? -1 : 0) << c.value;
        if (c.type < 0) {
            EXPECT_EQ(out, std::string("MECHNIACL ERROR !\nThe '") + c.value + "' is invalid. \n");
            continue;
        }
        EXPECT_EQ(GetResourceDate()->robot_type, c.type) << c.value;
        EXPECT_DOUBLE_EQ(GetResourceDate()->gravity_gain, c.gain) << c.value;
    }
    // Switches are exactly "ON".
    ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(2, "ON") + SetSystemValue(4, "on")));
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);
    EXPECT_FALSE(GetResourceDate()->collision_switch);
    // A short list keeps the earlier values; a value of 2559 characters still fits.
    ASSERT_TRUE(
        ExecSql("parameter.db", SetTypeValue(1, "[10,20]") + SetTypeValue(13, "[" + std::string(2557, '1') + "]")));
    ASSERT_EQ(Select(), 0);
    EXPECT_EQ(std::vector<double>(GetResourceDate()->joint_speed, GetResourceDate()->joint_speed + 3),
              (std::vector<double>{10, 20, 90}));
}

TEST(SelectFromTableList, FailuresAreReported) {
    auto expect_failure = [](const std::string& sql, const std::string& message) {
        const std::string err = tqltest::Stderr([] { EXPECT_EQ(Select(), -1); });
        EXPECT_NE(err.find(message), std::string::npos) << sql << "\n" << err;
    };
    auto row = [](int id) { return "INSERT INTO system_parameters VALUES (" + std::to_string(id) + ", 'bad', 'x');"; };
    const struct { std::string sql, err; } cases[] = {
        {"DROP TABLE GL_6L3;", "SQL error: no such table: GL_6L3\n"},  // a type whose table does not exist
        {SetTypeValue(13, "[" + std::string(3000, '1') + "]"), "too long"},  // would overrun its slot
        {row(0), "outside 1..100"}, {row(101), "outside 1..100"}, {row(-3), "outside 1..100"},  // beyond the row buffer
    };
    for (const auto& c : cases) {
        ScratchDir dir;
        ASSERT_TRUE(ExecSql("parameter.db", c.sql)) << c.sql;
        expect_failure(c.sql, c.err);
    }
    ScratchDir dir;
    tqltest::WriteFile("parameter.db", "this is not a database\n");
    expect_failure("not a database", "SQL error: ");
    // No database at all: reported, and no empty database is left behind.
    std::remove("parameter.db");
    expect_failure("no database", "Can't open database: ");
    EXPECT_NE(std::remove("parameter.db"), 0);
}

TEST(Writes, UpdateRobotTypeAndDynamicsSwitch) {
    ScratchDir dir;
    char type[] = "GL_6L6", on[] = "ON", quote[] = "O'N";
    std::string out;
    const std::string err =
        tqltest::Stderr([&] { EXPECT_EQ(tqltest::Quiet([&] { return UpdateRobotType(type, 1); }, &out), 0); });
    EXPECT_NE(err.find("Opened database successfully\n"), std::string::npos);
    EXPECT_NE(err.find("Updating...: "), std::string::npos);
    EXPECT_NE(out.find("VALUE = GL_6L6\n"), std::string::npos);
    EXPECT_NE(out.find("Operation done successfully\n"), std::string::npos);
    EXPECT_EQ(tqltest::Quiet([&] { return DynamicsSwitch(on); }), 0);
    ASSERT_EQ(Select(), 0);
    EXPECT_EQ(GetResourceDate()->robot_type, kTypeGL_6L6);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);
    // An unescaped quote breaks the statement: reported, nothing changed.
    EXPECT_NE(tqltest::Stderr([&] { EXPECT_EQ(DynamicsSwitch(quote), -1); }).find("SQL error: "), std::string::npos);
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);
}

TEST(GetParametersFromDatabase, SixJointArm) {
    ScratchDir dir;
    ASSERT_EQ(Select(), 0);
    EXPECT_TRUE(GetResourceDate()->dynamics_switch);  // the demo arm has a dynamic model
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
    AccDecDate rot, line;
    robot.GetRotateSpeedAccDecParameters(&rot);
    robot.GetLineSpeedAccDecParameters(&line);
    EXPECT_DOUBLE_EQ(rot.speed, 90.0 * 3.1415926 / 180.0);
    EXPECT_DOUBLE_EQ(line.speed, 250.0);

}

// Every limit the robot will use must be a usable number; a bad one refuses
// the robot with the table, the row (list entry) and the value.
TEST(GetParametersFromDatabase, UnusableLimitsAreRefused) {
    const struct {
        int row;
        const char* value;
        const char* said;
    } bad[] = {
        {5, "-1", "table GL_6L3, row 5, value -1: a Cartesian limit must be finite and positive"},
        {9, "0", "row 9, value 0:"},
        {1, "[90,90,nan,120,120,120]", "row 1, entry 3, value nan: a joint limit"},
        {3, "[900,900,900,1200,1200,-5]", "row 3, entry 6, value -5:"},
        {11, "[1,1,0.5,1,1,1]", "row 11, entry 3, value 0.5: a joint direction is 1 or -1"},
        {11, "[-1.9,1,1,1,1,-1]", "row 11, entry 1, value -1.9:"},
        {12, "[152,inf,213,112,85,82]", "row 12, entry 2, value inf: a kinematic length"},
    };
    for (const auto& b : bad) {
        ScratchDir dir;
        ASSERT_TRUE(ExecSql("parameter.db", SetTypeValue(b.row, b.value)));
        ASSERT_EQ(Select(), 0);
        Robot robot;
        std::string out;
        EXPECT_EQ(ApplyToRobot(robot, 6, &out), -1) << b.value;
        EXPECT_NE(out.find(std::string("Parameter error: ")), std::string::npos) << out;
        EXPECT_NE(out.find(b.said), std::string::npos) << out;
    }
}

// The number of actuators found must match the type's joints (at most 20 for
// a free combination); an unknown type code is refused.
TEST(GetParametersFromDatabase, IdCountAndTypeCode) {
    ScratchDir dir;
    const struct { const char* type; int ids, result; const char* out; } cases[] = {  // out nullptr: not checked
        {"GL_6L3", 7, -1, " ID size = 7 > 6\n"},           {"GL_6L3", 5, -1, " ID size = 5 < 6\n"},
        {"FREE_COMBINATION", 21, -1, " ID size = 21 > 20\n"}, {"FREE_COMBINATION", 20, 0, nullptr}};
    Robot robot;
    std::string out;
    for (const auto& c : cases) {
        ASSERT_TRUE(ExecSql("parameter.db", SetSystemValue(1, c.type)));
        ASSERT_EQ(Select(), 0);
        EXPECT_EQ(ApplyToRobot(robot, c.ids, &out), c.result) << c.type << " " << c.ids;
        EXPECT_TRUE(c.out == nullptr || out == c.out) << out;
    }
    EXPECT_EQ(robot.GetRobotJointNum(), 20);
    EXPECT_EQ(robot.GetRobotType(), 6);
    for (int i = 0; i < 20; ++i) {
        EXPECT_DOUBLE_EQ(robot.link_[i].reduction_ratio_, 1.0);
        EXPECT_EQ(robot.link_[i].direct_, 1);
        EXPECT_DOUBLE_EQ(robot.link_[i].joint_speed_data_.jerk, 9000.0 * 3.1415926 / 180.0);
        EXPECT_EQ(robot.link_[i].mdh_[3], 0.0);
    }
    GetResourceDate()->robot_type = 7;
    EXPECT_EQ(ApplyToRobot(robot, 6, &out), -1);
    EXPECT_EQ(out, "Mechnial type is invalid.\n");
}

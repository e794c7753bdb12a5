// Program conversion (instructions to moves) and the speed override. The
// robot is a hand-filled record: no bus is needed.
#include <gtest/gtest.h>

#include <cmath>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "instruction.h"
#include "program.h"
#include "test_support.h"

namespace {

using tqltest::kDeg;  // 3.1415926 / 180, not pi / 180

// Joint j: (90 + 10 j) deg/s; translation 250 mm/s; rotation 90 deg/s.
void FillRobot(Robot* r, int joints = 6) {
    r->joint_num_ = joints;
    r->robot_type_ = 1;
    for (int j = 0; j < joints; ++j)
        r->link_[j].joint_speed_data_.SetParameter((90.0 + 10 * j) * kDeg, (180.0 + j) * kDeg, (900.0 + j) * kDeg);
    r->line_speed_data_.SetParameter(250.0, 1000.0, 5000.0);
    r->rotate_speed_data_.SetParameter(90 * kDeg, 360 * kDeg, 1800 * kDeg);
}

struct Converted {
    int result = 0;
    int count = -7;
    std::string out;
    std::unique_ptr<InterpolationData[]> table{new InterpolationData[kInterpolationTableSize]};
};

Converted Convert(const std::vector<std::string>& lines, Robot* robot, double* current) {
    std::list<InstructionUnit> list = tqltest::DecodeLines(lines);
    Converted c;
    c.result = tqltest::Quiet([&] { return InstructionDataToMoveData(&list, c.table.get(), current, robot, &c.count); },
                              &c.out);
    return c;
}

}  // namespace

TEST(InstructionDataToMoveData, ConvertsUnitsChainsStartsAndScalesSpeeds) {
    Robot robot;
    FillRobot(&robot);
    double current[kMaxJointNum] = {0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
    Converted c = Convert({"MOVJ VJ=50 z5 0,0,90,0,90,0", "TIMER T=100", "DOUT 1 ON", "MOVL V=200 z0 10,5,80,0,95,0",
                           "MOVC V=5000 z10 20,10,70,0,100,0,30,0,75,0,95,0"},
                          &robot, current);
    ASSERT_EQ(c.result, 3) << c.out;
    EXPECT_TRUE(c.count == 3 && c.out.empty());
    const InterpolationData* t = c.table.get();
    EXPECT_EQ((std::vector<int>{t[1].line_number, t[2].line_number, t[2].type, t[2].zone.zone}),
              (std::vector<int>{4, 5, kMoveCircular, 10}));
    // Exactly the system factor (90 * factor, not pi / 2).
    EXPECT_EQ((std::vector<double>{t[0].target_position[2], t[2].auxiliary_position[4], t[2].target_position[4]}),
              (std::vector<double>{90.0 * kDeg, 100.0 * kDeg, 95.0 * kDeg}));
    // Starts chain: the arm's joints, then each previous target.
    for (int j = 0; j < 6; ++j) {
        EXPECT_EQ(t[0].start_position[j], current[j]);
        EXPECT_EQ(t[1].start_position[j], t[0].target_position[j]);
        EXPECT_EQ(t[2].start_position[j], t[1].target_position[j]);
    }
    // VJ scales each joint's speed only.
    AccDecDate limits[kMaxJointNum];
    robot.GetJointSpeedAccDecParameters(limits);
    for (int j = 0; j < 6; ++j) {
        const AccDecDate& d = t[0].joint_acc_dec[j];
        EXPECT_TRUE(d.speed == 0.5 * limits[j].speed && d.acceleration == limits[j].acceleration &&
                    d.jerk == limits[j].jerk) << j;
    }
    // V lowers the translation speed (200 < 250) but never raises it (5000);
    // acceleration, jerk and rotation stay the robot's.
    EXPECT_EQ((std::vector<double>{t[1].line_acc_dec.speed, t[2].line_acc_dec.speed, t[1].line_acc_dec.acceleration,
                                   t[1].line_acc_dec.jerk, t[2].rotate_acc_dec.speed}),
              (std::vector<double>{200.0, 250.0, 1000.0, 5000.0, 90 * kDeg}));
}

TEST(InstructionDataToMoveData, RefusesBadPointCountsSpeedsAndTooManyMoves) {
    Robot robot;
    FillRobot(&robot);
    double current[kMaxJointNum] = {};
    std::vector<std::string> full(1000, "MOVJ VJ=50 z5 0,0,90,0,90,0");
    std::vector<std::string> over = full;
    over.push_back("MOVJ VJ=50 z5 0,0,0,0,0,0");
    const struct { std::vector<std::string> lines; int result; std::string message; } cases[] = {
        {{"MOVJ VJ=50 z5 0,0,90,0,90"}, -1, "Line 1 instruction position is illegal !\n"},
        {{"DOUT", "TIMER T=9", "MOVL V=50 z5 0,0,90,0,90,0,1"}, -1, "Line 3 instruction position is illegal !\n"},
        {{"MOVJ VJ=50 z5 0,0,90,0,90,0,"}, -1, "Line 1 instruction position is illegal !\n"},
        // Arcs take 2 * J numbers; their message has no " !".
        {{"MOVC V=50 z5 0,0,90,0,90,0"}, -1, "Line 1 instruction position is illegal\n"},
        {{"MOVJ VJ=50 z5 0,0,90,0,90,0", "MOVC V=50 z5 0,0,90,0,90,0,1,1,1,1,1,1,1"}, -1,
         "Line 2 instruction position is illegal\n"},
        {{"MOVJ VJ=50 z5 0,0,nan,0,90,0"}, -1, "Line 1 instruction position is illegal !\n"},
        // Speeds that would make the move never end.
        {{"MOVJ VJ=0 z5 0,0,90,0,90,0"}, -1, "Line 1 instruction speed is illegal !\n"},
        {{"MOVL V=-5 z5 0,0,90,0,90,0"}, -1, "Line 1 instruction speed is illegal !\n"},
        {{"TIMER T=5", "DOUT 2"}, 0, ""},
        {full, 1000, ""},
        {over, -1, "Line 1001 exceeds the limit of 1000 moves !\n"},
    };
    for (const auto& k : cases) {
        Converted c = Convert(k.lines, &robot, current);
        EXPECT_EQ(c.result, k.result) << k.lines.back();
        EXPECT_EQ(c.out, k.message) << k.lines.back();
    }
    // A four-joint robot takes four numbers, eight for an arc.
    Robot four;
    FillRobot(&four, 4);
    EXPECT_EQ(Convert({"MOVJ VJ=50 z5 1,2,3,4", "MOVC V=50 z5 1,2,3,4,5,6,7,8"}, &four, current).result, 2);
    EXPECT_EQ(Convert({"MOVJ VJ=50 z5 1,2,3,4,5,6"}, &four, current).out, "Line 1 instruction position is illegal !\n");
}

// The override is taken from 0.1 to 1 (with a little tolerance above 1);
// a refused one leaves every factor at 1.
TEST(ProgramSettings, SpeedOverrideIsAcceptedFromTenthToOne) {
    const struct { double value; bool accepted; } cases[] = {
        {0.1, true},        {1.0, true},   {0.5, true},  {1.000001, true}, {0.0999999, false},
        {1.0000011, false}, {0.05, false}, {1.2, false}, {-1.0, false},    {NAN, false}};
    for (const auto& k : cases) {
        SetReplayOverride(k.value);
        std::string out;
        EXPECT_EQ(tqltest::Quiet([] { return SetSpeedOverride(); }, &out), k.accepted ? 0 : -1) << k.value;
        const double f = k.accepted ? k.value : 1.0;
        EXPECT_TRUE(joint_space[0] == f && cartesian_space_trans[0] == f && cartesian_space_rot[0] == f) << k.value;
        EXPECT_EQ(joint_space[1], 1.0);
        EXPECT_EQ(out.empty(), k.accepted) << out;
    }
    SetReplayOverride(1.0);
    InitSpeedOverride();
}

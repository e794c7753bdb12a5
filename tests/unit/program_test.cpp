// Program conversion (instructions to moves), speed override and cycle-mode
// dialogues. The robot here is a hand-filled record: no bus is needed.
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <list>
#include <memory>
#include <random>
#include <sstream>
#include <string>

#include "execute.h"
#include "instruction.h"
#include "program.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr double kDeg = 0.017453292222222222;  // the system's degrees-to-radians factor

void NoSleep(double) {}

// A six-joint arm with the demo's limits (joint limits in rad/s...).
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
    testing::internal::CaptureStdout();
    c.result = InstructionDataToMoveData(&list, c.table.get(), current, robot, &c.count);
    c.out = testing::internal::GetCapturedStdout();
    return c;
}

// Replaces standard input for one dialogue.
class ScriptedInput {
public:
    explicit ScriptedInput(const std::string& text) : in_(text), old_(std::cin.rdbuf(in_.rdbuf())) {
        std::cin.clear();
    }
    ~ScriptedInput() {
        std::cin.rdbuf(old_);
        std::cin.clear();
    }

private:
    std::istringstream in_;
    std::streambuf* old_;
};

}  // namespace

// Runs first in the binary (and alone under ctest): the process defaults.
TEST(ProgramSettings, ProcessDefaultsAreCycleNotSmoothOverrideOne) {
    EXPECT_EQ(GetOperationCycleMode(), CYCLE);
    EXPECT_FALSE(GetSmoothReplay());
    EXPECT_DOUBLE_EQ(GetReplayOverride(), 1.0);
    for (int i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(joint_space[i], 1.0);
        EXPECT_DOUBLE_EQ(cartesian_space_trans[i], 1.0);
        EXPECT_DOUBLE_EQ(cartesian_space_rot[i], 1.0);
    }
}

TEST(InstructionDataToMoveData, ConvertsUnitsChainsStartsAndSkipsTimerAndDout) {
    Robot robot;
    FillRobot(&robot);
    double current[kMaxJointNum] = {0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
    Converted c = Convert({"MOVJ VJ=50 z5 0,0,90,0,90,0", "TIMER T=100", "DOUT 1 ON",
                           "MOVL V=200 z0 10,5,80,0,95,0",
                           "MOVC V=5000 z10 20,10,70,0,100,0,30,0,75,0,95,0"},
                          &robot, current);
    ASSERT_EQ(c.result, 3) << c.out;
    EXPECT_EQ(c.count, 3);
    EXPECT_EQ(c.out, "");
    InterpolationData* t = c.table.get();

    EXPECT_EQ(t[0].type, kMoveJoint);
    EXPECT_EQ(t[0].line_number, 1);
    EXPECT_EQ(t[1].line_number, 4);
    EXPECT_EQ(t[2].line_number, 5);
    EXPECT_EQ(t[2].type, kMoveCircular);
    EXPECT_EQ(t[1].zone.zone, 0);
    EXPECT_EQ(t[2].zone.zone, 10);

    // Degrees to radians with exactly the system factor (90 * factor, not pi/2).
    EXPECT_EQ(t[0].target_position[2], 90.0 * kDeg);
    EXPECT_NE(t[0].target_position[2], M_PI / 2);
    EXPECT_EQ(t[2].auxiliary_position[4], 100.0 * kDeg);
    EXPECT_EQ(t[2].target_position[0], 30.0 * kDeg);
    EXPECT_EQ(t[2].target_position[4], 95.0 * kDeg);

    // Start positions chain: the arm's joints, then each previous target.
    for (int j = 0; j < 6; ++j) {
        EXPECT_EQ(t[0].start_position[j], current[j]);
        EXPECT_EQ(t[1].start_position[j], t[0].target_position[j]);
        EXPECT_EQ(t[2].start_position[j], t[1].target_position[j]);
    }

    // VJ scales each joint's speed only.
    AccDecDate limits[kMaxJointNum];
    robot.GetJointSpeedAccDecParameters(limits);
    for (int j = 0; j < 6; ++j) {
        EXPECT_DOUBLE_EQ(t[0].joint_acc_dec[j].speed, 0.5 * limits[j].speed);
        EXPECT_EQ(t[0].joint_acc_dec[j].acceleration, limits[j].acceleration);
        EXPECT_EQ(t[0].joint_acc_dec[j].jerk, limits[j].jerk);
    }
    // V lowers the translation speed (200 < 250) but never raises it (5000).
    EXPECT_EQ(t[1].line_acc_dec.speed, 200.0);
    EXPECT_EQ(t[2].line_acc_dec.speed, 250.0);
    EXPECT_EQ(t[1].line_acc_dec.acceleration, 1000.0);
    EXPECT_EQ(t[1].line_acc_dec.jerk, 5000.0);
    EXPECT_EQ(t[2].rotate_acc_dec.speed, 90 * kDeg);
    EXPECT_EQ(t[2].rotate_acc_dec.jerk, 1800 * kDeg);
}

TEST(InstructionDataToMoveData, PointCountsAreCheckedAgainstTheJointCount) {
    Robot robot;
    FillRobot(&robot);
    double current[kMaxJointNum] = {};
    struct Case {
        std::vector<std::string> lines;
        std::string message;
    } cases[] = {
        {{"MOVJ VJ=50 z5 0,0,90,0,90"}, "Line 1 instruction position is illegal !\n"},
        {{"DOUT", "TIMER T=9", "MOVL V=50 z5 0,0,90,0,90,0,1"}, "Line 3 instruction position is illegal !\n"},
        // A trailing comma counts one more number.
        {{"MOVJ VJ=50 z5 0,0,90,0,90,0,"}, "Line 1 instruction position is illegal !\n"},
        // Circular: 2 * J numbers, message without " !".
        {{"MOVC V=50 z5 0,0,90,0,90,0"}, "Line 1 instruction position is illegal\n"},
        {{"MOVJ VJ=50 z5 0,0,90,0,90,0", "MOVC V=50 z5 0,0,90,0,90,0,1,1,1,1,1,1,1"},
         "Line 2 instruction position is illegal\n"},
        // Numbers that are not finite are refused the same way.
        {{"MOVJ VJ=50 z5 0,0,nan,0,90,0"}, "Line 1 instruction position is illegal !\n"},
        // Speeds that would make the move never end.
        {{"MOVJ VJ=0 z5 0,0,90,0,90,0"}, "Line 1 instruction speed is illegal !\n"},
        {{"MOVL V=-5 z5 0,0,90,0,90,0"}, "Line 1 instruction speed is illegal !\n"},
    };
    for (const Case& k : cases) {
        Converted c = Convert(k.lines, &robot, current);
        EXPECT_EQ(c.result, -1) << k.lines.back();
        EXPECT_EQ(c.out, k.message) << k.lines.back();
    }

    // A four-joint robot takes four numbers and eight for an arc.
    Robot four;
    FillRobot(&four, 4);
    Converted ok = Convert({"MOVJ VJ=50 z5 1,2,3,4", "MOVC V=50 z5 1,2,3,4,5,6,7,8"}, &four, current);
    EXPECT_EQ(ok.result, 2) << ok.out;
    Converted bad = Convert({"MOVJ VJ=50 z5 1,2,3,4,5,6"}, &four, current);
    EXPECT_EQ(bad.out, "Line 1 instruction position is illegal !\n");
}

TEST(InstructionDataToMoveData, TableLimitAndEmptyPrograms) {
    Robot robot;
    FillRobot(&robot);
    double current[kMaxJointNum] = {};

    Converted none = Convert({"TIMER T=5", "DOUT 2"}, &robot, current);
    EXPECT_EQ(none.result, 0);
    EXPECT_EQ(none.count, 0);

    std::vector<std::string> lines(1000, "MOVJ VJ=50 z5 0,0,90,0,90,0");
    Converted full = Convert(lines, &robot, current);
    EXPECT_EQ(full.result, 1000);

    lines.push_back("MOVJ VJ=50 z5 0,0,0,0,0,0");
    Converted over = Convert(lines, &robot, current);
    EXPECT_EQ(over.result, -1);
    EXPECT_EQ(over.out, "Line 1001 exceeds the limit of 1000 moves !\n");
}

TEST(InstructionDataToMoveData, RandomProgramsKeepInvariants) {
    Robot robot;
    FillRobot(&robot);
    std::mt19937 rng(4242);
    std::uniform_real_distribution<double> angle(-170.0, 170.0);
    std::uniform_int_distribution<int> kind(0, 4);
    std::uniform_int_distribution<int> pct(1, 100);
    for (int trial = 0; trial < 20; ++trial) {
        std::vector<std::string> lines;
        std::vector<std::vector<double>> targets;
        std::vector<double> ratios;
        for (int i = 0; i < 30; ++i) {
            int k = kind(rng);
            if (k == 3) {
                lines.push_back("TIMER T=1");
                continue;
            }
            if (k == 4) {
                lines.push_back("DOUT 1");
                continue;
            }
            std::ostringstream s;
            s.precision(17);
            int p = pct(rng);
            s << (k == 0 ? "MOVJ VJ=" : k == 1 ? "MOVL V=" : "MOVC V=") << p << " z5 ";
            std::vector<double> target(6);
            for (int n = 0; n < (k == 2 ? 12 : 6); ++n) {
                double a = angle(rng);
                s << (n ? "," : "") << a;
                if (n >= (k == 2 ? 6 : 0)) target[n - (k == 2 ? 6 : 0)] = a;
            }
            lines.push_back(s.str());
            targets.push_back(target);
            ratios.push_back(k == 0 ? p / 100.0 : -1.0);
        }
        double current[kMaxJointNum] = {};
        Converted c = Convert(lines, &robot, current);
        ASSERT_EQ(c.result, static_cast<int>(targets.size()));
        for (int i = 0; i < c.result; ++i) {
            const InterpolationData& m = c.table[i];
            for (int j = 0; j < 6; ++j) {
                EXPECT_EQ(m.target_position[j], targets[i][j] * kDeg);
                if (i > 0) {
                    EXPECT_EQ(m.start_position[j], c.table[i - 1].target_position[j]);
                }
            }
            if (ratios[i] > 0) {
                EXPECT_DOUBLE_EQ(m.joint_acc_dec[0].speed, ratios[i] * 90 * kDeg);
            } else {
                EXPECT_LE(m.line_acc_dec.speed, 100.0);
            }
        }
    }
}

TEST(ProgramSettings, SpeedOverrideBoundsAndMessages) {
    struct Case {
        double value;
        bool accepted;
    } cases[] = {{0.1, true}, {1.0, true}, {0.5, true}, {0.0999999, false}, {1.000001, true},
                 {1.0000011, false}, {0.05, false}, {1.2, false}, {-1.0, false}, {NAN, false}};
    for (const Case& k : cases) {
        SetReplayOverride(k.value);
        testing::internal::CaptureStdout();
        int r = SetSpeedOverride();
        std::string out = testing::internal::GetCapturedStdout();
        if (k.accepted) {
            EXPECT_EQ(r, 0) << k.value;
            EXPECT_EQ(out, "");
            EXPECT_EQ(joint_space[0], k.value);
            EXPECT_EQ(cartesian_space_trans[0], k.value);
            EXPECT_EQ(cartesian_space_rot[0], k.value);
        } else {
            EXPECT_EQ(r, -1) << k.value;
            EXPECT_EQ(joint_space[0], 1.0);
            EXPECT_EQ(cartesian_space_trans[0], 1.0);
            EXPECT_EQ(cartesian_space_rot[0], 1.0);
        }
        for (int i = 1; i < 4; ++i) EXPECT_EQ(joint_space[i], 1.0);
    }
    SetReplayOverride(0.05);
    testing::internal::CaptureStdout();
    SetSpeedOverride();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "speed override = 0.05\nThe value of speed override is invalid(0.1-1).\n");
    SetReplayOverride(1.2);
    testing::internal::CaptureStdout();
    SetSpeedOverride();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "speed override = 1.2\nThe value of speed override is invalid(0.1-1).\n");
    SetReplayOverride(1.0);
    InitSpeedOverride();
}

TEST(ProgramSettings, OverrideDialogueReadsANumberWithoutRangeCheck) {
    {
        ScriptedInput in("0.05\n");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetReplayOverrideFromTerminal(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Input speed override 0.1-1 : ");
        EXPECT_DOUBLE_EQ(GetReplayOverride(), 0.05);
    }
    {
        ScriptedInput in("fast\n");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetReplayOverrideFromTerminal(), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Input speed override 0.1-1 : The value of speed override is invalid(0.1-1).\n");
    }
    {
        ScriptedInput in("");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetReplayOverrideFromTerminal(), -1);
        testing::internal::GetCapturedStdout();
    }
    SetReplayOverride(1.0);
}

TEST(ProgramSettings, CycleModeDialogue) {
    const std::string prompt = "Input operation cycle : STEP\u3001CYCLE and CONTINUOUS\n";
    {
        SetSmoothReplay(true);
        ScriptedInput in("STEP\nYES\n");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetOperationCycleModeFromTerminal(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), prompt);  // no smoothing question
        EXPECT_EQ(GetOperationCycleMode(), STEP);
    }
    {
        ScriptedInput in("CYCLE\nyes\n");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetOperationCycleModeFromTerminal(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), prompt + "Is smooth (YES/NO) ");
        EXPECT_EQ(GetOperationCycleMode(), CYCLE);
        EXPECT_FALSE(GetSmoothReplay());
    }
    {
        ScriptedInput in("CONTINUOUS YES");
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetOperationCycleModeFromTerminal(), 0);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(GetOperationCycleMode(), CONTINUOUS);
        EXPECT_TRUE(GetSmoothReplay());
    }
    for (const char* word : {"cycle", "Step", "", "CONTINUOUSLY"}) {
        ScriptedInput in(word);
        testing::internal::CaptureStdout();
        EXPECT_EQ(GetOperationCycleModeFromTerminal(), -1) << word;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), prompt + "The value of operation cycle is invalid.\n");
        EXPECT_EQ(GetOperationCycleMode(), CONTINUOUS);  // unchanged
    }
    SetOperationCycleMode(CYCLE);
    SetSmoothReplay(false);
}

TEST(ProgramSettings, WithoutTerminalTheStoredSettingsRunAndABadOverrideMovesNothing) {
    tql::SetSleepFunction(&NoSleep);
    Robot robot;  // no controller: nothing can move
    FillRobot(&robot);
    InterpolationData* table = new InterpolationData[1];
    ASSERT_FALSE(IsTerminal());

    SetReplayOverride(1.5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReplayParametersConfiguration(&robot, table, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "speed override = 1.5\nThe value of speed override is invalid(0.1-1).\n");

    // An empty table succeeds in every mode that runs it.
    SetReplayOverride(0.5);
    SetOperationCycleMode(CYCLE);
    EXPECT_EQ(ReplayParametersConfiguration(&robot, table, 0), 0);
    SetSmoothReplay(true);
    EXPECT_EQ(ReplayParametersConfiguration(&robot, table, 0), 0);
    SetOperationCycleMode(CONTINUOUS);
    EXPECT_EQ(ReplayParametersConfiguration(&robot, table, 0), 0);
    EXPECT_EQ(joint_space[0], 0.5);

    SetOperationCycleMode(static_cast<OperationCycleMode>(7));
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReplayParametersConfiguration(&robot, table, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "The value of operation cycle is invalid.\n");

    delete[] table;
    SetOperationCycleMode(CYCLE);
    SetSmoothReplay(false);
    SetReplayOverride(1.0);
    InitSpeedOverride();
    tql::SetSleepFunction(nullptr);
}

TEST(ExecuteFileInstruction, MissingOrBadProgramFailsBeforeAnyMotion) {
    tql::SetSleepFunction(&NoSleep);
    Robot robot;
    FillRobot(&robot);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ExecuteFileInstruction(&robot, "/nonexistent/data.txt"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Open /nonexistent/data.txt failure! \n");
    tql::SetSleepFunction(nullptr);
}

// Motion programs: the decoder's grammar, messages and limits; conversion of
// instructions to moves and the speed override (on a hand-filled robot record:
// no bus is needed).
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

// Decoding `text` written to a scratch file: result, standard output, records.
struct Decoded {
    int result = 0;
    std::string out;
    std::list<InstructionUnit> list;
};
Decoded DecodeText(const std::string& text) {
    tqltest::ScratchDir dir;
    tqltest::WriteFile("prog.txt", text);
    Decoded d;
    d.result = tqltest::Quiet([&] { return DecodeInstructionFile("prog.txt", &d.list); }, &d.out);
    return d;
}

int DecodeLine(std::string text, InstructionUnit* unit, std::string* out) {
    return tqltest::Quiet([&] { return unit->DecodeInstruction(&text[0]); }, out);
}

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

TEST(GetLineArray, CountsValuesAndNeverWritesPastTheEnd) {
    double v[5] = {9, 9, 9, -7.0, -7.0};
    EXPECT_EQ(GetLineArray(nullptr, v, 3), 0);
    EXPECT_EQ(GetLineArray("abc,-2", v, 3), 2);  // non-numbers read as 0
    EXPECT_EQ(std::vector<double>(v, v + 3), (std::vector<double>{0, -2, 9}));
    // A comma after max numbers gives max + 1; nothing is written past max.
    EXPECT_EQ(GetLineArray("1,2,3", v, 3), 3);
    EXPECT_EQ(GetLineArray("1,2,3,4,5", v, 3), 4);
    EXPECT_EQ(std::vector<double>(v, v + 5), (std::vector<double>{1, 2, 3, -7, -7}));
}

// One record reused for every line: each parse clears the point list.
TEST(DecodeInstruction, AcceptedLinesFillTheRecord) {
    // speed: V= in mm/s or the VJ= ratio; points: their count; probe: index of a point holding probe_value.
    const struct { const char* line; int kind, type; double speed; int zone; double zone_ratio; int points, probe;
                   double probe_value; } cases[] = {
        {"MOVJ VJ=50 z5 0,0,90,0,90,0", kMoveInstruction, kMoveJoint, 0.5, 5, 0.03, 6, 2, 90.0},
        {"MOVC V=150.5 z200 20,10,70,0,100,0,30,0,75,0,95,0", kMoveInstruction, kMoveCircular, 150.5, 200, 1.0, 12,
         10, 95.0},
        {"MOVJ VJ=10 z1 7", kMoveInstruction, kMoveJoint, 0.1, 1, 0.01, 1, 0, 7.0},
        {"MOVL V=200 z0 1,2,3,", kMoveInstruction, kMoveLinear, 200.0, 0, 0.0, 4, 3, 0.0},
        {"TIMER T=500", kTimerInstruction, 0, 0, 0, 0, 0, 0, 0},  // the stored time is 0
        {"DOUT", kDoutInstruction, 0, 0, 0, 0, 0, 0, 0},
        {"DOUT whatever = text, z7 V200", kDoutInstruction, 0, 0, 0, 0, 0, 0, 0},
    };
    InstructionUnit u;
    u.line_number = 42;
    u.data.timer_data.time = 123;
    for (const auto& c : cases) {
        std::string out;
        ASSERT_EQ(DecodeLine(c.line, &u, &out), 0) << c.line;
        EXPECT_EQ(out, "");
        EXPECT_EQ(u.kind, c.kind) << c.line;
        EXPECT_TRUE(c.kind != kTimerInstruction || u.data.timer_data.time == 0);
        if (c.kind != kMoveInstruction) continue;
        const MoveInstructionData& m = u.data.move_data;
        EXPECT_EQ(m.type, c.type) << c.line;
        EXPECT_DOUBLE_EQ(c.type == kMoveJoint ? m.speed.joint_speed_ratio : m.speed.line_speed, c.speed) << c.line;
        EXPECT_EQ(m.zone.zone, c.zone);
        EXPECT_DOUBLE_EQ(m.zone.zone_ratio, c.zone_ratio);
        EXPECT_DOUBLE_EQ(m.zone.zone_size, c.zone);
        EXPECT_EQ(m.position_num, c.points) << c.line;
        EXPECT_DOUBLE_EQ(m.position[c.probe], c.probe_value) << c.line;
        EXPECT_EQ(m.position[c.points], 0.0) << c.line;
    }
    EXPECT_EQ(u.line_number, 42);  // set by the file reader only
}

TEST(DecodeInstruction, ZoneIsALookupTableAndTokensAreBounded) {
    const struct { const char* token; double ratio; } rows[] = {  // ratio -1: refused
        {"z0", 0},      {"z1", 0.01},  {"z5", 0.03},   {"z10", 0.05}, {"z15", 0.08}, {"z20", 0.1},
        {"z30", 0.15},  {"z40", 0.2},  {"z50", 0.25},  {"z60", 0.3},  {"z80", 0.4},  {"z100", 0.5},
        {"z150", 0.75}, {"z200", 1.0}, {"Zz10", 0.05}, {"z2", -1},    {"z7", -1},    {"z25", -1},
        {"z90", -1},    {"z199", -1},  {"z201", -1},   {"z-5", -1},   {"Z10", -1}};  // the first 'z' counts
    for (const auto& row : rows) {
        ZoneData z;
        std::string token = row.token;
        EXPECT_EQ(z.GetInstructionZoneData(&token[0]), row.ratio < 0 ? -1 : 0) << token;
        EXPECT_TRUE(row.ratio < 0 || z.zone_ratio == row.ratio) << token;
    }
    std::string overlong = "VJ=" + std::string(300, '5');
    SpeedData s;
    EXPECT_EQ(s.GetInstructionSpeedData(&overlong[0]), -1);
}

TEST(DecodeInstruction, RefusedLinesPrintTheirMessage) {
    const char *kSpeed = "Speed format error !\n", *kZone = "Zone format error !\n", *kFormat = "MOV format error !\n";
    const struct { std::string line; const char* message; } cases[] = {  // message "" for none
        {"MOVL V200 z5 1,2,3,4,5,6", kSpeed}, {"MOVL W=200 z5 1,2,3,4,5,6", kSpeed},
        {"MOVJ VJJ=20 z5 1,2,3,4,5,6", kSpeed}, {"MOVL =200 z5 1,2,3,4,5,6", kSpeed},
        {"MOVJ X=1 z7 1", kSpeed},  // the speed is checked before the zone
        {"MOVL V=200 z7 1,2,3,4,5,6", kZone}, {"MOVL V=200 5 1,2,3,4,5,6", kZone},
        {"MOVJ VJ=100 z5", kFormat}, {"MOVJ", kFormat},
        // Case-sensitive keywords; tabs or a leading blank do not separate them.
        {"movj VJ=50 z5 0,0,90,0,90,0", ""}, {"MOVJ\tVJ=50 z5 0,0,90,0,90,0", ""},
        {" MOVJ VJ=50 z5 0,0,90,0,90,0", ""}, {"JUMP VJ=50 z5 1", ""}, {"", ""}, {"   ", ""}, {"TIMER 500", ""},
        {"MOVJ VJ=50 z5 " + std::string(400, '1'), ""},  // longer than the line buffer
    };
    for (const auto& c : cases) {
        InstructionUnit u;
        std::string out;
        EXPECT_EQ(DecodeLine(c.line, &u, &out), -1) << c.line;
        EXPECT_EQ(out, c.message) << c.line;
    }
}

TEST(DecodeInstructionFile, ResultsAndMessages) {
    const std::string movj = "MOVJ VJ=100 z5 0,0,90,0,90,0\n", head = "MOVJ VJ=100 z5 1";
    const std::string line255 = head + std::string(255 - head.size(), '0');
    std::string limit = "// many\n";
    for (int i = 0; i < 1001; ++i) limit += movj;
    const struct { std::string text; int result; std::string out; int size; } cases[] = {  // size -1: not checked
        {"// only\n   // comments\n", -1, "Error : prog.txt is an empty file.\n", 0},
        // Bad first instruction: its own message, then the format line with
        // nothing between the number and the text.
        {"MOVL V=200 z7 1,2,3,4,5,6\n", -1, "Zone format error !\nLine 1Format error !\n", 0},
        // The number counts instructions, not physical lines; the list keeps
        // those before the bad line.
        {"// a\n" + movj + "// b\nDOUT 1\n// c\nmovl V=200 z5 1,2,3,4,5,6\n" + movj, -1, "Line 3Format error !\n", 2},
        {movj + "\n" + movj, -1, "Line 2Format error !\n", 1},
        {line255 + "\n", 0, "", 1},
        {"// fine\n" + line255 + "0\n" + movj, -1, "Line 2 is longer than 255 characters !\n", -1},
        {"//" + std::string(300, '-') + "\nDOUT\n", -1, "Line 1 is longer than 255 characters !\n", -1},
        {limit, 0, "", 1001},
        // Reading stops once more than 1000 are held, before a later bad line.
        {limit + "TIMER T=1\nnot an instruction\n", 0, "", 1001},
        // A move past the collected instructions would be cut off: refused.
        {limit + "MOVJ VJ=100 z5 0,0,0,0,0,0\n", -1, "Line 1003 exceeds the limit of 1001 instructions !\n", -1},
        {limit + "DOUT 1\n// end\r\nMOVL V=9 z0 bad\r\n", -1,
         "Line 1005 exceeds the limit of 1001 instructions !\n", -1},
        {limit + "// MOVJ VJ=100 z5 0,0,0,0,0,0\nDOUT MOVJ\nTIMER T=5\n", 0, "", 1001},
    };
    for (const auto& c : cases) {
        const Decoded d = DecodeText(c.text);
        EXPECT_EQ(d.result, c.result) << c.text.substr(0, 60);
        EXPECT_EQ(d.out, c.out) << c.text.substr(0, 60);
        EXPECT_TRUE(c.size < 0 || d.list.size() == static_cast<size_t>(c.size)) << c.text.substr(0, 60);
    }

    tqltest::ScratchDir dir;
    std::list<InstructionUnit> list;
    EXPECT_EQ(tqltest::Stdout([&] { EXPECT_EQ(DecodeInstructionFile("file/missing.txt", &list), -1); }),
              "Open file/missing.txt failure! \n");
}

TEST(DecodeInstructionFile, KeepsOrderPhysicalLineNumbersAndUnnamedSpeeds) {
    const Decoded d = DecodeText(
        "// pick and place\n"
        "MOVL VJ=40 z5 1,2,3,4,5,6\n"       // no V= named yet: 0 mm/s
        "  // indented comment\n"
        "//no blank after the slashes\n"
        "MOVJ VJ=50 z5 0,0,90,0,90,0\n"
        "MOVL V=200 z5 10,5,80,0,95,0\n"
        "TIMER T=500\n"
        "DOUT 3 ON\n"
        "MOVJ V=80 z5 0,0,90,0,90,0\r\n"      // the ratio stays 0.5
        "MOVC VJ=30 z5 20,10,70,0,100,0,30,0,75,0,95,0");  // 80 mm/s; no final line end
    ASSERT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(d.out, "");
    const int lines[] = {2, 5, 6, 7, 8, 9, 10};
    const int kinds[] = {0, 0, 0, 1, 2, 0, 0};
    const double line_speed[] = {0, 0, 200, 0, 0, 80, 80};
    const double ratio[] = {0.4, 0.5, 0.5, 0, 0, 0.5, 0.3};
    ASSERT_EQ(d.list.size(), 7u);
    int i = 0;
    for (const InstructionUnit& u : d.list) {
        EXPECT_EQ(u.line_number, lines[i]) << i;
        EXPECT_EQ(u.kind, kinds[i]) << i;
        if (u.kind == kMoveInstruction) {
            EXPECT_DOUBLE_EQ(u.data.move_data.speed.line_speed, line_speed[i]) << i;
            EXPECT_DOUBLE_EQ(u.data.move_data.speed.joint_speed_ratio, ratio[i]) << i;
        }
        ++i;
    }
    EXPECT_EQ(d.list.back().data.move_data.type, kMoveCircular);
    EXPECT_EQ(d.list.back().data.move_data.position_num, 12);
}

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

// Motion program decoder: grammar, messages, limits.
#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <random>
#include <sstream>
#include <string>

#include "instruction.h"
#include "test_support.h"

namespace {

// Decodes `text` written to a scratch file; captures standard output.
struct Decoded {
    int result = 0;
    std::string out;
    std::list<InstructionUnit> list;
};

Decoded DecodeText(const std::string& text) {
    tqltest::ScratchDir dir;
    tqltest::WriteFile("prog.txt", text);
    Decoded d;
    testing::internal::CaptureStdout();
    d.result = DecodeInstructionFile("prog.txt", &d.list);
    d.out = testing::internal::GetCapturedStdout();
    return d;
}

int DecodeLine(const std::string& text, InstructionUnit* unit, std::string* out = nullptr) {
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    testing::internal::CaptureStdout();
    int r = unit->DecodeInstruction(buf.data());
    std::string captured = testing::internal::GetCapturedStdout();
    if (out != nullptr) *out = captured;
    return r;
}

}  // namespace

TEST(GetLineArray, CountsNumbersCommasAndTheIntendedOverflowByOne) {
    double v[40];
    EXPECT_EQ(GetLineArray(nullptr, v, 40), 0);

    EXPECT_EQ(GetLineArray("1.5,-2,3e1", v, 40), 3);
    EXPECT_DOUBLE_EQ(v[0], 1.5);
    EXPECT_DOUBLE_EQ(v[1], -2.0);
    EXPECT_DOUBLE_EQ(v[2], 30.0);

    // A trailing comma counts one more value, read as 0.
    v[3] = 99.0;
    EXPECT_EQ(GetLineArray("1,2,3,", v, 40), 4);
    EXPECT_DOUBLE_EQ(v[3], 0.0);

    // Non-numbers read as 0 without error.
    EXPECT_EQ(GetLineArray("abc,4", v, 40), 2);
    EXPECT_DOUBLE_EQ(v[0], 0.0);
    EXPECT_DOUBLE_EQ(v[1], 4.0);

    // Exactly max numbers give max; a comma after them gives max + 1 and
    // nothing is written past max.
    double guarded[5] = {0, 0, 0, -7.0, -7.0};
    EXPECT_EQ(GetLineArray("1,2,3", guarded, 3), 3);
    EXPECT_EQ(GetLineArray("1,2,3,4,5", guarded, 3), 4);
    EXPECT_DOUBLE_EQ(guarded[2], 3.0);
    EXPECT_DOUBLE_EQ(guarded[3], -7.0);
    EXPECT_DOUBLE_EQ(guarded[4], -7.0);
}

TEST(GetLineArray, RandomListsRoundTrip) {
    std::mt19937 rng(20191202);
    std::uniform_int_distribution<int> count(1, 40);
    std::uniform_real_distribution<double> value(-360.0, 360.0);
    for (int trial = 0; trial < 200; ++trial) {
        const int n = count(rng);
        std::ostringstream text;
        text.precision(17);
        double expect[40];
        for (int i = 0; i < n; ++i) {
            expect[i] = value(rng);
            text << (i ? "," : "") << expect[i];
        }
        double got[40];
        ASSERT_EQ(GetLineArray(text.str().c_str(), got, 40), n);
        for (int i = 0; i < n; ++i) EXPECT_DOUBLE_EQ(got[i], expect[i]);
    }
}

TEST(DecodeInstruction, MoveLinesFillTypeSpeedZoneAndPoints) {
    InstructionUnit u;
    u.line_number = 42;
    ASSERT_EQ(DecodeLine("MOVJ VJ=50 z5 0,0,90,0,90,0", &u), 0);
    EXPECT_EQ(u.line_number, 42);  // not touched
    EXPECT_EQ(u.kind, kMoveInstruction);
    const MoveInstructionData& m = u.data.move_data;
    EXPECT_EQ(m.type, kMoveJoint);
    EXPECT_DOUBLE_EQ(m.speed.joint_speed_ratio, 0.5);
    EXPECT_EQ(m.zone.zone, 5);
    EXPECT_DOUBLE_EQ(m.zone.zone_ratio, 0.03);
    EXPECT_DOUBLE_EQ(m.zone.zone_size, 5.0);
    EXPECT_EQ(m.position_num, 6);
    EXPECT_DOUBLE_EQ(m.position[2], 90.0);
    EXPECT_DOUBLE_EQ(m.position[6], 0.0);

    InstructionUnit l;
    ASSERT_EQ(DecodeLine("MOVL V=200 z0 10,5,80,0,95,0", &l), 0);
    EXPECT_EQ(l.data.move_data.type, kMoveLinear);
    EXPECT_DOUBLE_EQ(l.data.move_data.speed.line_speed, 200.0);
    EXPECT_EQ(l.data.move_data.zone.zone, 0);

    InstructionUnit c;
    ASSERT_EQ(DecodeLine("MOVC V=150.5 z200 20,10,70,0,100,0,30,0,75,0,95,0", &c), 0);
    EXPECT_EQ(c.data.move_data.type, kMoveCircular);
    EXPECT_DOUBLE_EQ(c.data.move_data.speed.line_speed, 150.5);
    EXPECT_DOUBLE_EQ(c.data.move_data.zone.zone_ratio, 1.0);
    EXPECT_EQ(c.data.move_data.position_num, 12);
    EXPECT_DOUBLE_EQ(c.data.move_data.position[11], 0.0);
    EXPECT_DOUBLE_EQ(c.data.move_data.position[10], 95.0);

    // The point list is cleared before each parse.
    ASSERT_EQ(DecodeLine("MOVJ VJ=10 z1 7", &c), 0);
    EXPECT_EQ(c.data.move_data.position_num, 1);
    EXPECT_DOUBLE_EQ(c.data.move_data.position[0], 7.0);
    EXPECT_DOUBLE_EQ(c.data.move_data.position[1], 0.0);

    // Trailing comma: one more value, 0.
    ASSERT_EQ(DecodeLine("MOVL V=10 z1 1,2,3,", &c), 0);
    EXPECT_EQ(c.data.move_data.position_num, 4);
}

TEST(DecodeInstruction, ZoneTableIsALookup) {
    const struct {
        int zone;
        double ratio;
    } rows[] = {{0, 0}, {1, 0.01}, {5, 0.03}, {10, 0.05}, {15, 0.08}, {20, 0.1}, {30, 0.15},
                {40, 0.2}, {50, 0.25}, {60, 0.3}, {80, 0.4}, {100, 0.5}, {150, 0.75}, {200, 1.0}};
    for (const auto& row : rows) {
        ZoneData z;
        std::string token = "z" + std::to_string(row.zone);
        ASSERT_EQ(z.GetInstructionZoneData(&token[0]), 0) << token;
        EXPECT_EQ(z.zone, row.zone);
        EXPECT_DOUBLE_EQ(z.zone_ratio, row.ratio);
        EXPECT_DOUBLE_EQ(z.zone_size, row.zone);
    }
    for (int bad : {2, 3, 7, 25, 70, 90, 199, 201, 300, -5}) {
        ZoneData z;
        std::string token = "z" + std::to_string(bad);
        EXPECT_EQ(z.GetInstructionZoneData(&token[0]), -1) << token;
    }
    ZoneData z;
    char anywhere[] = "Zz10";  // the first 'z' anywhere in the token
    EXPECT_EQ(z.GetInstructionZoneData(anywhere), 0);
    EXPECT_EQ(z.zone, 10);
    char none[] = "Z10";
    EXPECT_EQ(z.GetInstructionZoneData(none), -1);
}

TEST(DecodeInstruction, RefusedMoveLinesPrintTheirMessage) {
    struct Case {
        const char* line;
        const char* message;  // printed line, "" for none
    } cases[] = {
        {"MOVL V200 z5 1,2,3,4,5,6", "Speed format error !\n"},
        {"MOVL W=200 z5 1,2,3,4,5,6", "Speed format error !\n"},
        {"MOVJ VJJ=20 z5 1,2,3,4,5,6", "Speed format error !\n"},
        {"MOVL =200 z5 1,2,3,4,5,6", "Speed format error !\n"},
        {"MOVL V=200 z7 1,2,3,4,5,6", "Zone format error !\n"},
        {"MOVL V=200 5 1,2,3,4,5,6", "Zone format error !\n"},
        {"MOVJ VJ=100 z5", "MOV format error !\n"},
        {"MOVJ", "MOV format error !\n"},
        // The speed is checked before the zone.
        {"MOVJ X=1 z7 1", "Speed format error !\n"},
        // Keywords are case-sensitive; tabs do not separate the keyword.
        {"movj VJ=50 z5 0,0,90,0,90,0", ""},
        {"MOVJ\tVJ=50 z5 0,0,90,0,90,0", ""},
        {" MOVJ VJ=50 z5 0,0,90,0,90,0", ""},
        {"JUMP VJ=50 z5 1", ""},
        // Blank lines are not part of the grammar.
        {"", ""},
        {"   ", ""},
        // A TIMER line needs an "=".
        {"TIMER 500", ""},
    };
    for (const Case& c : cases) {
        InstructionUnit u;
        std::string out;
        EXPECT_EQ(DecodeLine(c.line, &u, &out), -1) << c.line;
        EXPECT_EQ(out, c.message) << c.line;
    }
}

TEST(DecodeInstruction, TimerStoresZeroAndDoutTakesAnyText) {
    InstructionUnit t;
    t.data.timer_data.time = 123;
    ASSERT_EQ(DecodeLine("TIMER T=500", &t), 0);
    EXPECT_EQ(t.kind, kTimerInstruction);
    EXPECT_EQ(t.data.timer_data.time, 0);

    for (const char* line : {"DOUT", "DOUT 1 ON", "DOUT whatever = text, z7 V200"}) {
        InstructionUnit d;
        std::string out;
        ASSERT_EQ(DecodeLine(line, &d, &out), 0) << line;
        EXPECT_EQ(d.kind, kDoutInstruction);
        EXPECT_EQ(out, "");
    }
}

TEST(DecodeInstruction, OverlongLinesAreRefusedWithoutOverrun) {
    std::string line = "MOVJ VJ=50 z5 " + std::string(400, '1');
    InstructionUnit u;
    EXPECT_EQ(DecodeLine(line, &u), -1);
    std::string token = "VJ=" + std::string(300, '5');
    SpeedData s;
    EXPECT_EQ(s.GetInstructionSpeedData(&token[0]), -1);
}

TEST(DecodeInstructionFile, ExampleProgramKeepsOrderAndPhysicalLineNumbers) {
    Decoded d = DecodeText(
        "// pick and place\n"
        "MOVJ VJ=100 z5 0,0,90,0,90,0\n"
        "  // indented comment\n"
        "//no blank after the slashes\n"
        "MOVL V=200 z5 10,5,80,0,95,0\n"
        "TIMER T=500\n"
        "DOUT 3 ON\n"
        "MOVC V=200 z5 20,10,70,0,100,0,30,0,75,0,95,0\r\n"
        "MOVJ VJ=50 z0 0,0,90,0,90,0");  // no final line end
    ASSERT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(d.out, "");
    ASSERT_EQ(d.list.size(), 6u);
    const int lines[] = {2, 5, 6, 7, 8, 9};
    const int kinds[] = {0, 0, 1, 2, 0, 0};
    int i = 0;
    for (const InstructionUnit& u : d.list) {
        EXPECT_EQ(u.line_number, lines[i]) << i;
        EXPECT_EQ(u.kind, kinds[i]) << i;
        ++i;
    }
    auto it = d.list.begin();
    std::advance(it, 4);
    EXPECT_EQ(it->data.move_data.type, kMoveCircular);
    EXPECT_EQ(it->data.move_data.position_num, 12);
    EXPECT_DOUBLE_EQ(it->data.move_data.position[11], 0.0);
}

TEST(DecodeInstructionFile, UnnamedSpeedKeepsTheValueOfTheLastLineThatNamedIt) {
    Decoded d = DecodeText(
        "MOVL VJ=40 z5 1,2,3,4,5,6\n"   // nothing named V= yet: 0
        "MOVJ VJ=50 z5 0,0,90,0,90,0\n"
        "MOVL V=200 z5 10,5,80,0,95,0\n"
        "TIMER T=10\n"
        "MOVJ V=80 z5 0,0,90,0,90,0\n"    // joint ratio still 0.5
        "MOVL VJ=30 z5 10,5,80,0,95,0\n"  // line speed from the last V=: 80
        "MOVJ V=90 z5 0,0,90,0,90,0\n");
    ASSERT_EQ(d.result, 0) << d.out;
    const double line_speed[] = {0.0, 0.0, 200.0, 200.0, 80.0, 80.0, 90.0};
    const double ratio[] = {0.4, 0.5, 0.5, 0.5, 0.5, 0.3, 0.3};
    ASSERT_EQ(d.list.size(), 7u);
    int i = 0;
    for (const InstructionUnit& u : d.list) {
        if (u.kind == kMoveInstruction) {
            EXPECT_DOUBLE_EQ(u.data.move_data.speed.line_speed, line_speed[i]) << i;
            EXPECT_DOUBLE_EQ(u.data.move_data.speed.joint_speed_ratio, ratio[i]) << i;
        }
        ++i;
    }
}

TEST(DecodeInstructionFile, FailuresPrintExactMessages) {
    {
        std::list<InstructionUnit> list;
        testing::internal::CaptureStdout();
        tqltest::ScratchDir dir;
        int r = DecodeInstructionFile("file/missing.txt", &list);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(r, -1);
        EXPECT_EQ(out, "Open file/missing.txt failure! \n");
    }
    {
        Decoded d = DecodeText("// only\n   // comments\n");
        EXPECT_EQ(d.result, -1);
        EXPECT_EQ(d.out, "Error : prog.txt is an empty file.\n");
    }
    {
        // First instruction with a bad zone: the zone message, then the
        // format message with nothing between the number and the text.
        Decoded d = DecodeText("MOVL V=200 z7 1,2,3,4,5,6\n");
        EXPECT_EQ(d.result, -1);
        EXPECT_EQ(d.out, "Zone format error !\nLine 1Format error !\n");
        EXPECT_TRUE(d.list.empty());
    }
    {
        // The number counts instructions, not physical lines; the list holds
        // the instructions before the bad line.
        Decoded d = DecodeText(
            "// header\n"
            "MOVJ VJ=100 z5 0,0,90,0,90,0\n"
            "// middle\n"
            "DOUT 1\n"
            "// before the bad line\n"
            "movl V=200 z5 1,2,3,4,5,6\n"
            "MOVJ VJ=100 z5 0,0,90,0,90,0\n");
        EXPECT_EQ(d.result, -1);
        EXPECT_EQ(d.out, "Line 3Format error !\n");
        EXPECT_EQ(d.list.size(), 2u);
    }
    {
        Decoded d = DecodeText("MOVJ VJ=100 z5 0,0,90,0,90,0\n\nMOVJ VJ=100 z5 0,0,90,0,90,0\n");
        EXPECT_EQ(d.result, -1);
        EXPECT_EQ(d.out, "Line 2Format error !\n");
    }
    {
        Decoded d = DecodeText("MOVJ VJ=100 z5\n");
        EXPECT_EQ(d.out, "MOV format error !\nLine 1Format error !\n");
    }
    {
        Decoded d = DecodeText("MOVL V200 z5 1,2,3,4,5,6\n");
        EXPECT_EQ(d.out, "Speed format error !\nLine 1Format error !\n");
    }
}

TEST(DecodeInstructionFile, LineLengthLimitIs255Characters) {
    // 255 characters: accepted (the point list pads with zeros).
    std::string head = "MOVJ VJ=100 z5 1";
    std::string ok = head + std::string(255 - head.size(), '0');
    ASSERT_EQ(ok.size(), 255u);
    Decoded good = DecodeText(ok + "\n");
    EXPECT_EQ(good.result, 0) << good.out;

    Decoded bad = DecodeText("// fine\n" + ok + "0\nMOVJ VJ=100 z5 0,0,0,0,0,0\n");
    EXPECT_EQ(bad.result, -1);
    EXPECT_EQ(bad.out, "Line 2 is longer than 255 characters !\n");

    std::string comment = "//" + std::string(300, '-');
    Decoded long_comment = DecodeText(comment + "\nDOUT\n");
    EXPECT_EQ(long_comment.result, -1);
}

TEST(DecodeInstructionFile, CollectsAtMost1001Instructions) {
    std::string text = "// many\n";
    for (int i = 0; i < 1001; ++i) text += "MOVJ VJ=100 z5 0,0,90,0,90,0\n";
    Decoded exact = DecodeText(text);
    EXPECT_EQ(exact.result, 0);
    EXPECT_EQ(exact.list.size(), 1001u);
    EXPECT_EQ(exact.list.back().line_number, 1002);

    // Reading stops once more than 1000 are held, before a later bad line.
    Decoded more = DecodeText(text + "TIMER T=1\nnot an instruction\n");
    EXPECT_EQ(more.result, 0);
    EXPECT_EQ(more.list.size(), 1001u);

    // A move past the collected instructions would be cut off: refused,
    // wherever it stands after them.
    struct Tail {
        const char* text;
        const char* message;
    } tails[] = {
        {"MOVJ VJ=100 z5 0,0,0,0,0,0\n", "Line 1003 exceeds the limit of 1001 instructions !\n"},
        {"DOUT 1\n// end\r\nMOVL V=9 z0 bad\r\n", "Line 1005 exceeds the limit of 1001 instructions !\n"},
    };
    for (const Tail& tail : tails) {
        Decoded cut = DecodeText(text + tail.text);
        EXPECT_EQ(cut.result, -1) << tail.text;
        EXPECT_EQ(cut.out, tail.message);
    }
    // Comments and non-move lines after the limit leave the result alone.
    Decoded quiet = DecodeText(text + "// MOVJ VJ=100 z5 0,0,0,0,0,0\nDOUT MOVJ\nTIMER T=5\n");
    EXPECT_EQ(quiet.result, 0) << quiet.out;
    EXPECT_EQ(quiet.out, "");
}

// Motion program language: the records one instruction line becomes and the
// decoder that turns a program file into an ordered list of them.
//
// A program is a plain text file, one instruction a line (at most 255
// characters), comment lines starting with "//":
//
//   MOVJ VJ=<percent of joint speed> z<zone> <J joint angles, degrees>
//   MOVL V=<Cartesian speed> z<zone> <J joint angles of the target, degrees>
//   MOVC V=<Cartesian speed> z<zone> <J angles of the arc's middle>,<J angles of the target>
//   TIMER T=<ms>
//   DOUT <anything>
//
// The decoder only parses: joint counts and units are checked when the list is
// converted into moves (program.h).
#ifndef TQL_INSTRUCTION_H
#define TQL_INSTRUCTION_H

#include <list>
#include <string>

// The motion program run by "mode4", and the reset's test program; both
// relative to the working directory.
constexpr char kProgramFileName[] = "file/data.txt";
constexpr char kResetProgramFileName[] = "file/reset_test.txt";

// Longest instruction line, characters (without the line end).
constexpr int kMaxInstructionLineLength = 255;
// Numbers a point list may hold.
constexpr int kMaxInstructionPositionNum = 40;
// The decoder stops collecting once it holds more than this many instructions.
constexpr int kMaxInstructionNum = 1000;

// InstructionUnit::kind
enum InstructionKind {
    kMoveInstruction = 0,   // MOVJ, MOVL, MOVC
    kTimerInstruction = 1,  // TIMER
    kDoutInstruction = 2,   // DOUT
};

// MoveInstructionData::type (and InterpolationData::type)
enum MoveInstructionType {
    kMoveJoint = 0,     // MOVJ
    kMoveLinear = 1,    // MOVL
    kMoveCircular = 2,  // MOVC
};

// Speed of a move. Only the field named on the line is written.
struct SpeedData {
    double reserved_speed_[2] = {0.0, 0.0};  // never set by the decoder
    double line_speed = 0.0;         // after "V=", the robot's Cartesian speed unit
    double joint_speed_ratio = 0.0;  // after "VJ=", divided by 100

    // token: "VJ=<percent>" or "V=<speed>". 0, or -1 when malformed.
    int GetInstructionSpeedData(char* token);
};

// Blending zone of a move; the zone number selects a fixed table row.
struct ZoneData {
    int zone = 0;             // number after "z"
    double zone_ratio = 0.0;
    double zone_size = 0.0;

    // token: "z<number>" with a number of the zone table. 0, or -1.
    int GetInstructionZoneData(char* token);
};

struct TimerInstructionData {
    int time = 0;  // ms
    // The time written after "=" (ms; -1 when it is not a whole number of
    // milliseconds from 0 to an hour). `time` keeps the described 0; this is
    // what a program that runs its TIMER lines waits.
    int requested_time = -1;

    // line: the whole TIMER line. 0, or -1 when it holds no "=".
    int GetTimerInstructionData(char* line);
    // Sleeps the calling thread for `time` milliseconds.
    void ExecuteInstruction();
};

struct MoveInstructionData {
    int type = kMoveJoint;  // MoveInstructionType
    int position_num = 0;   // numbers in the point list (see GetLineArray)
    double position[kMaxInstructionPositionNum] = {};  // degrees, file order
    SpeedData speed;
    ZoneData zone;

    // line: the whole MOVJ/MOVL/MOVC line. 0, or -1 (message printed).
    int GetMoveInstructionData(char* line);
};

// Both payloads side by side; InstructionUnit::kind says which one is meaningful.
// A DOUT line as "DOUT <output> ON|OFF". Every DOUT line is a valid
// instruction; one that does not read so keeps output -1.
struct DoutInstructionData {
    int output = -1;  // digital output number, 0 .. kMaxDigitalOutput
    bool on = false;

    // line: the whole DOUT line. 0, or -1 when it does not read as above.
    int GetDoutInstructionData(const char* line);
};
constexpr int kMaxDigitalOutput = 63;

struct InsturctionUnion {
    TimerInstructionData timer_data;
    MoveInstructionData move_data;
    DoutInstructionData dout_data;
};

// One decoded instruction line.
struct InstructionUnit {
    int line_number = 0;  // physical line in the file, from 1, comments counted
    int kind = kMoveInstruction;  // InstructionKind
    InsturctionUnion data;

    // Fills kind and payload from one line (no line end); line_number is
    // left alone. 0, or -1 when the line is not an instruction.
    int DecodeInstruction(char* line);
};

// Parses a comma-separated number list into values[0..]. Returns the index
// reached plus one: n numbers give n, a trailing comma counts one more value 0,
// a list still holding a comma after `max` numbers gives max + 1 (callers'
// count checks rely on that). A null text gives 0. Non-numbers read as 0.
int GetLineArray(const char* text, double* values, int max);

// Decodes a whole program file and appends its instructions to `list` in file
// order, at most kMaxInstructionNum + 1 of them; later TIMER and DOUT lines
// are left out, a later move line refuses the file. One scratch record serves
// every line, so a move line's unnamed speed field keeps the value of the
// last line that named it. 0, or -1 with a message on standard output.
int DecodeInstructionFile(std::string file_name, std::list<InstructionUnit>* list);

#endif  // TQL_INSTRUCTION_H

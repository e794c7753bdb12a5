// Program execution: conversion of decoded instructions into a table of moves,
// the operator's speed override and operation cycle mode, and the run of a
// whole program file.
#ifndef TQL_PROGRAM_H
#define TQL_PROGRAM_H

#include <limits>
#include <list>
#include <memory>
#include <string>

#include "instruction.h"
#include "interpolation.h"
#include "mechnical_unit.h"
#include "speed_profile.h"

// Moves one program may hold (size of the execution table).
constexpr int kInterpolationTableSize = 1000;

// Degrees to radians with the system's truncated pi (3.1415926 / 180).
constexpr double kProgramDegreeToRadian = 0.017453292222222222;

// What a program does between two moves when it runs its TIMER and DOUT
// lines (system_parameters row 7 "ON"): waits and output switches, in file
// order, with the arm at rest.
constexpr int kMaxProgramActions = 16;
struct ProgramActions {
    int count = 0;
    int line[kMaxProgramActions] = {};    // program line of each
    int output[kMaxProgramActions] = {};  // digital output, or -1 for a wait
    int value[kMaxProgramActions] = {};   // wait: ms; output: 1 on, 0 off
};

// One program move, ready for interpolation. Joint vectors hold J doubles
// (J = Robot::GetRobotJointNum), radians.
struct InterpolationData {
    int line_number = 0;           // physical line of the instruction in its file
    int type = kMoveJoint;         // MoveInstructionType: 0 joint, 1 linear, 2 circular
    JointPath joint_path[kMaxJointNum] = {};
    LinearPath linear_path = {};
    CircularPath circular_path = {};
    AccDecDate joint_acc_dec[kMaxJointNum];  // per joint, rad/s, rad/s^2, rad/s^3
    AccDecDate line_acc_dec;                 // translation, the robot's Cartesian units
    AccDecDate rotate_acc_dec;               // rotation, rad/s, rad/s^2, rad/s^3
    SpeedData speed;
    ZoneData zone;  // carried from the instruction; blending does not consult it
    // Prepared segment: acceleration-phase, deceleration-phase and total
    // time, seconds. Not a number while the segment is unprepared.
    double acc_time = std::numeric_limits<double>::quiet_NaN();
    double dec_time = std::numeric_limits<double>::quiet_NaN();
    double total_time = std::numeric_limits<double>::quiet_NaN();
    // The scaling pass's slow-down of this move (system row 8): its speed
    // limits divided by it, accelerations by its square, jerks by its cube.
    // 1: as programmed.
    double slow_down = 1.0;
    // Straight lines and arcs: their set-points' shift (CartesianStartBias).
    double ik_bias[kMaxJointNum] = {};
    double start_position[kMaxJointNum] = {};
    double auxiliary_position[kMaxJointNum] = {};  // circular moves: the arc's middle
    double target_position[kMaxJointNum] = {};
    ProgramActions before;  // run before this move starts
    ProgramActions after;   // run after this move (the program's last move only)

    // Prepares this move's segment with the speed overrides and the slow-down
    // applied. 0, or -1 when a Cartesian segment cannot be built (its times
    // are then unset).
    int MovePreProcess(Robot* robot);
    // Joint angles of this move t seconds after its start. On entry `joint`
    // holds the previous period's angles (the inverse kinematics seed). 0 or -1.
    int MovePathFlow(Robot* robot, double* joint, double t);
};

// Converts the move instructions of `list` into table[0..] (at most
// kInterpolationTableSize entries), chaining start positions from
// current_joint. TIMER and DOUT lines are skipped, or, with the program I/O
// switch on, kept as the actions around the moves. Returns the number of moves
// (also stored in *count), or -1 with a message.
int InstructionDataToMoveData(std::list<InstructionUnit>* list, InterpolationData* table,
                              double* current_joint, Robot* robot, int* count);

// Decodes a program file and converts it into a move table starting where the
// robot stands (switched to position mode); *count receives the number of
// moves. Null, with a message, on any failure.
std::unique_ptr<InterpolationData[]> LoadProgramFile(Robot* robot, std::string file_name, int* count);
// Decodes, converts and runs a program file with the operator's settings.
// 0, or -1 on any failure.
int ExecuteFileInstruction(Robot* robot, std::string file_name);

// Asks (in terminal use) for the override and cycle mode, then runs the table
// in that mode. 0, or -1.
int ReplayParametersConfiguration(Robot* robot, InterpolationData* table, int count);

// The program line whose move the arm is streaming (its physical line in the
// file, from 1), or 0 while no program moves the arm; for a host's display.
int GetRunningProgramLine();
void PublishRunningProgramLine(int line);

// Where a STEP run reads its words (FORWARD, BACKWARD, anything else ends
// it): standard input by default. A host's source blocks until its operator
// answers and returns false when nobody is left to answer. nullptr restores
// standard input.
typedef bool (*StepWordSource)(std::string* word);
void SetStepWordSource(StepWordSource source);
// One word from the installed source or standard input; false when none came.
bool ReadStepWord(std::string* word);

// Operation cycle mode of program runs.
enum OperationCycleMode {
    STEP = 0,        // one move at a time, FORWARD / BACKWARD
    CYCLE = 1,       // the program once
    CONTINUOUS = 2,  // the program again and again until stopped
};

void SetOperationCycleMode(OperationCycleMode mode);
OperationCycleMode GetOperationCycleMode();
int GetOperationCycleModeFromTerminal();

// Blend consecutive moves of a CYCLE or CONTINUOUS run.
void SetSmoothReplay(bool smooth);
bool GetSmoothReplay();

// Speed override: the operator's factor (0.1 to 1) and the factors the
// runners apply. Only element 0 of each factor array is ever other than 1.0.
extern double joint_space[4];             // joint speed factor
extern double cartesian_space_trans[4];   // Cartesian translation speed factor
extern double cartesian_space_rot[4];     // Cartesian rotation speed factor

// Range of the replay override accepted by SetSpeedOverride: (kOverrideLow,
// kOverrideHigh], i.e. 0.1 .. 1 slightly widened so that 0.1 and 1 typed by a
// person pass despite decimal rounding.
constexpr double kOverrideLow = 0.0999999;
constexpr double kOverrideHigh = 1.000001;

void InitSpeedOverride();
void SetReplayOverride(double value);
double GetReplayOverride();
// Copies the replay override into the factors; -1 (factors left at 1.0) when
// it is outside 0.1..1.
int SetSpeedOverride();
int GetReplayOverrideFromTerminal();

#endif  // TQL_PROGRAM_H

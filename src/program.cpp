// Program execution: instructions to moves, speed override, cycle modes.
#include "program.h"

#include <atomic>
#include <cmath>
#include <iostream>
#include <limits>
#include <memory>
#include <new>

#include "database.h"
#include "execute.h"
#include "interface.h"
#include "path_list.h"
#include "timing.h"

// Override factors read by the runners (element 0 only).
double joint_space[4] = {1.0, 1.0, 1.0, 1.0};
double cartesian_space_trans[4] = {1.0, 1.0, 1.0, 1.0};
double cartesian_space_rot[4] = {1.0, 1.0, 1.0, 1.0};

namespace {

// Process settings; a host that never runs the terminal dialogue gets CYCLE,
// no blending, override 1.0. Atomic because a host may change them from its
// own user-interface thread.
std::atomic<int> operation_cycle_mode{CYCLE};
std::atomic<bool> is_smooth_replay{false};
std::atomic<double> replay_override{1.0};

// Pause between two runs of a CONTINUOUS cycle, ms.
constexpr double kContinuousPauseMs = 500.0;
// The CONTINUOUS counter runs 1..kCycleCountWrap - 1 and wraps.
constexpr int kCycleCountWrap = 100001;

// Discards a failed terminal read so that later prompts read fresh input.
void RecoverInput() {
    std::cin.clear();
    std::cin.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
}

std::string ReadWord() {
    std::string word;
    if (!(std::cin >> word)) {
        RecoverInput();
        word.clear();
    }
    return word;
}

bool AllFinite(const double* v, int n) {
    for (int i = 0; i < n; ++i)
        if (!std::isfinite(v[i])) return false;
    return true;
}

// Prints the refusal of a point list for the move type and returns -1.
int PositionIllegal(int type, int line_number) {
    if (type == kMoveCircular)
        std::cout << "Line " << line_number << " instruction position is illegal" << std::endl;
    else
        std::cout << "Line " << line_number << " instruction position is illegal !" << std::endl;
    return -1;
}

// A speed from a program line (VJ ratio or V) must be a positive finite number.
bool SpeedLegal(double speed) { return speed > 0.0 && std::isfinite(speed); }

// Prints the refusal of a move's speed and returns -1.
int SpeedIllegal(int line_number) {
    std::cout << "Line " << line_number << " instruction speed is illegal !" << std::endl;
    return -1;
}

// Runs the table once, blended or not.
int RunPathListOnce(Robot* robot, InterpolationData* table, int count) {
    if (GetSmoothReplay()) return MovePathListSmooth(robot, table, count);
    return MovePathList(robot, table, count);
}

int RunContinuous(Robot* robot, InterpolationData* table, int count) {
    // Nothing to repeat: an empty program succeeds at once instead of
    // cycling forever.
    if (count == 0) return 0;
    int cycle = 0;
    for (;;) {
        ++cycle;
        if (cycle >= kCycleCountWrap) cycle = 1;
        std::cout << "Cycle count : " << cycle << std::endl;
        if (RunPathListOnce(robot, table, count) < 0) return -1;
        tql::SleepMilliseconds(kContinuousPauseMs);
        // A stop requested during the pause ends the run here (the next
        // run's start would refuse it all the same).
        if (TakeStopRequest()) return -1;
    }
}

// Appends a TIMER or DOUT line to the actions between two moves. 0, or -1
// with the line's message.
int AddAction(const InstructionUnit& unit, ProgramActions* actions) {
    if (actions->count >= kMaxProgramActions) {
        std::cout << "Line " << unit.line_number << ": more than " << kMaxProgramActions
                  << " TIMER and DOUT lines in a row." << std::endl;
        return -1;
    }
    const int k = actions->count;
    actions->line[k] = unit.line_number;
    if (unit.kind == kTimerInstruction) {
        if (unit.data.timer_data.requested_time < 0) {
            std::cout << "Line " << unit.line_number << ": TIMER T= takes whole milliseconds, 0 to 3600000."
                      << std::endl;
            return -1;
        }
        actions->output[k] = -1;
        actions->value[k] = unit.data.timer_data.requested_time;
    } else {
        const DoutInstructionData& dout = unit.data.dout_data;
        if (dout.output < 0) {
            std::cout << "Line " << unit.line_number << ": DOUT takes an output (0 to " << kMaxDigitalOutput
                      << ") and ON or OFF." << std::endl;
            return -1;
        }
        if (!DigitalOutputHandlerInstalled()) {
            std::cout << "Line " << unit.line_number << ": no digital output handler is installed." << std::endl;
            return -1;
        }
        actions->output[k] = dout.output;
        actions->value[k] = dout.on ? 1 : 0;
    }
    ++actions->count;
    return 0;
}

}  // namespace

int InstructionDataToMoveData(std::list<InstructionUnit>* list, InterpolationData* table,
                              double* current_joint, Robot* robot, int* count) {
    if (list == nullptr || table == nullptr || current_joint == nullptr || robot == nullptr) return -1;
    const int J = robot->GetRobotJointNum();
    if (J < 0 || J > kMaxJointNum) {
        std::cout << "Joint number " << J << " is invalid." << std::endl;
        return -1;
    }
    AccDecDate joint_limits[kMaxJointNum];
    AccDecDate line_limits;
    AccDecDate rotate_limits;
    robot->GetJointSpeedAccDecParameters(joint_limits);
    robot->GetLineSpeedAccDecParameters(&line_limits);
    robot->GetRotateSpeedAccDecParameters(&rotate_limits);

    int index = 0;
    const double* previous_target = current_joint;
    // TIMER and DOUT lines since the last move: with the program I/O switch
    // on they run before the next move (after the last, when none follows).
    ProgramActions pending;
    const bool actions = GetResourceDate()->program_io_switch;
    for (const InstructionUnit& unit : *list) {
        if (unit.kind != kMoveInstruction && actions && AddAction(unit, &pending) < 0) return -1;
        if (unit.kind != kMoveInstruction) continue;  // TIMER and DOUT take no time here
        const MoveInstructionData& move = unit.data.move_data;
        if (index >= kInterpolationTableSize) {
            std::cout << "Line " << unit.line_number << " exceeds the limit of " << kInterpolationTableSize
                      << " moves !" << std::endl;
            return -1;
        }
        InterpolationData& data = table[index];
        data.type = move.type;
        switch (move.type) {
        case kMoveJoint:
        case kMoveLinear:
            if (move.position_num != J || !AllFinite(move.position, J))
                return PositionIllegal(move.type, unit.line_number);
            for (int j = 0; j < J; ++j) data.target_position[j] = move.position[j];
            break;
        case kMoveCircular:
            if (move.position_num != 2 * J || !AllFinite(move.position, 2 * J))
                return PositionIllegal(move.type, unit.line_number);
            for (int j = 0; j < J; ++j) {
                data.auxiliary_position[j] = move.position[j] * kProgramDegreeToRadian;
                data.target_position[j] = move.position[J + j];
            }
            break;
        default:
            std::cout << "Line " << unit.line_number << " instruction type is illegal !" << std::endl;
            return -1;
        }
        for (int j = 0; j < J; ++j) data.target_position[j] *= kProgramDegreeToRadian;
        for (int j = 0; j < J; ++j) data.start_position[j] = previous_target[j];
        data.speed = move.speed;
        data.zone = move.zone;

        if (move.type == kMoveJoint) {
            // VJ scales every joint's speed limit; accelerations and jerks stay.
            const double ratio = move.speed.joint_speed_ratio;
            if (!SpeedLegal(ratio)) return SpeedIllegal(unit.line_number);
            for (int j = 0; j < J; ++j) {
                data.joint_acc_dec[j] = joint_limits[j];
                data.joint_acc_dec[j].speed *= ratio;
            }
        } else {
            // V lowers the robot's translation speed, never raises it.
            const double speed = move.speed.line_speed;
            if (!SpeedLegal(speed)) return SpeedIllegal(unit.line_number);
            data.line_acc_dec = line_limits;
            if (data.line_acc_dec.speed > speed) data.line_acc_dec.speed = speed;
            data.rotate_acc_dec = rotate_limits;
        }
        data.line_number = unit.line_number;
        data.before = pending;
        data.after = ProgramActions();
        pending = ProgramActions();
        previous_target = data.target_position;
        ++index;
    }
    if (index > 0) {
        table[index - 1].after = pending;
    } else if (pending.count > 0) {
        std::cout << "Line " << pending.line[0] << ": TIMER and DOUT lines without a move; nothing to run."
                  << std::endl;
    }
    if (count != nullptr) *count = index;
    return index;
}

std::unique_ptr<InterpolationData[]> LoadProgramFile(Robot* robot, std::string file_name, int* count) {
    robot->ActivatePositionMode();
    double current_joint[kMaxJointNum] = {};
    robot->GetStartJoints(current_joint);
    std::unique_ptr<InterpolationData[]> table(new (std::nothrow) InterpolationData[kInterpolationTableSize]);
    if (!table) {
        std::cout << "Memory error !" << std::endl;
        return nullptr;
    }
    std::list<InstructionUnit> list;
    if (DecodeInstructionFile(file_name, &list) < 0) return nullptr;
    if (InstructionDataToMoveData(&list, table.get(), current_joint, robot, count) < 0) return nullptr;
    return table;
}

namespace {
std::atomic<int> running_line{0};
std::atomic<StepWordSource> step_words{nullptr};
}  // namespace

int GetRunningProgramLine() { return running_line.load(std::memory_order_relaxed); }
void PublishRunningProgramLine(int line) { running_line.store(line, std::memory_order_relaxed); }
void SetStepWordSource(StepWordSource source) { step_words.store(source); }

bool ReadStepWord(std::string* word) {
    if (const StepWordSource source = step_words.load()) return source(word);
    return static_cast<bool>(std::cin >> *word);
}

int ExecuteFileInstruction(Robot* robot, std::string file_name) {
    if (robot == nullptr) return -1;
    int count = 0;
    std::unique_ptr<InterpolationData[]> table = LoadProgramFile(robot, file_name, &count);
    if (!table) return -1;
    const int result = ReplayParametersConfiguration(robot, table.get(), count) == 0 ? 0 : -1;
    PublishRunningProgramLine(0);
    return result;
}

int ReplayParametersConfiguration(Robot* robot, InterpolationData* table, int count) {
    if (robot == nullptr || table == nullptr || count < 0) return -1;
    robot->ActivatePositionMode();
    if (IsTerminal() && GetReplayOverrideFromTerminal() < 0) return -1;
    if (SetSpeedOverride() < 0) return -1;
    if (IsTerminal() && GetOperationCycleModeFromTerminal() < 0) return -1;

    switch (GetOperationCycleMode()) {
    case CYCLE:
        return RunPathListOnce(robot, table, count) == 0 ? 0 : -1;
    case STEP:
        return ReplayPathStep(robot, table, count) == 0 ? 0 : -1;
    case CONTINUOUS:
        return RunContinuous(robot, table, count);
    default:
        std::cout << "The value of operation cycle is invalid." << std::endl;
        return -1;
    }
}

void SetOperationCycleMode(OperationCycleMode mode) { operation_cycle_mode.store(mode); }

OperationCycleMode GetOperationCycleMode() {
    return static_cast<OperationCycleMode>(operation_cycle_mode.load());
}

int GetOperationCycleModeFromTerminal() {
    // The separator after STEP is the ideographic comma U+3001.
    std::cout << "Input operation cycle : STEP、CYCLE and CONTINUOUS" << std::endl;
    const std::string word = ReadWord();
    if (word == "STEP") {
        SetOperationCycleMode(STEP);
        return 0;
    }
    if (word != "CONTINUOUS" && word != "CYCLE") {
        std::cout << "The value of operation cycle is invalid." << std::endl;
        return -1;
    }
    std::cout << "Is smooth (YES/NO) " << std::flush;
    // Only the exact word "YES" blends; "yes" or anything else does not.
    SetSmoothReplay(ReadWord() == "YES");
    SetOperationCycleMode(word == "CYCLE" ? CYCLE : CONTINUOUS);
    return 0;
}

void SetSmoothReplay(bool smooth) { is_smooth_replay.store(smooth); }

bool GetSmoothReplay() { return is_smooth_replay.load(); }

void InitSpeedOverride() {
    for (int i = 0; i < 4; ++i) {
        joint_space[i] = 1.0;
        cartesian_space_trans[i] = 1.0;
        cartesian_space_rot[i] = 1.0;
    }
}

void SetReplayOverride(double value) { replay_override.store(value); }

double GetReplayOverride() { return replay_override.load(); }

int SetSpeedOverride() {
    InitSpeedOverride();
    const double r = GetReplayOverride();
    if (r > kOverrideLow && r <= kOverrideHigh) {
        joint_space[0] = r;
        cartesian_space_trans[0] = r;
        cartesian_space_rot[0] = r;
        return 0;
    }
    std::cout << "speed override = " << r << std::endl;
    std::cout << "The value of speed override is invalid(0.1-1)." << std::endl;
    return -1;
}

int GetReplayOverrideFromTerminal() {
    std::cout << "Input speed override 0.1-1 : " << std::flush;
    double value = 0.0;
    if (std::cin >> value) {
        SetReplayOverride(value);  // the range is checked by SetSpeedOverride
        return 0;
    }
    RecoverInput();
    std::cout << "The value of speed override is invalid(0.1-1)." << std::endl;
    return -1;
}

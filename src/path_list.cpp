// Program move table runners: preparation, plain and blended streaming, and
// operator stepping.
#include "path_list.h"

#include <csignal>
#include <cmath>
#include <iostream>
#include <limits>
#include <string>

#include "execute.h"
#include "interface.h"
#include "interpolation.h"
#include "math_fun.h"
#include "program.h"
#include "timing.h"

namespace {

// Longest move a table may hold, seconds; keeps every tick count well inside int.
constexpr double kMaxMoveSeconds = 1.0e5;
// Distinct arc points must be at least this far apart, mm.
constexpr double kMinArcPointGap = 1.0e-3;
// Smallest sine of the angle at the start point of a usable arc.
constexpr double kMinArcSine = 1.0e-6;
// A planned arc must end this close to the target position, mm.
constexpr double kArcEndTolerance = 0.05;

int JointCount(Robot* robot) {
    int n = robot->GetRobotJointNum();
    if (n < 0) n = 0;
    if (n > kMaxJointNum) n = kMaxJointNum;
    return n;
}

// Whole control periods in a duration (seconds), rounded to nearest.
int Ticks(double seconds) {
    return static_cast<int>(std::lround(seconds / PERIOD));
}

void CopyJoints(const double* from, double* to, int n) {
    for (int i = 0; i < n; ++i) to[i] = from[i];
}

bool SameJoints(const double* a, const double* b, int n) {
    for (int i = 0; i < n; ++i)
        if (a[i] != b[i]) return false;
    return true;
}

double Distance3(const double* a, const double* b) {
    double d[3];
    for (int i = 0; i < 3; ++i) d[i] = b[i] - a[i];
    return norm(d, 3);
}

// The three arc points (flange positions, mm) define one circle.
bool ArcPointsUsable(const double* p1, const double* p2, const double* p3) {
    const double d12 = Distance3(p1, p2);
    const double d13 = Distance3(p1, p3);
    const double d23 = Distance3(p2, p3);
    if (d12 < kMinArcPointGap || d13 < kMinArcPointGap || d23 < kMinArcPointGap) return false;
    double u[3];
    double v[3];
    double w[3];
    for (int i = 0; i < 3; ++i) {
        u[i] = p2[i] - p1[i];
        v[i] = p3[i] - p1[i];
    }
    cross_3d(u, v, w);
    return norm(w, 3) >= kMinArcSine * d12 * d13;
}

// A prepared move can be streamed: finite, non-negative phase times that fit
// inside the total.
bool MovePrepared(const InterpolationData& m) {
    if (!std::isfinite(m.acc_time) || !std::isfinite(m.dec_time) || !std::isfinite(m.total_time)) return false;
    if (m.acc_time < 0.0 || m.dec_time < 0.0 || m.total_time < 0.0) return false;
    if (m.total_time > kMaxMoveSeconds) return false;
    return m.acc_time + m.dec_time <= m.total_time + em;
}

// Refuses the whole run, before any motion, when a move could not be prepared.
int CheckPreparedMoves(const InterpolationData* table, int n) {
    for (int i = 0; i < n; ++i) {
        if (!MovePrepared(table[i])) {
            std::cout << "Line " << table[i].line_number << " move preparation failed !" << std::endl;
            return -1;
        }
    }
    return 0;
}

// Prepares and checks a table for streaming; 0 or -1.
int PrepareForRun(Robot* robot, InterpolationData* table, int n) {
    PathListPreprocess(robot, table, n);
    return CheckPreparedMoves(table, n);
}

int StepToTarget(Robot* robot, InterpolationData& m) {
    double current[kMaxJointNum] = {};
    robot->GetStartJoints(current);
    switch (m.type) {
    case kMoveJoint:
        return MoveJointPath(robot, current, m.target_position, m.joint_acc_dec) < 0 ? -1 : 0;
    case kMoveLinear:
    case kMoveCircular:
        // In step mode a circular move goes straight to its target.
        return MoveLinearPath(robot, current, m.target_position, &m.line_acc_dec, &m.rotate_acc_dec) < 0 ? -1 : 0;
    default:
        std::cout << "Move type is invalid ." << std::endl;
        return -1;
    }
}

}  // namespace

int InterpolationData::MovePreProcess(Robot* robot) {
    // Unset until this preparation succeeds; the runners refuse unset moves.
    acc_time = dec_time = total_time = std::numeric_limits<double>::quiet_NaN();
    if (robot == nullptr) return -1;
    AccDecDate line = line_acc_dec;
    line.speed *= cartesian_space_trans[0];
    AccDecDate rotate = rotate_acc_dec;
    rotate.speed *= cartesian_space_rot[0];
    // A move the scaling pass has not slowed keeps its limits bit for bit.
    const bool slowed = slow_down != 1.0;
    if (slowed) {
        line = SlowedDown(line, slow_down);
        rotate = SlowedDown(rotate, slow_down);
    }
    switch (type) {
    case kMoveJoint: {
        const int n = JointCount(robot);
        AccDecDate limits[kMaxJointNum];
        for (int j = 0; j < n; ++j) {
            limits[j] = joint_acc_dec[j];
            limits[j].speed *= joint_space[0];
            if (slowed) limits[j] = SlowedDown(limits[j], slow_down);
        }
        // A joint move is always taken as prepared.
        MoveJointPreprocess(robot, start_position, target_position, joint_path, limits);
        acc_time = joint_path[0].profile_.ta_;
        dec_time = joint_path[0].profile_.td_;
        total_time = joint_path[0].profile_.ttotal_;
        return 0;
    }
    case kMoveLinear:
        if (MoveLinearPreprocess(robot, start_position, target_position, &linear_path, &line, &rotate) < 0)
            return -1;
        {
            double pose[7];
            linear_path.Interpolation(0.0, pose);
            CartesianStartBias(robot, start_position, pose, ik_bias);
        }
        acc_time = linear_path.ta_;
        dec_time = linear_path.td_;
        total_time = linear_path.tall_;
        return 0;
    case kMoveCircular: {
        // Three points that do not define a circle would give an undefined arc:
        // refuse them here rather than stream it.
        double p1[7];
        double p2[7];
        double p3[7];
        if (robot->ForwardKinematics(start_position, p1) < 0 || robot->ForwardKinematics(auxiliary_position, p2) < 0 ||
            robot->ForwardKinematics(target_position, p3) < 0)
            return -1;
        if (!ArcPointsUsable(p1, p2, p3)) return -1;
        if (MoveCircularPreprocess(robot, start_position, auxiliary_position, target_position, &circular_path, &line,
                                   &rotate) < 0)
            return -1;
        // The arc runs start -> middle -> on; it reaches the target only when
        // the middle point lies between the two.
        double end_pose[7];
        circular_path.Interpolation(circular_path.tall_, end_pose);
        if (!(Distance3(end_pose, p3) <= kArcEndTolerance)) return -1;
        {
            double pose[7];
            circular_path.Interpolation(0.0, pose);
            CartesianStartBias(robot, start_position, pose, ik_bias);
        }
        acc_time = circular_path.ta_;
        dec_time = circular_path.td_;
        total_time = circular_path.tall_;
        return 0;
    }
    default:
        return -1;
    }
}

int InterpolationData::MovePathFlow(Robot* robot, double* joint, double t) {
    double pose[7];
    switch (type) {
    case kMoveJoint: {
        const int n = JointCount(robot);
        for (int j = 0; j < n; ++j) joint[j] = joint_path[j].Interpolation(t);
        return 0;
    }
    case kMoveLinear:
    case kMoveCircular: {
        // Seeded with the set-point before: the shift is far smaller than
        // the distance between two branches, so the nearest solution is the
        // unshifted one on the same branch.
        const int n = JointCount(robot);
        const double fade = 1.0 - (type == kMoveLinear ? linear_path.Fraction(t) : circular_path.Fraction(t));
        if (type == kMoveLinear)
            linear_path.Interpolation(t, pose);
        else
            circular_path.Interpolation(t, pose);
        if (robot->FollowPose(joint, pose) < 0) return -1;
        for (int j = 0; j < n; ++j) joint[j] -= ik_bias[j] * fade;
        return 0;
    }
    default:
        return -1;
    }
}

namespace {

// Prepares table[0 .. count-1] as one blended run starting at `start` (J
// joint angles, rad): every move's segment, the blend lengths where two moves
// meet, no blend into the first or out of the last.
void PrepareBlendedRun(Robot* robot, InterpolationData* table, int count, const double* start) {
    const int n = JointCount(robot);
    CopyJoints(start, table[0].start_position, n);
    for (int i = 0; i < count; ++i) {
        if (i > 0 && table[i - 1].type != kMoveJoint && std::isfinite(table[i - 1].total_time)) {
            // A line or an arc ends on its end pose's inverse kinematics,
            // not exactly on its programmed joints: the next move starts
            // there, so the blend's superposition hands over without a step.
            double end[kMaxJointNum];
            CopyJoints(table[i - 1].target_position, end, n);
            QuietStdout quiet;  // an end the kinematics cannot solve is refused by the stream itself
            if (table[i - 1].MovePathFlow(robot, end, table[i - 1].total_time) == 0)
                CopyJoints(end, table[i].start_position, n);
        }
        table[i].MovePreProcess(robot);
        if (i > 0) {
            // Blend length: the shorter of the two phases that meet (on a tie
            // the earlier move's deceleration).
            InterpolationData& prev = table[i - 1];
            InterpolationData& cur = table[i];
            const double blend = cur.acc_time < prev.dec_time ? cur.acc_time : prev.dec_time;
            prev.dec_time = blend;
            cur.acc_time = blend;
        }
    }
    table[0].acc_time = 0.0;
    table[count - 1].dec_time = 0.0;
}

}  // namespace

int PathListPreprocess(Robot* robot, InterpolationData* table, int count) {
    // An empty table has no first move to start from.
    if (robot == nullptr || table == nullptr || count <= 0) return 0;
    // The program starts from where the arm was last sent (or stands).
    double start[kMaxJointNum] = {};
    robot->GetStartJoints(start);
    PrepareBlendedRun(robot, table, count, start);
    return 0;
}

namespace {

// Streams a whole run under a pre-flight first: a refusal names the program
// line whose set-point would have been refused, and nothing moves.
template <typename Stream>
int RunProgramWithPreflight(Stream stream) {
    int line = 0;
    if (PreflightWanted()) {
        tql::PreflightScope dry;
        if (stream(&line) < 0) {
            if (line > 0) std::cout << "Line " << line << " refused before motion." << std::endl;
            return -1;
        }
    }
    return stream(&line);
}

template <typename Output>
int StreamPathList(Robot* robot, InterpolationData* table, int count, int* line, Output& output);
template <typename Output>
int StreamPathListSmooth(Robot* robot, InterpolationData* table, int count, int* line, Output& output);

// Runs a program's TIMER and DOUT actions with the arm at rest: a wait holds
// the pose for its time (a stop ends it), an output is switched through the
// host's handler (not during a pre-flight). The waits keep the run's own
// schedule `timer`; without one (a STEP walk) outputs only.
int RunActions(const ProgramActions& actions, int* line, tql::PeriodicTimer* timer) {
    for (int k = 0; k < actions.count; ++k) {
        *line = actions.line[k];
        if (actions.output[k] < 0) {
            if (timer == nullptr) continue;
            for (int t = Ticks(actions.value[k] * 1e-3); t > 0; --t) {
                if (TakeStopRequest()) return -1;
                timer->Wait();
            }
        } else if (!tql::InPreflight() && SetDigitalOutput(actions.output[k], actions.value[k] != 0) < 0) {
            std::cout << "Line " << actions.line[k] << ": no digital output handler is installed." << std::endl;
            return -1;
        }
    }
    return 0;
}
// The same on a run's output: the waits are rest periods of its stream.
template <typename Output>
int RunActions(const ProgramActions& actions, int* line, Output& output) {
    // The arm rests at every action: a brake looking ahead ends here, before
    // any output it would never reach is switched.
    if (actions.count > 0 && output.Rest(0) < 0) return -1;
    for (int k = 0; k < actions.count; ++k) {
        *line = actions.line[k];
        if (actions.output[k] < 0) {
            if (output.Rest(Ticks(actions.value[k] * 1e-3)) < 0) return -1;
        } else if (Output::kToArm && !tql::InPreflight() &&
                   SetDigitalOutput(actions.output[k], actions.value[k] != 0) < 0) {
            std::cout << "Line " << actions.line[k] << ": no digital output handler is installed." << std::endl;
            return -1;
        }
    }
    return 0;
}

// The scaling pass of a program run (system row 8): simulate(probe, line)
// streams the run into the probe as it would be streamed to the arm, with
// every move's slow_down as it stands; each move beyond its joints' limits on
// its own is slowed by what it needs (times the margin) and the run measured
// again. Only once no move is beyond on its own are the moves that meet
// beyond the limits (a blend, a junction) slowed together.
// Every move starts at 1 (as programmed); with the switch off it stays there.
// A run that cannot be computed is refused where it fails (before motion
// with the pre-flight on); the moves up to the failing one are slowed as
// they need up to where it fails. A move that would need more than kMaxSlowDown, or whose slowed
// stream cannot be computed where the programmed one could, refuses the run
// (-1, with its line and the singularity).
template <typename Simulate>
int FitRunToJointLimits(Robot* robot, InterpolationData* table, int count, Simulate simulate) {
    if (robot == nullptr || table == nullptr || count <= 0) return 0;
    for (int i = 0; i < count; ++i) table[i].slow_down = 1.0;
    if (!CartesianScalingWanted()) return 0;
    int beyond = -1;  // a move no slow-down up to kMaxSlowDown helps
    int slowed = -1;  // the move slowed most by the last pass measured
    double step_at[kMaxJointNum] = {};
    int failing_line = 0;  // where the run as programmed cannot be computed (0: nowhere)
    {
        QuietStdout quiet;  // the pre-flight or the stream prints what fails
        for (int pass = 0; pass < kMaxScalingPasses; ++pass) {
            JointLimitProbe probe(robot, count);
            int line = 0;
            const int simulated = simulate(probe, &line);
            if (simulated < 0) {
                if (pass == 0) {
                    failing_line = line > 0 ? line : -1;
                } else if (line != failing_line) {
                    // Slowed down, a stream that ran as programmed meets a
                    // pose it cannot solve: it passes that close to a
                    // singularity.
                    if (slowed >= 0) beyond = slowed;
                    break;
                }
            } else {
                probe.Finish();
            }
            // A run that fails on the way (refused there, before motion
            // with the pre-flight on) still has its moves up to the failing
            // one slowed as they need up to where it fails; those after it
            // keep their timing.
            auto measured = [&](int i) { return failing_line == 0 || table[i].line_number <= failing_line; };
            bool own = false;
            for (int i = 0; i < count; ++i) own = own || (measured(i) && !(probe.Need(i) <= kScalingWithin));
            bool within = true;
            for (int i = 0; i < count && beyond < 0; ++i) {
                const double need = own ? probe.Need(i) : probe.SharedNeed(i);
                if (!measured(i) || need <= kScalingWithin) continue;
                within = false;
                if (slowed < 0 || need > probe.Need(slowed)) {
                    slowed = i;
                    for (int j = 0; j < kMaxJointNum; ++j) step_at[j] = probe.LargestStepAt(i)[j];
                }
                table[i].slow_down *= need * (1.0 + kScalingMargin);
                if (!(table[i].slow_down <= kMaxSlowDown)) {
                    beyond = i;
                    for (int j = 0; j < kMaxJointNum; ++j) step_at[j] = probe.LargestStepAt(i)[j];
                }
            }
            if (within || beyond >= 0 || failing_line < 0) break;
        }
    }
    if (beyond < 0) {
        if (failing_line < 0)  // failed before any line: nothing measured
            for (int i = 0; i < count; ++i) table[i].slow_down = 1.0;
        return 0;
    }
    for (int i = 0; i < count; ++i) table[i].slow_down = 1.0;
    std::cout << "Line " << table[beyond].line_number << ": the path passes through or too near "
              << NearestSingularity(robot, step_at) << ": refused before motion." << std::endl;
    return -1;
}

}  // namespace

namespace {

// A run: slowed to the joints' limits (the scaling pass), then checked whole
// (the pre-flight) and streamed to the arm. stream(output, line) streams the
// table into an output.
template <typename Stream>
int RunProgram(Robot* robot, InterpolationData* table, int count, Stream stream) {
    if (FitRunToJointLimits(robot, table, count,
                            [&](JointLimitProbe& probe, int* line) { return stream(probe, line); }) < 0)
        return -1;
    return RunProgramWithPreflight([&](int* line) {
        ArmOutput arm(robot);
        return arm.Finish(stream(arm, line));
    });
}

}  // namespace

int MovePathList(Robot* robot, InterpolationData* table, int count) {
    return RunProgram(robot, table, count,
                      [&](auto& output, int* line) { return StreamPathList(robot, table, count, line, output); });
}

int MovePathListSmooth(Robot* robot, InterpolationData* table, int count) {
    return RunProgram(robot, table, count, [&](auto& output, int* line) {
        return StreamPathListSmooth(robot, table, count, line, output);
    });
}

namespace {

// *line: the program line being streamed.
template <typename Output>
int StreamPathList(Robot* robot, InterpolationData* table, int count, int* line, Output& output) {
    if (robot == nullptr || table == nullptr || count < 0) return -1;
    if (count == 0) return 0;
    if (PrepareForRun(robot, table, count) < 0) return -1;
    const int n = JointCount(robot);
    double command[kMaxJointNum] = {};
    double previous[kMaxJointNum] = {};
    CopyJoints(table[0].start_position, command, n);
    if (output.Begin() < 0) return -1;
    output.Restart();  // one schedule for the whole run

    for (int i = 0; i < count; ++i) {
        InterpolationData& move = table[i];
        if (RunActions(move.before, line, output) < 0) return -1;
        *line = move.line_number;
        if (Output::kToArm && !tql::InPreflight()) PublishRunningProgramLine(*line);
        // Every move starts from the joints last streamed, not from the
        // programmed target of the one before (a straight line or an arc ends
        // on its inverse kinematics' solution): no step between moves.
        if (i > 0 && !SameJoints(move.start_position, command, n)) {
            CopyJoints(command, move.start_position, n);
            move.MovePreProcess(robot);
            if (CheckPreparedMoves(&move, 1) < 0) return -1;
        }
        const int ticks = Ticks(move.total_time);
        for (int k = 1; k <= ticks; ++k) {
            if (output.Stopped()) return -1;
            CopyJoints(command, previous, n);
            if (move.MovePathFlow(robot, command, k * PERIOD) < 0) return -1;
            if (output.Send(command, previous, i) < 0) return -1;
        }
    }
    return RunActions(table[count - 1].after, line, output);
}

// Streams moves table[0 .. count-1], prepared, blended among themselves;
// table[0] is move `index` of the run.
template <typename Output>
int StreamBlendedSegment(Robot* robot, InterpolationData* table, int count, int index, int* line, Output& output,
                         double* command);

// Blends never cross a TIMER or DOUT line: the run is streamed in segments
// between them, each ending at rest where the actions run.
template <typename Output>
int StreamPathListSmooth(Robot* robot, InterpolationData* table, int count, int* line, Output& output) {
    if (robot == nullptr || table == nullptr || count < 0) return -1;
    if (count == 0) return 0;
    // Cut at the moves with TIMER or DOUT lines before them (no blend across
    // a cut: the arm rests there); each piece is prepared as a blended run
    // from where the arm stands (the first) or the joints last streamed.
    double command[kMaxJointNum] = {};
    robot->GetStartJoints(command);
    output.Restart();  // one schedule for the whole run
    for (int first = 0; first < count;) {
        int end = first + 1;
        while (end < count && table[end].before.count == 0) ++end;
        PrepareBlendedRun(robot, table + first, end - first, command);
        if (CheckPreparedMoves(table + first, end - first) < 0) return -1;
        if (RunActions(table[first].before, line, output) < 0) return -1;
        if (StreamBlendedSegment(robot, table + first, end - first, first, line, output, command) < 0) return -1;
        first = end;
    }
    return count > 0 ? RunActions(table[count - 1].after, line, output) : 0;
}

template <typename Output>
int StreamBlendedSegment(Robot* robot, InterpolationData* table, int count, int index, int* line, Output& output,
                         double* command) {
    if (count == 0) return 0;
    const int n = JointCount(robot);
    // command (K, the superposed command): where the last segment left the arm.
    double previous[kMaxJointNum] = {};
    double tail[kMaxJointNum] = {};      // P: position along the finishing move
    double tail_old[kMaxJointNum] = {};
    double head[kMaxJointNum] = {};      // Q: position along the starting move
    double head_old[kMaxJointNum] = {};
    if (output.Begin() < 0) return -1;

    for (int i = 0; i < count; ++i) {
        InterpolationData& move = table[i];
        *line = move.line_number;
        if (Output::kToArm && !tql::InPreflight()) PublishRunningProgramLine(*line);
        if (i > 0) {
            // Blend phase: the command moves by the sum of both moves'
            // increments over the overlap.
            InterpolationData& before = table[i - 1];
            const double tail_start = before.total_time - before.dec_time;
            CopyJoints(command, tail, n);
            CopyJoints(move.start_position, head, n);
            const int ticks = Ticks(move.acc_time);
            for (int k = 1; k <= ticks; ++k) {
                if (output.Stopped()) return -1;
                CopyJoints(tail, tail_old, n);
                if (before.MovePathFlow(robot, tail, tail_start + k * PERIOD) < 0) return -1;
                CopyJoints(head, head_old, n);
                if (move.MovePathFlow(robot, head, k * PERIOD) < 0) return -1;
                CopyJoints(command, previous, n);
                for (int j = 0; j < n; ++j) command[j] += (tail[j] - tail_old[j]) + (head[j] - head_old[j]);
                if (output.Blend(command, previous, index + i - 1, tail, tail_old, index + i, head, head_old) < 0)
                    return -1;
            }
        }
        // Main phase: this move alone, absolute positions. Its deceleration
        // phase is run as the next move's blend (the last move's is 0).
        const int ticks = Ticks(move.total_time - move.dec_time - move.acc_time);
        for (int k = 1; k <= ticks; ++k) {
            if (output.Stopped()) return -1;
            CopyJoints(command, previous, n);
            if (move.MovePathFlow(robot, command, move.acc_time + k * PERIOD) < 0) return -1;
            if (output.Send(command, previous, index + i) < 0) return -1;
        }
    }
    return 0;
}

}  // namespace

int ReplayPathStep(Robot* robot, InterpolationData* table, int count) {
    if (robot == nullptr || table == nullptr || count < 0) return -1;
    robot->ActivatePositionMode();
    const int n = JointCount(robot);
    for (int i = 0; i < count; ++i) {
        InterpolationData& m = table[i];
        switch (m.type) {
        case kMoveJoint:
            for (int j = 0; j < n; ++j) m.joint_acc_dec[j].speed *= joint_space[0];
            break;
        case kMoveLinear:
        case kMoveCircular:
            m.line_acc_dec.speed *= cartesian_space_trans[0];
            m.rotate_acc_dec.speed *= cartesian_space_rot[0];
            break;
        default:
            std::cout << "Move type is invalid ." << std::endl;
            return -1;
        }
    }

    int step = 0;  // 0: before the first move; k: at the target of move k
    for (;;) {
        std::cout << "FORWARD or BACKWARD " << std::flush;
        std::string word;
        if (!ReadStepWord(&word)) {
            std::cin.clear();
            word.clear();
        }
        int next = 0;
        if (word == "FORWARD") {
            next = step + 1;
            if (next > count || next < 1) {
                std::cout << "Forward failure" << std::endl;
                continue;
            }
        } else if (word == "BACKWARD") {
            next = step - 1;
            if (next > count || next < 1) {
                std::cout << "Backward failure" << std::endl;
                continue;
            }
        } else {
            std::cout << "Program exit!" << std::endl;
            return -1;
        }
        // Going forward, a step switches the outputs of the DOUT lines it
        // passes (the arm is at rest at every step, so TIMER lines wait for
        // nothing).
        int action_line = 0;
        if (next > step && RunActions(table[next - 1].before, &action_line, nullptr) < 0) return -1;
        step = next;
        InterpolationData& m = table[step - 1];
        std::cout << "Current line number = " << m.line_number << std::endl;
        PublishRunningProgramLine(m.line_number);
        if (StepToTarget(robot, m) < 0) return -1;
        if (step == count && RunActions(m.after, &action_line, nullptr) < 0) return -1;
    }
}

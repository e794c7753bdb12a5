// Drag teaching: while the monitoring loop keeps the arm floating under the
// operator's hand, a recorder on a second thread writes what the operator
// shows, either program points on request (a motion program) or the joint
// angles every period (a trajectory file).
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "editor.h"
#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"
#include "timing.h"

namespace {

// Continuous recorder: the same ratio as one factor.
constexpr double kTrajectoryDegrees = 57.295780490442965;
// Rounds of the teaching dialogue.
constexpr int kMaxTaughtPoints = 1000;

const char* const kPointPrompt = "Insert MOVJ、MOVL、MOVC or STOP : ";  // ideographic commas (U+3001)

// Starts the monitoring loop and the recorder side by side and waits for both.
template <typename Recorder>
void RunBesideMonitoring(Recorder recorder) {
    std::thread monitoring([] { RealTimeMonitoring(); });
    std::thread recording(recorder);
    monitoring.join();
    recording.join();
}

// The next word of the operator; false at the end of the input.
bool ReadOperatorWord(std::string* word) {
    if (std::cin >> *word) return true;
    std::cin.clear();
    word->clear();
    return false;
}

enum class Round { kNext, kInvalid, kEnd };

// One answer of the teaching dialogue for a robot of `type`.
Round TeachOne(const std::string& word, int type, Robot* robot, std::ofstream& out) {
    const int n = robot->GetRobotJointNum();
    const bool cartesian = type >= 1 && type <= 4;
    double q[kMaxJointNum] = {};
    if (word == "MOVJ" || word == "movj") {
        robot->GetCurrentMachineJointFast(q);
        WriteProgramLine(out, "MOVJ VJ=100 z5 ", q, n);
        return Round::kNext;
    }
    if (word == "MOVL" || word == "movl" || word == "MOVC" || word == "movc") {
        if (!cartesian) {
            std::cout << "Wait to add..." << std::endl;
            return Round::kEnd;
        }
        if (word == "MOVL" || word == "movl") {
            robot->GetCurrentMachineJointFast(q);
            WriteProgramLine(out, "MOVL V=200 z5 ", q, n);
            return Round::kNext;
        }
        std::cout << "The auxiliary point has been inserted." << std::endl;
        robot->GetCurrentMachineJointFast(q);
        std::cout << "Input 'YES' to insert the target point : " << std::endl;
        std::string answer;
        ReadOperatorWord(&answer);
        if (answer != "YES" && answer != "yes") return Round::kEnd;
        double target[kMaxJointNum] = {};
        robot->GetCurrentMachineJointFast(target);
        // Auxiliary pose, then end pose: 2 n numbers on one line.
        out << "MOVC V=200 z5 ";
        WriteProgramDegrees(out, q, n);
        out << ',';
        WriteProgramLine(out, "", target, n);
        return Round::kNext;
    }
    if (word == "STOP" || word == "stop") {
        std::cout << "Stop recording." << std::endl;
        return Round::kEnd;
    }
    std::cout << "The input is invalid. " << std::endl;
    std::cout << "Please try again." << std::endl;
    std::cout << kPointPrompt << std::endl;
    return Round::kInvalid;
}

}  // namespace

int RecordSinglePointInDragTeachMode(Robot* robot, std::string file_name) {
    robot->ActivateCurrentMode();
    RunBesideMonitoring([file_name] { RecordSinglePosition(file_name); });
    return 0;
}

int RecordContinuousPointInDragTeachMode(Robot* robot, std::string file_name) {
    robot->ActivateCurrentMode();
    InitStopFlag();
    std::signal(SIGINT, SetStopFlagForSignal);
    RunBesideMonitoring([file_name] { RecordContinuousPosition(file_name); });
    return 0;
}

int RecordSinglePosition(std::string file_name) {
    return IsTerminal() ? RecordSinglePositionFromTerminal(file_name) : RecordSinglePositionFromInterface(file_name);
}

int RecordSinglePositionFromTerminal(std::string file_name) {
    std::ofstream out(file_name, std::ios::trunc);
    if (!out) {
        SendErrorCode(0, 4, "Open " + file_name + " failure! ");
        MultiThreadTrigger();
        return -1;
    }
    std::cout << "Start recording" << std::endl;
    Robot* robot = GetCurrentRobot();
    // An invalid word does not count as a point, except as the very first
    // answer (the counter is only stepped back above 0).
    int count = 0;
    while (count < kMaxTaughtPoints && GetSystemStatus()) {
        const int type = robot->GetRobotType();
        if (type >= 1 && type <= 4) {
            std::cout << kPointPrompt << std::endl;
        } else if (type == 0) {
            std::cout << "Insert MOVJ : " << std::endl;
        } else {
            std::cout << "Wait to add..." << std::endl;
            break;
        }
        std::string word;
        if (!ReadOperatorWord(&word)) {
            // Nobody left to answer: end as STOP would, keeping what was taught.
            std::cout << "No more input." << std::endl;
            std::cout << "Stop recording." << std::endl;
            break;
        }
        const Round round = TeachOne(word, type, robot, out);
        if (round == Round::kEnd) break;
        if (round == Round::kInvalid && count > 0) --count;
        ++count;
    }
    out.close();
    MultiThreadTrigger();
    return 0;
}

int RecordSinglePositionFromInterface(std::string file_name) {
    std::ofstream out(file_name, std::ios::trunc);
    if (!out) {
        SendErrorCode(0, 4, "Open " + file_name + " failure! ");
        return -1;
    }
    std::cout << "Start recording" << std::endl;
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    double q[kMaxJointNum] = {};
    // The host's point recorder writes the present pose 1001 times and
    // reports -1: the behaviour hosts of this entry point rely on.
    for (int i = 0; i <= kMaxTaughtPoints; ++i) {
        robot->GetCurrentMachineJoint(q);
        WriteProgramLine(out, "MOVJ VJ=100 z5 ", q, n);
    }
    return -1;
}

int RecordContinuousPosition(std::string file_name) {
    if (GetCurrentRunningMode() != kDragTeachingMode) {
        SendErrorCode(0, 2, "Current mode is not drag teaching mode");
        MultiThreadTrigger();
        return -1;
    }
    InitStopFlag();
    std::signal(SIGINT, SetStopFlagForSignal);
    Robot* robot = GetCurrentRobot();
    robot->ActivateCurrentMode();

    const int n = robot->GetRobotJointNum();
    const int capacity = kMaxTrajectoryRows;
    std::unique_ptr<double[]> samples;
    if (n >= 1 && n <= kMaxJointNum)
        samples.reset(new (std::nothrow) double[static_cast<size_t>(capacity) * n]);
    if (!samples) {
        SendErrorCode(0, 3, "System memory error.");
        MultiThreadTrigger();
        return -1;
    }
    if (IsTerminal()) {
        std::cout << "Input 'start' to start ..." << std::endl;
        std::string word;
        ReadOperatorWord(&word);
        if (word != "start") {
            MultiThreadTrigger();
            return -1;
        }
    }

    int stored = 0;
    bool aborted = false;
    double scratch[kMaxJointNum];
    tql::PeriodicTimer timer(PERIOD);
    for (bool first = true;; first = false) {
        if (!GetSystemStatus()) {
            aborted = true;
            break;
        }
        if (first) std::cout << "Recording ... " << std::endl;
        // Past the capacity the recording goes on but keeps nothing more.
        double* row = stored < capacity ? samples.get() + static_cast<size_t>(stored) * n : scratch;
        robot->GetCurrentMachineJointFast(row);
        if (stored < capacity) ++stored;
        timer.Wait();
        if (GetStopFlag()) break;
    }
    if (aborted) {
        // The monitoring loop ends itself on a compensation fault; should the
        // status have dropped for another reason, end it too so the starter's
        // join cannot wait for ever.
        if (IsTerminal() && GetCurrentRunningMode() == kDragTeachingMode) SetRunningMode(kReplayTrajectoryMode);
        return 0;
    }
    MultiThreadTrigger();
    std::cout << " " << std::endl;
    std::cout << "Save to file ..." << std::endl;
    std::cout << " " << std::endl;
    scaling(samples.get(), kTrajectoryDegrees, stored * n);
    if (SaveMatrixToFile(file_name, samples.get(), stored, n) < 0) return -1;
    std::cout << "Recorded file successfully." << std::endl;
    return 0;
}

// Drag teaching: while the monitoring loop keeps the arm floating under the
// operator's hand, a recorder on a second thread writes what the operator
// shows, either program points on request (a motion program) or the joint
// angles every period (a trajectory file).
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "database.h"
#include "dynamics.h"
#include "durable_file.h"
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
// Longest wall-clock wait of the continuous recorder for the next sample, s.
constexpr double kStopPollSeconds = 0.02;

const char* const kPointPrompt = "Insert MOVJ、MOVL、MOVC or STOP : ";  // ideographic commas (U+3001)

// Starts the monitoring loop and the recorder side by side and waits for both.
// The recorder's result, or -1 when the monitoring loop refused to start or
// a fault was reported meanwhile. SIGINT reaches the recorder's thread only, so a Ctrl-C
// interrupts the operator's answer it waits for.
template <typename Recorder>
int RunBesideMonitoring(Recorder recorder) {
    sigset_t interrupt, previous;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &previous);
    int monitored = 0, recorded = 0;
    // The two threads of one session. The recorder runs first, so the loop
    // never floats the arm ahead of it (on a virtual clock, periods the
    // recorder would not see); the recorder's end waits for the loop to have
    // looked at the running mode (see MultiThreadTrigger).
    NoteMonitoringSession();
    std::atomic<bool> recorder_running{false};
    std::thread recording([&] {
        pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
        recorder_running = true;
        recorded = recorder();
    });
    while (!recorder_running) std::this_thread::yield();
    std::thread monitoring([&monitored] { monitored = RealTimeMonitoring(); });
    monitoring.join();
    recording.join();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    // A fault reported meanwhile (the compensation's, a file's) fails the job.
    return monitored < 0 || !GetSystemStatus() ? -1 : recorded;
}

// Hand guiding floats the arm on the model's torques: refused before the arm
// is let go when they are not to be trusted.
bool ModelReadyForHandGuiding(Robot* robot) {
    return !GetResourceDate()->dynamics_switch || CheckDynamicParameters(robot) == 0;
}

// The next word of the operator; false at the end of the input or when a
// Ctrl-C interrupted the read (the stop flag tells which).
bool ReadOperatorWord(std::string* word) {
    if (std::cin >> *word) return true;
    std::cin.clear();
    std::clearerr(stdin);
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
    if (!ModelReadyForHandGuiding(robot)) return -1;
    robot->ActivateCurrentMode();
    InitStopFlag();
    InstallInterruptingStopHandler();
    return RunBesideMonitoring([file_name] { return RecordSinglePosition(file_name); });
}

int RecordContinuousPointInDragTeachMode(Robot* robot, std::string file_name) {
    if (!ModelReadyForHandGuiding(robot)) return -1;
    robot->ActivateCurrentMode();
    InitStopFlag();
    InstallInterruptingStopHandler();
    return RunBesideMonitoring([file_name] { return RecordContinuousPosition(file_name); });
}

int RecordSinglePosition(std::string file_name) {
    return IsTerminal() ? RecordSinglePositionFromTerminal(file_name) : RecordSinglePositionFromInterface(file_name);
}

int RecordSinglePositionFromTerminal(std::string file_name) {
    // The session is written beside the program and takes its place only when
    // it taught something: the operator's previous program survives a session
    // that is stopped, interrupted or killed before its first point.
    const std::string session = tql::PartFileName(file_name);
    std::ofstream out(session, std::ios::trunc);
    if (!out) {
        SendErrorCode(0, 4, "Open " + file_name + " failure! ");
        MultiThreadTrigger();
        return -1;
    }
    std::cout << "Start recording" << std::endl;
    Robot* robot = GetCurrentRobot();
    // An invalid word does not count as a point, except as the very first
    // answer (the counter is only stepped back above 0).
    int count = 0, taught = 0;
    while (count < kMaxTaughtPoints && GetSystemStatus() && !GetStopFlag()) {
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
            // Ctrl-C, or nobody left to answer: end as STOP would, keeping
            // what was taught.
            if (!TakeStopRequest()) std::cout << "No more input." << std::endl;
            std::cout << "Stop recording." << std::endl;
            break;
        }
        const Round round = TeachOne(word, type, robot, out);
        if (round == Round::kEnd) break;
        if (round == Round::kNext) ++taught;
        if (round == Round::kInvalid && count > 0) --count;
        ++count;
    }
    out.close();
    int result = 0;
    if (taught == 0) {
        std::remove(session.c_str());
        std::cout << "Nothing taught: " << file_name << " is unchanged." << std::endl;
    } else if (!out || tql::CommitFile(session, file_name) < 0) {
        SendErrorCode(0, 4, "Open " + file_name + " failure! ");
        result = -1;
    }
    MultiThreadTrigger();
    return result;
}

int RecordSinglePositionFromInterface(std::string file_name) {
    const std::string part = tql::PartFileName(file_name);
    std::ofstream out(part, std::ios::trunc);
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
    out.close();
    if (!out || tql::CommitFile(part, file_name) < 0) {
        std::remove(part.c_str());
        SendErrorCode(0, 4, "Open " + file_name + " failure! ");
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
    InstallInterruptingStopHandler();
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
        // A Ctrl-C before "start" cancels: the previous recording is kept.
        if (TakeStopRequest()) {
            std::cout << "Recording cancelled: " << file_name << " is unchanged." << std::endl;
            word.clear();
        }
        if (word != "start") {
            MultiThreadTrigger();
            return -1;
        }
    }

    int stored = 0;
    bool aborted = false;
    // In a session the monitoring loop appends every period's positions to
    // the buffer itself (StartMonitoredRecording); with no loop beside (a
    // host's own use) the recorder reads the joints every period.
    const bool by_loop = InMonitoringSession() || MonitoringRunning();
    if (by_loop) StartMonitoredRecording(samples.get(), capacity, n);
    double scratch[kMaxJointNum];
    tql::PeriodicTimer timer(PERIOD);
    for (bool first = true;; first = false) {
        if (!GetSystemStatus()) {
            aborted = true;
            break;
        }
        if (first) std::cout << "Recording ... " << std::endl;
        if (by_loop) {
            // Waits on the wall clock, never on the timing seam: only the
            // loop's periods advance a virtual clock. A stop is seen within
            // kStopPollSeconds.
            std::this_thread::sleep_for(std::chrono::duration<double>(kStopPollSeconds));
        } else {
            // Past the capacity the recording goes on but keeps nothing more.
            robot->GetCurrentMachineJointFast(stored < capacity ? samples.get() + static_cast<size_t>(stored) * n
                                                                : scratch);
            if (stored < capacity) ++stored;
            timer.Wait();
        }
        if (TakeStopRequest()) break;
    }
    if (by_loop) stored = static_cast<int>(StopMonitoredRecording());
    if (aborted) {
        // The monitoring loop ends itself on a compensation fault; should the
        // status have dropped for another reason, end it too so the starter's
        // join cannot wait for ever.
        if (IsTerminal() && GetCurrentRunningMode() == kDragTeachingMode) SetRunningMode(kReplayTrajectoryMode);
        std::cout << "Recording discarded: " << file_name << " is unchanged." << std::endl;
        return -1;
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

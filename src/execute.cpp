// Program entry: banner, mode word, boot, dispatch; the process-wide terminal
// and stop flags.
#include "execute.h"

#include <signal.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "database.h"
#include "dynamics.h"
#include "math_fun.h"
#include "timing.h"

namespace {

// The one robot of the process; robot 1 is element 0.
Robot cur_robot[1];
constexpr int kRobotCount = 1;

// Written by the host thread or a signal handler, polled by motion loops.
std::atomic<unsigned char> is_terminal{0};
std::atomic<unsigned char> stop_flag{0};
static_assert(std::atomic<unsigned char>::is_always_lock_free, "the stop flag is set from a signal handler");

constexpr double kRadToDeg = 57.295780490442965;

const char* const kModeWords[] = {"mode0", "mode1", "mode2", "mode3", "mode4",
                                  "admin", "reset", "calibrate", "tutorials"};


// Repetitions of the excitation in an identification run.
constexpr int kExcitationRepetitions = 16;

// The trajectory the operator records by hand and replays.
constexpr char kTrajectoryFileName[] = "file/trajectory.txt";

// Every mode word but "mode0" runs its job on the booted robot.
int Dispatch(const std::string& word) {
    Robot* robot = GetCurrentRobot();
    // The collision observer runs on the model: with its switch on, nothing
    // moves on a model that is not to be trusted.
    if (GetResourceDate()->collision_switch && CheckDynamicParameters(robot) < 0) return -1;
    if (word == "mode1") return RecordContinuousPointInDragTeachMode(robot, kTrajectoryFileName);
    if (word == "mode2") return MoveTrajectory(robot, kTrajectoryFileName, true);
    if (word == "mode3") return RecordSinglePointInDragTeachMode(robot, kProgramFileName);
    if (word == "mode4") return ExecuteFileInstruction(robot, kProgramFileName);
    if (word == "admin") return MoveExcitationTrajectories(robot, kExcitationRepetitions);
    if (word == "reset") return ResetRobot(robot);
    if (word == "calibrate") return Calibration(robot);
    if (word == "tutorials") return Tutorials(robot);
    std::cout << "Input error" << std::endl;
    return -1;
}

}  // namespace

bool IsModeWord(const char* word) {
    if (word == nullptr) return false;
    for (const char* m : kModeWords)
        if (std::strcmp(word, m) == 0) return true;
    return false;
}

Robot* GetCurrentRobot() { return &cur_robot[0]; }

bool IsTerminal() { return is_terminal.load() != 0; }
void SetTerminalFlag() { is_terminal.store(1); }
void ClearTerminalFlag() { is_terminal.store(0); }

// The stop flag: 0 none; kStopAsked, asked for and not yet acted on (by the
// signal handler or a host); kStopTaken, asked for and acted on (a loop ended
// on it, or a mode switch ended hand guiding). Both read as set.
constexpr unsigned char kStopAsked = 1;
constexpr unsigned char kStopTaken = 2;

void SetStopFlag() { stop_flag.store(kStopAsked); }
void SetStopFlagForSignal(int /*signo*/) { stop_flag.store(kStopAsked); }
void InitStopFlag() { stop_flag.store(0); }
void SetStopFlagTaken() { stop_flag.store(kStopTaken); }

bool TakeStopRequest() {
    // A pre-flight moves nothing, so nothing it computes is stopped.
    if (stop_flag.load() == 0 || tql::InPreflight()) return false;
    stop_flag.store(kStopTaken);
    return true;
}

int BeginMotion() {
    if (tql::InPreflight()) return 0;  // the pre-flight moves nothing
    // A stop a loop has already acted on is forgotten, as before; one nobody
    // has acted on yet ends the job here.
    unsigned char expected = kStopTaken;
    stop_flag.compare_exchange_strong(expected, 0);
    if (TakeStopRequest()) {
        std::cout << "Stop requested: no further motion." << std::endl;
        return -1;
    }
    InstallInterruptingStopHandler();
    return 0;
}

void InstallInterruptingStopHandler() {
    struct sigaction action = {};
    action.sa_handler = SetStopFlagForSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the read in progress returns
    sigaction(SIGINT, &action, nullptr);
}
bool GetStopFlag() { return stop_flag.load() != 0; }

void VersionManagement() {
    std::cout << "Orvalt Manipulator Controller" << " " << "v1.2.6" << " ( " << "2019-12-02" << " )" << std::endl;
    // ORVALT in block letters.
    std::cout << R"(  ____    ____   __      __    _      _       _______ )" << std::endl;
    std::cout << R"( / __ \  |  _ \  \ \    / /   / \    | |     |__   __|)" << std::endl;
    std::cout << R"(| |  | | | |_) |  \ \  / /   / _ \   | |        | |   )" << std::endl;
    std::cout << R"(| |  | | |  _ /    \ \/ /   / /_\ \  | |        | |   )" << std::endl;
    std::cout << R"(| |__| | | | \ \    \  /   /  ___  \ | |____    | |   )" << std::endl;
    std::cout << R"( \____/  |_|  \_\    \/   /_/     \_\|______|   |_|   )" << std::endl;
    const std::string rule(65, '-');
    std::cout << rule << std::endl;
    std::cout << "Orvalt Manipulator Controller is a software for manipulator." << std::endl;
    std::cout << rule << std::endl;
}

void DisableAllActuator() {
    ActuatorController* controller = ActuatorController::initController();
    if (controller == nullptr) {
        std::cout << "Disable robot size = 0" << std::endl;
        return;
    }
    Actuator::ErrorsDefine err = Actuator::ERR_NONE;
    controller->lookupActuators(err);
    const std::vector<uint8_t> ids = controller->getActuatorIdArray();
    for (uint8_t id : ids) controller->disableActuator(id, "");
    tql::SleepMilliseconds(200);
    std::cout << "Disable robot size = " << ids.size() << std::endl;
}

void ShutDown() { GetCurrentRobot()->DisableAllRobot(); }

int Boot() {
    Robot* robot_base = GetCurrentRobot();
    if (SelectFromTableList(GetResourceDate()) < 0) {
        std::cout << "Load parameters error!" << std::endl;
        return -1;
    }
    ActuatorController* controller = ActuatorController::initController();
    if (controller == nullptr) {
        SendErrorCode(0, 1, "ID error,Current id size = 0");
        return -1;
    }
    Actuator::ErrorsDefine err = Actuator::ERR_NONE;
    const std::vector<ActuatorController::UnifiedID> uids = controller->lookupActuators(err);
    const std::vector<uint8_t> ids = controller->getActuatorIdArray();
    if (ids.empty()) {
        SendErrorCode(0, 1, "ID error,Current id size = " + std::to_string(ids.size()));
        return -1;
    }
    // The two lists must pair up one to one before they are sliced per robot.
    if (uids.size() != ids.size()) {
        SendErrorCode(0, 1, "ID error,Current id size = " + std::to_string(ids.size()) +
                                ", unified id size = " + std::to_string(uids.size()));
        return -1;
    }

    const size_t n = ids.size();
    std::cout << "Robot num = " << kRobotCount << std::endl << std::endl;
    for (int i = 0; i < kRobotCount; ++i) {
        std::cout << "Robot index :" << i + 1 << std::endl;
        std::vector<unsigned char> id_slice(ids.begin() + n * i, ids.begin() + n * (i + 1));
        std::vector<ActuatorController::UnifiedID> uid_slice(uids.begin() + n * i, uids.begin() + n * (i + 1));
        Robot& robot = robot_base[i];
        if (robot.ServerInit(controller, id_slice, uid_slice) < 0) return -1;

        const int jn = robot.GetRobotJointNum();
        double q[kMaxJointNum] = {};
        robot.GetCurrentMachineJoint(q);
        SetRealTimePos(q);
        scaling(q, kRadToDeg, jn);
        std::cout << "Current position (degree) : " << std::endl;
        print_array(q, jn);
        std::cout << std::endl << std::endl;
    }
    return 0;
}

int RunningProgram(int argc, char** argv) {
    VersionManagement();
    if (argc != 2 || argv == nullptr || argv[1] == nullptr) {
        std::cout << "Input error ." << argc << std::endl;
        return -1;
    }
    if (!IsModeWord(argv[1])) {
        std::cout << "Input error." << std::endl;
        return -1;
    }
    const std::string word = argv[1];
    if (word == "mode0") {
        DisableAllActuator();
        return 0;
    }
    SetTerminalFlag();
    if (Boot() < 0) return -1;
    return Dispatch(word);
}

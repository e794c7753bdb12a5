// Maintenance procedures on the booted robot, driven from the terminal: a
// factory reset of the actuators' settings with a test run, calibration of
// the home position by hand, and the demonstration menu.
#include <csignal>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"
#include "program.h"
#include "timing.h"

namespace {

constexpr double kRadToDeg = 57.295780490442965;
// Home tolerance of the demonstrations: 3 degrees (with pi = 3.1415926), rad.
constexpr double kHomeTolerance = 0.05235987666666667;
// Override of the reset's test run.
constexpr double kResetOverride = 0.5;

// Factory settings a reset writes (robot types 1 and 4; six joints).
struct ResetSettings {
    double min_position[6];  // actuator revolutions
    double max_position[6];
    double lock_energy[6];
    double position_kp[6], position_ki[6], position_kd[6];
    double velocity_kp[6], velocity_ki[6];
};

ResetSettings SettingsFor(int type) {
    const double kp = type == 4 ? 0.15 : 0.05;
    const double vkp = type == 4 ? 10.0 : 12.0;
    ResetSettings s = {{-15, -9, -15, -15, -15, -17.8}, {15, 9, 15, 15, 15, 17.8}, {}, {}, {}, {}, {}, {}};
    for (int i = 0; i < 6; ++i) {
        s.lock_energy[i] = 20000000.0;
        s.position_kp[i] = kp;
        s.velocity_kp[i] = vkp;
        s.velocity_ki[i] = 0.01;
    }
    return s;
}

// One word from the operator; empty at the end of the input.
std::string ReadWord() {
    std::string word;
    if (!(std::cin >> word)) {
        std::cin.clear();
        word.clear();
    }
    return word;
}

// Discards the rest of the input line, then waits for the Enter key.
void WaitForEnter(bool discard_line) {
    std::cin.clear();
    if (discard_line) std::cin.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    std::cin.get();
}

// The present pose becomes the actuators' home.
int SetHomeHere(Robot* robot) {
    robot->ActivateHomingMode();
    if (robot->SetHomingPosition() < 0) return -1;
    std::cout << "Set home position successfully." << std::endl;
    return 0;
}

// Procedures end with the robot disabled.
int DisableAndReport(Robot* robot) {
    robot->DisableRobot();
    std::cout << "Disable robot successfully." << std::endl;
    return 0;
}

void PrintMenu() {
    std::cout << "Input option: " << std::endl;
    std::cout << "※ 1 \t\t " << std::endl;
    std::cout << "※ 2 \t\t  " << std::endl;
    std::cout << "※ 3 \t\t  " << std::endl;
    std::cout << "※ 4 \t\t  " << std::endl;
    std::cout << "※ stop\t\t\t " << std::endl;
}

}  // namespace

int ResetRobot(Robot* robot) {
    const int type = robot->GetRobotType();
    // The settings table has six joints: a robot with more would be written
    // past it.
    if ((type != 1 && type != 4) || robot->GetRobotJointNum() > 6) {
        std::cout << "Current type not supported." << std::endl;
        return -1;
    }
    ResetSettings s = SettingsFor(type);
    if (SetHomeHere(robot) < 0) return -1;
    if (robot->SetLimitData(s.min_position, s.max_position) < 0) return -1;
    // The joints check set-points against the limits the actuators now hold.
    if (robot->GetParametersFromActuator() < 0) return -1;
    std::cout << "Set limit data successfully." << std::endl;
    if (robot->SetLockEnergy(s.lock_energy) < 0) return -1;
    std::cout << "Set lock energy successfully." << std::endl;
    robot->ActivatePositionMode();
    if (robot->SetPositionPidData(s.position_kp, s.position_ki, s.position_kd) < 0) return -1;
    std::cout << "Set position pid data successfully." << std::endl;
    robot->ActivateVelocityMode();
    if (robot->SetVelocityPiData(s.velocity_kp, s.velocity_ki) < 0) return -1;
    std::cout << "Set velocity pi data successfully." << std::endl;
    if (robot->SaveParameters() < 0) return -1;
    if (ExecuteFileInstructionReset(robot) < 0) return -1;
    std::cout << "Run successfully." << std::endl;
    return DisableAndReport(robot);
}

int ExecuteFileInstructionReset(Robot* robot) {
    int count = 0;
    std::unique_ptr<InterpolationData[]> table = LoadProgramFile(robot, kResetProgramFileName, &count);
    if (!table) return -1;
    SetReplayOverride(kResetOverride);
    if (SetSpeedOverride() < 0) return -1;
    return MovePathList(robot, table.get(), count) < 0 ? -1 : 0;
}

int Calibration(Robot* robot) {
    std::cout << "Please move the robot to the home position." << std::endl;
    robot->ActivateCurrentMode();
    InitStopFlag();
    std::signal(SIGINT, SetStopFlagForSignal);
    const int n = robot->GetRobotJointNum();
    double q[kMaxJointNum] = {};
    while (!TakeStopRequest()) {
        robot->GetCurrentMachineJoint(q);
        scaling(q, kRadToDeg, n);
        print_array(q, n);
        tql::SleepMilliseconds(1400);
    }
    std::cout << "Enter y to calibrate the robot ..." << std::endl;
    if (ReadWord() == "y") {
        if (SetHomeHere(robot) < 0) return -1;
    } else {
        std::cout << "Exit without calibration." << std::endl;
    }
    return DisableAndReport(robot);
}

int Tutorials(Robot* robot) {
    robot->ActivatePositionMode();
    const int n = robot->GetRobotJointNum();
    double q[kMaxJointNum] = {};
    robot->GetCurrentMachineJoint(q);
    bool home = true;
    for (int i = 0; i < n; ++i)
        if (q[i] > kHomeTolerance || q[i] < -kHomeTolerance) home = false;
    if (!home) {
        std::cout << "The current position isn't home position" << std::endl;
        std::cout << "Move to home position" << std::endl;
        std::cout << "Press enter to start ..." << std::endl;
        WaitForEnter(false);
        if (MoveToHomePosition() < 0) return -1;
        std::cout << "Done" << std::endl;
        std::cout << "Current position :" << std::endl;
        double zero[6] = {};
        print_array(zero, 6);
    }
    std::cout << "Demonstration action:" << std::endl;
    bool refused = false;
    for (;;) {
        PrintMenu();
        const std::string word = ReadWord();
        std::cout << "You can press CTRL+C to stop during the running process." << std::endl;
        // Nobody left to answer: end the menu as "stop" does.
        if (word == "stop" || word.empty()) break;
        int result = 0;
        if (word == "1")
            result = MoveTrajectory(robot, "file/dancing.txt", false);
        else if (word == "2")
            result = MoveTrajectory(robot, "file/look.txt", false);
        else if (word == "3")
            result = MoveTrajectory(robot, "file/snake.txt", false);
        else if (word == "4")
            result = MoveExcitationTrajectories(robot, 1);
        else {
            std::cout << "Input error." << std::endl;
            continue;
        }
        if (result < 0) {
            // The operator's Ctrl-C ends a demonstration as it should; a
            // refusal or a fault fails the procedure, after the way home.
            refused = !GetStopFlag();
            break;
        }
        std::cout << "Done" << std::endl;
    }
    tql::SleepMilliseconds(500);
    if (MoveToHomePosition() < 0) return -1;
    std::cout << "Please hold the arm with your hand " << "and then press enter to turn off the robot ..." << std::endl;
    WaitForEnter(true);
    ShutDown();
    return refused ? -1 : 0;
}

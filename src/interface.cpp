// The host call surface: thin entries over the jobs, on the current robot.
#include "interface.h"

#include <atomic>

#include "math_fun.h"

namespace {

constexpr double kRadToDeg = 57.295780490442965;

// Set by the host before a run, read by the runner's thread.
std::atomic<DigitalOutputHandler> output_handler{nullptr};

}  // namespace

void SetDigitalOutputHandler(DigitalOutputHandler handler) { output_handler.store(handler); }

bool DigitalOutputHandlerInstalled() { return output_handler.load() != nullptr; }

int SetDigitalOutput(int output, bool on) {
    const DigitalOutputHandler handler = output_handler.load();
    if (handler == nullptr) return -1;
    handler(output, on ? 1 : 0);
    return 0;
}

int RecordSinglePoint(std::string file) { return RecordSinglePointInDragTeachMode(GetCurrentRobot(), file); }

int ReplayTrajectory(std::string file) { return MoveTrajectory(GetCurrentRobot(), file, true); }

int ReplayPath(std::string file) { return ExecuteFileInstruction(GetCurrentRobot(), file); }

void GetMinLimit(double* out) {
    Robot* robot = GetCurrentRobot();
    robot->GetMinLimitData(out);
    scaling(out, kRadToDeg, robot->GetRobotJointNum());
}

void GetMaxLimit(double* out) {
    Robot* robot = GetCurrentRobot();
    robot->GetMaxLimitData(out);
    scaling(out, kRadToDeg, robot->GetRobotJointNum());
}

int RealTimeMonitoringStartButton() { return RealTimeMonitoring(); }

int RealTimeMonitoringStopButton() { return RealTimeMonitoring(); }

void GetRealTimePos(double* q, double* pose) {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    CopyRealTimePos(q, n);
    double seven[7] = {};
    double T[4][4];
    robot->ForwardKinematics(q, seven);
    UnitQuaternionToMatrix(T, seven);
    Matrix2pose(pose, T);
    scaling(q, kRadToDeg, n);
    scaling(pose + 3, kRadToDeg, 3);
}

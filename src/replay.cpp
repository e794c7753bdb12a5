// Replay of a trajectory file: the recorded joint samples are sent as they
// are, one per period; the speed override stretches the period instead of
// changing the samples.
#include <csignal>
#include <iostream>
#include <memory>
#include <new>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "math_fun.h"
#include "program.h"
#include "timing.h"

namespace {

// Pause between the passes of a cyclic replay, ms.
constexpr double kCyclePauseMs = 1000.0;
// The cycle counter runs 1 .. kCycleCountWrap and starts again at 1.
constexpr int kCycleCountWrap = 100000;

// The pass checked before the arm moves: the approach move computed without
// sending, then every sample against the soft limits and every step between
// samples against the speed limit at the recorded 4 ms. 0, or -1 after the
// failing check's message and the sample's number (1 = the first line).
int PreflightReplay(Robot* robot, double* samples, int rows, int n) {
    {
        tql::PreflightScope dry;
        if (MoveToSpecifiedPosition(samples) < 0) return -1;
    }
    for (int k = 0; k < rows; ++k) {
        double* sample = samples + static_cast<size_t>(k) * n;
        double* before = k > 0 ? sample - n : sample;
        for (int j = 0; j < n; ++j) {
            if (robot->link_[j].CheckPosition(sample[j], before[j], PERIOD) < 0) {
                std::cout << "Sample " << k + 1 << " refused before motion." << std::endl;
                return -1;
            }
        }
    }
    return 0;
}

}  // namespace

int MoveTrajectoryOnce(Robot* robot, double* samples, int rows) {
    const int n = robot->GetRobotJointNum();
    if (samples == nullptr || rows < 1 || n < 1 || n > kMaxJointNum) {
        std::cout << "Replay refused: " << rows << " samples of " << n << " joints." << std::endl;
        return -1;
    }
    const double ov = GetReplayOverride();
    // A caller that bypassed SetSpeedOverride could pass any override; the
    // period below must stay a sane whole number of milliseconds.
    if (!(ov > kOverrideLow && ov <= kOverrideHigh)) {
        std::cout << "speed override = " << ov << std::endl;
        std::cout << "The value of speed override is invalid(0.1-1)." << std::endl;
        return -1;
    }
    if (PreflightWanted() && PreflightReplay(robot, samples, rows, n) < 0) return -1;
    if (MoveToSpecifiedPosition(samples) < 0) return -1;

    InitStopFlag();
    std::signal(SIGINT, SetStopFlagForSignal);
    const bool collision = GetResourceDate()->collision_switch;
    if (collision) InitC();
    // Whole milliseconds per sample: 4 at override 1, 8 at 0.5, 13 at 0.3.
    const int wait_ms = static_cast<int>(4.0 / ov);
    tql::PeriodicTimer timer(wait_ms * 1e-3);
    for (int k = 1; k < rows; ++k) {
        if (GetStopFlag()) return -1;
        if (collision) robot->RequestCVPValue();
        double* sample = samples + static_cast<size_t>(k) * n;
        if (robot->SendPosition(sample, sample - n) < 0) return -1;
        timer.Wait();
    }
    return 0;
}

int MoveTrajectory(Robot* robot, std::string file_name, bool cyclic) {
    robot->ActivatePositionMode();
    if (IsTerminal() && GetReplayOverrideFromTerminal() < 0) return -1;
    if (SetSpeedOverride() < 0) return -1;

    const int n = robot->GetRobotJointNum();
    if (n < 1 || n > kMaxJointNum) {
        std::cout << "Replay refused: " << n << " joints." << std::endl;
        return -1;
    }
    // Zeroed, so a short line replays its missing joints as 0 like a
    // non-number, never as leftover memory.
    const size_t size = static_cast<size_t>(kMaxTrajectoryRows) * n;
    std::unique_ptr<double[]> samples(new (std::nothrow) double[size]());
    if (!samples) {
        std::cout << "New memory failure ." << std::endl;
        return -1;
    }
    int rows = 0;
    if (GetMatrixFromFile(file_name, samples.get(), kMaxTrajectoryRows, n, &rows) < 0) return -1;
    scaling(samples.get(), kProgramDegreeToRadian, rows * n);

    if (!cyclic) {
        if (MoveTrajectoryOnce(robot, samples.get(), rows) < 0) return -1;
    } else {
        // A stop or a fault ends the pass, and that is how a cyclic replay
        // ends: the result stays 0. A stop asked for during the pause between
        // passes ends it too (the next approach move would clear the flag).
        for (int count = 1;; count = count % kCycleCountWrap + 1) {
            std::cout << "Cycle count : " << count << std::endl;
            if (MoveTrajectoryOnce(robot, samples.get(), rows) < 0) break;
            tql::SleepMilliseconds(kCyclePauseMs);
            if (GetStopFlag()) break;
        }
    }
    std::cout << " " << std::endl;
    std::cout << "Replay end " << std::endl;
    return 0;
}

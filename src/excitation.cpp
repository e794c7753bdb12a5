// The identification run: a periodic five-harmonic Fourier excitation per
// joint, followed in position mode several times in a row while every joint's
// current, velocity and position are recorded each period.
#include <csignal>
#include <cmath>
#include <iostream>
#include <memory>
#include <new>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "timing.h"

namespace {

constexpr const char* kExcitationOutputFile = "file/excitation_output.txt";
// Samples sent per repetition: 1 .. 2500 (sample 0 is where the run starts).
constexpr int kLastSample = kExcitationSamples - 1;
// Pause before and after each repetition, ms.
constexpr double kRepetitionPauseMs = 1000.0;
// Longest run accepted, so the record buffer stays a sane size.
constexpr int kMaxRepetitions = 1000;

// Joints whose coefficients fit the record's block.
constexpr int kMaxExcitedJoints = 220 / kExcitationCoefficients;

}  // namespace

void ExcitationSeries(const double* coefficients, int n, int first, int last, double* out) {
    for (int k = first; k <= last; ++k) {
        const double t = k * PERIOD;
        for (int j = 0; j < n; ++j) {
            const double* c = coefficients + j * kExcitationCoefficients;
            double q = c[0];
            for (int l = 1; l <= kExcitationHarmonics; ++l) {
                const double wt = l * kExcitationOmega * t;
                q += c[l] * std::sin(wt) + c[kExcitationHarmonics + l] * std::cos(wt);
            }
            out[(k - first) * n + j] = q;
        }
    }
}

int ExcitationTrajectoriesGenerator(double* out, int last) {
    int n = GetCurrentRobot()->GetRobotJointNum();
    if (n > kMaxExcitedJoints) n = kMaxExcitedJoints;
    if (n < 0) n = 0;
    ExcitationSeries(GetResourceDate()->identification_parameters, n, 0, last, out);
    return 0;
}

int MoveExcitationTrajectories(Robot* robot, int repetitions) {
    const int n = robot->GetRobotJointNum();
    if (n <= 0 || n > kMaxExcitedJoints || repetitions < 1 || repetitions > kMaxRepetitions) {
        std::cout << "Excitation run refused: " << n << " joints, " << repetitions << " repetitions." << std::endl;
        return -1;
    }
    robot->ActivatePositionMode();
    if (IsTerminal() && GetReplayOverrideFromTerminal() < 0) return -1;
    if (SetSpeedOverride() < 0) return -1;

    const size_t trajectory_size = static_cast<size_t>(n) * (kExcitationSamples + kExcitationSpare);
    std::unique_ptr<double[]> trajectory(new (std::nothrow) double[trajectory_size]);
    if (!trajectory) {
        std::cout << "new memory failure ." << std::endl;
        return -1;
    }
    ExcitationTrajectoriesGenerator(trajectory.get(), kLastSample);
    const int count = kLastSample + 1;
    if (count != kExcitationSamples) {  // a guard: the generator always writes them all
        std::cout << "count error = " << count << std::endl;
        return -1;
    }

    InitStopFlag();
    std::signal(SIGINT, SetStopFlagForSignal);
    const int record_width = 3 * n;  // n currents, n velocities, n positions
    const size_t record_size =
        static_cast<size_t>(repetitions) * n * (kExcitationSamples + kExcitationSpare) * 3;
    std::unique_ptr<double[]> records(new (std::nothrow) double[record_size]);
    if (!records) {
        std::cout << "new memory failure ." << std::endl;
        return -1;
    }
    if (MoveToSpecifiedPosition(trajectory.get()) < 0) return -1;

    // Whole milliseconds per sample: the override stretches the period.
    const int wait_ms = static_cast<int>(4.0 / GetReplayOverride());
    int rows = 0;
    for (int r = 0; r < repetitions; ++r) {
        tql::SleepMilliseconds(kRepetitionPauseMs);
        if (IsTerminal()) std::cout << "Running  iter = " << r << std::endl;
        tql::PeriodicTimer timer(wait_ms * 1e-3);
        for (int k = 1; k <= kLastSample; ++k) {
            if (GetStopFlag()) return -1;
            robot->RequestCVPValue();
            if (robot->SendPosition(&trajectory[k * n], &trajectory[(k - 1) * n]) < 0) return -1;
            timer.Wait();
            if (robot->controller_ != nullptr) robot->controller_->processEvents();
            double* record = &records[static_cast<size_t>(rows) * record_width];
            robot->GetCurrentCVPFast(record, record + n, record + 2 * n);
            ++rows;
        }
        tql::SleepMilliseconds(kRepetitionPauseMs);
    }
    trajectory.reset();
    return SaveMatrixToFile(kExcitationOutputFile, records.get(), rows, record_width) < 0 ? -1 : 0;
}

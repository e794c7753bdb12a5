// The identification run: a periodic five-harmonic Fourier excitation per
// joint, followed in position mode several times in a row while every joint's
// current, velocity and position are recorded each period.
#include <algorithm>
#include <csignal>
#include <cmath>
#include <iostream>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "database.h"
#include "dynamics.h"
#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "progress.h"
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

namespace {

constexpr double kRadToDeg = 57.295780490442965;
constexpr int kExcitationRow = 14;

// Position [rad], speed [rad/s] and acceleration [rad/s^2] of one joint's
// series (kExcitationCoefficients coefficients) at time t [s].
void SeriesMotion(const double* c, double t, double* q, double* dq, double* ddq) {
    *q = c[0];
    *dq = *ddq = 0.0;
    for (int l = 1; l <= kExcitationHarmonics; ++l) {
        const double w = l * kExcitationOmega, a = c[l], b = c[kExcitationHarmonics + l];
        const double sn = std::sin(w * t), cn = std::cos(w * t);
        *q += a * sn + b * cn;
        *dq += w * (a * cn - b * sn);
        *ddq -= w * w * (a * sn + b * cn);
    }
}

std::string Degrees(double rad) {
    std::ostringstream text;
    text << rad * kRadToDeg;
    return text.str();
}

}  // namespace

int CheckExcitationParameters(Robot* robot) {
    const int n = robot->GetRobotJointNum();
    const ResourceData* rd = GetResourceDate();
    const int type = rd->robot_type;
    for (int i = 0; i < n * kExcitationCoefficients && i < 220; ++i) {
        const double v = rd->identification_parameters[i];
        if (!std::isfinite(v)) {
            std::ostringstream value;
            value << v;
            return RefuseParameterRow(type, kExcitationRow, ", entry " + std::to_string(i + 1) + ", value " +
                                                                value.str() + ": an excitation coefficient must be finite");
        }
    }
    for (int j = 0; j < n && j < kMaxExcitedJoints; ++j) {
        const double* c = rd->identification_parameters + j * kExcitationCoefficients;
        const LinkUnit& joint = robot->link_[j];
        const std::string head = ", joint " + std::to_string(j + 1) + ": the excitation ";
        double top_speed = 0.0, top_acceleration = 0.0;
        for (int k = 0; k < kExcitationSamples; ++k) {
            double q, dq, ddq;
            SeriesMotion(c, k * PERIOD, &q, &dq, &ddq);
            if (!(q >= joint.min_soft_limit_ && q <= joint.max_soft_limit_))
                return RefuseParameterRow(type, kExcitationRow,
                                          head + "reaches " + Degrees(q) + " degrees, beyond the soft limits " +
                                              Degrees(joint.min_soft_limit_) + " .. " +
                                              Degrees(joint.max_soft_limit_) + " degrees");
            top_speed = std::max(top_speed, std::fabs(dq));
            top_acceleration = std::max(top_acceleration, std::fabs(ddq));
        }
        // At the 4 ms the identification assumes; a slower override only lowers them.
        if (top_speed > joint.joint_speed_data_.speed)
            return RefuseParameterRow(type, kExcitationRow,
                                      head + "runs at " + Degrees(top_speed) + " deg/s, beyond the joint's " +
                                          Degrees(joint.joint_speed_data_.speed) + " deg/s (row 1)");
        if (top_acceleration > joint.joint_speed_data_.acceleration)
            return RefuseParameterRow(type, kExcitationRow,
                                      head + "accelerates at " + Degrees(top_acceleration) +
                                          " deg/s^2, beyond the joint's " +
                                          Degrees(joint.joint_speed_data_.acceleration) + " deg/s^2 (row 2)");
    }
    return 0;
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
    // Nothing moves on coefficients that would take a joint beyond its limits.
    if (CheckExcitationParameters(robot) < 0) return -1;
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

    if (BeginMotion() < 0) return -1;  // the stop flag, before the records are made
    const int record_width = 3 * n;  // n currents, n velocities, n positions
    const size_t record_size =
        static_cast<size_t>(repetitions) * n * (kExcitationSamples + kExcitationSpare) * 3;
    std::unique_ptr<double[]> records(new (std::nothrow) double[record_size]);
    if (!records) {
        std::cout << "new memory failure ." << std::endl;
        return -1;
    }
    // Whole milliseconds per sample: the override stretches the period.
    const int wait_ms = static_cast<int>(4.0 / GetReplayOverride());
    // The whole period checked as it will be sent, before the first set-point.
    if (PreflightWanted() && PreflightJointSamples(robot, trajectory.get(), kExcitationSamples, wait_ms * 1e-3) < 0)
        return -1;
    if (MoveToSpecifiedPosition(trajectory.get()) < 0) return -1;
    int rows = 0;
    // Each period starts and ends at rest; a stop brakes the sample clock.
    ArmOutput arm(robot, wait_ms * 1e-3, true);
    tql::Progress progress("excitation period", repetitions, kLastSample);
    for (int r = 0; r < repetitions; ++r) {
        tql::SleepMilliseconds(kRepetitionPauseMs);
        if (IsTerminal()) std::cout << "Running  iter = " << r << std::endl;
        arm.Restart();
        for (int k = 1; k <= kLastSample; ++k) {
            if (arm.Stopped()) return -1;
            if (!arm.LookingAhead()) robot->RequestCVPValue();
            if (arm.Send(&trajectory[k * n], &trajectory[(k - 1) * n], 0) < 0) return arm.Finish(-1);
            progress.Update(static_cast<long>(r) * kLastSample + k);
            if (arm.LookingAhead()) continue;
            if (robot->controller_ != nullptr) robot->controller_->processEvents();
            double* record = &records[static_cast<size_t>(rows) * record_width];
            robot->GetCurrentCVPFast(record, record + n, record + 2 * n);
            ++rows;
        }
        if (arm.Finish(0) < 0) return -1;  // the period's end: a brake in progress ends here
        tql::SleepMilliseconds(kRepetitionPauseMs);
    }
    trajectory.reset();
    return SaveMatrixToFile(kExcitationOutputFile, records.get(), rows, record_width) < 0 ? -1 : 0;
}

// tql-identify FILE [--db parameter.db] [--write parameter.db] [--validate FILE2]
//
// Off-line identification of the arm's 36 base dynamic parameters and its
// joints' viscous and Coulomb friction from an excitation run's output
// ("file/excitation_output.txt": per 4 ms record the joints' currents [A],
// velocities [rad/s] and positions [rad]).
//
// The excitation is periodic (2500 records per 10 s period), so the
// repetitions are averaged sample by sample, which cuts the measurement noise,
// and the positions are fitted by a Fourier series of the period: its
// derivatives give velocity and acceleration with no phase lag (a zero-phase
// low-pass that keeps the first kFitHarmonics harmonics). Currents times the
// joints' torque constants are the torques. The stacked regressor is solved
// by least squares.
//
// Least squares always returns numbers, identified or not, and row 13 feeds
// the controller's torque feed-forward, so a fit is refused (diagnosis on
// standard error, exit status 255, database untouched; without --write the
// fit is still printed) unless
//   - every joint's position spans at least kMinPositionSpread (0.05 rad) over
//     the file: an arm that did not move excites nothing;
//   - the condition number of the stacked regressor is finite and at most
//     kMaxConditionNumber (1e4);
//   - the relative RMS residual |W x - y| / |y| is finite and at most
//     kMaxRelativeResidual (25 %);
//   - each of the 48 identified values is finite and at most
//     kMaxParameterMagnitude (1e3) in magnitude.
// Exit status 1: a file or database cannot be read or written; 2: usage.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "collision_monitor.h"
#include "command_line.h"
#include "dynamics_tools.h"
#include "progress.h"

namespace {

using tqltools::ArmModel;
using tqltools::kIdentifiedColumns;
using tqltools::kJoints;

constexpr int kPeriodSamples = kExcitationSamples - 1;  // records per repetition
constexpr double kSamplePeriod = 0.004;                 // s
// Harmonics kept by the zero-phase fit: twice the excitation's own.
constexpr int kFitHarmonics = 2 * kExcitationHarmonics;

// Bounds of an identified fit. The demo excitation recorded on the simulated
// arm (16 periods, speed override 1 or 0.3, another tql-excite seed) gives a
// condition number of 120 to 122, a relative residual of 1.1 to 2.1 %, base
// parameters up to 0.94 and friction up to 0.40, with every joint spanning
// 1.75 to 3.0 rad; each bound leaves a wide margin over those.
//
// A torque error reaches the parameters amplified by up to the condition
// number. tql-excite's designs reach about 120; past 1e4 (80 times that) some
// parameter combination is barely excited and its value is set by noise. The
// Gram-matrix estimate of ConditionNumber is accurate far past this bound,
// and an exactly singular stack gives inf.
constexpr double kMaxConditionNumber = 1e4;
// A model that leaves a quarter of the recorded torque unexplained (12 to 22
// times the demo's residual) is fitting something else: wrong torque
// constants or geometry in the database, a foreign file, a collision,
// currents that do not belong to the motion.
constexpr double kMaxRelativeResidual = 0.25;
// The base parameters regroup link masses (kg), first moments (kg*m) and
// inertias (kg*m^2) of an arm with sub-metre links and at most tens of kg
// (the demo arm: under 10 kg, links up to 0.25 m), plus reflected rotor inertia:
// O(1). Friction, N*m*s/rad and N*m, is bounded by the torques the joints
// deliver. 1e3 is three orders above what the demo identifies and beyond any
// arm this controller drives; larger values are the signature of a
// near-singular or corrupted fit.
constexpr double kMaxParameterMagnitude = 1e3;
// The excitation swings every joint by radians; a joint spanning less than
// 0.05 rad (3 degrees, 35 times below the demo's smallest span) over the
// whole file did not run it: the arm was held, off or not commanded.
constexpr double kMinPositionSpread = 0.05;  // rad

// The collision thresholds: the identified run's peak residual times this
// margin; the sensitivity (system row 5) scales them again in the controller.
constexpr double kThresholdMargin = 1.25;
constexpr int kThresholdSettle = 4;  // samples

struct Record {
    double current[kJoints], velocity[kJoints], position[kJoints];
};

// Reads an excitation output file: rows of 3 x 6 finite numbers, whole periods.
bool ReadRecords(const std::string& path, std::vector<Record>* records, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    std::string line;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        double v[3 * kJoints];
        int count = 0;
        const char* p = line.c_str();
        while (*p != '\0') {
            char* end = nullptr;
            const double x = std::strtod(p, &end);
            if (end == p || count == 3 * kJoints || !std::isfinite(x)) {
                count = -1;
                break;
            }
            v[count++] = x;
            p = end;
            if (*p == ',') ++p;
            else if (*p != '\0') { count = -1; break; }
        }
        if (count != 3 * kJoints) {
            *error = path + ":" + std::to_string(line_no) + ": expected " + std::to_string(3 * kJoints) +
                     " numbers separated by ','";
            return false;
        }
        Record r;
        std::memcpy(r.current, v, sizeof r.current);
        std::memcpy(r.velocity, v + kJoints, sizeof r.velocity);
        std::memcpy(r.position, v + 2 * kJoints, sizeof r.position);
        records->push_back(r);
    }
    if (records->empty() || records->size() % kPeriodSamples != 0) {
        *error = path + ": " + std::to_string(records->size()) + " records; expected whole periods of " +
                 std::to_string(kPeriodSamples) + " (a complete excitation run)";
        return false;
    }
    return true;
}

// The regression data of one run: averaged torques and fitted motion per sample.
struct Samples {
    std::vector<std::array<double, kJoints>> q, dq, ddq, tau;
};

Samples Prepare(const std::vector<Record>& records, const ArmModel& model) {
    const int periods = static_cast<int>(records.size() / kPeriodSamples);
    Samples s;
    s.q.assign(kPeriodSamples, {});
    s.dq.assign(kPeriodSamples, {});
    s.ddq.assign(kPeriodSamples, {});
    s.tau.assign(kPeriodSamples, {});
    std::vector<std::array<double, kJoints>> mean_q(kPeriodSamples);
    for (int k = 0; k < kPeriodSamples; ++k) {
        for (int j = 0; j < kJoints; ++j) {
            double c = 0.0, q = 0.0;
            for (int r = 0; r < periods; ++r) {
                c += records[r * kPeriodSamples + k].current[j];
                q += records[r * kPeriodSamples + k].position[j];
            }
            s.tau[k][j] = c / periods * model.kt[j];
            mean_q[k][j] = q / periods;
        }
    }
    // Fourier fit over exactly one period: the sampled sines and cosines are
    // orthogonal, so each coefficient is a projection.
    const double w = 2.0 * M_PI / (kPeriodSamples * kSamplePeriod);
    for (int j = 0; j < kJoints; ++j) {
        double c0 = 0.0, cs[kFitHarmonics + 1] = {}, cc[kFitHarmonics + 1] = {};
        for (int k = 0; k < kPeriodSamples; ++k) {
            const double t = (k + 1) * kSamplePeriod;  // record k is sample k + 1
            c0 += mean_q[k][j];
            for (int h = 1; h <= kFitHarmonics; ++h) {
                cs[h] += mean_q[k][j] * std::sin(h * w * t);
                cc[h] += mean_q[k][j] * std::cos(h * w * t);
            }
        }
        c0 /= kPeriodSamples;
        for (int h = 1; h <= kFitHarmonics; ++h) {
            cs[h] *= 2.0 / kPeriodSamples;
            cc[h] *= 2.0 / kPeriodSamples;
        }
        for (int k = 0; k < kPeriodSamples; ++k) {
            const double t = (k + 1) * kSamplePeriod;
            double q = c0, dq = 0.0, ddq = 0.0;
            for (int h = 1; h <= kFitHarmonics; ++h) {
                const double hw = h * w, sn = std::sin(hw * t), cn = std::cos(hw * t);
                q += cs[h] * sn + cc[h] * cn;
                dq += hw * (cs[h] * cn - cc[h] * sn);
                ddq -= hw * hw * (cs[h] * sn + cc[h] * cn);
            }
            s.q[k][j] = q;
            s.dq[k][j] = dq;
            s.ddq[k][j] = ddq;
        }
    }
    return s;
}

void Stack(const Samples& s, const ArmModel& model, Eigen::MatrixXd* W, Eigen::VectorXd* y) {
    const int n = static_cast<int>(s.q.size());
    W->resize(n * kJoints, kIdentifiedColumns);
    y->resize(n * kJoints);
    double block[kJoints][kIdentifiedColumns];
    tql::Progress progress("tql-identify: regressor", 1, n);
    for (int k = 0; k < n; ++k) {
        progress.Update(k + 1);
        tqltools::IdentificationRegressor(model, s.q[k].data(), s.dq[k].data(), s.ddq[k].data(), block);
        for (int i = 0; i < kJoints; ++i) {
            for (int c = 0; c < kIdentifiedColumns; ++c) (*W)(k * kJoints + i, c) = block[i][c];
            (*y)(k * kJoints + i) = s.tau[k][i];
        }
    }
}

// Relative residual |W x - y| / |y| and per-joint RMS torque error.
double Report(const char* title, const Eigen::MatrixXd& W, const Eigen::VectorXd& y, const Eigen::VectorXd& x) {
    const Eigen::VectorXd e = W * x - y;
    const double relative = e.norm() / y.norm();
    std::printf("%s: relative RMS error %.3f %%\n", title, 100.0 * relative);
    std::printf("  RMS torque error per joint (N*m):");
    const int n = static_cast<int>(y.size() / kJoints);
    for (int j = 0; j < kJoints; ++j) {
        double sum = 0.0;
        for (int k = 0; k < n; ++k) sum += e(k * kJoints + j) * e(k * kJoints + j);
        std::printf(" %.4f", std::sqrt(sum / n));
    }
    std::printf("\n");
    return relative;
}

// Three significant digits, exponents without '+' and leading zeros ("1e4",
// "6.4e295"), and "nan" and "inf" spelled alike on every C library.
std::string Num(double v) {
    if (std::isnan(v)) return "nan";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3g", v);
    std::string s = buf;
    const size_t e = s.find('e');
    if (e != std::string::npos) {
        size_t digits = e + 1;
        if (s[digits] == '+') s.erase(digits, 1);
        else if (s[digits] == '-') ++digits;
        while (s[digits] == '0' && digits + 1 < s.size()) s.erase(digits, 1);
    }
    return s;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: tql-identify FILE [--db parameter.db] [--write parameter.db] [--validate FILE2]\n"
                 "  FILE       excitation output of 'tql admin' (file/excitation_output.txt)\n"
                 "  --db       database describing the arm (default: parameter.db)\n"
                 "  --write    store the result in row 13 of the robot type's table of that database\n"
                 "  --validate predict the torques of another run with the result\n"
                 "A fit is refused (exit status 255, nothing written) unless every joint's position\n"
                 "spans at least %.2g rad, the stacked regressor's condition number is at most %s,\n"
                 "the relative RMS residual at most %.0f %% and every identified value finite and\n"
                 "at most %s in magnitude.\n",
                 kMinPositionSpread, Num(kMaxConditionNumber).c_str(), 100.0 * kMaxRelativeResidual,
                 Num(kMaxParameterMagnitude).c_str());
    return 2;
}

// Reads and stacks one run; *spread (if given) receives each joint's position
// range over the file, rad.
bool Load(const std::string& path, const ArmModel& model, Eigen::MatrixXd* W, Eigen::VectorXd* y,
          double* spread = nullptr, std::vector<Record>* raw = nullptr) {
    std::vector<Record> records;
    std::string error;
    if (!ReadRecords(path, &records, &error)) {
        std::fprintf(stderr, "tql-identify: %s\n", error.c_str());
        return false;
    }
    for (int j = 0; spread != nullptr && j < kJoints; ++j) {
        double lo = records[0].position[j], hi = lo;
        for (const Record& r : records) lo = std::min(lo, r.position[j]), hi = std::max(hi, r.position[j]);
        spread[j] = hi - lo;
    }
    Stack(Prepare(records, model), model, W, y);
    if (raw != nullptr) *raw = std::move(records);
    return true;
}

// Each joint's collision threshold (N*m): the largest residual the collision
// monitor's observer, on the identified model, shows over the recorded run,
// sample by sample as the controller will see it (raw currents and
// velocities, noise included, no averaging), times kThresholdMargin. The
// observer restarts with each period, as a motion starts it, and its first
// kThresholdSettle samples are left out (it starts from rest at zero).
std::array<double, kJoints> CollisionThresholds(const std::vector<Record>& records, const ArmModel& model,
                                                const Eigen::VectorXd& x) {
    std::array<double, kJoints> peak{};
    const double never[kJoints] = {INFINITY, INFINITY, INFINITY, INFINITY, INFINITY, INFINITY};
    CollisionMonitor observer;
    tql::Progress progress("tql-identify: collision thresholds", 1, static_cast<long>(records.size()));
    for (size_t k = 0; k < records.size(); ++k) {
        progress.Update(static_cast<long>(k) + 1);
        if (k % kPeriodSamples == 0) observer.Start(model.a, model.d, x.data(), never);
        double q[kJoints], dq[kJoints], tau[kJoints];
        for (int j = 0; j < kJoints; ++j) {
            q[j] = records[k].position[j];
            dq[j] = records[k].velocity[j];
            tau[j] = records[k].current[j] * model.kt[j];
        }
        observer.Step(q, dq, tau, kSamplePeriod);
        if (static_cast<int>(k % kPeriodSamples) < kThresholdSettle) continue;
        for (int j = 0; j < kJoints; ++j) peak[j] = std::max(peak[j], std::fabs(observer.residual(j)));
    }
    for (double& t : peak) t *= kThresholdMargin;
    return peak;
}

std::string ValueName(int c) {
    if (c < kBaseParameterNum) return "base parameter " + std::to_string(c + 1);
    const int j = (c - kBaseParameterNum) % kJoints + 1;
    return (c < kBaseParameterNum + kJoints ? "viscous friction of joint " : "Coulomb friction of joint ") +
           std::to_string(j);
}

// Why the fit is not an identification; empty when it is.
std::vector<std::string> Diagnose(const double* spread, double cond, double residual, const Eigen::VectorXd& x) {
    std::vector<std::string> why;
    std::string still;
    int still_count = 0;
    double least = INFINITY;
    for (int j = 0; j < kJoints; ++j) {
        if (spread[j] >= kMinPositionSpread) continue;
        still += (still_count++ == 0 ? "" : " ") + std::to_string(j + 1);
        least = std::min(least, spread[j]);
    }
    if (still_count > 0) {
        why.push_back((still_count > 1 ? "joints " : "joint ") + still + " moved less than " +
                      Num(kMinPositionSpread) + " rad over the recording (least " + Num(least) +
                      " rad): the arm did not run the excitation");
    }
    if (!(cond <= kMaxConditionNumber)) {
        why.push_back("condition number " + Num(cond) + " (at most " + Num(kMaxConditionNumber) +
                      "): the recorded motion does not excite every parameter");
    }
    if (!std::isfinite(residual)) {
        why.push_back("relative RMS residual " + Num(residual) +
                      " (not finite): the recorded currents are all zero or overflow");
    } else if (residual > kMaxRelativeResidual) {
        why.push_back("relative RMS residual " + Num(100.0 * residual) + " % (at most " +
                      Num(100.0 * kMaxRelativeResidual) + " %): the model does not explain the recorded torques");
    }
    int infinite = 0, large = 0, first_infinite = -1, largest = -1;
    for (int c = 0; c < kIdentifiedColumns; ++c) {
        if (!std::isfinite(x(c))) {
            if (infinite++ == 0) first_infinite = c;
        } else if (std::fabs(x(c)) > kMaxParameterMagnitude) {
            ++large;
            if (largest < 0 || std::fabs(x(c)) > std::fabs(x(largest))) largest = c;
        }
    }
    if (infinite > 0) {
        why.push_back(std::to_string(infinite) + " of " + std::to_string(kIdentifiedColumns) +
                      " identified values not finite (" + ValueName(first_infinite) + ": " +
                      Num(x(first_infinite)) + ")");
    }
    if (large > 0) {
        why.push_back(std::to_string(large) + " of " + std::to_string(kIdentifiedColumns) +
                      " identified values beyond " + Num(kMaxParameterMagnitude) + " in magnitude (" +
                      ValueName(largest) + ": " + Num(x(largest)) + "): not the parameters of an arm this size");
    }
    return why;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file, db = "parameter.db", write, validate;
    CLI::App app{"Identifies the arm's dynamic parameters (row 13) and collision thresholds (row 17).",
                 "tql-identify"};
    app.add_option("FILE", file, "excitation output of 'tql admin'")->required();
    app.add_option("--db", db, "database describing the arm");
    app.add_option_function<std::string>(
        "--write", [&](const std::string& to) { db = write = to; }, "store rows 13 and 17 in this database");
    app.add_option("--validate", validate, "predict the torques of another run with the result");
    if (const int status = tqltools::ParseCommandLine(app, argc, argv, Usage); status >= 0) return status;

    ArmModel model;
    std::string error;
    if (!tqltools::LoadArmModel(db, &model, &error)) {
        std::fprintf(stderr, "tql-identify: %s\n", error.c_str());
        return 1;
    }
    Eigen::MatrixXd W;
    Eigen::VectorXd y;
    double spread[kJoints];
    std::vector<Record> records;
    if (!Load(file, model, &W, &y, spread, &records)) return 1;

    const double cond = tqltools::ConditionNumber(W);
    Eigen::BDCSVD<Eigen::MatrixXd> svd(W, Eigen::ComputeThinU | Eigen::ComputeThinV);
    const Eigen::VectorXd x = svd.solve(y);
    std::printf("%d samples of %d joints, %d parameters\n", static_cast<int>(W.rows() / kJoints), kJoints,
                kIdentifiedColumns);
    std::printf("condition number of the stacked regressor: %.1f\n", cond);
    const double residual = Report("fit", W, y, x);
    std::printf("base parameters P (36):");
    for (int c = 0; c < kBaseParameterNum; ++c) std::printf("%s%.6g", c % 6 ? " " : "\n  ", x(c));
    std::printf("\nviscous friction (N*m*s/rad):");
    for (int j = 0; j < kJoints; ++j) std::printf(" %.4g", x(kBaseParameterNum + j));
    std::printf("\nCoulomb friction (N*m):");
    for (int j = 0; j < kJoints; ++j) std::printf(" %.4g", x(kBaseParameterNum + kJoints + j));
    std::printf("\n");
    const std::array<double, kJoints> thresholds = CollisionThresholds(records, model, x);
    std::printf("collision thresholds (N*m, %.3g x the observer's peak residual on this run):", kThresholdMargin);
    for (double t : thresholds) std::printf(" %.3g", t);
    std::printf("\n");
    std::fflush(stdout);  // the fit, then its diagnosis, when both go to one stream
    const std::vector<std::string> why = Diagnose(spread, cond, residual, x);
    for (const std::string& reason : why) {
        std::fprintf(stderr, "tql-identify: the fit is not identified: %s\n", reason.c_str());
    }

    if (!validate.empty()) {
        Eigen::MatrixXd Wv;
        Eigen::VectorXd yv;
        if (!Load(validate, model, &Wv, &yv)) return 1;
        Report("validation", Wv, yv, x);
    }
    if (!why.empty()) {
        if (!write.empty()) std::fprintf(stderr, "tql-identify: nothing written to %s\n", write.c_str());
        return 255;
    }
    if (!write.empty()) {
        const std::vector<tqltools::TypeRow> rows = {
            {tqltools::kDynamicParameterRow, std::vector<double>(x.data(), x.data() + x.size())},
            {tqltools::kCollisionThresholdRow, std::vector<double>(thresholds.begin(), thresholds.end()),
             tqltools::kCollisionThresholdName}};
        if (!tqltools::WriteTypeRows(write, model.type_name, rows, &error)) {
            std::fprintf(stderr, "tql-identify: %s\n", error.c_str());
            return 1;
        }
        std::printf("wrote rows %d and %d of table %s in %s\n", tqltools::kDynamicParameterRow,
                    tqltools::kCollisionThresholdRow, model.type_name.c_str(), write.c_str());
    }
    return 0;
}

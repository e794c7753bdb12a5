// tql-excite [--db parameter.db] [--write parameter.db] [--seed N] [--iterations N]
//            [--max-angle DEG] [--margin F]
//
// Designs the excitation of an identification run: per joint a five-harmonic
// Fourier series q(t) = q0 + sum_l a_l sin(l w t) + b_l cos(l w t) with the
// run's fixed w, whose stacked identification regressor is as well
// conditioned as the search finds, while every joint stays within
// +-max-angle and within margin x the database's speed and acceleration
// limits, and the flange and the wrist centre stay 20 mm inside the
// workspace box (row 15) where the database has one. Each period starts and ends at rest (zero velocity and
// acceleration at t = 0): a1 and b1 are fixed by the other coefficients, so
// the repetitions join smoothly.
//
// The search is a seeded (1+1) evolution strategy with the one-fifth success
// rule on log(condition number) plus a penalty for any limit exceeded; it is
// deterministic for a seed.
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "command_line.h"
#include "dynamics_tools.h"
#include "kinematics.h"
#include "progress.h"

namespace {

using tqltools::ArmModel;
using tqltools::kIdentifiedColumns;
using tqltools::kJoints;

constexpr int kH = kExcitationHarmonics;
constexpr int kFree = 1 + 2 * (kH - 1);  // q0, a2..a5, b2..b5 per joint
constexpr double kPeriodSeconds = 10.0;
constexpr int kLimitPoints = 500;    // where the limits are checked, per period
constexpr int kRegressorPoints = 80;  // where the regressor is stacked, per period
// Kept from the workspace box's walls by the design, mm: the 500 points the
// limits are checked at are 20 ms apart, and the controller checks every 4 ms.
constexpr double kWorkspaceMargin = 20.0;

struct Options {
    std::string db = "parameter.db", write;
    unsigned seed = 1;
    int iterations = 2000;
    double max_angle = 120.0;  // degrees
    double margin = 0.8;       // fraction of the speed and acceleration limits
};

// Free variables -> the run's coefficient table (q0, a1..a5, b1..b5 per joint).
void Coefficients(const std::vector<double>& x, double* c) {
    for (int j = 0; j < kJoints; ++j) {
        const double* v = &x[j * kFree];
        double* out = c + j * kExcitationCoefficients;
        out[0] = v[0];
        double sa = 0.0, sb = 0.0;
        for (int l = 2; l <= kH; ++l) {
            out[l] = v[l - 1];               // a_l
            out[kH + l] = v[kH - 1 + l - 1];  // b_l
            sa += l * out[l];
            sb += l * l * out[kH + l];
        }
        out[1] = -sa;       // dq(0) = w * sum l a_l = 0
        out[kH + 1] = -sb;  // ddq(0) = -w^2 * sum l^2 b_l = 0
    }
}

// q, dq, ddq of every joint at time t.
void Motion(const double* c, double t, double* q, double* dq, double* ddq) {
    for (int j = 0; j < kJoints; ++j) {
        const double* cj = c + j * kExcitationCoefficients;
        q[j] = cj[0];
        dq[j] = ddq[j] = 0.0;
        for (int l = 1; l <= kH; ++l) {
            const double lw = l * kExcitationOmega, s = std::sin(lw * t), co = std::cos(lw * t);
            q[j] += cj[l] * s + cj[kH + l] * co;
            dq[j] += lw * (cj[l] * co - cj[kH + l] * s);
            ddq[j] -= lw * lw * (cj[l] * s + cj[kH + l] * co);
        }
    }
}

// How far [m] the flange or the wrist centre at joints q lies outside the
// database's workspace box shrunk by kWorkspaceMargin (0 inside, or with no box).
double OutsideWorkspace(const ArmModel& m, const double* q) {
    if (!m.has_workspace_box) return 0.0;
    double a_mm[kJoints], d_mm[kJoints], L[6], T[4][4];
    for (int j = 0; j < kJoints; ++j) a_mm[j] = 1000.0 * m.a[j], d_mm[j] = 1000.0 * m.d[j];
    GeometryFromDh(a_mm, d_mm, L);
    fk_ur(q, T, L);
    const double d6 = d_mm[5];
    const double flange[3] = {T[0][3], T[1][3], T[2][3]};
    const double wrist[3] = {T[0][3] - d6 * T[0][2], T[1][3] - d6 * T[1][2], T[2][3] - d6 * T[2][2]};
    double out = 0.0;
    for (const double* p : {flange, wrist})
        for (int k = 0; k < 3; ++k) {
            const double lo = m.workspace_box[2 * k] + kWorkspaceMargin, hi = m.workspace_box[2 * k + 1] - kWorkspaceMargin;
            out = std::fmax(out, std::fmax(lo - p[k], p[k] - hi));
        }
    return std::fmax(out, 0.0) / 1000.0;
}

// Sum over joints and kinds of how far the worst value exceeds its bound
// (relative), and how far [m] the arm leaves the workspace; 0 when everything
// is inside.
double Violation(const double* c, const ArmModel& m, const Options& o) {
    double worst[3][kJoints] = {};
    double q[kJoints], dq[kJoints], ddq[kJoints];
    double outside = 0.0;  // worst distance outside the workspace box, m
    for (int k = 0; k < kLimitPoints; ++k) {
        Motion(c, k * kPeriodSeconds / kLimitPoints, q, dq, ddq);
        for (int j = 0; j < kJoints; ++j) {
            worst[0][j] = std::fmax(worst[0][j], std::fabs(q[j]) / (o.max_angle * M_PI / 180.0));
            worst[1][j] = std::fmax(worst[1][j], std::fabs(dq[j]) / (o.margin * m.speed_limit[j]));
            worst[2][j] = std::fmax(worst[2][j], std::fabs(ddq[j]) / (o.margin * m.acceleration_limit[j]));
        }
        outside = std::fmax(outside, OutsideWorkspace(m, q));
    }
    double v = outside;
    for (auto& kind : worst)
        for (double w : kind) v += std::fmax(0.0, w - 1.0);
    return v;
}

double Condition(const double* c, const ArmModel& m) {
    Eigen::MatrixXd W(kRegressorPoints * kJoints, kIdentifiedColumns);
    double q[kJoints], dq[kJoints], ddq[kJoints], block[kJoints][kIdentifiedColumns];
    for (int k = 0; k < kRegressorPoints; ++k) {
        Motion(c, (k + 0.5) * kPeriodSeconds / kRegressorPoints, q, dq, ddq);
        tqltools::IdentificationRegressor(m, q, dq, ddq, block);
        for (int i = 0; i < kJoints; ++i)
            for (int col = 0; col < kIdentifiedColumns; ++col) W(k * kJoints + i, col) = block[i][col];
    }
    return tqltools::ConditionNumber(W);
}

struct Score {
    double cost, cond, violation;
};

Score Evaluate(const std::vector<double>& x, const ArmModel& m, const Options& o) {
    double c[kJoints * kExcitationCoefficients];
    Coefficients(x, c);
    const double v = Violation(c, m, o);
    const double cond = Condition(c, m);
    return {std::log(cond) + 1e3 * v, cond, v};
}

int Usage() {
    std::fprintf(stderr,
                 "usage: tql-excite [--db parameter.db] [--write parameter.db] [--seed N] [--iterations N]\n"
                 "                  [--max-angle DEG] [--margin F]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    CLI::App app{"Designs the identification run's excitation (row 14 of the robot type's table).", "tql-excite"};
    app.add_option("--db", o.db, "database describing the arm");
    app.add_option_function<std::string>(
        "--write", [&o](const std::string& db) { o.db = o.write = db; }, "store the design in this database");
    app.add_option("--seed", o.seed, "random seed of the search");
    app.add_option("--iterations", o.iterations, "search iterations")->check(CLI::Range(1, 1000000));
    app.add_option("--max-angle", o.max_angle, "largest joint angle, degrees")
        ->check(CLI::Range(0.0, 180.0) & !CLI::IsMember({0.0}));
    app.add_option("--margin", o.margin, "share of the speed and acceleration limits")
        ->check(CLI::Range(0.0, 1.0) & !CLI::IsMember({0.0}));
    if (const int status = tqltools::ParseCommandLine(app, argc, argv, Usage); status >= 0) return status;
    ArmModel m;
    std::string error;
    if (!tqltools::LoadArmModel(o.db, &m, &error)) {
        std::fprintf(stderr, "tql-excite: %s\n", error.c_str());
        return 1;
    }
    for (int j = 0; j < kJoints; ++j) {
        if (!(m.speed_limit[j] > 0.0 && m.acceleration_limit[j] > 0.0)) {
            std::fprintf(stderr, "tql-excite: joint %d has no positive speed and acceleration limit\n", j + 1);
            return 1;
        }
    }

    // Start: small random harmonics about the zero pose (inside every limit).
    std::mt19937 rng(o.seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<double> x(kJoints * kFree, 0.0);
    for (int j = 0; j < kJoints; ++j)
        for (int v = 1; v < kFree; ++v) x[j * kFree + v] = 0.01 * normal(rng);
    Score best = Evaluate(x, m, o);
    double sigma = 0.02;
    tql::Progress progress("tql-excite: iteration", o.iterations);
    for (int it = 0; it < o.iterations; ++it) {
        progress.Update(it + 1);
        std::vector<double> y = x;
        for (double& v : y) v += sigma * normal(rng);
        const Score s = Evaluate(y, m, o);
        if (s.cost < best.cost) {
            x = y;
            best = s;
            sigma *= 1.5;
        } else {
            sigma *= std::pow(1.5, -0.25);  // one success in five keeps sigma
        }
        sigma = std::fmin(std::fmax(sigma, 1e-5), 0.5);
    }
    if (best.violation > 0.0) {
        std::fprintf(stderr, "tql-excite: no design within the limits found (excess %.3g); try more iterations\n",
                     best.violation);
        return 1;
    }

    double c[kJoints * kExcitationCoefficients];
    Coefficients(x, c);
    std::printf("condition number of the stacked regressor: %.1f\n", best.cond);
    std::printf("coefficients per joint (rad): q0, a1..a5, b1..b5\n");
    for (int j = 0; j < kJoints; ++j) {
        std::printf("  joint %d:", j + 1);
        for (int k = 0; k < kExcitationCoefficients; ++k) std::printf(" %.5f", c[j * kExcitationCoefficients + k]);
        std::printf("\n");
    }
    if (!o.write.empty()) {
        const std::vector<double> values(c, c + kJoints * kExcitationCoefficients);
        if (!tqltools::WriteTypeRow(o.write, m.type_name, tqltools::kExcitationRow, values, &error)) {
            std::fprintf(stderr, "tql-excite: %s\n", error.c_str());
            return 1;
        }
        std::printf("wrote row %d of table %s in %s\n", tqltools::kExcitationRow, m.type_name.c_str(),
                    o.write.c_str());
    }
    return 0;
}

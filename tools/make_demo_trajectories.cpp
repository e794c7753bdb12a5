// Writes the demo directory's trajectory files and its reset test program from
// smooth joint-space functions, so the demo data is computed, not typed.
//
// Every trajectory starts and ends at rest at the zero pose (home), sampled
// every 4 ms, degrees. The demo arm's joint limits are 90 deg/s (joints 1-3)
// and 120 deg/s (joints 4-6), +-170 deg; after a reset joint 2 is held within
// +-90 deg. Each function below stays under half those speeds and within
// +-60 deg (the peak speed is noted beside each; the build checks none of
// this, the tests replay the files on the simulated arm and count every
// set-point beyond its limits).
//
//   trajectory.txt  every joint swings out and back on a raised cosine (4 s)
//   dancing.txt     each joint sways at its own rate under a sine-squared
//                   envelope (8 s)
//   look.txt        the base pans left and right while the wrist nods (6 s)
//   snake.txt       a wave runs from the shoulder to the wrist (10 s)
//   reset_test.txt  joint moves through four points of a closed joint-space
//                   curve and home again (a motion program)
//
// Usage: make_demo_trajectories DIR   (writes the files into DIR)
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>

namespace {

constexpr double kPeriod = 0.004;  // s, one sample
constexpr double kPi = 3.14159265358979323846;
constexpr int kJoints = 6;

using Pose = std::function<void(double t, double* q)>;  // q in degrees at t seconds

// sin^2(pi t / T): 0 with zero slope at both ends.
double Envelope(double t, double T) {
    const double s = std::sin(kPi * t / T);
    return s * s;
}

// Writes the file beside its name and renames it over the old one.
bool WriteWhole(const std::string& path, const std::function<void(std::ostream&)>& body) {
    const std::string temporary = path + ".part";
    std::ofstream out(temporary, std::ios::trunc);
    body(out);
    out.close();
    return out && std::rename(temporary.c_str(), path.c_str()) == 0;
}

bool WriteTrajectory(const std::string& path, double duration, const Pose& pose) {
    return WriteWhole(path, [&](std::ostream& out) {
        const int samples = static_cast<int>(std::lround(duration / kPeriod)) + 1;
        double q[kJoints];
        for (int k = 0; k < samples; ++k) {
            pose(k * kPeriod, q);
            // Round-off near the zero pose written as 0 (never "-0" or "1e-46").
            for (int j = 0; j < kJoints; ++j) out << (j ? "," : "") << (std::fabs(q[j]) < 1e-9 ? 0.0 : q[j]);
            out << '\n';
        }
    });
}

bool WriteResetProgram(const std::string& path) {
    return WriteWhole(path, [](std::ostream& out) {
        out << "// Test run after a reset: joint moves through four points of a closed\n"
               "// joint-space curve, q_j = A_j sin(theta + 60 j deg), then home.\n";
        const double amplitude[kJoints] = {25, 15, 25, 20, 30, 35};
        for (int p = 0; p < 4; ++p) {
            out << "MOVJ VJ=30 z0 ";
            for (int j = 0; j < kJoints; ++j) {
                const double v = amplitude[j] * std::sin(p * kPi / 2.0 + j * kPi / 3.0);
                out << (j ? "," : "") << std::round(v * 100.0) / 100.0 + 0.0;
            }
            out << '\n';
        }
        out << "MOVJ VJ=30 z0 0,0,0,0,0,0\n";
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_demo_trajectories DIR" << std::endl;
        return 2;
    }
    const std::string dir = argv[1];
    // Peak 35 deg/s: A pi / T with A = 45, T = 4.
    const double swing[kJoints] = {30.0, -20.0, 25.0, 20.0, 30.0, 45.0};
    const Pose trajectory = [&](double t, double* q) {
        const double s = (1.0 - std::cos(2.0 * kPi * t / 3.996)) / 2.0;
        for (int j = 0; j < kJoints; ++j) q[j] = swing[j] * s;
    };
    // Peak about 47 deg/s (joint 5; 40 deg/s on joints 1-3), enveloped.
    const double sway[kJoints] = {25, 12, 12, 25, 20, 30};
    const double rate[kJoints] = {0.25, 0.5, 0.5, 0.25, 0.375, 0.25};
    const Pose dancing = [&](double t, double* q) {
        for (int j = 0; j < kJoints; ++j) q[j] = sway[j] * std::sin(2.0 * kPi * rate[j] * t) * Envelope(t, 8.0);
    };
    // Peak about 45 deg/s (the wrist's nod; the base pans 20 deg twice in 6 s).
    const Pose look = [](double t, double* q) {
        const double e = Envelope(t, 6.0);
        q[0] = 20.0 * std::sin(2.0 * kPi * t / 3.0) * e;
        q[1] = 10.0 * e;
        q[2] = 20.0 * e;
        q[3] = 0.0;
        q[4] = -30.0 * e + 10.0 * std::sin(2.0 * kPi * t / 1.5) * e;
        q[5] = 0.0;
    };
    // Peak about 40 deg/s: 20 deg at 0.4 Hz with a phase lag of 50 deg per joint.
    const Pose snake = [](double t, double* q) {
        q[0] = 30.0 * std::sin(2.0 * kPi * t / 10.0) * Envelope(t, 10.0);
        for (int j = 1; j < kJoints; ++j)
            q[j] = 20.0 * std::sin(2.0 * kPi * 0.4 * t - j * 50.0 * kPi / 180.0) * Envelope(t, 10.0);
    };
    const bool ok = WriteTrajectory(dir + "/trajectory.txt", 3.996, trajectory) &&
                    WriteTrajectory(dir + "/dancing.txt", 8.0, dancing) &&
                    WriteTrajectory(dir + "/look.txt", 6.0, look) && WriteTrajectory(dir + "/snake.txt", 10.0, snake) &&
                    WriteResetProgram(dir + "/reset_test.txt");
    if (!ok) {
        std::cerr << "make_demo_trajectories: cannot write into " << dir << std::endl;
        return 1;
    }
    return 0;
}

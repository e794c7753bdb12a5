// Writes the demo directory's trajectory files from smooth joint-space
// functions, so the demo data is computed, not typed.
//
// "trajectory.txt": every joint swings from the zero pose out to its
// amplitude and back on a raised cosine, q_j(t) = A_j (1 - cos(2 pi t / T)) / 2,
// which starts and ends at rest. 1000 samples of 4 ms (T = 4 s). The peak
// speed A_j pi / T is at most 35 deg/s, far inside the demo arm's joint limits
// (90..120 deg/s, +-170 deg).
//
// Usage: make_demo_trajectories DIR   (writes DIR/trajectory.txt)
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

namespace {

constexpr double kPeriod = 0.004;  // s, one sample
constexpr int kSamples = 1000;
constexpr double kPi = 3.14159265358979323846;
// Amplitudes, degrees, joint 1 first.
constexpr double kAmplitude[6] = {30.0, -20.0, 25.0, 20.0, 30.0, 45.0};

bool WriteSwing(const std::string& path) {
    const std::string temporary = path + ".part";
    std::ofstream out(temporary, std::ios::trunc);
    const double duration = (kSamples - 1) * kPeriod;
    for (int k = 0; k < kSamples && out; ++k) {
        const double s = (1.0 - std::cos(2.0 * kPi * k * kPeriod / duration)) / 2.0;
        for (int j = 0; j < 6; ++j) out << (j ? "," : "") << kAmplitude[j] * s + 0.0;  // + 0.0: no "-0"
        out << '\n';
    }
    out.close();
    return out && std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_demo_trajectories DIR" << std::endl;
        return 2;
    }
    const std::string path = std::string(argv[1]) + "/trajectory.txt";
    if (!WriteSwing(path)) {
        std::cerr << "make_demo_trajectories: cannot write " << path << std::endl;
        return 1;
    }
    return 0;
}

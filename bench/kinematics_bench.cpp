// Closed-form kinematics of the demo arm (GL_6L3) against KDL's generic
// solvers on the same chain and the same poses.
//
//   BM_fk_ur          vs BM_KdlFkRecursive   (forward kinematics)
//   BM_ik_ur          vs BM_KdlIkLma         (inverse kinematics, perturbed seed)
//
// Poses come from a fixed set of seeded random joint vectors kept away from
// singularities; every iteration takes the next one.
#include <benchmark/benchmark.h>
#include <kdl/chain.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainiksolverpos_lma.hpp>

#include <cmath>
#include <random>
#include <vector>

#include "kinematics.h"

namespace {

constexpr double kHalfPi = 1.5707963267948966;
// Demo arm, mm: d1, d4, d5, d6, a2, a3.
constexpr double kL[6] = {152.0, 112.0, 85.0, 82.0, 244.0, 213.0};
constexpr int kPoseCount = 1024;
constexpr double kSeedPerturbation = 0.01;  // rad, per joint

// Modified DH chain of the same arm; KDL works in metres.
KDL::Chain DemoChain() {
    const double alpha[6] = {0, kHalfPi, 0, 0, -kHalfPi, kHalfPi};
    const double a[6] = {0, 0, kL[4], kL[5], 0, 0};
    const double d[6] = {kL[0], 0, 0, kL[1], kL[2], kL[3]};
    const double offset[6] = {0, kHalfPi, 0, -kHalfPi, 0, 0};
    KDL::Chain chain;
    for (int i = 0; i < 6; ++i) {
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::None),
                                      KDL::Frame::DH_Craig1989(a[i] / 1000.0, alpha[i],
                                                               d[i] / 1000.0, offset[i])));
        chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), KDL::Frame::Identity()));
    }
    return chain;
}

struct Sample {
    double q[6];     // true joint angles, rad
    double seed[6];  // q perturbed
    double T[4][4];  // flange pose, mm
    KDL::Frame frame;  // the same pose, m
};

// Skips joint vectors whose branch separations (shoulder, wrist, elbow) are
// below 0.05 rad, so that a seed 0.01 rad off stays on the same branch.
bool WellAwayFromSingularities(const double* q) {
    const double t2 = q[1] + kHalfPi, t4 = q[3] - kHalfPi;
    const double reach = kL[4] * std::cos(t2) + kL[5] * std::cos(t2 + q[2]) -
                         kL[2] * std::sin(t2 + q[2] + t4);
    const double shoulder = 2.0 * std::atan2(std::fabs(reach), kL[1]);
    const double wrist = 2.0 * std::min(std::fabs(std::remainder(q[4], 2 * M_PI)),
                                        M_PI - std::fabs(std::remainder(q[4], 2 * M_PI)));
    const double elbow = 2.0 * std::atan2(kL[5] * std::fabs(std::sin(q[2])),
                                          std::fabs(kL[4] + kL[5] * std::cos(q[2])));
    return std::min(shoulder, std::min(wrist, elbow)) > 0.05;
}

const std::vector<Sample>& Samples() {
    static const std::vector<Sample> samples = [] {
        std::vector<Sample> out;
        std::mt19937 rng(4242);
        std::uniform_real_distribution<double> angle(-M_PI, M_PI);
        std::uniform_real_distribution<double> nudge(-kSeedPerturbation, kSeedPerturbation);
        while (static_cast<int>(out.size()) < kPoseCount) {
            Sample s;
            for (int i = 0; i < 6; ++i) s.q[i] = angle(rng);
            if (!WellAwayFromSingularities(s.q)) continue;
            for (int i = 0; i < 6; ++i) s.seed[i] = s.q[i] + nudge(rng);
            fk_ur(s.q, s.T, kL);
            KDL::Rotation R(s.T[0][0], s.T[0][1], s.T[0][2], s.T[1][0], s.T[1][1], s.T[1][2],
                            s.T[2][0], s.T[2][1], s.T[2][2]);
            s.frame = KDL::Frame(R, KDL::Vector(s.T[0][3], s.T[1][3], s.T[2][3]) / 1000.0);
            out.push_back(s);
        }
        return out;
    }();
    return samples;
}

void BM_fk_ur(benchmark::State& state) {
    const auto& samples = Samples();
    size_t i = 0;
    double T[4][4];
    for (auto _ : state) {
        fk_ur(samples[i].q, T, kL);
        benchmark::DoNotOptimize(T);
        benchmark::ClobberMemory();
        i = (i + 1) % samples.size();
    }
}
BENCHMARK(BM_fk_ur);

void BM_KdlFkRecursive(benchmark::State& state) {
    const auto& samples = Samples();
    KDL::Chain chain = DemoChain();
    KDL::ChainFkSolverPos_recursive fk(chain);
    KDL::JntArray q(6);
    KDL::Frame f;
    size_t i = 0;
    for (auto _ : state) {
        for (int j = 0; j < 6; ++j) q(j) = samples[i].q[j];
        fk.JntToCart(q, f);
        benchmark::DoNotOptimize(f);
        i = (i + 1) % samples.size();
    }
}
BENCHMARK(BM_KdlFkRecursive);

void BM_ik_ur(benchmark::State& state) {
    const auto& samples = Samples();
    double L[6] = {kL[0], kL[1], kL[2], kL[3], kL[4], kL[5]};
    double T[4][4];
    double q[6];
    size_t i = 0;
    int64_t failures = 0;
    for (auto _ : state) {
        const Sample& s = samples[i];
        for (int j = 0; j < 6; ++j) q[j] = s.seed[j];
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) T[r][c] = s.T[r][c];
        failures += ik_ur(q, T, L) != 0;
        benchmark::DoNotOptimize(q);
        i = (i + 1) % samples.size();
    }
    state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_ik_ur);

void BM_KdlIkLma(benchmark::State& state) {
    const auto& samples = Samples();
    KDL::Chain chain = DemoChain();
    KDL::ChainIkSolverPos_LMA ik(chain);
    KDL::JntArray seed(6), out(6);
    size_t i = 0;
    int64_t failures = 0;
    for (auto _ : state) {
        const Sample& s = samples[i];
        for (int j = 0; j < 6; ++j) seed(j) = s.seed[j];
        failures += ik.CartToJnt(seed, s.frame, out) < 0;
        benchmark::DoNotOptimize(out);
        i = (i + 1) % samples.size();
    }
    state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_KdlIkLma);

}  // namespace

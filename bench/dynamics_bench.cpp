// The dynamic model and the physical simulation on the demo arm.
//
//   BM_InverserDynamicsUr  vs BM_KdlRne   (inverse dynamics, seeded states;
//                                          KDL's ChainIdSolver_RNE through
//                                          the simulated world, friction off)
//   BM_CollisionDetection                 (one 4 ms step of the observer:
//                                          five model evaluations)
//   BM_CollisionMonitorStep               (one step of the collision reflex's
//                                          observer, the same five)
//   BM_SimulatedPeriod                    (one 4 ms period of the simulated
//                                          arm in current mode on the virtual
//                                          clock, with the controller's reads)
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "collision_monitor.h"
#include "database.h"
#include "dynamics.h"
#include "sim_control.h"
#include "sim_world.h"

namespace {

constexpr int kStates = 256;
// Demo arm, metres.
constexpr double kA[6] = {0, 0, 0.244, 0.213, 0, 0};
constexpr double kD[6] = {0.152, 0, 0, 0.112, 0.085, 0.082};

struct State {
    double q[6], dq[6], ddq[6];
};

std::vector<State> States() {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    std::vector<State> s(kStates);
    for (State& x : s)
        for (int i = 0; i < 6; ++i) {
            x.q[i] = u(rng);
            x.dq[i] = u(rng);
            x.ddq[i] = u(rng);
        }
    return s;
}

std::string DemoFile(const char* name) { return std::string(TQL_DEMO_DIR) + "/" + name; }

void BM_InverserDynamicsUr(benchmark::State& st) {
    std::vector<State> states = States();
    double a[6], d[6], P[36], tau[6];
    for (int i = 0; i < 6; ++i) {
        a[i] = kA[i];
        d[i] = kD[i];
    }
    for (int c = 0; c < 36; ++c) P[c] = 0.01 * (c + 1);
    size_t k = 0;
    for (auto _ : st) {
        State& s = states[k++ % kStates];
        InverserDynamicsUr(a, d, s.q, s.dq, s.ddq, tau, P);
        benchmark::DoNotOptimize(tau);
    }
}
BENCHMARK(BM_InverserDynamicsUr);

void BM_KdlRne(benchmark::State& st) {
    tqlsim::World world;
    std::string problem;
    if (!world.Load(DemoFile("arm.urdf"), &problem)) {
        st.SkipWithError(problem.c_str());
        return;
    }
    world.set_friction(false);
    std::vector<State> states = States();
    double tau[6];
    size_t k = 0;
    for (auto _ : st) {
        State& s = states[k++ % kStates];
        world.InverseDynamics(s.q, s.dq, s.ddq, tau);
        benchmark::DoNotOptimize(tau);
    }
}
BENCHMARK(BM_KdlRne);

void BM_CollisionDetection(benchmark::State& st) {
    Robot robot;
    robot.robot_type_ = 1;
    robot.joint_num_ = 6;
    for (int i = 0; i < 6; ++i) robot.link_[i].SetMdhParameters(0.0, 0.0, kA[i] * 1000.0, kD[i] * 1000.0);
    std::vector<State> states = States();
    double tau[6] = {}, spare[6];
    size_t k = 0;
    for (auto _ : st) {
        State& s = states[k++ % kStates];
        InitC();  // keeps the residual below every threshold
        benchmark::DoNotOptimize(robot.CollisionDetection(s.q, s.q, s.dq, tau, spare));
    }
}
BENCHMARK(BM_CollisionDetection);

void BM_CollisionMonitorStep(benchmark::State& st) {
    Robot robot;
    robot.robot_type_ = 1;
    robot.joint_num_ = 6;
    for (int i = 0; i < 6; ++i) robot.link_[i].SetMdhParameters(0.0, 0.0, kA[i] * 1000.0, kD[i] * 1000.0);
    ResourceData* rd = GetResourceDate();
    rd->collision_switch = true;
    rd->collision_threshold_set = true;
    rd->collision_factor = 1.0;
    for (int i = 0; i < 6; ++i) rd->collision_threshold[i] = 1e9;  // never reached
    CollisionMonitor monitor;
    if (!monitor.Arm(&robot)) {
        st.SkipWithError("the monitor did not arm");
        return;
    }
    std::vector<State> states = States();
    double tau[6] = {};
    size_t k = 0;
    for (auto _ : st) {
        State& s = states[k++ % kStates];
        benchmark::DoNotOptimize(monitor.Step(s.q, s.dq, tau, 0.004));
    }
}
BENCHMARK(BM_CollisionMonitorStep);

// The bus is loaded from the demo directory on the virtual clock; every
// iteration is one period of a hand-guiding loop: six currents out, a
// request, the events, the readings, a 4 ms sleep (the physics catches up).
void BM_SimulatedPeriod(benchmark::State& st) {
    // A scratch copy of the demo directory: the bus keeps its state there.
    char dir[] = "/tmp/tql-bench-XXXXXX";
    std::error_code ec;
    if (mkdtemp(dir) == nullptr) return st.SkipWithError("no scratch directory");
    std::filesystem::copy(TQL_DEMO_DIR, dir, std::filesystem::copy_options::recursive, ec);
    std::filesystem::remove(std::string(dir) + "/sim_state.txt", ec);
    if (ec || chdir(dir) != 0) return st.SkipWithError("cannot copy the demo directory");
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    tql_sim_reset();
    ActuatorController* c = ActuatorController::initController();
    Actuator::ErrorsDefine err;
    const auto uids = c->lookupActuators(err);
    c->enableActuatorInBatch(uids);
    const std::vector<uint8_t> ids = c->getActuatorIdArray();
    if (!tql_sim_physics()) return st.SkipWithError("the simulated bus has no physics");
    c->activateActuatorModeInBantch(ids, Actuator::Mode_Cur);
    for (auto _ : st) {
        for (uint8_t id : ids) c->setCurrent(id, 0.5, "");
        for (uint8_t id : ids) c->requestCVPValue(id, "");
        c->processEvents();
        for (uint8_t id : ids) benchmark::DoNotOptimize(c->getPosition(id, false, ""));
        tql_sim_sleep(0.004);
    }
    for (uint8_t id : ids) c->disableActuator(id, "");
}
BENCHMARK(BM_SimulatedPeriod);

}  // namespace

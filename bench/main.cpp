// Runs every benchmark of the binary, then prints how the library compares
// with KDL on the same arm and states, what share of the 4 ms control period
// a linear-move tick and a collision-observer step take, and how much faster
// than real time the physical simulation runs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

// Console output as usual, plus the CPU time per iteration of each run (ns).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        // Aggregates come after their repetitions: with repetitions the median
        // wins, otherwise the single run stands.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            ns_[run.run_name.function_name] = run.GetAdjustedCPUTime() * TimeUnitNs(run.time_unit);
            auto motion = run.counters.find("motion_ns");
            if (motion != run.counters.end()) motion_ns_[run.run_name.function_name] = motion->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void PrintRatios() const {
        std::printf("\n");
        Ratio("ik_ur is", "BM_KdlIkLma", "BM_ik_ur", "times faster than KDL ChainIkSolverPos_LMA");
        Ratio("fk_ur is", "BM_KdlFkRecursive", "BM_fk_ur", "times faster than KDL ChainFkSolverPos_recursive");
        Ratio("InverserDynamicsUr is", "BM_KdlRne", "BM_InverserDynamicsUr", "times faster than KDL ChainIdSolver_RNE");
        ShareOfPeriod("one linear-move tick", "BM_LinearMoveTick");
        ShareOfPeriod("one collision-observer step", "BM_CollisionDetection");
        ShareOfPeriod("one collision-monitor step", "BM_CollisionMonitorStep");
        ShareOfPeriod("the stop planner (look-ahead given)", "BM_StopPlannerLinearMove");
        ShareOfPeriod("the scaling pass of a straight line", "BM_ScalingPassLinearMove");
        auto pre = ns_.find("BM_PreflightLinearMove");
        auto motion = motion_ns_.find("BM_PreflightLinearMove");
        if (pre != ns_.end() && motion != motion_ns_.end() && motion->second > 0)
            std::printf("the pre-flight of a linear move takes %.4f %% of the move's duration\n",
                        pre->second / motion->second * 100.0);
        auto sim = ns_.find("BM_SimulatedPeriod");
        if (sim != ns_.end() && sim->second > 0)
            std::printf("the physical simulation runs %.0f times faster than real time\n", 4e6 / sim->second);
    }

private:
    void Ratio(const char* what, const char* slow, const char* fast, const char* text) const {
        auto s = ns_.find(slow), f = ns_.find(fast);
        if (s == ns_.end() || f == ns_.end() || f->second <= 0) return;
        std::printf("%s %.1f %s\n", what, s->second / f->second, text);
    }

    void ShareOfPeriod(const char* what, const char* name) const {
        auto it = ns_.find(name);
        if (it != ns_.end()) std::printf("%s takes %.4f %% of the 4 ms control period\n", what, it->second / 4e6 * 100.0);
    }

    static double TimeUnitNs(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kMicrosecond: return 1e3;
            case benchmark::kMillisecond: return 1e6;
            case benchmark::kSecond: return 1e9;
            default: return 1.0;
        }
    }

    std::map<std::string, double> ns_;         // CPU time per iteration, ns
    std::map<std::string, double> motion_ns_;  // duration of the motion a run guards, ns
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}

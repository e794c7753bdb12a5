// Runs every benchmark of the binary, then prints how the library compares
// with KDL on the same arm and poses, and what share of the 4 ms control
// period one tick of a linear move takes.
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
            ns_[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void PrintRatios() const {
        std::printf("\n");
        Ratio("ik_ur is", "BM_KdlIkLma", "BM_ik_ur", "times faster than KDL ChainIkSolverPos_LMA");
        Ratio("fk_ur is", "BM_KdlFkRecursive", "BM_fk_ur", "times faster than KDL ChainFkSolverPos_recursive");
        auto tick = ns_.find("BM_LinearMoveTick");
        if (tick != ns_.end())
            std::printf("one linear-move tick takes %.4f %% of the 4 ms control period\n", tick->second / 4e6 * 100.0);
    }

private:
    void Ratio(const char* what, const char* slow, const char* fast, const char* text) const {
        auto s = ns_.find(slow), f = ns_.find(fast);
        if (s == ns_.end() || f == ns_.end() || f->second <= 0) return;
        std::printf("%s %.1f %s\n", what, s->second / f->second, text);
    }

    std::map<std::string, double> ns_;
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

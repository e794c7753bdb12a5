// A whole program run on the simulated arm in virtual time. The arm is booted
// once in a scratch copy of the demo directory; each input is written as the
// program file/data.txt and run from home, once plain and once blended. A
// set-point the bus counts beyond its position or speed limits is a finding.
//
// Work per input is capped: inputs over 2 KB or 32 lines are skipped, and a
// run that has used kBusTimeBudget seconds of bus time is stopped (stop flag),
// as an operator's Ctrl-C would.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "execute.h"
#include "fuzz_support.h"
#include "interface.h"
#include "program.h"
#include "sim_control.h"
#include "timing.h"

namespace {

constexpr size_t kMaxInputBytes = 2048;
constexpr int kMaxLines = 32;
constexpr double kBusTimeBudget = 20.0;  // s
constexpr int kJoints = 6;               // the demo arm

double stop_at = std::numeric_limits<double>::infinity();  // bus time, s

void BudgetedSleep(double seconds) {
    if (tql_sim_now() + seconds > stop_at) SetStopFlag();
    tql_sim_sleep(seconds);
}

void RunFromHome(bool blended) {
    for (int id = 1; id <= kJoints; ++id) tql_sim_set_position(id, 0.0);
    SetSmoothReplay(blended);
    const long before = tql_sim_beyond_limit_count();
    stop_at = tql_sim_now() + kBusTimeBudget;
    ExecuteFileInstruction(GetCurrentRobot(), kProgramFileName);
    stop_at = std::numeric_limits<double>::infinity();
    const long beyond = tql_sim_beyond_limit_count() - before;
    if (beyond != 0) {
        std::fprintf(stderr, "fuzz_run: %ld set-points beyond the limits (%s run)\n", beyond,
                     blended ? "blended" : "plain");
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    tqlfuzz::SilenceStdout();
    tqlfuzz::EnterDemoCopy(argc, argv);
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    for (const char* name : {"TQL_SIM_RECORD", "TQL_SIM_FAULT", "TQL_SIM_ACTUATORS", "TQL_SIM_INTERRUPT",
                             "TQL_SIM_HAND", "TQL_SIM_URDF", "TQL_SIM_NOISE"})
        unsetenv(name);
    tql_sim_reset();
    tql::SetSleepFunction(&BudgetedSleep);
    tql::SetClockFunction(&tql_sim_now);
    SetDigitalOutputHandler(&tql_sim_digital_output);
    if (Boot() != 0) {
        std::fprintf(stderr, "fuzz_run: the simulated arm did not boot\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInputBytes) return -1;
    int lines = 1;
    for (size_t i = 0; i < size; ++i) lines += data[i] == '\n';
    if (lines > kMaxLines) return -1;
    tqlfuzz::WriteBytes(kProgramFileName, data, size);
    RunFromHome(false);
    RunFromHome(true);
    return 0;
}

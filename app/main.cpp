// The tql host: hands its own command line to the control library and returns
// the job's result as its exit status.
//
// When the actuator library in use is the simulated bus running on a virtual
// clock, the host installs the simulator's sleep and clock as the library's
// timing seam, so motion runs take no wall time. The simulator's control
// functions are looked up at run time: with the maker's library they are
// absent and the library keeps real time.
#include <dlfcn.h>

#include "execute.h"
#include "timing.h"

namespace {

void UseSimulatedClockIfAsked() {
    using Query = int (*)();
    auto virtual_clock = reinterpret_cast<Query>(dlsym(RTLD_DEFAULT, "tql_sim_virtual_clock"));
    if (virtual_clock == nullptr || virtual_clock() == 0) return;
    auto sleep_fn = reinterpret_cast<tql::SleepFunction>(dlsym(RTLD_DEFAULT, "tql_sim_sleep"));
    auto clock_fn = reinterpret_cast<tql::ClockFunction>(dlsym(RTLD_DEFAULT, "tql_sim_now"));
    if (sleep_fn == nullptr || clock_fn == nullptr) return;
    tql::SetSleepFunction(sleep_fn);
    tql::SetClockFunction(clock_fn);
}

}  // namespace

int main(int argc, char** argv) {
    UseSimulatedClockIfAsked();
    return RunningProgram(argc, argv);
}

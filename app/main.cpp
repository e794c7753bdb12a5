// The tql host: hands its own command line to the control library and returns
// the job's result as its exit status. On the simulated bus's virtual clock
// the library takes the bus's time, so motion runs take no wall time; on the
// simulated bus a program's DOUT lines switch the bus's outputs (a host on
// the board installs its own output handler).
#include <dlfcn.h>

#include <cstdio>

#include "execute.h"
#include "interface.h"
#include "timing.h"

int main(int argc, char** argv) {
    // TQL_REALTIME=1: real-time scheduling and locked memory, where granted.
    tql::RequestRealTimeIfAsked();
    tql::UseBusClockIfVirtual();
    // Looked up, not linked: with the maker's actuator library it is absent.
    if (auto outputs = reinterpret_cast<DigitalOutputHandler>(dlsym(RTLD_DEFAULT, "tql_sim_digital_output")))
        SetDigitalOutputHandler(outputs);
    const int result = RunningProgram(argc, argv);
    if (argc != 2 || !IsModeWord(argv[1]))
        // The dialogue's "Input error." stays as it is; the modes on standard error.
        std::fputs("usage: tql MODE, in a directory with parameter.db and file/\n"
                   "  mode0      switch every actuator off\n"
                   "  mode1      drag teaching: record a trajectory by hand (file/trajectory.txt)\n"
                   "  mode2      replay file/trajectory.txt until Ctrl-C\n"
                   "  mode3      drag teaching of program points (file/data.txt)\n"
                   "  mode4      run the motion program file/data.txt\n"
                   "  admin      identification run (file/excitation_output.txt)\n"
                   "  reset      factory settings, then the test program file/reset_test.txt\n"
                   "  calibrate  make a pose guided by hand the home pose\n"
                   "  tutorials  demonstration trajectories\n",
                   stderr);
    return result;
}

// The tql host: hands its own command line to the control library and returns
// the job's result as its exit status. On the simulated bus's virtual clock
// the library takes the bus's time, so motion runs take no wall time; on the
// simulated bus a program's DOUT lines switch the bus's outputs (a host on
// the board installs its own output handler).
#include <dlfcn.h>

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
    return RunningProgram(argc, argv);
}

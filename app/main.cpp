// The tql host: hands its own command line to the control library and returns
// the job's result as its exit status. On the simulated bus's virtual clock
// the library takes the bus's time, so motion runs take no wall time.
#include "execute.h"
#include "timing.h"

int main(int argc, char** argv) {
    // TQL_REALTIME=1: real-time scheduling and locked memory, where granted.
    tql::RequestRealTimeIfAsked();
    tql::UseBusClockIfVirtual();
    return RunningProgram(argc, argv);
}

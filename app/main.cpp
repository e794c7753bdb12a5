// The tql host: hands its own command line to the control library and returns
// the job's result as its exit status. On the simulated bus's virtual clock
// the library takes the bus's time, so motion runs take no wall time.
#include "execute.h"
#include "timing.h"

int main(int argc, char** argv) {
    tql::UseBusClockIfVirtual();
    return RunningProgram(argc, argv);
}

// Call surface for hosts with their own user interface: record, replay,
// limits, hand-guiding monitor and the real-time position. Every call acts on
// the current robot, which the host boots first (RunningProgram or Boot).
#ifndef TQL_INTERFACE_H
#define TQL_INTERFACE_H

#include <string>

#include "execute.h"
#include "interpolation.h"

// Point teaching into `file` (RecordSinglePointInDragTeachMode).
int RecordSinglePoint(std::string file);
// Cyclic replay of a trajectory file, until stopped (MoveTrajectory).
int ReplayTrajectory(std::string file);
// Runs a motion program file (ExecuteFileInstruction).
int ReplayPath(std::string file);
// Soft joint limits in degrees, one per joint.
void GetMinLimit(double* out);
void GetMaxLimit(double* out);
// The hand-guiding monitor on the host's thread, until SetRunningMode ends
// it. The stop button has the start button's body: a host ends the loop
// through SetRunningMode, and either button starts it.
int RealTimeMonitoringStartButton();
int RealTimeMonitoringStopButton();
// The real-time joint position (degrees, one per joint) and the flange pose
// computed from it: x, y, z (mm), rx, ry, rz (degrees, R = Rz * Ry * Rx).
void GetRealTimePos(double* q, double* pose);

// Digital outputs of the program's DOUT lines (system_parameters row 7 "ON"):
// the host installs the function that switches output `output` (0 .. 63) on
// (1) or off (0); nullptr removes it. A program with DOUT lines is refused
// before motion while none is installed. The simulated bus offers
// tql_sim_digital_output.
typedef void (*DigitalOutputHandler)(int output, int on);
void SetDigitalOutputHandler(DigitalOutputHandler handler);
bool DigitalOutputHandlerInstalled();
// Switches one output through the installed handler; -1 when there is none.
int SetDigitalOutput(int output, bool on);

#endif  // TQL_INTERFACE_H

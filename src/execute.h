// Program entry, boot, process flags.
#ifndef TQL_EXECUTE_H
#define TQL_EXECUTE_H

#include "instruction.h"
#include "mechnical_unit.h"
#include "program.h"

// Host entry: argv[1] is one mode word. 0 or the job's result, -1 on failure.
int RunningProgram(int argc, char** argv);
// True for the mode words RunningProgram takes (mode0 .. mode4, admin,
// reset, calibrate, tutorials).
bool IsModeWord(const char* word);
int Boot();
void ShutDown();
void VersionManagement();
void DisableAllActuator();
Robot* GetCurrentRobot();

// Maintenance procedures ("reset", "calibrate", "tutorials"). 0, or -1 at
// the first failing step (the robot then stays enabled).
// Factory settings into the actuators (robot types 1 and 4), saved, then the
// test run of "file/reset_test.txt" at half speed; the robot is disabled.
int ResetRobot(Robot* robot);
int ExecuteFileInstructionReset(Robot* robot);
// The arm floats in current mode while its angles are shown every 1.4 s;
// after Ctrl-C, "y" makes the present pose home. The robot is disabled.
int Calibration(Robot* robot);
// The demonstration menu (trajectories "file/dancing.txt", "file/look.txt",
// "file/snake.txt" and one excitation period), from and back to home; every
// actuator is switched off at the end.
int Tutorials(Robot* robot);

bool IsTerminal();
void SetTerminalFlag();
// A host that ran a terminal job (RunningProgram) and then drives the arm
// through its own interface: the dialogue's prompts are no longer read.
void ClearTerminalFlag();

void SetStopFlag();
void SetStopFlagForSignal(int signo);
void InitStopFlag();
bool GetStopFlag();
// For the loops that end on a stop request: true when one is set, which is
// then marked as acted on (the next motion's start forgets it).
bool TakeStopRequest();
// Sets the flag as a request already acted on: it ends whatever runs now and
// is forgotten by the next motion's start (a mode switch's stop).
void SetStopFlagTaken();
// Installs SetStopFlagForSignal for SIGINT so that a Ctrl-C also interrupts a
// blocking read of the operator's answer (the read then fails and the stop
// flag tells why), instead of being noted until the next answer arrives.
void InstallInterruptingStopHandler();
// Every streamed motion starts here. A stop asked for before it and not acted
// on by any loop (pressed at a prompt, between two moves, in a pause between
// cycles or passes) is not cleared: it ends the job before this motion, -1
// after "Stop requested: no further motion.". One a loop already acted on is
// forgotten. Then installs the Ctrl-C handler and returns 0. Under a
// pre-flight it does nothing.
int BeginMotion();

#endif  // TQL_EXECUTE_H

// Program entry, boot, process flags.
#ifndef TQL_EXECUTE_H
#define TQL_EXECUTE_H

#include "instruction.h"
#include "mechnical_unit.h"
#include "program.h"

// Host entry: argv[1] is one mode word. 0 or the job's result, -1 on failure.
int RunningProgram(int argc, char** argv);
int Boot();
void ShutDown();
void VersionManagement();
void DisableAllActuator();
Robot* GetCurrentRobot();

bool IsTerminal();
void SetTerminalFlag();

void SetStopFlag();
void SetStopFlagForSignal(int signo);
void InitStopFlag();
bool GetStopFlag();

#endif  // TQL_EXECUTE_H

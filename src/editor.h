// Program editing for hosts: appending the arm's present pose to a motion
// program as a joint move.
#ifndef TQL_EDITOR_H
#define TQL_EDITOR_H

#include <ostream>
#include <string>

#include "mechnical_unit.h"

// Writes one program line: `head` (e.g. "MOVJ VJ=100 z5 "), then n joint
// angles (rad) in degrees as angle * 180.0 / 3.1415926, six significant
// digits, "," between them, and an end of line (flushed). A reversed joint's
// -0 is written as 0.
void WriteProgramLine(std::ostream& out, const char* head, const double* q, int n);
// The same n angles without head or end of line.
void WriteProgramDegrees(std::ostream& out, const double* q, int n);

// Appends "MOVJ VJ=100 z5 " and the robot's joint angles in degrees (six
// significant digits, "," between them) as one line to `file`, creating it if
// missing. Nothing already in the file is changed.
void RecordPoint(std::string file, Robot* robot);
// RecordPoint("file/data.txt", GetCurrentRobot()); the arguments are not used.
void ExecuteCommandRecord(int argc, char** argv);

#endif  // TQL_EDITOR_H

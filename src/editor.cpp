// Program editing for hosts.
#include "editor.h"

#include <fstream>
#include <iostream>

#include "durable_file.h"
#include "execute.h"
#include "instruction.h"

void WriteProgramDegrees(std::ostream& out, const double* q, int n) {
    for (int i = 0; i < n; ++i) {
        if (i > 0) out << ',';
        out << q[i] * 180.0 / 3.1415926 + 0.0;  // + 0.0 turns -0 into 0
    }
}

void WriteProgramLine(std::ostream& out, const char* head, const double* q, int n) {
    out << head;
    WriteProgramDegrees(out, q, n);
    out << std::endl;  // a recorded point is kept even if the session dies
}

void RecordPoint(std::string file, Robot* robot) {
    std::ofstream out(file, std::ios::app);
    if (!out) {
        std::cout << "Open " + file + " failure! " << std::endl;
        return;
    }
    const int n = robot->GetRobotJointNum();
    double q[kMaxJointNum] = {};
    robot->GetCurrentMachineJoint(q);
    WriteProgramLine(out, "MOVJ VJ=100 z5 ", q, n);
    out.close();
    tql::SyncFile(file);  // the appended point is on the disk
}

void ExecuteCommandRecord(int /*argc*/, char** /*argv*/) { RecordPoint(kProgramFileName, GetCurrentRobot()); }

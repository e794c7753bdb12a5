// A program built against the installed library: kinematics helpers, the
// parameter record and the robot, through the public headers.
#include <tql/database.h>
#include <tql/execute.h>
#include <tql/math_fun.h>
#include <tql/mechnical_unit.h>

#include <cmath>
#include <cstdio>

int main() {
    double T[4][4];
    CalcTransmatrix(T, 5, 0.5);
    double p[7];
    MatrixToUnitQuaternion(T, p);
    const bool ok = std::fabs(p[3] - std::cos(0.25)) < 1e-12 && GetCurrentRobot()->GetRobotJointNum() == 0 &&
                    GetResourceDate() != nullptr;
    std::printf("consumer %s\n", ok ? "ok" : "wrong");
    return ok ? 0 : 1;
}

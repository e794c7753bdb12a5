// A program built against the installed library: kinematics helpers, the
// parameter record and the robot, through the public headers.
#include <tql/database.h>
#include <tql/execute.h>
#include <tql/interpolation.h>
#include <tql/kinematics.h>
#include <tql/math_fun.h>
#include <tql/mechnical_unit.h>
#include <tql/speed_profile.h>

#include <cmath>
#include <cstdio>

int main() {
    double T[4][4], p[7];
    CalcTransmatrix(T, 5, 0.5);
    MatrixToUnitQuaternion(T, p);
    // Flange pose of the demo arm and back (d1, d4, d5, d6, a2, a3 in mm).
    double L[6] = {152, 112, 85, 82, 244, 213}, F[4][4];
    double q[6] = {0.1, -0.3, 0.9, 0.2, -1.2, 0.4}, seed[6] = {0.1, -0.3, 0.9, 0.2, -1.2, 0.4};
    fk_ur(q, F, L);
    const bool ik_ok = ik_ur(seed, F, L) == 0 && std::fabs(seed[2] - q[2]) < 1e-4;
    // One jerk-limited profile, rounded to whole control periods.
    SpeedProfile profile;
    profile.set_parameters(1.0, 1.0, 0.0, 0.0, 2.0, 2.0, 10.0);
    profile.jerk_limit_profile_rounding();
    const double periods = profile.ttotal_ / PERIOD;
    const bool ok = std::fabs(p[3] - std::cos(0.25)) < 1e-12 && GetCurrentRobot()->GetRobotJointNum() == 0 &&
                    GetResourceDate() != nullptr && ik_ok && std::fabs(periods - std::round(periods)) < 1e-9;
    std::printf("consumer %s\n", ok ? "ok" : "wrong");
    return ok ? 0 : 1;
}

// A program built against the installed library: kinematics helpers, the
// dynamic model, the parameter record, the robot, trajectory files, the
// teaching operations and the simulated bus's control functions, through the
// public headers.
#include <tql/database.h>
#include <tql/dynamics.h>
#include <tql/execute.h>
#include <tql/interpolation.h>
#include <tql/kinematics.h>
#include <tql/math_fun.h>
#include <tql/mechnical_unit.h>
#include <tql/sim_control.h>
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
    // Joint 1 turns about the base z axis; a point mass on link 2 (the
    // upper arm's first moment MXR2 = 1 kg m) weighs 9.80665 N*m on joint 2
    // with the arm stretched out horizontally (q2 = pi/2 turns it from upright).
    double J[36], a[6] = {0, 0, 244, 213, 0, 0}, d[6] = {152, 0, 0, 112, 85, 82};
    calculate_jacobian_ur(a, d, q, J);
    double am[6] = {0, 0, 0.244, 0.213, 0, 0}, dm[6] = {0.152, 0, 0, 0.112, 0.085, 0.082};
    double P[36] = {}, zero[6] = {}, flat[6] = {0, 1.5707963267948966, 0, 0, 0, 0}, tau[6];
    P[6] = 1.0;
    InverserDynamicsUr(am, dm, flat, zero, zero, tau, P);
    double (*volatile bus_clock)(void) = &tql_sim_now;  // the simulated bus's control functions link
    // A trajectory file written and read back; the teaching operations link.
    double rows_out[4] = {1.5, -2.25, 3e-05, 0}, rows_in[4] = {};
    int rows = 0;
    const char* file = "consumer_trajectory.txt";
    const bool file_ok = SaveMatrixToFile(file, rows_out, 2, 2) == 0 && GetMatrixFromFile(file, rows_in, 10, 2, &rows) == 0 &&
                         rows == 2 && rows_in[2] == 3e-05 && std::remove(file) == 0;
    int (*volatile recorder)(Robot*, std::string) = &RecordContinuousPointInDragTeachMode;
    void (*volatile set_mode)(RunningMode) = &SetRunningMode;
    const bool teach_ok = file_ok && recorder != nullptr && set_mode != nullptr &&
                          GetCurrentRunningMode() == kDragTeachingMode;
    const bool dynamics_ok = teach_ok && J[6 * 5 + 0] == 1.0 && std::fabs(std::fabs(tau[1]) - kGravity) < 1e-6 &&
                             bus_clock != nullptr;
    const bool ok = dynamics_ok && std::fabs(p[3] - std::cos(0.25)) < 1e-12 && GetCurrentRobot()->GetRobotJointNum() == 0 &&
                    GetResourceDate() != nullptr && ik_ok && std::fabs(periods - std::round(periods)) < 1e-9;
    std::printf("consumer %s\n", ok ? "ok" : "wrong");
    return ok ? 0 : 1;
}

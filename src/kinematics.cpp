// Closed-form forward and inverse kinematics of the six-axis offset-wrist arm,
// and the Robot operations that exchange seven-value poses with them.
//
// Angle constants: the inverse and the angle selection use the system's
// truncated pi (3.1415926, 2pi = 6.2831852, pi/2 = 1.5707963); only the forward
// kinematics uses the full-precision pi/2. The resulting offset of about
// 2.7e-8 rad on joints 2 and 4 between the two directions is expected.
#include "kinematics.h"

#include <cmath>
#include <iostream>

#include "math_fun.h"
#include "mechnical_unit.h"

namespace {

constexpr double kPi = 3.1415926;
constexpr double kTwoPi = 6.2831852;
// Joint 2/4 zero shift of the inverse (truncated on purpose).
constexpr double kIkHalfPi = 1.5707963;
// Joint 2/4 zero shift of the forward kinematics (full precision).
constexpr double kFkHalfPi = 1.5707963267948966;

constexpr double kWristTolerance = 1e-5;  // on |sin q5|
constexpr double kElbowTolerance = 1e-5;  // on e, mm^2

// The candidate nearer to the reference; a tie keeps a.
double select_angle(double a, double b, double ref) {
    return std::fabs(a - ref) > std::fabs(b - ref) ? b : a;
}

// x or its alias one turn away towards zero's other side, whichever is nearer
// to ref. The result is not wrapped into (-pi, pi].
double choose_quadrant_1(double x, double ref) {
    double alias = x < 0.0 ? x + kTwoPi : x - kTwoPi;
    return select_angle(x, alias, ref);
}

// The nearest to ref of two candidates and their aliases.
double choose_quadrant_2(double a, double b, double ref) {
    return select_angle(choose_quadrant_1(a, ref), choose_quadrant_1(b, ref), ref);
}

// One turn folded back into [-pi, pi] (single step).
[[maybe_unused]] double quadrant(double x) {
    if (x > kPi) return x - kTwoPi;
    if (x < -kPi) return x + kTwoPi;
    return x;
}

// x or its folded value, whichever is nearer to ref.
[[maybe_unused]] double select_angle_limit(double x, double ref) {
    return select_angle(quadrant(x), x, ref);
}

// The two solutions t of y*cos(t) - x*sin(t) = d:
// atan2(y, x) - atan2(d, +-sqrt(x^2 + y^2 - d^2)).
[[maybe_unused]] void atan_solver(double x, double y, double d, double out[2]) {
    double root = std::sqrt(x * x + y * y - d * d);
    out[0] = std::atan2(y, x) - std::atan2(d, root);
    out[1] = std::atan2(y, x) - std::atan2(d, -root);
}

bool AllFinite(const double* v, int n) {
    for (int i = 0; i < n; ++i) {
        if (!std::isfinite(v[i])) return false;
    }
    return true;
}

// The upper three rows of T and the six lengths must be finite.
bool IkInputFinite(double T[4][4], const double* L) {
    return AllFinite(T[0], 4) && AllFinite(T[1], 4) && AllFinite(T[2], 4) && AllFinite(L, 6);
}

// Geometry vector of a six-joint robot from its joints' (alpha, 0, a, d).
void GeometryFromLinks(const Robot& robot, double L[6]) {
    double a[6], d[6];
    for (int i = 0; i < 6; ++i) {
        a[i] = robot.link_[i].mdh_[2];
        d[i] = robot.link_[i].mdh_[3];
    }
    GeometryFromDh(a, d, L);
}

// Kinematics serve the six-joint types 1..4 only.
bool KinematicsServed(int robot_type) {
    if (robot_type >= 1 && robot_type <= 4) return true;
    std::cout << "Wait to add..." << std::endl;
    return false;
}

}  // namespace

void fk_ur(const double* q, double T[4][4], const double* L) {
    const double d1 = L[0], d4 = L[1], d5 = L[2], d6 = L[3], a2 = L[4], a3 = L[5];
    const double t2 = q[1] + kFkHalfPi;  // model angle of joint 2
    const double t4 = q[3] - kFkHalfPi;  // model angle of joint 4
    const double c1 = std::cos(q[0]), s1 = std::sin(q[0]);
    const double c2 = std::cos(t2), s2 = std::sin(t2);
    const double c5 = std::cos(q[4]), s5 = std::sin(q[4]);
    const double c6 = std::cos(q[5]), s6 = std::sin(q[5]);
    const double s23 = std::sin(t2 + q[2]), c23 = std::cos(t2 + q[2]);
    const double s234 = std::sin(t2 + q[2] + t4), c234 = std::cos(t2 + q[2] + t4);

    // Column 0: flange x axis (n).
    T[0][0] = -s6 * c1 * s234 - c6 * (s1 * s5 - c1 * c234 * c5);
    T[1][0] = -s6 * s1 * s234 + c6 * (c1 * s5 + c5 * s1 * c234);
    T[2][0] = s6 * c234 + c5 * c6 * s234;
    // Column 1: flange y axis (o).
    T[0][1] = s6 * (s1 * s5 - c1 * c234 * c5) - c6 * c1 * s234;
    T[1][1] = -s6 * (c1 * s5 + c5 * s1 * c234) - c6 * s1 * s234;
    T[2][1] = c6 * c234 - s6 * c5 * s234;
    // Column 2: flange z axis (a), the tool approach direction.
    T[0][2] = s1 * c5 + c1 * c234 * s5;
    T[1][2] = -c1 * c5 + s1 * c234 * s5;
    T[2][2] = s5 * s234;
    // Column 3: flange origin, mm.
    T[0][3] = d4 * s1 - d5 * c1 * s234 + d6 * T[0][2] + a3 * c1 * c23 + a2 * c1 * c2;
    T[1][3] = -d4 * c1 - d5 * s1 * s234 + d6 * T[1][2] + a3 * s1 * c23 + a2 * s1 * c2;
    T[2][3] = d1 + a2 * s2 + a3 * s23 + d5 * c234 + d6 * s5 * s234;
    T[3][0] = 0.0;
    T[3][1] = 0.0;
    T[3][2] = 0.0;
    T[3][3] = 1.0;
}

// Solved in the fixed order q1, q5, q6, q2, q3, q4; each joint picks, among
// its candidates and their one-turn aliases, the one nearest its own seed.
int ik_ur(double* q, double T[4][4], double* L) {
    if (!IkInputFinite(T, L)) {
        std::cout << "ik error, non-finite target or geometry" << std::endl;
        return kIkInvalidInput;
    }
    const double d1 = L[0], d4 = L[1], d5 = L[2], d6 = L[3], a2 = L[4], a3 = L[5];
    const double nx = T[0][0], ny = T[1][0];
    const double ox = T[0][1], oy = T[1][1];
    const double ax = T[0][2], ay = T[1][2], az = T[2][2];

    // Seed into model angles.
    q[1] += kIkHalfPi;
    q[3] -= kIkHalfPi;

    // Wrist centre (origin of the joint 5/6 offsets removed), mm.
    const double px = T[0][3] - d6 * ax;
    const double py = T[1][3] - d6 * ay;
    const double pz = T[2][3] - d6 * az;

    // Joint 1: the wrist centre must lie outside the cylinder of radius d4.
    const double D = px * px + py * py - d4 * d4;
    if (D < 0.0) {
        std::cout << "Shoulder singular" << std::endl;
        return kIkShoulderSingular;
    }
    const double base = std::atan2(py, px);
    q[0] = choose_quadrant_2(base - std::atan2(-d4, std::sqrt(D)),
                             base - std::atan2(-d4, -std::sqrt(D)), q[0]);
    const double c1 = std::cos(q[0]), s1 = std::sin(q[0]);

    // Joint 5: u = c6*s5, v = -s6*s5, r = s5^2.
    const double u = ny * c1 - nx * s1;
    const double v = oy * c1 - ox * s1;
    const double r = u * u + v * v;
    if (r < 0.0) {
        std::cout << "1";
        std::cout << "ik error,  t3 = " << r << std::endl;
        return kIkT3Error;
    }
    const double c5 = -(ay * c1 - ax * s1);
    q[4] = choose_quadrant_2(std::atan2(std::sqrt(r), c5), std::atan2(-std::sqrt(r), c5), q[4]);
    const double s5 = std::sin(q[4]);
    if (std::fabs(s5) < kWristTolerance) {
        std::cout << "Wrist singularity" << std::endl;
        return kIkWristSingular;
    }

    // Joint 6, and the sum angle of joints 2..4.
    q[5] = choose_quadrant_1(std::atan2(-v / s5, u / s5), q[5]);
    const double t234 = std::atan2(az / s5, (ax * c1 + ay * s1) / s5);

    // Joints 2 and 3: planar two-link problem in the arm plane.
    // m, -n: point reached by the two arm links, relative to the shoulder.
    const double m = px * c1 + py * s1 + d5 * std::sin(t234);
    const double n = -(pz - d1 - d5 * std::cos(t234));
    const double k = (-a3 * a3 + n * n + m * m + a2 * a2) / (2.0 * a2);
    const double e = n * n + m * m - k * k;  // = (a3 * sin q3)^2 for a reachable target
    if (std::fabs(e) < kElbowTolerance) {
        std::cout << "Elbow singularity" << std::endl;
        return kIkElbowSingular;
    }
    if (e < 0.0) {
        std::cout << "ik error,  t4 = " << e << std::endl;
        return kIkOutOfReach;
    }
    const double mn = std::atan2(m, n);
    q[1] = choose_quadrant_2(mn - std::atan2(k, std::sqrt(e)), mn - std::atan2(k, -std::sqrt(e)),
                             q[1]);
    const double s2 = std::sin(q[1]), c2 = std::cos(q[1]);
    const double t23 = std::atan2((-n - a2 * s2) / a3, (m - a2 * c2) / a3);
    q[2] = choose_quadrant_1(t23 - q[1], q[2]);
    q[3] = choose_quadrant_1(t234 - t23, q[3]);

    // Model angles back to joint angles.
    q[1] -= kIkHalfPi;
    q[3] += kIkHalfPi;

    if (!AllFinite(q, 6)) {  // degenerate geometry (a2 or a3 zero)
        std::cout << "ik error, non-finite target or geometry" << std::endl;
        return kIkInvalidInput;
    }
    return kIkOk;
}

int Robot::ForwardKinematics(double* q, double* pose) {
    if (!KinematicsServed(robot_type_)) return -1;
    double L[6];
    GeometryFromLinks(*this, L);
    double T[4][4];
    fk_ur(q, T, L);
    MatrixToUnitQuaternion(T, pose);
    return 0;
}

int Robot::InverseKinematics(double* q, double* pose) {
    if (!KinematicsServed(robot_type_)) return -1;
    double L[6];
    GeometryFromLinks(*this, L);
    double T[4][4];
    UnitQuaternionToMatrix(T, pose);
    return ik_ur(q, T, L) < 0 ? -1 : 0;
}

int Robot::FollowPose(double* q, double* pose) {
    double target[4][4];
    UnitQuaternionToMatrix(target, pose);
    return FollowFrame(q, target);
}

int Robot::ForwardFrame(const double* q, double T[4][4]) {
    if (!KinematicsServed(robot_type_)) return -1;
    double L[6], joints[6];
    GeometryFromLinks(*this, L);
    for (int i = 0; i < 6; ++i) joints[i] = q[i];
    fk_ur(joints, T, L);
    return 0;
}

int Robot::FollowFrame(double* q, double target[4][4]) {
    if (!KinematicsServed(robot_type_)) return -1;
    double a[6], d[6], L[6];
    for (int i = 0; i < 6; ++i) {
        a[i] = link_[i].mdh_[2];
        d[i] = link_[i].mdh_[3];
    }
    GeometryFromDh(a, d, L);
    if (ik_ur(q, target, L) < 0) return -1;
    for (int step = 0; step < 2; ++step) {
        double T[4][4];
        fk_ur(q, T, L);
        // Position error (mm) and orientation error (rad, base frame: half
        // the sum of the columns' cross products, exact for small angles).
        double e[6];
        for (int i = 0; i < 3; ++i) e[i] = target[i][3] - T[i][3];
        for (int i = 0; i < 3; ++i) e[3 + i] = 0.0;
        for (int c = 0; c < 3; ++c) {
            e[3] += 0.5 * (T[1][c] * target[2][c] - T[2][c] * target[1][c]);
            e[4] += 0.5 * (T[2][c] * target[0][c] - T[0][c] * target[2][c]);
            e[5] += 0.5 * (T[0][c] * target[1][c] - T[1][c] * target[0][c]);
        }
        double J[36];
        calculate_jacobian_ur(a, d, q, J);
        if (inverse_matrix(J, 6) < 0) return 0;
        double dq[6], largest = 0.0;
        for (int i = 0; i < 6; ++i) {
            dq[i] = 0.0;
            for (int k = 0; k < 6; ++k) dq[i] += J[6 * i + k] * e[k];
            largest = std::fmax(largest, std::fabs(dq[i]));
        }
        if (!(largest <= kFollowStepLimit)) return 0;
        for (int i = 0; i < 6; ++i) q[i] += dq[i];
        if (largest < 1e-13) break;
    }
    return 0;
}

void ModifiedDhFromLengths(const double* lengths, double* a, double* d) {
    for (int i = 0; i < 6; ++i) a[i] = d[i] = 0.0;
    d[0] = lengths[0];
    a[2] = lengths[1];
    a[3] = lengths[2];
    d[3] = lengths[3];
    d[4] = lengths[4];
    d[5] = lengths[5];
}

void GeometryFromDh(const double* a, const double* d, double* L) {
    const double geometry[6] = {d[0], d[3], d[4], d[5], a[2], a[3]};
    for (int i = 0; i < 6; ++i) L[i] = geometry[i];
}

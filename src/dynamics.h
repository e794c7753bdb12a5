// Rigid-body dynamics of the six-axis arm in the form linear in its dynamic
// parameters, tau = Y(q, dq, ddq) * P, and the identification run that
// collects data for P.
//
// Model (modified Denavit-Hartenberg): link frame i follows frame i-1 by a
// rotation alpha[i] about x, a translation a[i] along x, a rotation theta_i
// about z and a translation d[i] along z. Every joint turns about its own
// frame's z axis. Gravity enters as an upward base acceleration (0, 0,
// 9.80665) m/s^2 in base coordinates (z up).
//
// Units: a, d in metres; angles in radians; torques in N*m. The regressor
// functions take model angles theta (joint 2: q[1] + 1.5707963, joint 4:
// q[3] - 1.5707963, the others as they are); InverserDynamicsUr and the Robot
// operations take the user-zero joint angles q and shift them themselves.
//
// Standard inertial parameters of link i (10 per link, 60 in all, link 1
// first), in link frame i about its origin:
//   XX, XY, XZ, YY, YZ, ZZ  inertia tensor [kg m^2]
//   MX, MY, MZ              first moments m * centre of mass [kg m]
//   M                       mass [kg]
//
// Base parameters P (36, the column order of Y). The columns that do not
// change the torques are folded into the others (regrouping):
//   P[0]                     ZZR1
//   P[1 + 7 (i - 2) + k]     link i = 2..6, k = 0..6:
//                            XXR_i, XY_i, XZ_i, YZ_i, ZZR_i, MXR_i, MYR_i
// XXR_i = XX_i - YY_i; ZZR, MXR, MYR and the entries of link i-1 collect what
// link i's YY, MZ and M add to it (standard_to_base_parameters gives the exact
// map). Friction is not part of P.
//
// Regressor layout: double Y[6][36], row i the torque coefficients of joint i.
#ifndef TQL_DYNAMICS_H
#define TQL_DYNAMICS_H

#include "mechnical_unit.h"

constexpr int kDynamicsJointNum = 6;
constexpr int kBaseParameterNum = 36;
constexpr int kStandardParameterNum = 60;
// Upward base acceleration that stands for gravity, m/s^2.
constexpr double kGravity = 9.80665;

// ---- generated code (tools/gen_dynamics.py)

// Complete regressor at model angles q (6 entries each; alpha in radians).
void parameter_linearization(const double* q, const double* dq, const double* ddq, const double* a,
                             const double* alpha, const double* d, double (*Y)[36]);

// The regressor's parts. `geometry` packs 18 values: a[6], alpha[6], d[6]
// (metres, radians); q are model angles. Moment part + Coriolis/gravity part
// = complete regressor.
// Gravity part: the regressor at zero dq and ddq.
void calculate_gravity(const double* geometry, const double* q, double (*Y)[36]);
// Coriolis, centrifugal and gravity part: the regressor at zero ddq.
void calculate_cg(const double* geometry, const double* q, const double* dq, double (*Y)[36]);
// Inertial part: M(q) * ddq, without gravity.
void calculate_moment(const double* geometry, const double* q, const double* ddq, double (*Y)[36]);
// Complete regressor, as parameter_linearization.
void calculate_torque_matrix(const double* geometry, const double* q, const double* dq, const double* ddq,
                             double (*Y)[36]);

// Base parameters P (36) of an arm whose standard parameters are known
// (60: ten per link in the order above), for the geometry a, alpha, d.
void standard_to_base_parameters(const double* a, const double* alpha, const double* d, const double* standard,
                                 double* P);

// ---- model

// Fixed twist angles of the six-axis model, radians, joint 1 first.
constexpr double kModelAlpha[kDynamicsJointNum] = {0.0, 1.5707963, 0.0, 0.0, -1.5707963, 1.5707963};
// Model angles theta of user-zero joint angles q (6 each): joint 2 shifted by
// +1.5707963, joint 4 by -1.5707963.
void ModelAngles(const double* q, double* theta);
// tau (6, N*m) for user-zero q, dq, ddq, geometry a, d (metres) and P (36).
void InverserDynamicsUr(double* a, double* d, double* q, double* dq, double* ddq, double* tau, double* P);
// The model as the controller uses it (48 values: the 36 base parameters,
// then viscous and Coulomb friction per joint): row 13 plus what the payload
// adds to link 6 (a point mass shifts the base parameters linearly, through
// standard_to_base_parameters at the robot's geometry).
constexpr int kModelParameterCount = kBaseParameterNum + 2 * kDynamicsJointNum;
void ModelParameters(const Robot& robot, double* P);
// The payload the model includes: mass (kg) and centre of mass (x, y, z, mm,
// flange frame, which is link 6's frame). Row 18 of the robot type's table
// at boot; SetPayload replaces it until the next boot (not stored). -1 and
// nothing changed for a mass outside 0 .. 100 kg or a centre not finite or
// beyond 1000 mm. Gravity compensation takes it from its next period, the
// collision monitor from the next motion.
int SetPayload(double mass_kg, const double* com_mm);
void GetPayload(double* payload);  // mass, x, y, z

// Sign with a dead band, for Coulomb friction: 1 above 1e-5, -1 below -1e-5, else 0.
double signd(double x);

// Checks the dynamic parameters (row 13 of the robot type's table) before a
// mode uses the model (hand guiding, teaching, collision detection): every
// value finite, not all zero (never identified), each joint's friction at its
// speed limit and the compensation torques (static torques times the gravity
// gain) over a grid of poses inside the soft limits within every joint's
// peak torque. 0 (also for robots without a model), or -1 after a
// "Parameter error" naming the row, the joint and the worst pose.
int CheckDynamicParameters(Robot* robot);

// ---- collision observer (generalised momentum), state shared by the calls

// Zeroes the observer's integral and residual.
void InitC();
// The observer's residual: estimated external torque per joint, N*m (6 values).
const double* GetCollisionResidual();

// ---- identification run

// Fundamental angular frequency of the excitation, rad/s (10 s period).
constexpr double kExcitationOmega = 0.62831852;
constexpr int kExcitationHarmonics = 5;
// Coefficients per joint: q0, a1..a5 (sine), b1..b5 (cosine), radians.
constexpr int kExcitationCoefficients = 2 * kExcitationHarmonics + 1;
// Samples of one period, t = 0 .. 10 s every 4 ms.
constexpr int kExcitationSamples = 2501;
// Spare samples allocated after each buffer.
constexpr int kExcitationSpare = 10;

// Samples 0..last (inclusive) of the Fourier excitation of the current robot's
// joints, sample-major (sample k, joint j at k * n + j), radians. Returns 0.
int ExcitationTrajectoriesGenerator(double* out, int last);
// The same series for n joints from an explicit coefficient table.
void ExcitationSeries(const double* coefficients, int n, int first, int last, double* out);
// Checks the excitation coefficients (row 14 of the robot type's table) before
// an identification run: finite, every joint's series within its soft limits,
// its speed and acceleration within the joint's limits (rows 1 and 2) at the
// nominal 4 ms. 0, or -1 after a "Parameter error" naming the row and joint.
int CheckExcitationParameters(Robot* robot);
// Runs the excitation `repetitions` times in position mode, recording every
// joint's current, velocity and position each 4 ms, and writes the records
// to "file/excitation_output.txt". 0, or -1 on any failure (no file then).
int MoveExcitationTrajectories(Robot* robot, int repetitions);

#endif  // TQL_DYNAMICS_H

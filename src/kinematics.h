// Closed-form kinematics of the six-axis offset-wrist arm (shoulder lateral
// offset, two parallel arm links, three wrist axes with offsets).
//
// Joint vector q[6]: radians, joint 1 (base) first. Internally the model
// angles of joints 2 and 4 are q[1] + pi/2 and q[3] - pi/2; joints 1, 3, 5, 6
// are used as they are.
//
// Geometry vector L[6], millimetres, in this order:
//   L[0] d1  base height               (link offset d of joint 1)
//   L[1] d4  shoulder lateral offset   (link offset d of joint 4)
//   L[2] d5  wrist offset              (link offset d of joint 5)
//   L[3] d6  flange offset             (link offset d of joint 6)
//   L[4] a2  upper-arm length          (link length a of joint 3)
//   L[5] a3  forearm length            (link length a of joint 4)
//
// Transforms: double T[4][4], row-major, base frame to flange frame,
// translation in millimetres in column 3.
#ifndef TQL_KINEMATICS_H
#define TQL_KINEMATICS_H

// Results of ik_ur.
constexpr int kIkOk = 0;
constexpr int kIkShoulderSingular = -1;  // wrist centre within d4 of the base axis
constexpr int kIkT3Error = -2;           // negative sum of squares (cannot happen for real numbers)
constexpr int kIkWristSingular = -3;     // |sin q5| < 1e-5: wrist axes 4 and 6 aligned
constexpr int kIkElbowSingular = -4;     // target on the reach boundary, arm stretched or folded
constexpr int kIkOutOfReach = -5;        // target beyond reach of the two arm links
constexpr int kIkInvalidInput = -6;      // non-finite target or geometry, or no finite solution

// Row 12 of a six-joint robot type holds the arm's lengths d1, a2, a3, d4, d5,
// d6. This places them in the joints' modified-DH values, joint 1 first:
// a = (0, 0, a2, a3, 0, 0), d = (d1, 0, 0, d4, d5, d6), units as given.
void ModifiedDhFromLengths(const double* lengths, double* a, double* d);
// The geometry vector fk_ur and ik_ur take, L = (d1, d4, d5, d6, a2, a3),
// from the joints' modified-DH a[6] and d[6].
void GeometryFromDh(const double* a, const double* d, double* L);

// Flange pose T for joint angles q and geometry L.
void fk_ur(const double* q, double T[4][4], const double* L);

// Inverse kinematics. On entry q holds the seed (normally the current joint
// angles); the one solution returned is, joint by joint, the one nearest to the
// seed value of that joint (angles are not wrapped into (-pi, pi]). On success
// q receives the solution and 0 is returned. On any negative result q is
// spoiled (partly rewritten, seed shift not undone): callers keep their own
// copy of the seed. Singular or unreachable targets print one line to
// standard output.
int ik_ur(double* q, double T[4][4], double* L);

// Geometric Jacobian of the flange (generated code, tools/gen_dynamics.py).
// a[6], d[6]: the joints' modified-DH link lengths and offsets in one length
// unit (the joints' own millimetres, or metres), joint 1 first:
//   a = (0, 0, a2, a3, 0, 0), d = (d1, 0, 0, d4, d5, d6) for this arm;
// the twist angles are fixed (0, pi/2, 0, 0, -pi/2, pi/2). q: user-zero joint
// angles (rad); the model shifts joints 2 and 4 by the full-precision pi/2 as
// fk_ur does. J: 6 x 6, row-major (J[6 * row + column]), column j the effect
// of joint j's rate. Rows 0..2: linear velocity of the flange origin in the
// base frame (length unit per radian); rows 3..5: angular velocity in the
// base frame (rad/rad).
void calculate_jacobian_ur(const double* a, const double* d, const double* q, double* J);

// ---- four-link mechanism
// A second arm: a symmetric planar five-bar linkage (two driven arms of length
// l1 from a common centre, two distal links of length l2 meeting at the end
// point) carried on a lead-screw vertical axis, with a tool rotation about the
// vertical. Geometry in millimetres, shared by both functions and settable:
extern double l1;  // driven arm, 143.78
extern double l2;  // distal link, 120.0
extern double s;   // lead of the vertical screw per turn, 12.0
//
// Joint vector v[4], radians: v[0] screw rotation (z = v[0] / 6.2831852 * s),
// v[1], v[2] the driven-arm angles from the x axis, v[3] tool rotation about z.
// T: base-to-tool transform, rotation Rz(v[3]), translation (x, y, z) in mm
// with the end point at distance l1 cos h + sqrt(l2^2 - l1^2 sin^2 h) from the
// centre in direction (v[1] + v[2]) / 2, h = |v[1] - v[2]| / 2. Beyond reach
// (l1 sin h > l2) x and y are NaN.
void LinkMechanismForwardKinematicsSolution(double* v, double T[4][4]);
// Placeholder of the inverse: fills T from v exactly as the forward function
// does, but with a fixed lead of 12.0 mm per turn instead of s. It does not
// solve for joint angles.
void LinkMechanismInverseKinematicsSolution(double* v, double T[4][4]);

#endif  // TQL_KINEMATICS_H

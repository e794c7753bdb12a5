// Vector, matrix, homogeneous-transform and quaternion utilities over plain
// arrays of doubles. Matrices are row-major; transforms are double[4][4] with
// the translation (mm) in column 3. Angles are radians.
//
// Pose conventions:
//   six-value pose  : x, y, z, rx, ry, rz  with R = Rz(rz) * Ry(ry) * Rx(rx)
//   seven-value pose: x, y, z, w, qx, qy, qz (unit quaternion, scalar first)
#ifndef TQL_MATH_FUN_H
#define TQL_MATH_FUN_H

// Gauss-Jordan inversion in place with full pivoting; 0, or -1 if singular
// (the array is then left partly transformed).
int inverse_matrix(double* a, int n);
// c (m x n) = a (m x k) * b (k x n).
void mul_matrix(double* a, double* b, double* c, int m, int k, int n);
// out = b - a (second minus first).
void sub_vector(double* a, double* b, double* out, int n);
// out = b + a.
void add_vector(double* a, double* b, double* out, int n);
double dot_product(double* a, double* b, int n);
double norm(double* v, int n);
void cross_3d(double* a, double* b, double* out);
// Same formula as cross_3d, kept beside the dynamics code's callers.
void cross(const double* a, const double* b, double* out);
// v *= k in place; returns v.
double* scaling(double* v, double k, int n);
// +1 if x > 0, otherwise -1 (sign(0) is -1).
int sign(double x);
bool is_nan(double x);

void MatrixToUnitQuaternion(double T[4][4], double* p);
void UnitQuaternionToMatrix(double T[4][4], double* p);
void Matrix2pose(double* pose, double T[4][4]);
// Elementary transform: axis 0..2 translation along x, y, z; 3..5 rotation
// about x, y, z; anything else the identity.
void CalcTransmatrix(double T[4][4], int axis, double value);
void MulMatrix3x3(double c[3][3], double a[3][3], double b[3][3]);
// Rotation a_rot * b_rot, translation a_t + b_t (b's translation is not rotated).
void MatrixLeftMul(double out[4][4], double a[4][4], double b[4][4]);

void print_matrix_4x4(double T[4][4]);
void print_array(double* v, int n);
void PrintPositionDegree(double* v, int n);

// ---- smoothing filters
// A table x is rows samples by cols channels, row-major (x[i * cols + j]);
// each filter runs down the rows, channel by channel, in place. Null tables
// and non-positive sizes are left unchanged.

// First-order low pass: x[i] = 0.6 x[i] + 0.4 x[i-1] (previous row filtered).
void low_pass(double* x, int rows, int cols);
// Running sum of 20 minus the previous filtered row: y[i] = 0.95 y[i-1] + x[i] / 20.
// Always returns 0.
int average_smooth(double* x, int rows, int cols);
// One pass of a 5-point mean over rows 1 .. rows-2, reading the first/last row
// for the row beyond either end (3-point mean for a 3-row table).
void median_filtering(double* x, int rows, int cols);
// As median_filtering, but rows 20 or more from both ends use samples 10 rows apart.
void median_filtering_1(double* x, int rows, int cols);
// 15 passes of median_filtering, then 15 of median_filtering_1.
void smmoth(double* x, int rows, int cols);
// Five-point cubic least-squares smoothing from an unfiltered copy; 0 when
// smoothed, -1 when left unchanged (fewer than 5 rows, 2^28 samples or more,
// or no memory for the copy). The last row keeps constants but not ramps.
int five_point_cubic_smooth(double* x, int rows, int cols);

#endif  // TQL_MATH_FUN_H

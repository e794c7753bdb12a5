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

#endif  // TQL_MATH_FUN_H

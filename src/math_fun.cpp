// Vector, matrix, homogeneous-transform and quaternion utilities.
//
// Everything works on caller-supplied arrays of doubles, row-major, and writes
// into caller-supplied outputs. The only allocation is the pivot bookkeeping of
// inverse_matrix for matrices larger than kInverseStackSize (never on the
// control path, whose matrices are at most 6 x 6).
#include "math_fun.h"

#include <cmath>
#include <iostream>
#include <utility>
#include <vector>

namespace {

// Pivots and radicands below this magnitude count as zero.
constexpr double kZeroTolerance = 1e-5;

// The system's pi for degree conversion (deliberately truncated).
constexpr double kPi = 3.1415926;

// inverse_matrix keeps its pivot indices on the stack up to this size.
constexpr int kInverseStackSize = 64;

void SwapRows(double* a, int n, int r1, int r2) {
    if (r1 == r2) return;
    for (int j = 0; j < n; ++j) std::swap(a[r1 * n + j], a[r2 * n + j]);
}

void SwapColumns(double* a, int n, int c1, int c2) {
    if (c1 == c2) return;
    for (int i = 0; i < n; ++i) std::swap(a[i * n + c1], a[i * n + c2]);
}

// Full-pivot search in rows/columns k..n-1. An element replaces the running
// maximum only when it beats it by more than the tolerance, so among near-equal
// candidates the first in row-major order wins. Returns the maximum magnitude.
double FindPivot(const double* a, int n, int k, int* row, int* col) {
    double max = 0.0;
    *row = k;
    *col = k;
    for (int i = k; i < n; ++i) {
        for (int j = k; j < n; ++j) {
            double v = std::fabs(a[i * n + j]);
            if (v - max > kZeroTolerance) {
                max = v;
                *row = i;
                *col = j;
            }
        }
    }
    return max;
}

// One Gauss-Jordan step on pivot (k, k), already swapped into place.
void EliminateStep(double* a, int n, int k) {
    double* rk = a + k * n;
    rk[k] = 1.0 / rk[k];
    for (int j = 0; j < n; ++j) {
        if (j != k) rk[j] *= rk[k];
    }
    for (int i = 0; i < n; ++i) {
        if (i == k) continue;
        double* ri = a + i * n;
        for (int j = 0; j < n; ++j) {
            if (j != k) ri[j] -= ri[k] * rk[j];
        }
    }
    for (int i = 0; i < n; ++i) {
        if (i != k) a[i * n + k] = -a[i * n + k] * rk[k];
    }
}

int InverseWithIndices(double* a, int n, int* row_index, int* col_index) {
    for (int k = 0; k < n; ++k) {
        double max = FindPivot(a, n, k, &row_index[k], &col_index[k]);
        if (std::fabs(max) < kZeroTolerance) return -1;
        SwapRows(a, n, k, row_index[k]);
        SwapColumns(a, n, k, col_index[k]);
        EliminateStep(a, n, k);
    }
    // Undo the pivoting: row swaps of the input become column swaps of the
    // inverse and vice versa, applied in reverse order.
    for (int k = n - 1; k >= 0; --k) {
        SwapRows(a, n, k, col_index[k]);
        SwapColumns(a, n, k, row_index[k]);
    }
    return 0;
}

// 0.5 * sqrt(radicand), or 0 when the radicand is within the tolerance of 0.
double HalfRoot(double radicand) {
    if (std::fabs(radicand) < kZeroTolerance) return 0.0;
    return 0.5 * std::sqrt(radicand);
}

}  // namespace

int inverse_matrix(double* a, int n) {
    if (a == nullptr || n < 0) {
        std::cout << "inverse_matrix: invalid matrix" << std::endl;
        return -1;
    }
    if (n <= kInverseStackSize) {
        int row_index[kInverseStackSize];
        int col_index[kInverseStackSize];
        return InverseWithIndices(a, n, row_index, col_index);
    }
    std::vector<int> row_index(n), col_index(n);
    return InverseWithIndices(a, n, row_index.data(), col_index.data());
}

void mul_matrix(double* a, double* b, double* c, int m, int k, int n) {
    for (int i = 0; i < m; ++i) {
        for (int j = 0; j < n; ++j) {
            c[i * n + j] = 0.0;
            for (int l = 0; l < k; ++l) c[i * n + j] += a[i * k + l] * b[l * n + j];
        }
    }
}

void sub_vector(double* a, double* b, double* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = b[i] - a[i];
}

void add_vector(double* a, double* b, double* out, int n) {
    for (int i = 0; i < n; ++i) out[i] = b[i] + a[i];
}

double dot_product(double* a, double* b, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += a[i] * b[i];
    return sum;
}

double norm(double* v, int n) {
    return std::sqrt(dot_product(v, v, n));
}

void cross_3d(double* a, double* b, double* out) {
    cross(a, b, out);
}

void cross(const double* a, const double* b, double* out) {
    // Computed into locals first so that out may alias a or b.
    double x = a[1] * b[2] - a[2] * b[1];
    double y = a[2] * b[0] - a[0] * b[2];
    double z = a[0] * b[1] - a[1] * b[0];
    out[0] = x;
    out[1] = y;
    out[2] = z;
}

double* scaling(double* v, double k, int n) {
    for (int i = 0; i < n; ++i) v[i] *= k;
    return v;
}

int sign(double x) {
    return x > 0.0 ? 1 : -1;
}

bool is_nan(double x) {
    return x != x;
}

// Each component comes from its own diagonal combination; the sign of the
// vector part from the skew-symmetric part of T (sign(0) = -1, so a zero
// difference gives a negative component). No renormalisation.
void MatrixToUnitQuaternion(double T[4][4], double* p) {
    p[0] = T[0][3];
    p[1] = T[1][3];
    p[2] = T[2][3];
    p[3] = HalfRoot(T[0][0] + T[1][1] + T[2][2] + 1.0);
    p[4] = sign(T[2][1] - T[1][2]) * HalfRoot(T[0][0] - T[1][1] - T[2][2] + 1.0);
    p[5] = sign(T[0][2] - T[2][0]) * HalfRoot(T[1][1] - T[0][0] - T[2][2] + 1.0);
    p[6] = sign(T[1][0] - T[0][1]) * HalfRoot(T[2][2] - T[0][0] - T[1][1] + 1.0);
}

void UnitQuaternionToMatrix(double T[4][4], double* p) {
    double w = p[3], x = p[4], y = p[5], z = p[6];
    T[0][0] = 2.0 * (w * w + x * x) - 1.0;
    T[0][1] = 2.0 * (x * y - w * z);
    T[0][2] = 2.0 * (x * z + w * y);
    T[1][0] = 2.0 * (x * y + w * z);
    T[1][1] = 2.0 * (w * w + y * y) - 1.0;
    T[1][2] = 2.0 * (y * z - w * x);
    T[2][0] = 2.0 * (x * z - w * y);
    T[2][1] = 2.0 * (y * z + w * x);
    T[2][2] = 2.0 * (w * w + z * z) - 1.0;
    for (int i = 0; i < 3; ++i) T[i][3] = p[i];
    T[3][0] = 0.0;
    T[3][1] = 0.0;
    T[3][2] = 0.0;
    T[3][3] = 1.0;
}

// Z-Y-X Euler angles, R = Rz(rz) * Ry(ry) * Rx(rx). At ry = +-90 deg only
// rz -/+ rx is defined; rz is then set to 0 and the whole yaw goes into rx.
void Matrix2pose(double* pose, double T[4][4]) {
    double ry = std::atan2(-T[2][0], std::sqrt(T[0][0] * T[0][0] + T[1][0] * T[1][0]));
    double rx, rz;
    if (std::fabs(std::cos(ry)) >= kZeroTolerance) {
        rz = std::atan2(T[1][0], T[0][0]);
        rx = std::atan2(T[2][1], T[2][2]);
    } else {
        rz = 0.0;
        rx = ry > 0.0 ? std::atan2(T[0][1], T[1][1]) : -std::atan2(T[0][1], T[1][1]);
    }
    pose[0] = T[0][3];
    pose[1] = T[1][3];
    pose[2] = T[2][3];
    pose[3] = rx;
    pose[4] = ry;
    pose[5] = rz;
}

void CalcTransmatrix(double T[4][4], int axis, double value) {
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) T[i][j] = (i == j) ? 1.0 : 0.0;
    }
    double c = std::cos(value), s = std::sin(value);
    switch (axis) {
        case 0:
        case 1:
        case 2:
            T[axis][3] = value;
            break;
        case 3:  // about x
            T[1][1] = c;
            T[1][2] = -s;
            T[2][1] = s;
            T[2][2] = c;
            break;
        case 4:  // about y
            T[0][0] = c;
            T[0][2] = s;
            T[2][0] = -s;
            T[2][2] = c;
            break;
        case 5:  // about z
            T[0][0] = c;
            T[0][1] = -s;
            T[1][0] = s;
            T[1][1] = c;
            break;
        default:
            break;
    }
}

void MulMatrix3x3(double c[3][3], double a[3][3], double b[3][3]) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            c[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
        }
    }
}

// The translations are added, not composed: b's translation is not rotated
// by a. Callers rely on this to apply an offset given in the base frame.
void MatrixLeftMul(double out[4][4], double a[4][4], double b[4][4]) {
    double ra[3][3], rb[3][3], rc[3][3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            ra[i][j] = a[i][j];
            rb[i][j] = b[i][j];
        }
    }
    MulMatrix3x3(rc, ra, rb);
    double t[3];
    for (int i = 0; i < 3; ++i) t[i] = a[i][3] + b[i][3];
    // Written last so that out may be a or b.
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) out[i][j] = rc[i][j];
        out[i][3] = t[i];
    }
    out[3][0] = 0.0;
    out[3][1] = 0.0;
    out[3][2] = 0.0;
    out[3][3] = 1.0;
}

void print_matrix_4x4(double T[4][4]) {
    std::cout << "matrix" << std::endl;
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) std::cout << T[i][j] << " ";
        std::cout << std::endl;
    }
}

void print_array(double* v, int n) {
    // Eleven significant digits: joint reports show the effect of the short pi
    // (pi rad reads 180.00000307 degrees).
    const std::streamsize old = std::cout.precision(11);
    for (int i = 0; i < n; ++i) std::cout << v[i] << " ";
    std::cout << std::endl;
    std::cout.precision(old);
}

void PrintPositionDegree(double* v, int n) {
    for (int i = 0; i < n; ++i) std::cout << v[i] * 180.0 / kPi << " ";
    std::cout << std::endl;
}

// Matrix inversion, vector helpers, transforms, quaternion and Euler-angle
// conversions: reference values, seeded random sweeps, and a cross-check of
// the rotation conventions against KDL.
#include "math_fun.h"

#include <gtest/gtest.h>
#include <kdl/frames.hpp>

#include <cmath>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr double kPiFull = 3.14159265358979323846;

void Identity4(double T[4][4]) {
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) T[i][j] = (i == j) ? 1.0 : 0.0;
}

// T = Rz(rz) * Ry(ry) * Rx(rx), translation (x, y, z).
void ZyxTransform(double T[4][4], double rx, double ry, double rz, double x = 0, double y = 0,
                  double z = 0) {
    KDL::Rotation R = KDL::Rotation::RPY(rx, ry, rz);  // KDL: Rz(yaw) Ry(pitch) Rx(roll)
    Identity4(T);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) T[i][j] = R(i, j);
    T[0][3] = x;
    T[1][3] = y;
    T[2][3] = z;
}

double MaxRotationDiff(double A[4][4], double B[4][4]) {
    double d = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) d = std::max(d, std::fabs(A[i][j] - B[i][j]));
    return d;
}

// Random unit quaternion (w, x, y, z) with w > 0 and every component at least
// `floor` in magnitude, so no radicand of MatrixToUnitQuaternion hits its guard.
void RandomQuaternion(std::mt19937& rng, double floor, double q[4]) {
    std::normal_distribution<double> g(0.0, 1.0);
    for (;;) {
        double n = 0.0;
        for (int i = 0; i < 4; ++i) {
            q[i] = g(rng);
            n += q[i] * q[i];
        }
        n = std::sqrt(n);
        for (int i = 0; i < 4; ++i) q[i] /= n;
        if (q[0] < 0.0)
            for (int i = 0; i < 4; ++i) q[i] = -q[i];
        bool ok = true;
        for (int i = 0; i < 4; ++i) ok = ok && std::fabs(q[i]) >= floor;
        if (ok) return;
    }
}

// ---------------------------------------------------------------- inverse_matrix

TEST(InverseMatrix, TwoByTwoReference) {
    double a[4] = {4, 7, 2, 6};
    ASSERT_EQ(inverse_matrix(a, 2), 0);
    const double expected[4] = {0.6, -0.7, -0.2, 0.4};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(a[i], expected[i], 1e-15) << i;
}

TEST(InverseMatrix, PermutationGivesTranspose) {
    // Row i has its 1 in column perm[i]; needs both row and column swaps and
    // the reverse unscrambling to come out right.
    const int perm[5] = {2, 4, 0, 1, 3};
    double a[25] = {};
    for (int i = 0; i < 5; ++i) a[i * 5 + perm[i]] = 1.0;
    double expected[25];
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) expected[i * 5 + j] = a[j * 5 + i];
    ASSERT_EQ(inverse_matrix(a, 5), 0);
    for (int i = 0; i < 25; ++i) EXPECT_EQ(a[i], expected[i]) << i;

    // Scaled so that the largest pivot sits in the last rows: forces row
    // swaps as well. inverse(D P) = P^T D^-1.
    double b[25] = {};
    for (int i = 0; i < 5; ++i) b[i * 5 + perm[i]] = i + 1.0;
    ASSERT_EQ(inverse_matrix(b, 5), 0);
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j)
            EXPECT_DOUBLE_EQ(b[i * 5 + j], perm[j] == i ? 1.0 / (j + 1.0) : 0.0) << i << j;
}

TEST(InverseMatrix, SingularMatricesRejected) {
    double zero[9] = {};
    EXPECT_EQ(inverse_matrix(zero, 3), -1);
    double rank_one[4] = {1, 2, 2, 4};
    EXPECT_EQ(inverse_matrix(rank_one, 2), -1);
    double rank_two[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(inverse_matrix(rank_two, 3), -1);
    // The pivot tolerance is absolute: a well-conditioned but tiny matrix is
    // treated as singular.
    double tiny[4] = {1e-6, 0, 0, 1e-6};
    EXPECT_EQ(inverse_matrix(tiny, 2), -1);
}

TEST(InverseMatrix, NearEqualPivotsFirstWins) {
    // 2.9e-5 does not beat 2e-5 by more than 1e-5, so (0,0) stays the pivot and
    // the remaining pivot is 1.2e-5 (accepted). Pivoting on the larger 2.9e-5
    // would leave 2e-5 * 1.2e-5 / 2.9e-5 = 8.3e-6 and report singular.
    const double p1 = 2e-5, p2 = 2.9e-5, y = 1.2e-5;
    double a[4] = {p1, 0, p2, y};
    ASSERT_EQ(inverse_matrix(a, 2), 0);
    EXPECT_NEAR(a[0], 1 / p1, 1e-6);
    EXPECT_EQ(a[1], 0.0);
    EXPECT_NEAR(a[2], -p2 / (p1 * y), 1e-3);
    EXPECT_NEAR(a[3], 1 / y, 1e-6);
}

TEST(InverseMatrix, BadSizes) {
    double a[1] = {2.0};
    EXPECT_EQ(inverse_matrix(a, 0), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(inverse_matrix(a, -1), -1);
    EXPECT_EQ(inverse_matrix(nullptr, 3), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(a[0], 2.0);
}

TEST(InverseMatrix, RandomWellConditionedTimesInverseIsIdentity) {
    std::mt19937 rng(20240601);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    // Sizes beyond 64 take the heap path of the pivot bookkeeping.
    for (int n : {1, 2, 3, 4, 5, 6, 7, 8, 12, 36, 70}) {
        for (int trial = 0; trial < 20; ++trial) {
            std::vector<double> a(n * n), inv, prod(n * n);
            for (double& x : a) x = u(rng);
            for (int i = 0; i < n; ++i) a[i * n + i] += (u(rng) < 0 ? -1.0 : 1.0) * (0.5 * n + 1.0);
            inv = a;
            ASSERT_EQ(inverse_matrix(inv.data(), n), 0) << "n=" << n;
            mul_matrix(a.data(), inv.data(), prod.data(), n, n, n);
            double worst = 0.0;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j)
                    worst = std::max(worst, std::fabs(prod[i * n + j] - (i == j ? 1.0 : 0.0)));
            EXPECT_LT(worst, 1e-12) << "n=" << n << " trial=" << trial;
        }
    }
}

// ---------------------------------------------------------------- vectors

TEST(MatrixVector, MulMatrixNonSquare) {
    double a[6] = {1, 2, 3, 4, 5, 6};        // 2 x 3
    double b[6] = {7, 8, 9, 10, 11, 12};     // 3 x 2
    double c[4] = {99, 99, 99, 99};          // overwritten, not accumulated into
    mul_matrix(a, b, c, 2, 3, 2);
    EXPECT_EQ(c[0], 58);
    EXPECT_EQ(c[1], 64);
    EXPECT_EQ(c[2], 139);
    EXPECT_EQ(c[3], 154);
}

TEST(MatrixVector, VectorHelpers) {
    double a[3] = {1, 2, 3}, b[3] = {10, 20, 30}, out[3];
    sub_vector(a, b, out, 3);  // second minus first
    EXPECT_EQ(out[0], 9);
    EXPECT_EQ(out[2], 27);
    add_vector(a, b, out, 3);
    EXPECT_EQ(out[1], 22);
    EXPECT_EQ(dot_product(a, b, 3), 140);
    double v[2] = {3, 4};
    EXPECT_EQ(norm(v, 2), 5);
    EXPECT_EQ(scaling(v, 2.0, 2), v);
    EXPECT_EQ(v[0], 6);
    EXPECT_EQ(v[1], 8);
}

TEST(MatrixVector, CrossProducts) {
    double x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, z[3];
    cross_3d(x, y, z);
    EXPECT_EQ(z[0], 0);
    EXPECT_EQ(z[1], 0);
    EXPECT_EQ(z[2], 1);
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-10, 10);
    for (int t = 0; t < 200; ++t) {
        double a[3], b[3], c1[3], c2[3];
        for (int i = 0; i < 3; ++i) {
            a[i] = u(rng);
            b[i] = u(rng);
        }
        cross_3d(a, b, c1);
        cross(a, b, c2);
        KDL::Vector k = KDL::Vector(a[0], a[1], a[2]) * KDL::Vector(b[0], b[1], b[2]);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(c1[i], c2[i]);
            EXPECT_NEAR(c1[i], k(i), 1e-12);
        }
        EXPECT_NEAR(dot_product(c1, a, 3), 0.0, 1e-10);
    }
}

TEST(MatrixVector, SignAndNan) {
    EXPECT_EQ(sign(0.0), -1);
    EXPECT_EQ(sign(-0.0), -1);
    EXPECT_EQ(sign(1e-300), 1);
    EXPECT_EQ(sign(-2.0), -1);
    EXPECT_TRUE(is_nan(std::nan("")));
    EXPECT_FALSE(is_nan(INFINITY));
    EXPECT_FALSE(is_nan(0.0));
}

// ---------------------------------------------------------------- quaternions

TEST(Quaternion, IdentityAndHalfTurnAboutX) {
    double T[4][4], p[7];
    Identity4(T);
    T[0][3] = 1;
    T[1][3] = -2;
    T[2][3] = 3;
    MatrixToUnitQuaternion(T, p);
    const double id[7] = {1, -2, 3, 1, 0, 0, 0};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(p[i], id[i]) << i;

    // 180 deg about x: w's radicand is 0 (guarded), T21 - T12 = 0 so sign() = -1.
    Identity4(T);
    T[1][1] = -1;
    T[2][2] = -1;
    MatrixToUnitQuaternion(T, p);
    EXPECT_EQ(p[3], 0.0);
    EXPECT_EQ(p[4], -1.0);
    EXPECT_EQ(p[5], 0.0);
    EXPECT_EQ(p[6], 0.0);
}

TEST(Quaternion, ComponentBelowGuardIsDropped) {
    // 1e-3 rad about x: qx = 5e-4, radicand 4 qx^2 = 1e-6 < 1e-5, so qx = 0.
    double T[4][4], p[7];
    ZyxTransform(T, 1e-3, 0, 0);
    MatrixToUnitQuaternion(T, p);
    EXPECT_EQ(p[4], 0.0);
    EXPECT_NEAR(p[3], 1.0, 1e-6);
}

TEST(Quaternion, ToMatrixMatchesKdl) {
    std::mt19937 rng(11);
    for (int t = 0; t < 500; ++t) {
        double q[4];
        RandomQuaternion(rng, 0.0, q);
        double p[7] = {10.0 * t, -3.5, 0.25, q[0], q[1], q[2], q[3]};
        double T[4][4];
        UnitQuaternionToMatrix(T, p);
        KDL::Rotation R = KDL::Rotation::Quaternion(q[1], q[2], q[3], q[0]);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(T[i][j], R(i, j), 1e-14);
            EXPECT_EQ(T[i][3], p[i]);
        }
        EXPECT_EQ(T[3][0], 0.0);
        EXPECT_EQ(T[3][1], 0.0);
        EXPECT_EQ(T[3][2], 0.0);
        EXPECT_EQ(T[3][3], 1.0);
    }
}

TEST(Quaternion, RoundTripsOverRandomRotations) {
    std::mt19937 rng(12);
    double worst_q = 0.0, worst_m = 0.0;
    for (int t = 0; t < 2000; ++t) {
        double q[4];
        RandomQuaternion(rng, 0.01, q);
        double p[7] = {1, 2, 3, q[0], q[1], q[2], q[3]}, back[7];
        double T[4][4], T2[4][4];
        UnitQuaternionToMatrix(T, p);
        MatrixToUnitQuaternion(T, back);
        for (int i = 0; i < 7; ++i) worst_q = std::max(worst_q, std::fabs(back[i] - p[i]));
        UnitQuaternionToMatrix(T2, back);
        worst_m = std::max(worst_m, MaxRotationDiff(T, T2));
        // The same rotation as KDL sees it (up to the quaternion's sign).
        double kx, ky, kz, kw;
        KDL::Rotation(T[0][0], T[0][1], T[0][2], T[1][0], T[1][1], T[1][2], T[2][0], T[2][1],
                      T[2][2])
            .GetQuaternion(kx, ky, kz, kw);
        double s = kw < 0 ? -1.0 : 1.0;
        EXPECT_NEAR(back[3], s * kw, 1e-12);
        EXPECT_NEAR(back[4], s * kx, 1e-12);
        EXPECT_NEAR(back[5], s * ky, 1e-12);
        EXPECT_NEAR(back[6], s * kz, 1e-12);
    }
    EXPECT_LT(worst_q, 1e-13);
    EXPECT_LT(worst_m, 1e-13);
}

// ---------------------------------------------------------------- Euler angles

TEST(Matrix2pose, RandomZyxAnglesRecovered) {
    std::mt19937 rng(13);
    std::uniform_real_distribution<double> full(-kPiFull, kPiFull);
    std::uniform_real_distribution<double> pitch(-kPiFull / 2 + 1e-3, kPiFull / 2 - 1e-3);
    for (int t = 0; t < 2000; ++t) {
        double rx = full(rng), ry = pitch(rng), rz = full(rng);
        double T[4][4], pose[6];
        ZyxTransform(T, rx, ry, rz, 5, -6, 7);
        Matrix2pose(pose, T);
        EXPECT_EQ(pose[0], 5);
        EXPECT_EQ(pose[1], -6);
        EXPECT_EQ(pose[2], 7);
        EXPECT_NEAR(pose[3], rx, 1e-9);
        EXPECT_NEAR(pose[4], ry, 1e-9);
        EXPECT_NEAR(pose[5], rz, 1e-9);
    }
}

TEST(Matrix2pose, GimbalLockPutsYawIntoRx) {
    const double rx = 0.7, rz = -0.4;
    double T[4][4], pose[6], back[4][4];
    // ry = +90 deg: only rx - rz is defined.
    ZyxTransform(T, rx, kPiFull / 2, rz);
    T[2][0] = -1.0;
    Matrix2pose(pose, T);
    EXPECT_EQ(pose[5], 0.0);
    EXPECT_NEAR(pose[4], kPiFull / 2, 1e-12);
    EXPECT_NEAR(pose[3], rx - rz, 1e-12);
    ZyxTransform(back, pose[3], pose[4], pose[5]);
    EXPECT_LT(MaxRotationDiff(T, back), 1e-12);
    // ry = -90 deg: only rx + rz is defined.
    ZyxTransform(T, rx, -kPiFull / 2, rz);
    T[2][0] = 1.0;
    Matrix2pose(pose, T);
    EXPECT_EQ(pose[5], 0.0);
    EXPECT_NEAR(pose[4], -kPiFull / 2, 1e-12);
    EXPECT_NEAR(pose[3], rx + rz, 1e-12);
    ZyxTransform(back, pose[3], pose[4], pose[5]);
    EXPECT_LT(MaxRotationDiff(T, back), 1e-12);
}

// ---------------------------------------------------------------- transforms

TEST(Transforms, CalcTransmatrixElementary) {
    double T[4][4];
    for (int axis = 0; axis < 3; ++axis) {
        CalcTransmatrix(T, axis, 12.5);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                double expected = (i == j) ? 1.0 : (j == 3 && i == axis ? 12.5 : 0.0);
                EXPECT_EQ(T[i][j], expected) << axis << " " << i << j;
            }
    }
    const KDL::Rotation rot[3] = {KDL::Rotation::RotX(0.3), KDL::Rotation::RotY(0.3),
                                  KDL::Rotation::RotZ(0.3)};
    for (int axis = 3; axis < 6; ++axis) {
        CalcTransmatrix(T, axis, 0.3);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(T[i][j], rot[axis - 3](i, j), 1e-15);
            EXPECT_EQ(T[i][3], 0.0);
        }
        EXPECT_EQ(T[3][3], 1.0);
    }
    for (int axis : {-1, 6, 100}) {
        CalcTransmatrix(T, axis, 0.3);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) EXPECT_EQ(T[i][j], i == j ? 1.0 : 0.0);
    }
}

TEST(Transforms, MulMatrix3x3MatchesKdl) {
    KDL::Rotation A = KDL::Rotation::RPY(0.1, -0.7, 2.0), B = KDL::Rotation::RPY(-1.2, 0.4, 0.3);
    KDL::Rotation C = A * B;
    double a[3][3], b[3][3], c[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            a[i][j] = A(i, j);
            b[i][j] = B(i, j);
        }
    MulMatrix3x3(c, a, b);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(c[i][j], C(i, j), 1e-15);
}

TEST(Transforms, MatrixLeftMulAddsUnrotatedTranslations) {
    double a[4][4], b[4][4], out[4][4];
    // Two pure translations: the sum.
    CalcTransmatrix(a, 0, 3.0);
    CalcTransmatrix(b, 1, -4.0);
    MatrixLeftMul(out, a, b);
    EXPECT_EQ(out[0][3], 3.0);
    EXPECT_EQ(out[1][3], -4.0);
    EXPECT_EQ(out[2][3], 0.0);
    // A rotation (with its own translation) and a translation: a's rotation,
    // translations added without rotating b's.
    ZyxTransform(a, 0.2, 0.3, 1.1, 10, 20, 30);
    ZyxTransform(b, 0, 0, 0, 1, 2, 3);
    MatrixLeftMul(out, a, b);
    EXPECT_LT(MaxRotationDiff(out, a), 1e-15);
    EXPECT_EQ(out[0][3], 11.0);
    EXPECT_EQ(out[1][3], 22.0);
    EXPECT_EQ(out[2][3], 33.0);
    EXPECT_EQ(out[3][0], 0.0);
    EXPECT_EQ(out[3][3], 1.0);
    // Rotations compose; the output may be one of the inputs.
    ZyxTransform(b, -0.5, 0.1, 0.9, 1, 1, 1);
    double expected[4][4];
    ZyxTransform(expected, 0, 0, 0);
    KDL::Rotation C = KDL::Rotation::RPY(0.2, 0.3, 1.1) * KDL::Rotation::RPY(-0.5, 0.1, 0.9);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) expected[i][j] = C(i, j);
    MatrixLeftMul(a, a, b);
    EXPECT_LT(MaxRotationDiff(a, expected), 1e-14);
    EXPECT_EQ(a[0][3], 11.0);
}

// ---------------------------------------------------------------- console output

TEST(ConsoleOutput, PrintMatrix) {
    double T[4][4] = {{1, 0.5, -2, 1234.5}, {0, 1, 0, -7}, {0.125, 0, 1, 3}, {0, 0, 0, 1}};
    testing::internal::CaptureStdout();
    print_matrix_4x4(T);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "matrix\n1 0.5 -2 1234.5 \n0 1 0 -7 \n0.125 0 1 3 \n0 0 0 1 \n");
}

TEST(ConsoleOutput, PrintArrays) {
    double v[3] = {1.5, -2, 3};
    testing::internal::CaptureStdout();
    print_array(v, 3);
    print_array(v, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1.5 -2 3 \n\n");

    double r[3] = {3.1415926, -1.5707963, 0};
    testing::internal::CaptureStdout();
    PrintPositionDegree(r, 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "180 -90 0 \n");

    // Degrees use the truncated pi: 1 rad prints 57.2957804904, not 57.2957795131.
    double one = 1.0;
    std::streamsize old = std::cout.precision(12);
    testing::internal::CaptureStdout();
    PrintPositionDegree(&one, 1);
    std::string out = testing::internal::GetCapturedStdout();
    std::cout.precision(old);
    EXPECT_EQ(out, "57.2957804904 \n");
}

}  // namespace

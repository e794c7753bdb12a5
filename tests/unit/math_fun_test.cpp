// Matrix inversion, vector helpers, transforms, quaternion and Euler-angle
// conversions: reference values, seeded random sweeps, and cross-checks of the
// rotation conventions against KDL.
#include "math_fun.h"

#include <gtest/gtest.h>
#include <kdl/frames.hpp>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

constexpr double kPiFull = 3.14159265358979323846;

// T = Rz(rz) Ry(ry) Rx(rx) (KDL's RPY), translation (x, y, z).
void ZyxTransform(double T[4][4], double rx, double ry, double rz, double x = 0, double y = 0,
                  double z = 0) {
    const KDL::Rotation R = KDL::Rotation::RPY(rx, ry, rz);
    const double t[3] = {x, y, z};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) T[i][j] = i == 3 ? (j == 3 ? 1.0 : 0.0) : j == 3 ? t[i] : R(i, j);
}

double RotationGap(double A[4][4], const KDL::Rotation& B) {
    double d = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) d = std::max(d, std::fabs(A[i][j] - B(i, j)));
    return d;
}

TEST(InverseMatrix, PermutationGivesTransposeAndSingularOrBadInputIsRejected) {
    // Row i has its 1 in column perm[i]: needs row and column swaps and the
    // reverse unscrambling to come out right.
    // Scaled so that the largest pivots sit in the last rows: inverse(D P) = P^T D^-1.
    const int perm[5] = {2, 4, 0, 1, 3};
    double a[25] = {};
    for (int i = 0; i < 5; ++i) a[i * 5 + perm[i]] = i + 1.0;
    ASSERT_EQ(inverse_matrix(a, 5), 0);
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) EXPECT_DOUBLE_EQ(a[i * 5 + j], perm[j] == i ? 1 / (j + 1.0) : 0.0) << i << j;

    // Rank 0, 1 and 2; the pivot tolerance is absolute: a well-conditioned
    // tiny matrix is singular.
    const struct { std::vector<double> a; int n; } singular[] = {
        {std::vector<double>(9), 3}, {{1, 2, 2, 4}, 2}, {{1, 2, 3, 4, 5, 6, 7, 8, 9}, 3}, {{1e-6, 0, 0, 1e-6}, 2}};
    for (auto m : singular) EXPECT_EQ(inverse_matrix(m.a.data(), m.n), -1) << testing::PrintToString(m.a);
    double one[1] = {2.0};
    EXPECT_EQ(inverse_matrix(one, 0), 0);
    tqltest::Stdout([&] {
        EXPECT_EQ(inverse_matrix(one, -1), -1);
        EXPECT_EQ(inverse_matrix(nullptr, 3), -1);
    });
    EXPECT_EQ(one[0], 2.0);
}

TEST(InverseMatrix, RandomWellConditionedTimesInverseIsIdentity) {
    std::mt19937 rng(20240601);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    // Sizes beyond 64 take the heap path of the pivot bookkeeping.
    for (int n : {1, 2, 3, 5, 8, 12, 36, 70}) {
        for (int trial = 0; trial < 20; ++trial) {
            std::vector<double> a(n * n), prod(n * n);
            for (double& x : a) x = u(rng);
            for (int i = 0; i < n; ++i) a[i * n + i] += (u(rng) < 0 ? -1.0 : 1.0) * (0.5 * n + 1.0);
            std::vector<double> inv = a;
            ASSERT_EQ(inverse_matrix(inv.data(), n), 0) << "n=" << n;
            mul_matrix(a.data(), inv.data(), prod.data(), n, n, n);
            double worst = 0.0;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) worst = std::max(worst, std::fabs(prod[i * n + j] - (i == j)));
            EXPECT_LT(worst, 1e-12) << "n=" << n << " trial=" << trial;
        }
    }
}

TEST(VectorHelpers, ConventionsAndLeftMultiplication) {
    double a[6] = {1, 2, 3, 4, 5, 6}, b[6] = {7, 8, 9, 10, 11, 12};  // 2 x 3 and 3 x 2
    double c[4] = {99, 99, 99, 99}, d[3], e[3];
    mul_matrix(a, b, c, 2, 3, 2);  // overwrites, does not accumulate
    EXPECT_EQ(std::vector<double>(c, c + 4), (std::vector<double>{58, 64, 139, 154}));
    sub_vector(a, b, d, 3);  // second minus first
    EXPECT_EQ(d[0], 6);
    const KDL::Vector k = KDL::Vector(1, 2, 3) * KDL::Vector(-4, 5, 0.5);
    double x[3] = {1, 2, 3}, y[3] = {-4, 5, 0.5};
    cross_3d(x, y, d);
    cross(x, y, e);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(d[i] == k(i) && e[i] == k(i)) << i;
    EXPECT_EQ((std::vector<int>{sign(0.0), sign(-0.0), sign(1e-300)}), (std::vector<int>{-1, -1, 1}));
    // MatrixLeftMul composes the rotations and adds the translations without
    // rotating the right one's; the output may be one of the inputs.
    double l[4][4], r[4][4];
    ZyxTransform(l, 0.2, 0.3, 1.1, 10, 20, 30);
    ZyxTransform(r, -0.5, 0.1, 0.9, 1, 2, 3);
    MatrixLeftMul(l, l, r);
    EXPECT_LT(RotationGap(l, KDL::Rotation::RPY(0.2, 0.3, 1.1) * KDL::Rotation::RPY(-0.5, 0.1, 0.9)), 1e-14);
    EXPECT_EQ((std::vector<double>{l[0][3], l[1][3], l[2][3], l[3][0], l[3][3]}),
              (std::vector<double>{11, 22, 33, 0, 1}));
}

// Random unit quaternions (w, x, y, z), w > 0, every component at least 0.01
// so that no radicand of MatrixToUnitQuaternion hits its guard: to the matrix
// as KDL builds it, and back to the same quaternion and the same matrix.
TEST(Quaternion, RoundTripsOverRandomRotations) {
    std::mt19937 rng(12);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int tested = 0; tested < 2000;) {
        double q[4];
        KDL::Rotation::RPY(3 * u(rng), 1.5 * u(rng), 3 * u(rng)).GetQuaternion(q[1], q[2], q[3], q[0]);
        const double sign_w = q[0] < 0 ? -1.0 : 1.0;
        for (double& v : q) v *= sign_w;
        if (std::any_of(q, q + 4, [](double v) { return std::fabs(v) < 0.01; })) continue;
        ++tested;
        double p[7] = {10.0 * tested, -3.5, 0.25, q[0], q[1], q[2], q[3]}, back[7], T[4][4], T2[4][4];
        UnitQuaternionToMatrix(T, p);
        EXPECT_LT(RotationGap(T, KDL::Rotation::Quaternion(q[1], q[2], q[3], q[0])), 1e-14);
        MatrixToUnitQuaternion(T, back);
        for (int i = 0; i < 7; ++i) EXPECT_NEAR(back[i], p[i], 1e-13) << i;
        UnitQuaternionToMatrix(T2, back);
        EXPECT_LT(RotationGap(T2, KDL::Rotation::Quaternion(q[1], q[2], q[3], q[0])), 1e-13);
    }
    // 180 deg about x: w's radicand is 0 (guarded), T21 - T12 = 0 and sign(0) = -1.
    double T[4][4], p[7];
    ZyxTransform(T, kPiFull, 0, 0);
    T[1][2] = T[2][1] = 0.0;
    MatrixToUnitQuaternion(T, p);
    EXPECT_EQ(std::vector<double>(p + 3, p + 7), (std::vector<double>{0, -1, 0, 0}));
}

TEST(Matrix2pose, ZyxAnglesRecoveredAndGimbalLock) {
    std::mt19937 rng(13);
    std::uniform_real_distribution<double> full(-kPiFull, kPiFull);
    std::uniform_real_distribution<double> pitch(-kPiFull / 2 + 1e-3, kPiFull / 2 - 1e-3);
    double T[4][4], pose[6];
    for (int t = 0; t < 2000; ++t) {
        const double rx = full(rng), ry = pitch(rng), rz = full(rng);
        ZyxTransform(T, rx, ry, rz, 5, -6, 7);
        Matrix2pose(pose, T);
        const double expect[6] = {5, -6, 7, rx, ry, rz};
        for (int i = 0; i < 6; ++i) EXPECT_NEAR(pose[i], expect[i], 1e-9) << i;
    }
    // ry = +-90 deg: only rx -+ rz is defined; it all goes into rx.
    for (double s : {1.0, -1.0}) {
        ZyxTransform(T, 0.7, s * kPiFull / 2, -0.4);
        T[2][0] = -s;
        Matrix2pose(pose, T);
        EXPECT_EQ(pose[5], 0.0);
        EXPECT_NEAR(pose[4], s * kPiFull / 2, 1e-12);
        EXPECT_NEAR(pose[3], 0.7 + s * 0.4, 1e-12);
        EXPECT_LT(RotationGap(T, KDL::Rotation::RPY(pose[3], pose[4], pose[5])), 1e-12);
    }
}

TEST(ConsoleOutput, DegreesUseTheTruncatedPi) {
    // 1 rad prints 57.2957804904, not 57.2957795131.
    double v[4] = {3.1415926, -1.5707963, 0, 1.0};
    const std::streamsize old = std::cout.precision(12);
    EXPECT_EQ(tqltest::Stdout([&] { PrintPositionDegree(v, 4); }), "180 -90 0 57.2957804904 \n");
    std::cout.precision(old);
}

}  // namespace

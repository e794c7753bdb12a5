// Smoothing filters on small hand-computed tables: sequential in-place rows,
// the first/last row read for the rows beyond either end, the spread mean, the
// cubic smoother's last row, and tables too small or too large to touch.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "math_fun.h"
#include "test_support.h"

namespace {

using Filter = std::function<void(double*, int, int)>;
const Filter kAverage = [](double* x, int r, int c) { average_smooth(x, r, c); };
const std::vector<std::pair<std::string, Filter>> kFilters = {
    {"low_pass", low_pass}, {"average_smooth", kAverage}, {"median_filtering", median_filtering},
    {"median_filtering_1", median_filtering_1}, {"smmoth", smmoth},
    {"five_point_cubic_smooth", [](double* x, int r, int c) { five_point_cubic_smooth(x, r, c); }}};

// Table of rows x 2 from two channel columns.
std::vector<double> Table(const std::vector<double>& a, const std::vector<double>& b) {
    std::vector<double> x;
    for (size_t i = 0; i < a.size(); ++i) x.insert(x.end(), {a[i], b[i]});
    return x;
}

TEST(Filters, HandComputedTables) {
    struct Case {
        const char* name;
        Filter f;
        std::vector<double> in0, in1, out0, out1;
    } cases[] = {
        // Row 1 reads row 0 twice (for row -1), row 4 reads row 5 twice (for row 6).
        {"mean", median_filtering, {5, 0, 0, 0, 0, 5}, {3, 3, 3, 3, 3, 3}, {5, 2, 1.4, 1.68, 2.616, 5},
         {3, 3, 3, 3, 3, 3}},
        {"spread mean near the ends", median_filtering_1, {5, 0, 0, 0, 0, 5}, {0, 1, 2, 3, 4, 5},
         {5, 2, 1.4, 1.68, 2.616, 5}, {0, 1.2, 2.04, 3.048, 3.8176, 5}},
        {"3-point mean", median_filtering, {0, 3, 9}, {1, 1, 1}, {0, 4, 9}, {1, 1, 1}},
        {"3-point spread", median_filtering_1, {0, 3, 9}, {6, 0, 0}, {0, 4, 9}, {6, 2, 0}},
        {"low pass step", low_pass, {0, 1, 1, 1}, {2, 2, 2, 2}, {0, 0.6, 0.84, 0.936}, {2, 2, 2, 2}},
        {"running sum step", kAverage, {0, 1, 1}, {4, 4, 4}, {0, 0.05, 0.0975}, {4, 4, 4}},
    };
    for (const Case& c : cases) {
        std::vector<double> x = Table(c.in0, c.in1);
        const std::vector<double> want = Table(c.out0, c.out1);
        c.f(x.data(), static_cast<int>(c.in0.size()), 2);
        for (size_t k = 0; k < x.size(); ++k) EXPECT_NEAR(x[k], want[k], 1e-12) << c.name << " element " << k;
    }
}

TEST(Filters, SpreadMeanReachesTenRowsAway) {
    // 41 rows: only row 20 is at least 20 rows from both ends; it averages rows
    // 0, 10, 20, 30, 40 and so sees the impulse at row 30; rows before it do not.
    std::vector<double> x(41, 0.0);
    x[30] = 5.0;
    median_filtering_1(x.data(), 41, 1);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(x[i], 0.0) << i;
    EXPECT_DOUBLE_EQ(x[20], 1.0);
}

TEST(Filters, ConstantsStayConstant) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> value(-1e3, 1e3);
    for (int trial = 0; trial < 4; ++trial) {
        const double c0 = value(rng), c1 = value(rng);
        for (const auto& [name, f] : kFilters) {
            std::vector<double> x = Table(std::vector<double>(45, c0), std::vector<double>(45, c1));
            f(x.data(), 45, 2);
            for (size_t k = 0; k < x.size(); ++k) EXPECT_NEAR(x[k], k % 2 ? c1 : c0, 1e-9) << name << " " << k;
        }
    }
}

TEST(Filters, CubicKeepsRampsExceptInTheLastRow) {
    // Ramps i and 10 - 2i over 8 rows. The last row weighs y[7] by 68/70 and
    // leaves out y[3]: (4 (4 + 6) - 7 - 6 * 5 + 69 * 7) / 70 = 243/35, and
    // (4 (2 - 2) + 4 - 0 - 276) / 70 = -136/35.
    std::vector<double> a, b;
    for (int i = 0; i < 8; ++i) a.push_back(i), b.push_back(10 - 2 * i);
    std::vector<double> x = Table(a, b);
    ASSERT_EQ(five_point_cubic_smooth(x.data(), 8, 2), 0);
    for (int k = 0; k < 14; ++k) EXPECT_NEAR(x[k], k % 2 ? b[k / 2] : a[k / 2], 1e-12) << k;
    EXPECT_NEAR(x[14], 243.0 / 35, 1e-12);
    EXPECT_NEAR(x[15], -136.0 / 35, 1e-12);
}

TEST(Filters, TablesTooSmallOrTooLargeAreUntouched) {
    for (const auto& [name, f] : kFilters) {
        f(nullptr, 10, 2);
        for (int rows = 0; rows <= 4; ++rows) {
            std::vector<double> x = {1, -2, 7, 4, 0, 3, 9, 8}, before = x;
            f(x.data(), rows, 2);
            f(x.data(), 4, 0);
            const bool row_wise = name == "low_pass" || name == "average_smooth";
            const bool untouched = row_wise ? rows <= 1 : (name == "five_point_cubic_smooth" || rows <= 2);
            if (untouched) { EXPECT_EQ(x, before) << name << " rows " << rows; }
        }
    }
    // 2^14 x 2^14 samples is refused before anything is read.
    std::vector<double> x(8, 1.5);
    std::string printed = tqltest::Stdout([&] { EXPECT_EQ(five_point_cubic_smooth(x.data(), 1 << 14, 1 << 14), -1); });
    EXPECT_NE(printed.find("too large"), std::string::npos);
    EXPECT_EQ(five_point_cubic_smooth(x.data(), 4, 2), -1);
    EXPECT_EQ(x, std::vector<double>(8, 1.5));
}

}  // namespace

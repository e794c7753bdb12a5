// In-place smoothing of recorded sample tables (e.g. joint trajectories).
//
// A table is `rows` samples by `cols` channels, row-major: sample i of channel
// j is x[i * cols + j]. Every filter runs down the rows, each channel on its
// own, and overwrites the table; where a formula uses an earlier row, that row
// already holds its filtered value (only five_point_cubic_smooth works from an
// unfiltered copy). Nothing here is meant for the 4 ms control period.
//
// Invariant: no read or write outside the table. Null tables and non-positive
// sizes are left alone.
#include "math_fun.h"

#include <cstddef>
#include <iostream>
#include <memory>
#include <new>
#include <vector>

namespace {

constexpr double kLowPassGain = 0.6;  // weight of the new sample
constexpr int kAverageLength = 20;    // samples in the running sum
constexpr int kSmoothPasses = 15;     // passes of each mean in smmoth
constexpr int kSpreadMargin = 20;     // rows near either end that use adjacent samples
constexpr int kSpreadStep = 10;       // row distance of the spread mean's samples
constexpr long long kMaxCubicSamples = 1LL << 28;  // largest copy is below this

bool Usable(const double* x, int rows, int cols) { return x != nullptr && rows > 0 && cols > 0; }

// Element (row, col); size_t so long tables do not overflow the index.
double& At(double* x, int cols, int row, int col) {
    return x[static_cast<std::size_t>(row) * static_cast<std::size_t>(cols) + static_cast<std::size_t>(col)];
}

// The 5-point means reach one row past either end at i = 1 and i = rows - 2;
// those reads take the first or last row instead.
int ClampRow(int row, int rows) { return row < 0 ? 0 : (row >= rows ? rows - 1 : row); }

// One pass of a mean over rows i - 2 step .. i + 2 step (step 1 near the ends
// or for the plain filter). A 3-row table takes the 3-point mean of its middle
// row, the only row with both i == 1 and i == rows - 2.
void MeanPass(double* x, int rows, int cols, bool spread) {
    if (!Usable(x, rows, cols) || rows < 3) return;
    for (int i = 1; i <= rows - 2; ++i) {
        const bool near_end = i < kSpreadMargin || i >= rows - kSpreadMargin;
        const int step = (spread && !near_end) ? kSpreadStep : 1;
        for (int j = 0; j < cols; ++j) {
            if (i != 1 || i != rows - 2) {
                double sum = 0.0;
                for (int k = -2; k <= 2; ++k) sum += At(x, cols, ClampRow(i + k * step, rows), j);
                At(x, cols, i, j) = sum / 5.0;
            } else {
                At(x, cols, i, j) = (At(x, cols, i - 1, j) + At(x, cols, i, j) + At(x, cols, i + 1, j)) / 3.0;
            }
        }
    }
}

// Five-point cubic least-squares value of row i from the unfiltered column y
// (stride cols). The last row's formula subtracts the last sample itself where
// the textbook end formula has y[n-5]: a net weight of 68/70 on y[n-1]. That
// keeps constants (70/70) but not ramps; recorded tables depend on it.
double CubicPoint(const double* y, int cols, int rows, int i) {
    auto v = [&](int row) { return y[static_cast<std::size_t>(row) * static_cast<std::size_t>(cols)]; };
    const int n = rows;
    if (i == 0) return (69.0 * v(0) + 4.0 * (v(1) + v(3)) - 6.0 * v(2) - v(4)) / 70.0;
    if (i == 1) return (2.0 * (v(0) + v(4)) + 27.0 * v(1) + 12.0 * v(2) - 8.0 * v(3)) / 35.0;
    if (i == n - 2)
        return (2.0 * (v(n - 5) + v(n - 1)) - 8.0 * v(n - 4) + 12.0 * v(n - 3) + 27.0 * v(n - 2)) / 35.0;
    if (i < n - 2) return (-3.0 * (v(i - 2) + v(i + 2)) + 12.0 * (v(i - 1) + v(i + 1)) + 17.0 * v(i)) / 35.0;
    return (4.0 * (v(n - 4) + v(n - 2)) - v(n - 1) - 6.0 * v(n - 3) + 69.0 * v(n - 1)) / 70.0;
}

}  // namespace

void low_pass(double* x, int rows, int cols) {
    if (!Usable(x, rows, cols)) return;
    for (int i = 1; i < rows; ++i)
        for (int j = 0; j < cols; ++j)
            At(x, cols, i, j) = At(x, cols, i, j) * kLowPassGain + (1.0 - kLowPassGain) * At(x, cols, i - 1, j);
}

// The sum drops the previous row's filtered value, not its raw sample, so this
// is the recursion y[i] = 0.95 y[i-1] + x[i] / 20 rather than a moving average.
int average_smooth(double* x, int rows, int cols) {
    if (!Usable(x, rows, cols)) return 0;
    std::vector<double> sum(static_cast<std::size_t>(cols));
    for (int j = 0; j < cols; ++j) sum[j] = kAverageLength * At(x, cols, 0, j);
    for (int i = 1; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            sum[j] = sum[j] - At(x, cols, i - 1, j) + At(x, cols, i, j);
            At(x, cols, i, j) = sum[j] / kAverageLength;
        }
    }
    return 0;
}

void median_filtering(double* x, int rows, int cols) { MeanPass(x, rows, cols, false); }

void median_filtering_1(double* x, int rows, int cols) { MeanPass(x, rows, cols, true); }

void smmoth(double* x, int rows, int cols) {
    for (int pass = 0; pass < kSmoothPasses; ++pass) median_filtering(x, rows, cols);
    for (int pass = 0; pass < kSmoothPasses; ++pass) median_filtering_1(x, rows, cols);
}

int five_point_cubic_smooth(double* x, int rows, int cols) {
    if (!Usable(x, rows, cols) || rows < 5) return -1;
    const long long count = static_cast<long long>(rows) * cols;
    if (count >= kMaxCubicSamples) {
        std::cout << "five_point_cubic_smooth: table of " << rows << " x " << cols << " samples is too large\n";
        return -1;
    }
    std::unique_ptr<double[]> out(new (std::nothrow) double[static_cast<std::size_t>(count)]);
    if (!out) return -1;
    for (int j = 0; j < cols; ++j)
        for (int i = 0; i < rows; ++i) At(out.get(), cols, i, j) = CubicPoint(x + j, cols, rows, i);
    for (long long k = 0; k < count; ++k) x[k] = out[k];
    return 0;
}

// Trajectory file readers. Input: byte 0 picks the row capacity (1..16), byte 1
// the columns (1..8), the rest is the file. The sample matrix is a heap block
// of exactly rows x columns, read by the described reader and by the replay's
// strict one (which must refuse or deliver only finite numbers); every line
// also goes through DecodeCharLine alone.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz_support.h"
#include "interpolation.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tqlfuzz::SilenceStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return -1;
    const int max_rows = 1 + data[0] % 16;
    const int cols = 1 + data[1] % 8;
    data += 2;
    size -= 2;

    static const std::string path = tqlfuzz::ScratchDir() + "/trajectory.txt";
    tqlfuzz::WriteBytes(path, data, size);
    std::unique_ptr<double[]> samples(new double[static_cast<size_t>(max_rows) * cols]);
    int rows = 0;
    GetMatrixFromFile(path, samples.get(), max_rows, cols, &rows);
    if (rows < 0 || rows > max_rows) __builtin_trap();

    rows = 0;
    if (ReadTrajectoryForReplay(path, samples.get(), max_rows, cols, &rows) == 0) {
        if (rows < 1 || rows > max_rows) __builtin_trap();
        for (int i = 0; i < rows * cols; ++i)
            if (!std::isfinite(samples[i])) __builtin_trap();
    }

    std::unique_ptr<double[]> values(new double[cols]);
    for (const auto& line : tqlfuzz::Lines(data, size)) DecodeCharLine(line.get(), values.get(), cols);
    return 0;
}

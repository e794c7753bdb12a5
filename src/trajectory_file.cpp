// Trajectory files: one line per sample, the joints' values separated by ","
// (six significant digits), no header.
#include <cstdio>
#include <fstream>
#include <string>

#include "interpolation.h"

int SaveMatrixToFile(std::string file_name, double* data, int rows, int cols) {
    // Written beside the target and renamed over it, so a failure never
    // leaves a truncated file where a whole one was.
    const std::string temporary = file_name + ".part";
    std::ofstream out(temporary, std::ios::trunc);
    if (!out || rows < 0 || cols < 0 || (data == nullptr && rows > 0 && cols > 0)) {
        SendErrorCode(0, 3, "Open " + file_name + " failure! ");
        return -1;
    }
    for (int r = 0; r < rows; ++r) {
        const double* row = data + static_cast<size_t>(r) * cols;
        for (int c = 0; c < cols; ++c) {
            if (c > 0) out << ',';
            out << row[c];
        }
        out << '\n';
    }
    out.close();
    if (!out || std::rename(temporary.c_str(), file_name.c_str()) != 0) {
        std::remove(temporary.c_str());
        SendErrorCode(0, 3, "Open " + file_name + " failure! ");
        return -1;
    }
    return 0;
}

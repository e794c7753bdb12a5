// Trajectory files: one line per sample, the joints' values separated by ","
// (six significant digits), no header.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
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
            out << row[c] + 0.0;  // -0 written as 0
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

int DecodeCharLine(const char* line, double* values, int n) {
    if (line == nullptr) {
        std::cout << "File format error" << std::endl;
        return -1;
    }
    const char* p = line;
    for (int i = 0; i < n; ++i) {
        values[i] = std::atof(p);
        p = std::strchr(p, ',');
        if (p == nullptr) break;
        ++p;
    }
    return 0;
}

namespace {

// Longest line of a trajectory file, characters, without its end of line.
constexpr int kMaxLineLength = 255;

// Reads one line of at most kMaxLineLength characters into buf (kMaxLineLength
// + 1 bytes, no end of line kept). 1 for a line, 0 at the end of the file or a
// read failure, -1 for a longer line (left unread).
int ReadLine(std::FILE* file, char* buf) {
    if (std::fgets(buf, kMaxLineLength + 1, file) == nullptr) return 0;
    char* end = std::strchr(buf, '\n');
    if (end != nullptr) {
        *end = '\0';
        return 1;
    }
    // No end of line: the file ended, the line fills the buffer exactly, or
    // the line is longer than the buffer.
    const int next = std::fgetc(file);
    if (next == EOF || next == '\n') return 1;
    return -1;
}

}  // namespace

int GetMatrixFromFile(std::string file_name, double* data, int max_rows, int cols, int* rows) {
    if (cols < 0 || max_rows < 0 || (data == nullptr && max_rows > 0 && cols > 0)) {
        std::cout << "Read " << file_name << " refused: " << max_rows << " rows of " << cols << " columns." << std::endl;
        return -1;
    }
    std::FILE* file = std::fopen(file_name.c_str(), "r");
    if (file == nullptr) {
        std::cout << "Open " + file_name + " failure! " << std::endl;
        return -1;
    }
    char line[kMaxLineLength + 1];
    int count = 0;
    // Never more than max_rows rows, whatever the file holds.
    while (count < max_rows) {
        const int got = ReadLine(file, line);
        if (got == 0) break;
        if (got < 0) {
            std::cout << file_name << ": line " << count + 1 << " is longer than " << kMaxLineLength
                      << " characters; reading stops there." << std::endl;
            break;
        }
        DecodeCharLine(line, data + static_cast<size_t>(count) * cols, cols);
        ++count;
    }
    if (count == max_rows && ReadLine(file, line) != 0)
        std::cout << file_name << " holds more than " << max_rows << " rows; the rest is ignored." << std::endl;
    std::fclose(file);
    if (rows != nullptr) *rows = count;
    if (count == 0) {
        std::cout << file_name << " is an empty file." << std::endl;
        return -1;
    }
    return 0;
}

// Trajectory files: one line per sample, the joints' values separated by ","
// (six significant digits), no header.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "durable_file.h"
#include "interpolation.h"

int SaveMatrixToFile(std::string file_name, double* data, int rows, int cols) {
    // Written beside the target, flushed and renamed over it, so neither a
    // failure nor a power cut leaves a truncated file where a whole one was.
    if (rows < 0 || cols < 0 || (data == nullptr && rows > 0 && cols > 0)) {
        SendErrorCode(0, 3, "Open " + file_name + " failure! ");
        return -1;
    }
    const std::string temporary = tql::PartFileName(file_name);
    std::ofstream out(temporary, std::ios::trunc);
    if (!out) {
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
    if (!out) std::remove(temporary.c_str());
    if (!out || tql::CommitFile(temporary, file_name) < 0) {
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

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Decodes one line of a file replayed on the arm: exactly n finite numbers
// separated by "," (blanks around a number and a final carriage return
// allowed). Empty on success, else what is wrong with the line.
std::string DecodeStrictLine(char* line, double* values, int n) {
    const size_t length = std::strlen(line);
    if (length > 0 && line[length - 1] == '\r') line[length - 1] = '\0';
    const char* p = line;
    while (IsBlank(*p)) ++p;
    if (*p == '\0') return "a blank line";
    for (int i = 0; i < n; ++i) {
        while (IsBlank(*p)) ++p;
        char* end = nullptr;
        const double v = std::strtod(p, &end);
        if (end == p) {
            if (*p == ',') return "an empty value at position " + std::to_string(i + 1);
            if (*p == '\0') return std::to_string(i) + " numbers where " + std::to_string(n) + " belong";
            return std::string("\"") + std::string(p, std::strcspn(p, ",")) + "\" is not a number";
        }
        if (!std::isfinite(v)) return std::string(p, static_cast<size_t>(end - p)) + " is not a finite number";
        values[i] = v;
        p = end;
        while (IsBlank(*p)) ++p;
        if (i + 1 < n && *p != ',') {
            if (*p == '\0') return std::to_string(i + 1) + " numbers where " + std::to_string(n) + " belong";
            return std::string("'") + *p + "' after number " + std::to_string(i + 1) + " where ',' belongs";
        }
        if (i + 1 < n) ++p;
    }
    if (*p != '\0') return "more than " + std::to_string(n) + " numbers";
    return "";
}

// The reader of both: the described one decodes every line as DecodeCharLine
// does; the strict one refuses the file at its first line that is not
// exactly `cols` finite numbers.
int ReadMatrix(const std::string& file_name, double* data, int max_rows, int cols, int* rows, bool strict) {
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
        if (got < 0 && strict) {
            std::cout << "Trajectory format error: " << file_name << " line " << count + 1 << ": longer than "
                      << kMaxLineLength << " characters" << std::endl;
            std::fclose(file);
            return -1;
        }
        if (got < 0) {
            std::cout << file_name << ": line " << count + 1 << " is longer than " << kMaxLineLength
                      << " characters; reading stops there." << std::endl;
            break;
        }
        double* row = data + static_cast<size_t>(count) * cols;
        if (!strict) {
            DecodeCharLine(line, row, cols);
        } else {
            const std::string wrong = DecodeStrictLine(line, row, cols);
            if (!wrong.empty()) {
                std::cout << "Trajectory format error: " << file_name << " line " << count + 1 << ": " << wrong
                          << " (expected " << cols << " numbers separated by ',')" << std::endl;
                std::fclose(file);
                return -1;
            }
        }
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

}  // namespace

int GetMatrixFromFile(std::string file_name, double* data, int max_rows, int cols, int* rows) {
    return ReadMatrix(file_name, data, max_rows, cols, rows, false);
}

int ReadTrajectoryForReplay(std::string file_name, double* data, int max_rows, int cols, int* rows) {
    return ReadMatrix(file_name, data, max_rows, cols, rows, true);
}

// Flight recorder: one CSV row per command the bus receives.
#include <cmath>

#include "sim_bus.h"

namespace tqlsim {

Recorder::~Recorder() { Close(); }

bool Recorder::Open(const std::string& path) {
    Close();
    file_ = std::fopen(path.c_str(), "w");
    if (file_ == nullptr) return false;
    std::fprintf(file_, "time,id,mode,command,value\n");
    return true;
}

void Recorder::Row(double time, int id, int mode, const char* command, double value) {
    if (file_ == nullptr) return;
    // Bus seconds to the microsecond; values with enough digits to compare.
    std::fprintf(file_, "%.6f,%d,%d,%s,%.12g\n", time, id, mode, command, value);
}

void Recorder::Flush() {
    if (file_ != nullptr) std::fflush(file_);
}

void Recorder::Close() {
    if (file_ != nullptr) std::fclose(file_);
    file_ = nullptr;
}

}  // namespace tqlsim

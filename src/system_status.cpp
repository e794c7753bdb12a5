// Process-wide system status, the one error record and the real-time joint
// position (the last set-point sent to the arm).
//
// The status and the real-time position are written by a motion loop and read
// by the monitoring thread without a lock, so they are lock-free atomics.
#include <atomic>
#include <iostream>
#include <mutex>

#include "execute.h"
#include "mechnical_unit.h"

namespace {

std::atomic<bool> system_status{true};
int error_level = 0;
int error_codex = 0;
// Guards the error text, which is a std::string and may be reported from the
// actuator library's callback thread.
std::mutex error_mutex;
std::string& ErrorDescription() {
    // Constructed on first use so it is "NULL" before any other global needs it.
    static std::string error_description = "NULL";
    return error_description;
}
std::atomic<double> real_time_pos[kMaxJointNum];

}  // namespace

void SetSystemStatus(bool status) { system_status.store(status); }

bool GetSystemStatus() { return system_status.load(); }

void SendErrorCode(int level, int code, std::string text) {
    SetSystemStatus(false);
    // Reports come from the monitoring and recorder threads at once; the lock
    // also keeps their lines whole on the console.
    std::lock_guard<std::mutex> lock(error_mutex);
    error_level = level;
    error_codex = code;
    // The text is kept twice, before and after the numbers.
    std::string& d = ErrorDescription();
    d = text;
    d += std::to_string(level);
    d += "-";
    d += std::to_string(code);
    d += ": ";
    d += text;
    d += ".";
    std::cout << d << std::endl;
}

void GetErrorCode(std::string& out) {
    std::lock_guard<std::mutex> lock(error_mutex);
    out = ErrorDescription();
}

void SetRealTimePos(double* q) {
    int n = GetCurrentRobot()->GetRobotJointNum();
    if (n > kMaxJointNum) n = kMaxJointNum;
    for (int i = 0; i < n; ++i) real_time_pos[i].store(q[i], std::memory_order_relaxed);
}

void CopyRealTimePos(double* q, int n) {
    if (n > kMaxJointNum) n = kMaxJointNum;
    for (int i = 0; i < n; ++i) q[i] = real_time_pos[i].load(std::memory_order_relaxed);
}

void ErrorCallBack(ActuatorController::UnifiedID uid, unsigned short code, std::string text) {
    std::cout << "Error: " << static_cast<int>(uid.actuatorID) << "  " << code << "  " << text << std::endl;
}

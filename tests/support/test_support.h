// Shared test helpers: scratch copies of the demo working directory, runs of
// the tql host with scripted standard input, the booted simulated arm in
// virtual time and a sleep hook that sees every 4 ms tick's set-points.
#ifndef TQL_TEST_SUPPORT_H
#define TQL_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "actuatorcontroller.h"
#include "sim_control.h"

struct InstructionUnit;
struct InterpolationData;

namespace tqltest {

// A fresh copy of the demo working directory (parameter.db, file/, sim.conf)
// in a new temporary directory, removed again on destruction. With enter =
// true the process works inside it until then (for in-process tests of code
// that opens "parameter.db" or "file/..." relative to the working directory).
class ScratchDir {
public:
    explicit ScratchDir(bool enter = true);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_, previous_cwd_;
    bool entered_ = false;
};

// The words of TQL_HOST_LAUNCHER (split on blanks; none when unset): the
// program that starts the build's host and tools when they cannot run
// directly, e.g. "qemu-arm -L /usr/arm-linux-gnueabihf" for the board's build.
std::vector<std::string> HostLauncher();
// The same words, each followed by a blank, to put before a program in a
// shell command line.
std::string HostLauncherPrefix();

struct HostRun {
    int exit_code = -1;  // exit status, or 128 + signal, or -1 on timeout
    std::string out, err;
};
using EnvList = std::vector<std::pair<std::string, std::string>>;

// Runs the tql host in `dir` (through HostLauncher() when set) with the given
// arguments (without the program name) and standard input, pressing Ctrl-C
// (SIGINT) once standard output holds `interrupt_after` (empty: never) and
// again every 50 ms until the host ends. The bus runs on the virtual clock
// unless env overrides TQL_SIM_CLOCK (an empty value unsets a variable).
// Killed after timeout_s of wall time.
// With hold_stdin, standard input is a pipe that stays open after the text
// until the host ends, so a prompt waits as for a person who has not answered
// yet (instead of reading the end of the input).
HostRun RunHostInterrupted(const std::string& dir, const std::vector<std::string>& args,
                           const std::string& stdin_text, const EnvList& env, const std::string& interrupt_after,
                           double timeout_s = 120.0, bool hold_stdin = false);
inline HostRun RunHost(const std::string& dir, const std::vector<std::string>& args,
                       const std::string& stdin_text = "", const EnvList& env = {}, double timeout_s = 120.0) {
    return RunHostInterrupted(dir, args, stdin_text, env, "", timeout_s);
}

// In-process runs on the simulated arm: starts the bus afresh in the current
// (scratch) directory on the virtual clock, with no recording or faults from
// the environment, installs `sleep` (tql_sim_sleep when null) and the bus clock
// as the library's timing seam, and boots the robot with standard output
// captured into *out. Returns Boot's result.
int BootSimulatedArm(void (*sleep)(double) = nullptr, std::string* out = nullptr);
// Gives the library back its real sleep and clock.
void RestoreRealTime();

// Runs f() with standard output captured into *out (when given); returns f's result.
template <typename F>
int Quiet(F f, std::string* out = nullptr) {
    testing::internal::CaptureStdout();
    const int r = f();
    const std::string printed = testing::internal::GetCapturedStdout();
    if (out != nullptr) *out = printed;
    return r;
}
// What f() prints on standard output, or on standard error.
template <typename F>
std::string Stdout(F f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}
template <typename F>
std::string Stderr(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// Base of tests that drive the booted robot on the simulated arm in virtual
// time. SetUp of a derived fixture calls ASSERT_NO_FATAL_FAILURE(BootArm(...)).
// TearDown checks that the flight recorder saw no set-point beyond any
// actuator's limits, then restores real time and leaves the scratch directory.
class SimulatedArmTest : public testing::Test {
protected:
    void BootArm(void (*sleep)(double) = nullptr);
    void TearDown() override;

    std::unique_ptr<ScratchDir> dir_;
};

// Base of the simulated bus's own tests: a fresh copy of the demo directory, a
// freshly loaded bus, none of the simulator's environment variables set before
// or after (the reset at the end closes a recording without its exit summary).
class SimBusTest : public testing::Test {
protected:
    void SetUp() override { ClearEnvironment(); }
    void TearDown() override { ClearEnvironment(); }
    static void ClearEnvironment() {
        for (const char* name : {"TQL_SIM_CLOCK", "TQL_SIM_ACTUATORS", "TQL_SIM_RECORD", "TQL_SIM_FAULT",
                                 "TQL_SIM_NOISE", "TQL_SIM_HAND", "TQL_SIM_URDF", "TQL_SIM_INTERRUPT",
                                 "TQL_SIM_VIEW", "TQL_SIM_VIEW_ROOT"})
            unsetenv(name);
        tql_sim_reset();
    }
    // Reloads the bus with one more environment variable set.
    static void ResetWith(const char* name, const char* value) {
        setenv(name, value, 1);
        tql_sim_reset();
    }
    static ActuatorController* Ctl() { return ActuatorController::initController(); }
    static std::vector<ActuatorController::UnifiedID> Lookup() {
        Actuator::ErrorsDefine ec = Actuator::ERR_NONE;
        return Ctl()->lookupActuators(ec);
    }
    // Reloads the bus, then discovers and enables every actuator in `mode`.
    static void Boot(Actuator::ActuatorMode mode = Actuator::Mode_Pos) {
        tql_sim_reset();
        ASSERT_TRUE(Ctl()->enableActuatorInBatch(Lookup()));
        Ctl()->activateActuatorModeInBantch(Ctl()->getActuatorIdArray(), mode);
    }

    ScratchDir dir_;
};

// Joint vector of the six-joint demo arm, rad; the system's degree (its pi is
// 3.1415926, so this is not pi / 180).
using Joints = std::array<double, 6>;
constexpr double kDeg = 0.017453292222222222;
inline Joints Degrees(Joints q) {
    for (double& v : q) v *= kDeg;
    return q;
}
// The booted robot's present joints.
Joints CurrentJoints();

// Sleep hook of the motion tests (pass TickSleep to BootArm). Every motion
// loop sleeps one period after each tick's set-points, so the real-time
// position then holds exactly what was sent: it is appended to `sent`, and
// the bus's last position set-points (revolutions, ids 1..6) to `commands`.
// After `stop_at` ticks, or in the `stop_at_pause`-th sleep of 0.5 s or more,
// a stop is requested from another thread (or, with by_signal, by SIGINT).
struct TickSpy {
    std::vector<Joints> sent, commands;
    long stop_at = -1;
    bool by_signal = false;
    long pauses = 0, stop_at_pause = -1;
    void (*on_tick)(long tick) = nullptr;  // called after each period's set-point is taken
};
extern TickSpy tick_spy;
void TickSleep(double seconds);

// Decodes program lines given in memory (no file) into instruction records,
// line numbers from 1; each line must decode.
std::list<InstructionUnit> DecodeLines(const std::vector<std::string>& lines);
// The lines decoded into the move table of the booted robot, from its
// present joints; the number of moves (each line must convert).
int LoadProgram(const std::vector<std::string>& lines, InterpolationData* table);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
// Bus times of the position set-points in a flight recording, in order (of
// actuator `id` only, when given).
std::vector<double> SetPointTimes(const std::string& csv, int id = 0);
// Runs one SQL statement list on a database file; returns false on error.
bool ExecSql(const std::string& db_path, const std::string& sql);
// Number of occurrences of `needle` in `text`.
int CountOf(const std::string& text, const std::string& needle);

}  // namespace tqltest

#endif  // TQL_TEST_SUPPORT_H

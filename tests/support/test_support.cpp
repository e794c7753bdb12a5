#include "test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "execute.h"
#include "instruction.h"
#include "interface.h"
#include "program.h"
#include "sim_control.h"
#include "timing.h"

namespace fs = std::filesystem;

namespace tqltest {

ScratchDir::ScratchDir(bool enter) {
    path_ = (fs::temp_directory_path() / "tql-test-XXXXXX").string();
    if (mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    fs::copy(TQL_DEMO_DIR, path_, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    // A scratch run starts from the simulator's defaults, not from a state
    // left by an earlier run in the build's demo directory.
    fs::remove(path_ + "/sim_state.txt");
    if (enter) {
        previous_cwd_ = fs::current_path().string();
        fs::current_path(path_);
        entered_ = true;
    }
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    if (entered_) fs::current_path(previous_cwd_, ec);
    fs::remove_all(path_, ec);
}

int BootSimulatedArm(void (*sleep)(double), std::string* out) {
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    for (const char* name : {"TQL_SIM_RECORD", "TQL_SIM_FAULT", "TQL_SIM_ACTUATORS", "TQL_SIM_VIEW"}) unsetenv(name);
    tql_sim_reset();
    tql::SetSleepFunction(sleep ? sleep : &tql_sim_sleep);
    tql::SetClockFunction(&tql_sim_now);
    SetDigitalOutputHandler(&tql_sim_digital_output);
    return Quiet([] { return Boot(); }, out);
}

std::vector<double> SetPointTimes(const std::string& csv, int id) {
    std::vector<double> times;
    std::istringstream in(csv);
    for (std::string line; std::getline(in, line);) {
        double t = 0;
        int who = 0;
        if (line.find(",setPosition,") != std::string::npos && std::sscanf(line.c_str(), "%lf,%d", &t, &who) == 2 &&
            (id == 0 || who == id))
            times.push_back(t);
    }
    return times;
}

int LoadProgram(const std::vector<std::string>& lines, InterpolationData* table) {
    std::list<InstructionUnit> list = DecodeLines(lines);
    Robot* robot = GetCurrentRobot();
    double current[kMaxJointNum] = {};
    robot->GetCurrentMachineJoint(current);
    int count = 0;
    EXPECT_GE(InstructionDataToMoveData(&list, table, current, robot, &count), 0);
    return count;
}

std::list<InstructionUnit> DecodeLines(const std::vector<std::string>& lines) {
    std::list<InstructionUnit> list;
    int n = 0;
    for (const std::string& line : lines) {
        std::string text = line;
        InstructionUnit u;
        EXPECT_EQ(u.DecodeInstruction(&text[0]), 0) << line;
        u.line_number = ++n;
        list.push_back(u);
    }
    return list;
}

void SimulatedArmTest::BootArm(void (*sleep)(double)) {
    dir_ = std::make_unique<ScratchDir>();
    std::string out;
    ASSERT_EQ(BootSimulatedArm(sleep, &out), 0) << out;
}

void SimulatedArmTest::TearDown() {
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
    RestoreRealTime();
    dir_.reset();
}

void RestoreRealTime() {
    tql::SetSleepFunction(nullptr);
    tql::SetClockFunction(nullptr);
}

Joints CurrentJoints() {
    Joints q;
    GetCurrentRobot()->GetCurrentMachineJoint(q.data());
    return q;
}

TickSpy tick_spy;

void TickSleep(double seconds) {
    bool stop = false;
    if (std::fabs(seconds - PERIOD) < 1e-12) {
        Joints q, c;
        CopyRealTimePos(q.data(), static_cast<int>(q.size()));
        for (int id = 1; id <= 6; ++id) c[id - 1] = tql_sim_last_setpoint(id);
        tick_spy.sent.push_back(q);
        tick_spy.commands.push_back(c);
        stop = static_cast<long>(tick_spy.sent.size()) == tick_spy.stop_at;
        if (tick_spy.on_tick != nullptr) tick_spy.on_tick(static_cast<long>(tick_spy.sent.size()));
    } else if (seconds >= 0.5 - 1e-9) {
        stop = ++tick_spy.pauses == tick_spy.stop_at_pause;
    }
    if (stop && tick_spy.by_signal) raise(SIGINT);
    if (stop && !tick_spy.by_signal) std::thread([] { SetStopFlag(); }).join();
    tql_sim_sleep(seconds);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

bool ExecSql(const std::string& db_path, const std::string& sql) {
    sqlite3* db = nullptr;
    const bool ok = sqlite3_open(db_path.c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

int CountOf(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = 0; !needle.empty() && (at = text.find(needle, at)) != std::string::npos; at += needle.size()) ++n;
    return n;
}

std::vector<std::string> HostLauncher() {
    std::vector<std::string> words;
    const char* launcher = std::getenv("TQL_HOST_LAUNCHER");
    std::istringstream in(launcher != nullptr ? launcher : "");
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

std::string HostLauncherPrefix() {
    std::string prefix;
    for (const std::string& w : HostLauncher()) prefix += w + " ";
    return prefix;
}

HostRun RunHostInterrupted(const std::string& dir, const std::vector<std::string>& args,
                           const std::string& stdin_text, const EnvList& env, const std::string& interrupt_after,
                           double timeout_s, bool hold_stdin) {
    int held[2] = {-1, -1};
    if (hold_stdin && pipe(held) != 0) throw std::runtime_error("pipe failed");
    const std::string in_path = dir + "/.stdin.txt", out_path = dir + "/.stdout.txt", err_path = dir + "/.stderr.txt";
    WriteFile(in_path, stdin_text);
    // The command line is built before fork: the child only redirects and execs.
    std::vector<std::string> words = HostLauncher();
    words.push_back(TQL_HOST_PATH);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        const int fin = hold_stdin ? held[0] : open(in_path.c_str(), O_RDONLY);
        if (hold_stdin) close(held[1]);
        const int fout = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int ferr = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fin < 0 || fout < 0 || ferr < 0 || dup2(fin, 0) < 0 || dup2(fout, 1) < 0 || dup2(ferr, 2) < 0) _exit(127);
        setenv("TQL_SIM_CLOCK", "virtual", 1);
        for (const auto& kv : env)
            kv.second.empty() ? unsetenv(kv.first.c_str()) : setenv(kv.first.c_str(), kv.second.c_str(), 1);
        // A launcher (an emulator) is looked up on PATH; the host path is absolute.
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (hold_stdin) {
        close(held[0]);
        signal(SIGPIPE, SIG_IGN);  // a host that ended early is reported by its status
        if (write(held[1], stdin_text.data(), stdin_text.size()) != static_cast<ssize_t>(stdin_text.size()))
            throw std::runtime_error("writing the host's input failed");
    }
    // Wall time, bounded. Once interrupt_after is printed, Ctrl-C every 50 ms
    // (again if a press lands between two runs) until the host ends.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    int status = 0;
    bool pressed = false;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        if (!interrupt_after.empty() && ReadFile(out_path).find(interrupt_after) != std::string::npos) {
            kill(pid, SIGINT);
            pressed = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pressed ? 50 : 2));
    }
    if (hold_stdin) close(held[1]);
    HostRun run;
    run.exit_code = status == -1 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = ReadFile(out_path);
    run.err = ReadFile(err_path);
    return run;
}

}  // namespace tqltest

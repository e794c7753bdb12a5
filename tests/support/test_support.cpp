#include "test_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "execute.h"
#include "instruction.h"
#include "sim_control.h"
#include "timing.h"

namespace fs = std::filesystem;

namespace tqltest {

ScratchDir::ScratchDir(bool enter) {
    std::string templ = (fs::temp_directory_path() / "tql-test-XXXXXX").string();
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
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
    unsetenv("TQL_SIM_RECORD");
    unsetenv("TQL_SIM_FAULT");
    unsetenv("TQL_SIM_ACTUATORS");
    tql_sim_reset();
    tql::SetSleepFunction(sleep ? sleep : &tql_sim_sleep);
    tql::SetClockFunction(&tql_sim_now);
    testing::internal::CaptureStdout();
    const int booted = Boot();
    const std::string printed = testing::internal::GetCapturedStdout();
    if (out) *out = printed;
    return booted;
}

std::list<InstructionUnit> DecodeLines(const std::vector<std::string>& lines) {
    std::list<InstructionUnit> list;
    int n = 0;
    for (const std::string& text : lines) {
        std::vector<char> buf(text.begin(), text.end());
        buf.push_back('\0');
        InstructionUnit u;
        EXPECT_EQ(u.DecodeInstruction(buf.data()), 0) << text;
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

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

bool ExecSql(const std::string& db_path, const std::string& sql) {
    sqlite3* db = nullptr;
    if (sqlite3_open(db_path.c_str(), &db) != SQLITE_OK) {
        sqlite3_close(db);
        return false;
    }
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    sqlite3_free(err);
    sqlite3_close(db);
    return rc == SQLITE_OK;
}

int CountOf(const std::string& text, const std::string& needle) {
    if (needle.empty()) return 0;
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size())) ++n;
    return n;
}

HostRun RunHost(const std::string& dir, const std::vector<std::string>& args,
                const std::string& stdin_text, const EnvList& env, double timeout_s) {
    const std::string in_path = dir + "/.stdin.txt";
    const std::string out_path = dir + "/.stdout.txt";
    const std::string err_path = dir + "/.stderr.txt";
    WriteFile(in_path, stdin_text);

    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        int fin = open(in_path.c_str(), O_RDONLY);
        int fout = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int ferr = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fin < 0 || fout < 0 || ferr < 0) _exit(127);
        dup2(fin, 0);
        dup2(fout, 1);
        dup2(ferr, 2);
        setenv("TQL_SIM_CLOCK", "virtual", 1);
        for (const auto& kv : env) {
            if (kv.second.empty())
                unsetenv(kv.first.c_str());
            else
                setenv(kv.first.c_str(), kv.second.c_str(), 1);
        }
        std::vector<char*> argv;
        std::string prog = TQL_HOST_PATH;
        argv.push_back(prog.data());
        std::vector<std::string> copy = args;
        for (auto& a : copy) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(prog.c_str(), argv.data());
        _exit(127);
    }

    HostRun run;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (status == -1)
        run.exit_code = -1;
    else if (WIFEXITED(status))
        run.exit_code = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        run.exit_code = 128 + WTERMSIG(status);
    run.out = ReadFile(out_path);
    run.err = ReadFile(err_path);
    return run;
}

}  // namespace tqltest

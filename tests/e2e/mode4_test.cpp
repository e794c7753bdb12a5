// "tql mode4" on the simulated arm: a program file decoded, converted and run
// with the operator's override and cycle mode, checked through the flight
// recorder.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "test_support.h"

using tqltest::ReadFile;

namespace {

struct Recorded {
    tqltest::HostRun run;
    long setpoints = 0;  // setPosition rows of the recording
    long beyond = -1;    // from the exit summary "sim: C commands, V beyond limits"
};

// Runs "tql mode4" on `program` (empty: the demo's own) with the answers.
Recorded RunProgram(const std::string& program, const std::string& answers) {
    tqltest::ScratchDir dir(false);
    if (!program.empty()) tqltest::WriteFile(dir.File("file/data.txt"), program);
    Recorded r;
    r.run = tqltest::RunHost(dir.path(), {"mode4"}, answers, {{"TQL_SIM_RECORD", dir.File("record.csv")}});
    r.setpoints = tqltest::CountOf(ReadFile(dir.File("record.csv")), ",setPosition,");
    const size_t at = r.run.err.find("sim: ");
    if (at != std::string::npos) sscanf(&r.run.err[at], "sim: %*d commands, %ld beyond limits", &r.beyond);
    return r;
}

// Messages of a refused set-point or an unreachable pose.
void ExpectNoRefusal(const std::string& out) {
    for (const char* text : {"beyond", "NAN", "ingular", "ik error", "error :", "failed"})
        EXPECT_EQ(out.find(text), std::string::npos) << text << "\n" << out;
}

std::string ShortMoves(int n) {
    std::string program = "// short moves\n";
    for (int i = 0; i < n; ++i)
        program += i % 2 ? "MOVJ VJ=100 z5 2,22,62,12,-88,2\n" : "MOVJ VJ=100 z5 0,20,60,10,-90,0\n";
    return program;
}

const std::string kOverridePrompt = "Input speed override 0.1-1 : ";
const std::string kCyclePrompt = "Input operation cycle : STEP\u3001CYCLE and CONTINUOUS\n";

}  // namespace

// A bad program line, too many moves, an override outside 0.1..1 or an
// unknown cycle mode: the exact messages, exit 255, nothing moves.
TEST(Mode4, RefusalsPrintTheirMessagesAndMoveNothing) {
    const std::string invalid = "The value of speed override is invalid(0.1-1).\n";
    const struct {
        std::string program, answers, printed;
    } cases[] = {
        {"// pick\nMOVJ VJ=100 z5 0,20,60,10,-90,0\nMOVL V=200 z7 0,25,75,-10,-90,0\n", "1\nCYCLE\nNO\n",
         "Zone format error !\nLine 2Format error !\n"},
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0\n// five numbers\nMOVJ VJ=100 z5 0,20,60,10,-90\n", "1\nCYCLE\nNO\n",
         "Line 3 instruction position is illegal !\n"},
        {ShortMoves(1001), "1\nCYCLE\nNO\n", "Line 1002 exceeds the limit of 1000 moves !\n"},
        {"", "0.05\nCYCLE\nNO\n", kOverridePrompt + "speed override = 0.05\n" + invalid},
        {"", "1.2\nCYCLE\nNO\n", kOverridePrompt + "speed override = 1.2\n" + invalid},
        {"", "fast\nCYCLE\nNO\n", kOverridePrompt + invalid},
        {"", "1\ncycle\n", kCyclePrompt + "The value of operation cycle is invalid.\n"},
    };
    for (const auto& c : cases) {
        const Recorded r = RunProgram(c.program, c.answers);
        EXPECT_EQ(r.run.exit_code, 255);
        EXPECT_NE(r.run.out.find(c.printed), std::string::npos) << r.run.out;
        EXPECT_EQ(r.setpoints, 0);
        EXPECT_EQ(r.beyond, 0) << r.run.err;
    }
}

// Overrides 1 and 0.1 run the demo to the end within every limit; blending
// ("YES", not "yes") shortens the run, a tenth of the speed lengthens it.
TEST(Mode4, DemoProgramRunsToTheEndInEveryCycleSetting) {
    const char* answers[] = {"1\nCYCLE\nNO\n", "1\nCYCLE\nYES\n", "1\nCYCLE\nyes\n", "0.1\nCYCLE\nYES\n"};
    long setpoints[4];
    for (int i = 0; i < 4; ++i) {
        const Recorded r = RunProgram("", answers[i]);
        EXPECT_EQ(r.run.exit_code, 0) << answers[i] << r.run.out;
        EXPECT_NE(r.run.out.find(kOverridePrompt + kCyclePrompt + "Is smooth (YES/NO) "), std::string::npos);
        ExpectNoRefusal(r.run.out);
        EXPECT_EQ(r.beyond, 0) << r.run.err;
        setpoints[i] = r.setpoints;
    }
    EXPECT_GT(setpoints[0], 6 * 1000);
    EXPECT_LT(setpoints[1], setpoints[0]);
    EXPECT_EQ(setpoints[2], setpoints[0]);
    EXPECT_GT(setpoints[3], 4 * setpoints[0]);
}

TEST(Mode4, StepModeWalksTheProgram) {
    const std::string program =
        "// two moves\nMOVJ VJ=100 z5 0,20,60,10,-90,0\nTIMER T=100\nMOVL V=100 z5 0,25,75,-10,-90,0\n";
    const Recorded r = RunProgram(program, "1\nSTEP\nBACKWARD\nFORWARD\nFORWARD\nFORWARD\nBACKWARD\nBACKWARD\nleave\n");
    EXPECT_EQ(r.run.exit_code, 255);
    EXPECT_NE(r.run.out.find(kOverridePrompt + kCyclePrompt +
                             "FORWARD or BACKWARD Backward failure\n"
                             "FORWARD or BACKWARD Current line number = 2\n"
                             "FORWARD or BACKWARD Current line number = 4\n"
                             "FORWARD or BACKWARD Forward failure\n"
                             "FORWARD or BACKWARD Current line number = 2\n"
                             "FORWARD or BACKWARD Backward failure\n"
                             "FORWARD or BACKWARD Program exit!\n"),
              std::string::npos)
        << r.run.out;
    EXPECT_GT(r.setpoints, 0);
    EXPECT_EQ(r.beyond, 0);
}

TEST(Mode4, ContinuousCyclesUntilCtrlC) {
    tqltest::ScratchDir dir(false);
    tqltest::WriteFile(dir.File("in.txt"), "1\nCONTINUOUS\nYES\n");
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("TQL_SIM_CLOCK", "virtual", 1);
        const std::string cmd = "cd '" + dir.path() + "' && exec '" TQL_HOST_PATH "' mode4 <in.txt >out.txt 2>err.txt";
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    // Wait (wall time, bounded) for the third cycle, then press Ctrl-C, again
    // if a press lands between two runs.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    bool pressed = false;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            FAIL() << "host did not stop";
        }
        if (ReadFile(dir.File("out.txt")).find("Cycle count : 3\n") != std::string::npos) {
            kill(pid, SIGINT);
            pressed = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pressed ? 50 : 5));
    }
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 255);
    const std::string out = ReadFile(dir.File("out.txt"));
    EXPECT_NE(out.find("Cycle count : 1\nCycle count : 2\n"), std::string::npos) << out;
    ExpectNoRefusal(out);
}

TEST(Mode4, ThousandMoveProgramRunsEndToEnd) {
    const Recorded r = RunProgram(ShortMoves(1000), "1\nCYCLE\nYES\n");
    EXPECT_EQ(r.run.exit_code, 0) << r.run.out.substr(0, 2000);
    EXPECT_GT(r.setpoints, 6 * 1000 * 10);
    EXPECT_EQ(r.beyond, 0);
}

// "tql mode4" on the simulated arm: a program file decoded, converted and run
// with the operator's override and cycle mode, checked through the flight
// recorder.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

using tqltest::CountOf;
using tqltest::HostRun;
using tqltest::ReadFile;
using tqltest::RunHost;
using tqltest::ScratchDir;
using tqltest::WriteFile;

namespace {

struct Recorded {
    HostRun run;
    long setpoints = 0;         // setPosition rows of the recording
    long summary_commands = -1;  // from "sim: C commands, V beyond limits"
    long summary_beyond = -1;
};

long SetPositionRows(const std::string& csv) {
    return CountOf(ReadFile(csv), ",setPosition,");
}

// Runs "tql mode4" with the given program (empty: the demo's own) and answers.
Recorded RunProgram(const std::string& program, const std::string& answers) {
    ScratchDir dir(false);
    if (!program.empty()) WriteFile(dir.File("file/data.txt"), program);
    const std::string csv = dir.File("record.csv");
    Recorded r;
    r.run = RunHost(dir.path(), {"mode4"}, answers, {{"TQL_SIM_RECORD", csv}});
    r.setpoints = SetPositionRows(csv);
    // "sim: C commands, V beyond limits" on standard error.
    const size_t at = r.run.err.find("sim: ");
    if (at != std::string::npos) {
        long c = -1;
        long v = -1;
        char tail[32] = {0};
        if (sscanf(r.run.err.c_str() + at, "sim: %ld commands, %ld beyond limit%31s", &c, &v, tail) == 3 &&
            std::string(tail) == "s") {
            r.summary_commands = c;
            r.summary_beyond = v;
        }
    }
    return r;
}

// Messages of a refused set-point or an unreachable pose.
void ExpectNoRefusal(const std::string& out) {
    for (const char* text : {"beyond", "NAN", "singular", "Singular", "ik error", "error :", "failed"})
        EXPECT_EQ(out.find(text), std::string::npos) << text << "\n" << out;
}

const char kPrompts[] =
    "Input speed override 0.1-1 : Input operation cycle : STEP\u3001CYCLE and CONTINUOUS\n"
    "Is smooth (YES/NO) ";

}  // namespace

TEST(Mode4, BadProgramPrintsItsMessagesAndMovesNothing) {
    struct Case {
        std::string program;
        std::string printed;
    } cases[] = {
        {"// pick\nMOVJ VJ=100 z5 0,20,60,10,-90,0\nMOVL V=200 z7 0,25,75,-10,-90,0\n",
         "Zone format error !\nLine 2Format error !\n"},
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0\n// five numbers\nMOVJ VJ=100 z5 0,20,60,10,-90\n",
         "Line 3 instruction position is illegal !\n"},
        {"// nothing\n", "Error : file/data.txt is an empty file.\n"},
    };
    for (const Case& c : cases) {
        Recorded r = RunProgram(c.program, "1\nCYCLE\nNO\n");
        EXPECT_EQ(r.run.exit_code, 255);
        EXPECT_NE(r.run.out.find(c.printed), std::string::npos) << r.run.out;
        EXPECT_EQ(r.run.out.find("Input speed override"), std::string::npos);
        EXPECT_EQ(r.setpoints, 0);
        EXPECT_EQ(r.summary_beyond, 0) << r.run.err;
    }
}

TEST(Mode4, DemoProgramRunsToTheEndInEveryCycleSetting) {
    long plain_setpoints = 0;
    for (const char* answers : {"1\nCYCLE\nNO\n", "1\nCYCLE\nYES\n", "0.1\nCYCLE\nYES\n", "1\nCYCLE\nyes\n"}) {
        Recorded r = RunProgram("", answers);
        EXPECT_EQ(r.run.exit_code, 0) << answers << r.run.out;
        EXPECT_NE(r.run.out.find(kPrompts), std::string::npos) << r.run.out;
        ExpectNoRefusal(r.run.out);
        EXPECT_GT(r.setpoints, 6 * 1000) << answers;
        EXPECT_EQ(r.summary_beyond, 0) << r.run.err;
        EXPECT_GE(r.summary_commands, r.setpoints);
        const std::string a = answers;
        if (a == "1\nCYCLE\nNO\n") plain_setpoints = r.setpoints;
        // Blending shortens the run; "yes" is not "YES" and does not blend.
        if (a == "1\nCYCLE\nYES\n") {
            EXPECT_LT(r.setpoints, plain_setpoints);
        }
        if (a == "1\nCYCLE\nyes\n") {
            EXPECT_EQ(r.setpoints, plain_setpoints);
        }
        // A tenth of the speed takes several times longer.
        if (a == "0.1\nCYCLE\nYES\n") {
            EXPECT_GT(r.setpoints, 4 * plain_setpoints);
        }
    }
}

TEST(Mode4, OverrideOutsideItsRangeIsRefusedBeforeAnyMotion) {
    for (const char* value : {"0.05", "1.2"}) {
        Recorded r = RunProgram("", std::string(value) + "\nCYCLE\nNO\n");
        EXPECT_EQ(r.run.exit_code, 255);
        const std::string expected = std::string("Input speed override 0.1-1 : speed override = ") + value +
                                     "\nThe value of speed override is invalid(0.1-1).\n";
        EXPECT_NE(r.run.out.find(expected), std::string::npos) << r.run.out;
        EXPECT_EQ(r.run.out.find("Input operation cycle"), std::string::npos);
        EXPECT_EQ(r.setpoints, 0);
    }
    Recorded word = RunProgram("", "fast\nCYCLE\nNO\n");
    EXPECT_EQ(word.run.exit_code, 255);
    EXPECT_NE(word.run.out.find("Input speed override 0.1-1 : The value of speed override is invalid(0.1-1).\n"),
              std::string::npos);
    Recorded mode = RunProgram("", "1\ncycle\n");
    EXPECT_EQ(mode.run.exit_code, 255);
    EXPECT_NE(mode.run.out.find("The value of operation cycle is invalid.\n"), std::string::npos);
    EXPECT_EQ(mode.setpoints, 0);
}

TEST(Mode4, StepModeWalksTheProgram) {
    const std::string program =
        "// two moves\n"
        "MOVJ VJ=100 z5 0,20,60,10,-90,0\n"
        "TIMER T=100\n"
        "MOVL V=100 z5 0,25,75,-10,-90,0\n";
    Recorded r = RunProgram(program, "1\nSTEP\nBACKWARD\nFORWARD\nFORWARD\nFORWARD\nBACKWARD\nBACKWARD\nleave\n");
    EXPECT_EQ(r.run.exit_code, 255);
    const std::string expected =
        "Input speed override 0.1-1 : Input operation cycle : STEP\u3001CYCLE and CONTINUOUS\n"
        "FORWARD or BACKWARD Backward failure\n"
        "FORWARD or BACKWARD Current line number = 2\n"
        "FORWARD or BACKWARD Current line number = 4\n"
        "FORWARD or BACKWARD Forward failure\n"
        "FORWARD or BACKWARD Current line number = 2\n"
        "FORWARD or BACKWARD Backward failure\n"
        "FORWARD or BACKWARD Program exit!\n";
    EXPECT_NE(r.run.out.find(expected), std::string::npos) << r.run.out;
    EXPECT_GT(r.setpoints, 0);
    EXPECT_EQ(r.summary_beyond, 0);

    // End of input leaves step mode too.
    Recorded eof = RunProgram(program, "1\nSTEP\nFORWARD\n");
    EXPECT_EQ(eof.run.exit_code, 255);
    EXPECT_NE(eof.run.out.find("Current line number = 2\nFORWARD or BACKWARD Program exit!\n"), std::string::npos);
}

TEST(Mode4, ContinuousCyclesUntilCtrlC) {
    ScratchDir dir(false);
    WriteFile(dir.path() + "/.stdin.txt", "1\nCONTINUOUS\nYES\n");
    const std::string out_path = dir.path() + "/.stdout.txt";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (chdir(dir.path().c_str()) != 0) _exit(127);
        int fin = open(".stdin.txt", O_RDONLY);
        int fout = open(".stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int ferr = open(".stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fin < 0 || fout < 0 || ferr < 0) _exit(127);
        dup2(fin, 0);
        dup2(fout, 1);
        dup2(ferr, 2);
        setenv("TQL_SIM_CLOCK", "virtual", 1);
        execl(TQL_HOST_PATH, TQL_HOST_PATH, "mode4", static_cast<char*>(nullptr));
        _exit(127);
    }
    // Wait (wall time, bounded) until a few cycles have run, then press
    // Ctrl-C, again if a press lands between two runs.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    bool pressed = false;
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            FAIL() << "host did not stop";
        }
        if (ReadFile(out_path).find("Cycle count : 3\n") != std::string::npos) {
            kill(pid, SIGINT);
            pressed = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pressed ? 50 : 5));
    }
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 255);
    const std::string out = ReadFile(out_path);
    EXPECT_NE(out.find("Cycle count : 1\n"), std::string::npos);
    EXPECT_NE(out.find("Cycle count : 2\n"), std::string::npos);
    ExpectNoRefusal(out);
}

TEST(Mode4, ThousandMoveProgramRunsAndOneMoreIsRefused) {
    std::ostringstream program;
    program << "// a thousand short moves\n";
    for (int i = 0; i < 1000; ++i)
        program << (i % 2 ? "MOVJ VJ=100 z5 2,22,62,12,-88,2\n" : "MOVJ VJ=100 z5 0,20,60,10,-90,0\n");
    Recorded ok = RunProgram(program.str(), "1\nCYCLE\nYES\n");
    EXPECT_EQ(ok.run.exit_code, 0) << ok.run.out.substr(0, 2000);
    EXPECT_GT(ok.setpoints, 6 * 1000 * 10);
    EXPECT_EQ(ok.summary_beyond, 0);

    program << "MOVJ VJ=100 z5 0,0,0,0,0,0\n";
    Recorded over = RunProgram(program.str(), "1\nCYCLE\nYES\n");
    EXPECT_EQ(over.run.exit_code, 255);
    EXPECT_NE(over.run.out.find("Line 1002 exceeds the limit of 1000 moves !\n"), std::string::npos);
    EXPECT_EQ(over.setpoints, 0);

    // A thousand moves, one DOUT, then more moves: the decoder holds 1001
    // instructions, so the later moves would be cut off; refused instead.
    std::ostringstream cut;
    cut << "// a thousand short moves\n";
    for (int i = 0; i < 1000; ++i)
        cut << (i % 2 ? "MOVJ VJ=100 z5 2,22,62,12,-88,2\n" : "MOVJ VJ=100 z5 0,20,60,10,-90,0\n");
    cut << "DOUT 1 ON\nMOVJ VJ=100 z5 0,0,0,0,0,0\n";
    Recorded dropped = RunProgram(cut.str(), "1\nCYCLE\nYES\n");
    EXPECT_EQ(dropped.run.exit_code, 255);
    EXPECT_NE(dropped.run.out.find("Line 1003 exceeds the limit of 1001 instructions !\n"), std::string::npos);
    EXPECT_EQ(dropped.run.out.find("Input speed override"), std::string::npos);
    EXPECT_EQ(dropped.setpoints, 0);
}

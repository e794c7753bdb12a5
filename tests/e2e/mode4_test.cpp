// "tql mode4" on the simulated arm: a program file decoded, converted and run
// with the operator's override and cycle mode, checked through the flight
// recorder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

struct Recorded {
    tqltest::HostRun run;
    long setpoints = 0;  // setPosition rows of the recording
    long beyond = -1;    // from the exit summary "sim: C commands, V beyond limits"
    std::vector<double> positions;  // every actuator's at exit (revolutions, sim_state.txt)
    std::vector<std::vector<double>> pacing;  // tql-pacing per actuator: periods, mean, median, p99, worst, overruns
};

// The period statistics tql-pacing prints for a flight recording.
std::vector<std::vector<double>> Pacing(const std::string& csv) {
    std::vector<std::vector<double>> rows;
    FILE* p = popen((tqltest::HostLauncherPrefix() + TQL_TOOLS_DIR "/tql-pacing '" + csv + "' 2>&1").c_str(), "r");
    char line[256];
    while (p != nullptr && std::fgets(line, sizeof line, p) != nullptr) {
        std::vector<double> v(7);
        if (std::sscanf(line, "%lf %lf %lf %lf %lf %lf %lf", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]) == 7)
            rows.emplace_back(v.begin() + 1, v.end());
    }
    if (p != nullptr) pclose(p);
    return rows;
}

// Runs "tql mode4" on `program` (empty: the demo's own) with the answers,
// pressing Ctrl-C once `interrupt_after` is printed.
Recorded RunProgram(const std::string& program, const std::string& answers, const std::string& interrupt_after = "") {
    tqltest::ScratchDir dir(false);
    if (!program.empty()) tqltest::WriteFile(dir.File("file/data.txt"), program);
    Recorded r;
    r.run = tqltest::RunHostInterrupted(dir.path(), {"mode4"}, answers, {{"TQL_SIM_RECORD", dir.File("record.csv")}},
                                        interrupt_after);
    r.setpoints = tqltest::CountOf(tqltest::ReadFile(dir.File("record.csv")), ",setPosition,");
    r.pacing = Pacing(dir.File("record.csv"));
    const size_t at = r.run.err.find("sim: ");
    if (at != std::string::npos) sscanf(&r.run.err[at], "sim: %*d commands, %ld beyond limits", &r.beyond);
    std::istringstream state(tqltest::ReadFile(dir.File("sim_state.txt")));
    for (std::string word; state >> word;)
        if (word.rfind("position=", 0) == 0) r.positions.push_back(std::stod(word.substr(9)));
    return r;
}

// No message of a refused set-point or an unreachable pose, no set-point
// beyond any actuator's limits.
void ExpectWithinLimits(const Recorded& r) {
    for (const char* text : {"beyond", "NAN", "ingular", "ik error", "error :", "failed"})
        EXPECT_EQ(r.run.out.find(text), std::string::npos) << text << "\n" << r.run.out;
    EXPECT_EQ(r.beyond, 0) << r.run.err;
}

// A flight recording (rows time,id,mode,command,value): the set-points of
// actuators 1..6 (time in s; joint angle in degrees, 10 per revolution, the
// joint's direction left out) and the switches of digital output 1 in order
// ("1" on, "0" off).
struct Flight {
    std::vector<double> t[6], deg[6];
    std::string outputs;
};

Flight ReadFlight(const std::string& csv) {
    Flight f;
    std::istringstream rec(tqltest::ReadFile(csv));
    for (std::string line; std::getline(rec, line);) {
        double t = 0, value = 0;
        int id = 0, mode = 0;
        char command[64] = {};
        if (std::sscanf(line.c_str(), "%lf,%d,%d,%63[^,],%lf", &t, &id, &mode, command, &value) != 5) continue;
        if (std::string(command) == "setPosition" && id >= 1 && id <= 6) {
            f.t[id - 1].push_back(t);
            f.deg[id - 1].push_back(10.0 * value);
        }
        if (std::string(command) == "digitalOutput" && id == 1) f.outputs += value == 1 ? "1" : "0";
    }
    return f;
}

// The rests of a recording: gaps of more than 50 ms between two set-points.
std::vector<double> Rests(const std::vector<double>& times) {
    std::vector<double> rests;
    for (size_t k = 1; k < times.size(); ++k)
        if (times[k] - times[k - 1] > 0.05) rests.push_back(times[k] - times[k - 1]);
    return rests;
}

// The demo arm's joint limits (GL_6L3 rows 1-3): deg/s, deg/s^2, deg/s^3.
const double kJointLimits[3][6] = {
    {90, 90, 90, 120, 120, 120}, {180, 180, 180, 240, 240, 240}, {900, 900, 900, 1200, 1200, 1200}};

// Per joint, the largest ratio of its speed, acceleration and jerk to its
// limits by first, second and third differences of its set-points. The
// streams are split at the rests; the arm rests before each stream where the
// last one left it (at 0, where the demo arm powers up, before the first) and
// after it.
std::vector<std::vector<double>> LimitRatios(const Flight& f) {
    std::vector<std::vector<double>> ratios(6, std::vector<double>(3, 0.0));
    for (int j = 0; j < 6; ++j) {
        std::vector<double> q(3, 0.0);
        auto measure = [&] {
            q.insert(q.end(), 3, q.back());
            for (size_t k = 3; k < q.size(); ++k) {
                const double d[3] = {q[k] - q[k - 1], q[k] - 2 * q[k - 1] + q[k - 2],
                                     q[k] - 3 * q[k - 1] + 3 * q[k - 2] - q[k - 3]};
                for (int order = 0; order < 3; ++order)
                    ratios[j][order] = std::max(
                        ratios[j][order], std::fabs(d[order]) / std::pow(0.004, order + 1) / kJointLimits[order][j]);
            }
            q.assign(3, q.back());
        };
        for (size_t k = 0; k < f.t[j].size(); ++k) {
            if (k > 0 && f.t[j][k] - f.t[j][k - 1] > 0.05) measure();
            q.push_back(f.deg[j][k]);
        }
        measure();
    }
    return ratios;
}

const std::string kOverridePrompt = "Input speed override 0.1-1 : ";
const std::string kCyclePrompt = "Input operation cycle : STEP\u3001CYCLE and CONTINUOUS\n";

}  // namespace

// A bad program line, a bad move, an override outside 0.1..1 or an unknown
// cycle mode: the exact messages, exit 255, nothing moves.
TEST(Mode4, RefusalsPrintTheirMessagesAndMoveNothing) {
    const std::string invalid = "The value of speed override is invalid(0.1-1).\n";
    const struct { std::string program, answers, printed; } cases[] = {
        {"// pick\nMOVJ VJ=100 z5 0,20,60,10,-90,0\nMOVL V=200 z7 0,25,75,-10,-90,0\n", "1\nCYCLE\nNO\n",
         "Zone format error !\nLine 2Format error !\n"},
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0\n// five numbers\nMOVJ VJ=100 z5 0,20,60,10,-90\n", "1\nCYCLE\nNO\n",
         "Line 3 instruction position is illegal !\n"},
        {"", "0.05\nCYCLE\nNO\n", kOverridePrompt + "speed override = 0.05\n" + invalid},
        {"", "fast\nCYCLE\nNO\n", kOverridePrompt + invalid},
        {"", "1\ncycle\n", kCyclePrompt + "The value of operation cycle is invalid.\n"},
        // A target beyond joint 1's soft limit (170 degrees), blended or not:
        // refused by the pre-flight before the first set-point.
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0\nMOVJ VJ=100 z5 175,20,60,10,-90,0\n", "1\nCYCLE\nNO\n",
         "ID 1 beyond joint max soft limit\n"},
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0\n// on\nMOVJ VJ=100 z5 175,20,60,10,-90,0\n", "1\nCYCLE\nYES\n",
         "Line 3 refused before motion.\n"},
    };
    for (const auto& c : cases) {
        const Recorded r = RunProgram(c.program, c.answers);
        EXPECT_EQ(r.run.exit_code, 255);
        EXPECT_NE(r.run.out.find(c.printed), std::string::npos) << r.run.out;
        EXPECT_EQ(r.setpoints, 0);
        EXPECT_EQ(r.beyond, 0) << r.run.err;
    }
}

// Overrides 1 and 0.1 run the demo to its end (home again) within every
// limit; blending ("YES", not "yes") shortens the run, a tenth of the speed
// lengthens it.
// A program of 1000 moves, the table's capacity, runs to its end as well.
TEST(Mode4, ProgramsRunToTheEndInEveryCycleSetting) {
    const char* answers[] = {"1\nCYCLE\nNO\n", "1\nCYCLE\nYES\n", "1\nCYCLE\nyes\n", "0.1\nCYCLE\nYES\n"};
    long setpoints[4];
    for (int i = 0; i < 4; ++i) {
        const Recorded r = RunProgram("", answers[i]);
        EXPECT_EQ(r.run.exit_code, 0) << answers[i] << r.run.out;
        EXPECT_NE(r.run.out.find(kOverridePrompt + kCyclePrompt + "Is smooth (YES/NO) "), std::string::npos);
        ExpectWithinLimits(r);
        EXPECT_EQ(r.positions.size(), 6u);
        for (double p : r.positions) EXPECT_NEAR(p, 0.0, 1e-9) << answers[i];
        setpoints[i] = r.setpoints;
        // Every period exactly 4 ms on every actuator (virtual time), no overrun.
        ASSERT_EQ(r.pacing.size(), 6u);
        for (const auto& a : r.pacing)
            EXPECT_EQ(std::vector<double>(a.begin() + 1, a.end()), std::vector<double>({4, 4, 4, 4, 0})) << answers[i];
    }
    EXPECT_GT(setpoints[0], 6 * 1000);
    EXPECT_LT(setpoints[1], setpoints[0]);
    EXPECT_EQ(setpoints[2], setpoints[0]);
    EXPECT_GT(setpoints[3], 4 * setpoints[0]);

    std::string program = "// short moves\n";
    for (int i = 0; i < 1000; ++i)
        program += i % 2 ? "MOVJ VJ=100 z5 2,22,62,12,-88,2\n" : "MOVJ VJ=100 z5 0,20,60,10,-90,0\n";
    const Recorded r = RunProgram(program, "1\nCYCLE\nYES\n");
    EXPECT_EQ(r.run.exit_code, 0) << r.run.out.substr(0, 2000);
    EXPECT_GT(r.setpoints, 6 * 1000 * 10);
    ExpectWithinLimits(r);
}

TEST(Mode4, StepModeWalksTheProgram) {
    const Recorded r =
        RunProgram("// two moves\nMOVJ VJ=100 z5 0,20,60,10,-90,0\nTIMER T=100\nMOVL V=100 z5 0,25,75,-10,-90,0\n",
                   "1\nSTEP\nBACKWARD\nFORWARD\nFORWARD\nFORWARD\nBACKWARD\nBACKWARD\nleave\n");
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
    const Recorded r = RunProgram("", "1\nCONTINUOUS\nYES\n", "Cycle count : 3\n");
    EXPECT_EQ(r.run.exit_code, 255);
    EXPECT_NE(r.run.out.find("Cycle count : 1\nCycle count : 2\n"), std::string::npos) << r.run.out;
    ExpectWithinLimits(r);
}

// With the program I/O switch (row 7) on, as in the demo database, the demo's
// DOUT lines switch output 1 on and off in the flight recording and each
// TIMER T=300 holds the arm 300 ms at rest, blended or not; "OFF" keeps the
// described no-ops.
TEST(Mode4, TimerWaitsAndDoutSwitchesWithTheProgramIoSwitch) {
    for (const char* io : {"ON", "OFF"}) {
        for (const char* blend : {"NO", "YES"}) {
            tqltest::ScratchDir dir(false);
            ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"),
                                         std::string("UPDATE system_parameters SET VALUE='") + io + "' WHERE ID=7"));
            const tqltest::HostRun run = tqltest::RunHost(dir.path(), {"mode4"}, std::string("1\nCYCLE\n") + blend + "\n",
                                                          {{"TQL_SIM_RECORD", "rec.csv"}});
            EXPECT_EQ(run.exit_code, 0) << run.out;
            const Flight flight = ReadFlight(dir.File("rec.csv"));
            const std::vector<double> rests = Rests(flight.t[0]);
            const bool on = std::string(io) == "ON";
            EXPECT_EQ(flight.outputs, on ? "10" : "") << io << " " << blend;
            ASSERT_EQ(rests.size(), on ? 2u : 0u) << io << " " << blend;
            for (double rest : rests) EXPECT_NEAR(rest, 0.304, 1e-6) << io << " " << blend;  // 300 ms + one period
            if (std::string(blend) == "YES") continue;
            // Plain, every move starts where the last one left the arm: joint
            // 1 (joint moves and the arc about the base) keeps its 900 deg/s^3
            // across the move boundaries, by third differences of its set-points.
            EXPECT_LE(LimitRatios(flight)[0][2], 1.01) << io;
        }
    }
}

// With the scaling switch (row 8) ON, as in the demo database, the demo
// program keeps every joint within its speed, acceleration and jerk limits
// (within 1 %), plain and blended, by finite differences of the flight
// recording: its lines, arc and blends are slowed down. OFF, or without the
// row, the run streams the set-points it always did (as many: 3003 per
// actuator plain, 2602 blended; the same recording either way), and the
// straight lines take joint 3 beyond its jerk limit.
TEST(Mode4, CartesianScalingKeepsTheDemoWithinTheJointLimits) {
    for (const char* blend : {"NO", "YES"}) {
        const long described = std::string(blend) == "NO" ? 3003 : 2602;
        std::string recorded[3];
        for (int row = 0; row < 3; ++row) {  // ON, OFF, no row
            const char* sql[3] = {"", "UPDATE system_parameters SET VALUE='OFF' WHERE ID=8",
                                  "DELETE FROM system_parameters WHERE ID=8"};
            tqltest::ScratchDir dir(false);
            if (row > 0) {
                ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"), sql[row]));
            }
            const tqltest::HostRun run = tqltest::RunHost(dir.path(), {"mode4"}, std::string("1\nCYCLE\n") + blend + "\n",
                                                          {{"TQL_SIM_RECORD", "rec.csv"}});
            EXPECT_EQ(run.exit_code, 0) << run.out;
            const Flight flight = ReadFlight(dir.File("rec.csv"));
            const std::vector<std::vector<double>> ratios = LimitRatios(flight);
            std::istringstream rec(tqltest::ReadFile(dir.File("rec.csv")));
            for (std::string line; std::getline(rec, line);)
                if (line.find(",setPosition,") != std::string::npos) recorded[row] += line + "\n";
            for (int j = 0; j < 6; ++j) {
                SCOPED_TRACE(std::string("blend ") + blend + ", row 8 " + (row == 0 ? "ON" : row == 1 ? "OFF" : "absent") +
                             ", joint " + std::to_string(j + 1));
                if (row == 0) {
                    EXPECT_GT(static_cast<long>(flight.t[j].size()), described);
                    for (double ratio : ratios[j]) EXPECT_LE(ratio, 1.01);
                } else {
                    EXPECT_EQ(static_cast<long>(flight.t[j].size()), described);
                    if (j == 2) {
                        EXPECT_GT(ratios[j][2], 1.4);
                    }
                }
            }
        }
        EXPECT_EQ(recorded[2], recorded[1]) << blend;
    }
}

// A stop request is never lost: a Ctrl-C pressed while a job waits at a
// prompt, after a demonstration or in the pause between two cycles ends the
// job before its next motion, with -1, through the host. A Ctrl-C during
// motion brakes the arm to rest within its joints' limits (the flight
// recorder's set-points), or stops it dead with the braking row OFF.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::HostRun;
using tqltest::ScratchDir;
using tqltest::SetPointTimes;

// The recording's position set-points: bus time and the six joints in
// degrees (demo arm: 36 actuator turns per joint turn), one row per period.
struct SetPoints {
    std::vector<double> time;
    std::vector<std::array<double, 6>> q;
    std::array<double, 6> start{};  // where the joints stood before the first
};
SetPoints ReadSetPoints(const std::string& csv) {
    std::map<double, std::array<double, 6>> rows;
    std::array<double, 6> last{}, start{};
    std::istringstream in(csv);
    for (std::string line; std::getline(in, line);) {
        double t = 0, v = 0;
        int id = 0;
        char command[40] = {};
        if (std::sscanf(line.c_str(), "%lf,%d,%*d,%39[^,],%lf", &t, &id, command, &v) != 4 || id < 1 || id > 6)
            continue;
        const std::string what = command;
        if (what == "position" || what == "setPosition") last[id - 1] = v * 10.0;
        if (what == "setPosition") rows[t] = last;
        if (rows.empty()) start = last;
    }
    SetPoints s;
    s.start = start;
    for (const auto& [t, q] : rows) s.time.push_back(t), s.q.push_back(q);
    return s;
}

// Worst ratio of a finite difference (4 ms apart, runs of equal spacing, at
// rest around each) to the demo database's joint limits: 90 / 180 / 900 on
// joints 1-3, 120 / 240 / 1200 on 4-6 (deg/s, /s^2, /s^3); the jerk only
// `with_jerk` (a replay's jerk is its file's own).
double WorstRatio(const SetPoints& s, bool with_jerk) {
    double worst = 0.0;
    const double h = 0.004;
    size_t begin = 0;
    std::array<double, 6> rest = s.start;
    while (begin < s.q.size()) {
        size_t end = begin;
        while (end + 1 < s.q.size() && std::fabs(s.time[end + 1] - s.time[end] - h) < 1e-7) ++end;
        std::vector<std::array<double, 6>> q(3, rest);
        q.insert(q.end(), s.q.begin() + begin, s.q.begin() + end + 1);
        for (int r = 0; r < 3; ++r) q.push_back(q.back());
        for (size_t k = 3; k < q.size(); ++k)
            for (int j = 0; j < 6; ++j) {
                const double scale = j < 3 ? 1.0 : 4.0 / 3.0;
                worst = std::max({worst, std::fabs(q[k][j] - q[k - 1][j]) / h / (90 * scale),
                                  std::fabs(q[k][j] - 2 * q[k - 1][j] + q[k - 2][j]) / (h * h) / (180 * scale),
                                  with_jerk ? std::fabs(q[k][j] - 3 * q[k - 1][j] + 3 * q[k - 2][j] - q[k - 3][j]) /
                                                  (h * h * h) / (900 * scale)
                                            : 0.0});
            }
        rest = s.q[end];
        begin = end + 1;
    }
    return worst;
}

}  // namespace

TEST(StopRequest, CtrlCAtAPromptEndsTheJobBeforeItsNextMotion) {
    const struct {
        const char* mode;
        const char* input;  // then nothing more: the next prompt waits
        const char* interrupt_after;
        const char* said;
    } cases[] = {
        {"mode4", "1\nSTEP\nFORWARD\n", "Current line number = 4\nFORWARD or BACKWARD ",
         "Current line number = 4\nFORWARD or BACKWARD Program exit!\n"},
        {"tutorials", "1\n1\n", "Done\nInput option: ", "Stop requested: no further motion.\n"},
    };
    for (const auto& c : cases) {
        ScratchDir dir(false);
        const HostRun run = tqltest::RunHostInterrupted(dir.path(), {c.mode}, c.input, {{"TQL_SIM_RECORD", "rec.csv"}},
                                                        c.interrupt_after, 60.0, true);
        EXPECT_EQ(run.exit_code, 255) << c.mode << "\n" << run.out;
        EXPECT_NE(run.out.find(c.said), std::string::npos) << run.out;
        // Nothing moved after the prompt: the output ends where the stop was
        // taken, and the arm was never sent home or to a next line.
        EXPECT_EQ(tqltest::CountOf(run.out, "Current line number = "), c.mode[0] == 'm' ? 1 : 0) << run.out;
        EXPECT_EQ(run.out.find("Please hold the arm"), std::string::npos) << run.out;
    }
}

TEST(StopRequest, CtrlCInThePauseBetweenCyclesEndsTheRun) {
    // The first cycle's end: the last set-point before the pause.
    ScratchDir first(false);
    const HostRun cycles = tqltest::RunHost(first.path(), {"mode4"}, "1\nCONTINUOUS\nNO\n",
                                            {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_INTERRUPT", "40"}});
    const std::vector<double> times = SetPointTimes(tqltest::ReadFile(first.File("rec.csv")), 1);
    double pause = -1;
    for (size_t k = 1; k < times.size() && pause < 0; ++k)
        if (times[k] - times[k - 1] > 0.5) pause = times[k - 1];
    ASSERT_GT(pause, 0) << cycles.out;

    ScratchDir dir(false);
    const std::string at = std::to_string(pause + 0.3);
    const HostRun run = tqltest::RunHost(dir.path(), {"mode4"}, "1\nCONTINUOUS\nNO\n",
                                         {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_INTERRUPT", at}});
    EXPECT_EQ(run.exit_code, 255) << run.out;
    EXPECT_EQ(run.out.find("Cycle count : 2"), std::string::npos) << run.out;
    const std::vector<double> sent = SetPointTimes(tqltest::ReadFile(dir.File("rec.csv")), 1);
    ASSERT_FALSE(sent.empty());
    EXPECT_LE(sent.back(), pause + 1e-9);
}

// Ctrl-C at seeded random times of the demo program (plain and blended) and
// of the demo trajectory's replay: the arm brakes from the very next period
// and comes to rest, every set-point within the joints' limits; with the
// braking row OFF nothing follows the request.
TEST(StopRequest, CtrlCDuringMotionBrakesToRestWithinTheJointLimits) {
    const struct {
        const char* mode;
        const char* input;
        double from, to;  // bus seconds in which the arm moves
    } jobs[] = {
        {"mode4", "1\nCYCLE\nNO\n", 0.5, 13.0},
        {"mode4", "1\nCYCLE\nYES\n", 0.5, 12.0},
        {"mode2", "1\n", 1.0, 8.0},
    };
    std::mt19937 random(17);
    for (const auto& job : jobs) {
        for (int trial = 0; trial < 3; ++trial) {
            const double at = std::uniform_real_distribution<double>(job.from, job.to)(random);
            for (const char* braking : {"ON", "OFF"}) {
                SCOPED_TRACE(std::string(job.mode) + " " + job.input + " Ctrl-C at " + std::to_string(at) +
                             " s, braking " + braking);
                ScratchDir dir(false);
                ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"),
                                             std::string("UPDATE system_parameters SET VALUE='") + braking +
                                                 "' WHERE ID=9;"));
                const HostRun run = tqltest::RunHost(
                    dir.path(), {job.mode}, job.input,
                    {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_INTERRUPT", std::to_string(at)}});
                const std::string csv = tqltest::ReadFile(dir.File("rec.csv"));
                const SetPoints s = ReadSetPoints(csv);
                ASSERT_GT(s.time.size(), 10u) << run.out;
                EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << run.err;
                // A stopped replay still ends with 0 (its described flow); a program with -1.
                EXPECT_EQ(run.exit_code, job.mode[4] == '4' ? 255 : 0) << run.out;
                const auto after = std::upper_bound(s.time.begin(), s.time.end(), at + 1e-9) - s.time.begin();
                const size_t sent_after = s.time.size() - after;
                if (braking[1] == 'F') {
                    EXPECT_EQ(sent_after, 0u);  // the described dead stop
                    continue;
                }
                ASSERT_GT(sent_after, 1u);
                EXPECT_LE(s.time[after], at + 0.004 + 1e-9);  // braking from the next period on
                EXPECT_LE(WorstRatio(s, job.mode[4] == '4'), 1.01);
                // At rest: the last two set-points agree to a thousandth of a degree.
                for (int j = 0; j < 6; ++j) EXPECT_NEAR(s.q.back()[j], s.q[s.q.size() - 2][j], 1e-3);
            }
        }
    }
}

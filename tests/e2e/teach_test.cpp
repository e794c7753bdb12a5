// Drag teaching and replay through the host on the physical simulated arm, in
// virtual time: the scripted hand (demo hand.csv) guides the floating arm
// while "mode1" records, the operator's Ctrl-C (played by the bus at a set
// bus time) ends the recording, and "mode2" replays it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Row = std::array<double, 6>;  // degrees

// Numeric rows of a CSV text; lines starting with '#' or a letter are skipped.
// `skip` leading columns are dropped (the hand's time).
std::vector<Row> Rows(const std::string& text, int skip = 0) {
    std::vector<Row> rows;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#' || std::isalpha(static_cast<unsigned char>(line[0]))) continue;
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < skip; ++i) std::getline(fields, field, ',');
        Row r{};
        for (double& v : r) {
            std::getline(fields, field, ',');
            v = std::stod(field);
        }
        rows.push_back(r);
    }
    return rows;
}

double Distance(const Row& a, const Row& b) {
    double s = 0;
    for (int j = 0; j < 6; ++j) s += (a[j] - b[j]) * (a[j] - b[j]);
    return std::sqrt(s);
}

// Distance (degrees, joint space) from p to the polyline through `path`.
double DistanceToPath(const Row& p, const std::vector<Row>& path) {
    double best = Distance(p, path[0]);
    for (size_t i = 1; i < path.size(); ++i) {
        double num = 0, den = 0;
        for (int j = 0; j < 6; ++j) {
            num += (p[j] - path[i - 1][j]) * (path[i][j] - path[i - 1][j]);
            den += (path[i][j] - path[i - 1][j]) * (path[i][j] - path[i - 1][j]);
        }
        const double s = den > 0 ? std::clamp(num / den, 0.0, 1.0) : 0.0;
        Row foot;
        for (int j = 0; j < 6; ++j) foot[j] = path[i - 1][j] + s * (path[i][j] - path[i - 1][j]);
        best = std::min(best, Distance(p, foot));
    }
    return best;
}

// Position set-points of the flight recorder, one row per tick (degrees:
// revolutions x direction / 36 x 360).
std::vector<Row> SetPoints(const std::string& csv) {
    const int direction[6] = {1, 1, -1, 1, -1, 1};
    std::vector<Row> ticks;
    Row current{};
    std::istringstream in(csv);
    for (std::string line; std::getline(in, line);) {
        double time = 0, value = 0;
        int id = 0, mode = 0;
        char command[64] = {};
        if (std::sscanf(line.c_str(), "%lf,%d,%d,%63[^,],%lf", &time, &id, &mode, command, &value) != 5) continue;
        if (std::string(command) != "setPosition" || id < 1 || id > 6) continue;
        current[id - 1] = value * direction[id - 1] * 10.0;
        if (id == 6) ticks.push_back(current);
    }
    return ticks;
}

const tqltest::EnvList kHand = {{"TQL_SIM_HAND", "hand.csv"}, {"TQL_SIM_INTERRUPT", "12"}};

}  // namespace

TEST(Teaching, RecordedByHandAndReplayedToTheSamePoses) {
    tqltest::ScratchDir dir(false);
    const tqltest::HostRun rec = tqltest::RunHost(dir.path(), {"mode1"}, "start\n\n", kHand);
    ASSERT_EQ(rec.exit_code, 0) << rec.out << rec.err;
    for (const char* said : {"Input 'start' to start ...\nRecording ... \n",
                             "Please hold the arm with your hand and then press enter to continue ...\nDone.\n",
                             " \nSave to file ...\n \nRecorded file successfully.\n"})
        EXPECT_NE(rec.out.find(said), std::string::npos) << said << "\n" << rec.out;

    // The recording follows the hand's path: every sample lies near it, and it
    // passes every waypoint. About 11.6 s of samples (from "start" to Ctrl-C).
    const std::vector<Row> hand = Rows(tqltest::ReadFile(dir.File("hand.csv")), 1);
    const std::vector<Row> samples = Rows(tqltest::ReadFile(dir.File("file/trajectory.txt")));
    ASSERT_GT(samples.size(), 2700u);
    ASSERT_LT(samples.size(), 3000u);
    double worst = 0;
    for (const Row& s : samples) worst = std::max(worst, DistanceToPath(s, hand));
    EXPECT_LT(worst, 2.0);
    for (const Row& w : hand) {
        double nearest = 1e9;
        for (const Row& s : samples) nearest = std::min(nearest, Distance(s, w));
        EXPECT_LT(nearest, 1.0) << w[0] << "," << w[1];
    }

    // Replay (cyclic; the operator's Ctrl-C comes during a later pass): the
    // first pass sends every recorded sample unchanged, within the limits.
    const tqltest::HostRun rep = tqltest::RunHost(
        dir.path(), {"mode2"}, "1\n", {{"TQL_SIM_RECORD", dir.File("rec.csv")}, {"TQL_SIM_INTERRUPT", "30"}});
    EXPECT_EQ(rep.exit_code, 0) << rep.out << rep.err;
    EXPECT_NE(rep.out.find("Cycle count : 2\n"), std::string::npos) << rep.out;
    EXPECT_EQ(rep.out.substr(rep.out.size() - 14), " \nReplay end \n");
    EXPECT_NE(rep.err.find(", 0 beyond limits"), std::string::npos) << rep.err;
    const std::vector<Row> sent = SetPoints(tqltest::ReadFile(dir.File("rec.csv")));
    const auto same = [](const Row& a, const Row& b) { return Distance(a, b) < 1e-6; };
    EXPECT_NE(std::search(sent.begin(), sent.end(), samples.begin() + 1, samples.end(), same), sent.end())
        << "no run of " << samples.size() - 1 << " set-points equal to the recorded samples";
}

TEST(Teaching, FaultOrImpactEndsTheRecordingWithoutSavingAndHoldsTheArm) {
    const struct {
        tqltest::EnvList env;
        const char* said;
    } cases[] = {
        // Joint 2 faults while the hand guides the arm.
        {{{"TQL_SIM_FAULT", "error:2:0x4:time:5"}}, "Gravity Compensation error 1-3: Gravity Compensation error .\n"},
        // The hand swings the floating arm into a sphere where the demo
        // program's arc passes: the collision monitor, watching the commanded
        // torques, notices the impact (the gentle hand before it, it does not).
        {{{"TQL_SIM_OBSTACLE", "-393.7,24.1,336.3,30"}}, "1  CollisionDetection.\n"},
    };
    for (const auto& c : cases) {
        tqltest::ScratchDir dir(false);
        const std::string before = tqltest::ReadFile(dir.File("file/trajectory.txt"));
        tqltest::EnvList env = kHand;
        env.insert(env.end(), c.env.begin(), c.env.end());
        env.push_back({"TQL_SIM_RECORD", "rec.csv"});
        const tqltest::HostRun rec = tqltest::RunHost(dir.path(), {"mode1"}, "start\n\n", env);
        EXPECT_EQ(rec.exit_code, 255) << rec.out << rec.err;
        EXPECT_NE(rec.out.find(c.said), std::string::npos) << rec.out;
        EXPECT_NE(rec.out.find("Recording discarded: file/trajectory.txt is unchanged.\n"), std::string::npos)
            << rec.out;
        EXPECT_EQ(rec.out.find("Save to file"), std::string::npos) << rec.out;
        EXPECT_EQ(tqltest::ReadFile(dir.File("file/trajectory.txt")), before);
        // Held in position mode where it stopped: the last mode switch is to
        // position mode (3) for every actuator.
        const std::string log = tqltest::ReadFile(dir.File("rec.csv"));
        const size_t last = log.rfind(",activateActuatorModeInBantch,");
        ASSERT_NE(last, std::string::npos);
        EXPECT_EQ(log.substr(last, 32), ",activateActuatorModeInBantch,3\n");
    }
}

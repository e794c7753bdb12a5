// The collision reflex through the host on the simulated arm, with the demo
// database as it is built (collision switch on, thresholds identified from
// its own identification run): an obstacle on the demo program's path is
// noticed and the arm brakes and holds; without one, nothing is noticed.
// (tql-collision-sweep measures every move type at three overrides.)
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::HostRun;
using tqltest::ScratchDir;

// The contact forces of a flight recording, in time order (N).
std::vector<double> ContactForces(const std::string& csv) {
    std::vector<double> forces;
    std::istringstream in(csv);
    for (std::string line; std::getline(in, line);)
        if (line.find(",contact,") != std::string::npos) forces.push_back(std::stod(line.substr(line.rfind(',') + 1)));
    return forces;
}

}  // namespace

TEST(CollisionReflex, AnObstacleIsNoticedAndTheArmBrakesAndHoldsNothingElseIs) {
    const struct {
        const char* override_;
        const char* blend;
        const char* obstacle;  // TQL_SIM_OBSTACLE
    } cases[] = {{"1", "NO", "none"},
                 {"0.3", "YES", "none"},
                 // A sphere centred where the flange passes the via point of
                 // the arc the program carries its part along (-20,20,60,10,-90,0):
                 // slowly the arm brakes along its path; at full speed the
                 // brake would overload joint 1's drive, and the arm yields.
                 {"0.1", "NO", "-393.7,24.1,336.3,30"},
                 {"1", "YES", "-393.7,24.1,336.3,30"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("override ") + c.override_ + ", obstacle " + c.obstacle);
        ScratchDir dir(false);
        const HostRun run = tqltest::RunHost(dir.path(), {"mode4"},
                                             std::string(c.override_) + "\nCYCLE\n" + c.blend + "\n",
                                             {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_OBSTACLE", c.obstacle}});
        const std::string rec = tqltest::ReadFile(dir.File("rec.csv"));
        const std::vector<double> forces = ContactForces(rec);
        EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << run.err;
        if (std::string(c.obstacle) == "none") {
            EXPECT_EQ(run.exit_code, 0) << run.out;
            EXPECT_EQ(run.out.find("CollisionDetection"), std::string::npos) << run.out;
            EXPECT_TRUE(forces.empty());
            continue;
        }
        EXPECT_EQ(run.exit_code, 255) << run.out;
        EXPECT_NE(run.out.find("1  CollisionDetection.\n"), std::string::npos) << run.out;
        EXPECT_NE(rec.find(",1,0,collision,"), std::string::npos);
        EXPECT_NE(run.err.find("collision: joint 1, external torque "), std::string::npos) << run.err;
        ASSERT_FALSE(forces.empty());
        // Noticed and stopped before the drives had to push hard: no trip.
        EXPECT_LT(*std::max_element(forces.begin(), forces.end()), 30.0);
        EXPECT_EQ(run.out.find(" error : "), std::string::npos) << run.out;
        const bool yielded = run.err.find("the arm yields") != std::string::npos;
        EXPECT_EQ(yielded, std::string(c.override_) == "1") << run.err;
        if (yielded) {
            EXPECT_NE(run.err.find("collision: the arm came to rest in "), std::string::npos) << run.err;
        }
    }
}

// A 0.5 kg payload 20 mm out along the flange's axis. Known to the database
// as well as carried by the world, the demo program, the tutorials and the
// floating arm go on as without it; carried but unknown, the collision
// monitor stops the program at joint 2, and the floating arm sinks until
// the monitor notices and holds it.
TEST(CollisionReflex, APayloadTheDatabaseKnowsChangesNothingAnUnknownOneIsNoticed) {
    const struct {
        const char* row18;  // the database's payload
        bool known;
    } cases[] = {{"[0.5,0,0,20]", true}, {"[0,0,0,0]", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.row18);
        ScratchDir dir(false);
        tqltest::WriteFile(dir.File("sim.conf"), tqltest::ReadFile(dir.File("sim.conf")) + "payload = 0.5 0 0 20\n");
        ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"),
                                     std::string("UPDATE GL_6L3 SET VALUE='") + c.row18 + "' WHERE ID=18;"));
        const HostRun program = tqltest::RunHost(dir.path(), {"mode4"}, "1\nCYCLE\nYES\n");
        EXPECT_EQ(program.exit_code, c.known ? 0 : 255) << program.out;
        EXPECT_EQ(program.out.find("2  CollisionDetection.\n") != std::string::npos, !c.known) << program.out;
        if (c.known) {
            const HostRun tutorials =
                tqltest::RunHost(dir.path(), {"tutorials"}, "1\n1\n2\n1\n3\n1\n4\n1\nstop\n\n");
            EXPECT_EQ(tutorials.exit_code, 0) << tutorials.out;
            EXPECT_EQ(tutorials.out.find("CollisionDetection"), std::string::npos) << tutorials.out;
        }
        // Floating where the program left it (its approach pose): the
        // recording's first and last samples.
        tqltest::WriteFile(dir.File("file/data.txt"), "MOVJ VJ=50 z0 0,20,60,10,-90,0\n");
        const HostRun approach = tqltest::RunHost(dir.path(), {"mode4"}, "1\nCYCLE\nNO\n");
        ASSERT_EQ(approach.exit_code, c.known ? 0 : 255) << approach.out;
        const HostRun floating = tqltest::RunHost(dir.path(), {"mode1"}, "start\n\n", {{"TQL_SIM_INTERRUPT", "4"}});
        if (!c.known) {  // it sinks under the weight the compensation leaves out, until the monitor holds it
            EXPECT_EQ(floating.exit_code, 255) << floating.out;
            EXPECT_NE(floating.out.find("  CollisionDetection.\n"), std::string::npos) << floating.out;
            continue;
        }
        ASSERT_EQ(floating.exit_code, 0) << floating.out;
        std::istringstream samples(tqltest::ReadFile(dir.File("file/trajectory.txt")));
        std::string first, line, last;
        std::getline(samples, first);
        while (std::getline(samples, line)) last = line;
        double q0[6], q1[6], drift = 0;
        ASSERT_EQ(std::sscanf(first.c_str(), "%lf,%lf,%lf,%lf,%lf,%lf", q0, q0 + 1, q0 + 2, q0 + 3, q0 + 4, q0 + 5), 6);
        ASSERT_EQ(std::sscanf(last.c_str(), "%lf,%lf,%lf,%lf,%lf,%lf", q1, q1 + 1, q1 + 2, q1 + 3, q1 + 4, q1 + 5), 6);
        for (int j = 0; j < 6; ++j) drift = std::max(drift, std::fabs(q1[j] - q0[j]));
        EXPECT_LT(drift, 0.05) << last;  // degrees over 3.9 s
    }
}

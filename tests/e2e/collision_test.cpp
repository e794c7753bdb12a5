// The collision reflex through the host on the simulated arm, with the demo
// database as it is built (collision switch on, thresholds identified from
// its own identification run): an obstacle on the demo program's path is
// noticed and the arm brakes and holds; without one, nothing is noticed.
// (tql-collision-sweep measures every move type at three overrides.)
#include <algorithm>
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
                 // the arc the program carries its part along (-20,20,60,10,-90,0).
                 {"0.1", "NO", "-393.7,24.1,336.3,30"}};
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
        // Noticed and braked before the drives had to push hard: no trip.
        EXPECT_LT(*std::max_element(forces.begin(), forces.end()), 30.0);
        EXPECT_EQ(run.out.find(" error : "), std::string::npos) << run.out;
    }
}

// The collision reflex through the host on the simulated arm, collision
// switch on: an obstacle on the demo program's path is noticed and the arm
// brakes and holds; without one, nothing is noticed.
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
        const char* obstacle;  // TQL_SIM_OBSTACLE: a sphere on the arc the demo program carries its part along
    } cases[] = {{"1", "none"}, {"0.3", "none"}, {"0.1", "-400,60,330,30"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("override ") + c.override_ + ", obstacle " + c.obstacle);
        ScratchDir dir(false);
        ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"), "UPDATE system_parameters SET VALUE='ON' WHERE ID=4;"));
        const HostRun run = tqltest::RunHost(dir.path(), {"mode4"}, std::string(c.override_) + "\nCYCLE\nNO\n",
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
        ASSERT_FALSE(forces.empty());
        // Noticed and braked before the drives had to push hard: no trip.
        EXPECT_LT(*std::max_element(forces.begin(), forces.end()), 30.0);
        EXPECT_EQ(run.out.find(" error : "), std::string::npos) << run.out;
    }
}

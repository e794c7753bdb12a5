// The tql host on the simulated arm: banner, argument checks, mode0, boot.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

using tqltest::HostRun;
using tqltest::RunHost;
using tqltest::ScratchDir;

namespace {

// Checks the banner and returns everything the host printed after it.
std::string AfterBanner(const HostRun& run) {
    const std::string rule(65, '-');
    const std::string tail = rule + "\nOrvalt Manipulator Controller is a software for manipulator.\n" + rule + "\n";
    EXPECT_EQ(run.out.rfind("Orvalt Manipulator Controller v1.2.6 ( 2019-12-02 )\n", 0), 0u) << run.out;
    const size_t pos = run.out.find(tail);
    EXPECT_NE(pos, std::string::npos) << run.out;
    return pos == std::string::npos ? run.out : run.out.substr(pos + tail.size());
}

}  // namespace

TEST(Entry, ArgumentCountAndModeWord) {
    ScratchDir dir(false);
    const struct { std::vector<std::string> args; const char* out; } cases[] = {
        {{}, "Input error .1\n"}, {{"mode0", "extra"}, "Input error .3\n"}, {{"MODE0"}, "Input error.\n"},
        {{"mode0 "}, "Input error.\n"}, {{"mode5"}, "Input error.\n"}, {{""}, "Input error.\n"},
        {{"Mode4"}, "Input error.\n"}};
    for (const auto& c : cases) {
        const HostRun run = RunHost(dir.path(), c.args);
        EXPECT_EQ(AfterBanner(run), c.out) << c.out;
        EXPECT_EQ(run.exit_code, 255);
    }
}

TEST(Entry, Mode0DisablesWithoutOpeningTheDatabase) {
    ScratchDir dir(false);
    // Even a broken database does not matter: mode0 never opens it.
    tqltest::WriteFile(dir.File("parameter.db"), "garbage");
    const HostRun run = RunHost(dir.path(), {"mode0"}, "", {{"TQL_SIM_RECORD", dir.File("record.csv")}});
    EXPECT_EQ(AfterBanner(run), "Disable robot size = 6\n");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err.find("Opened database"), std::string::npos) << run.err;
    EXPECT_EQ(tqltest::ReadFile(dir.File("parameter.db")), "garbage");
    const HostRun three = RunHost(dir.path(), {"mode0"}, "", {{"TQL_SIM_ACTUATORS", "3"}});
    EXPECT_EQ(AfterBanner(three), "Disable robot size = 3\n");
}

// Joint 1 at pi rad (18.0000003 actuator revolutions at ratio 36) reads
// 180.00000307 degrees: the degree factor is 180 / 3.1415926. The reversed
// joints 3 and 5 of the arm at rest read minus zero.
TEST(Entry, BootReportsTheArm) {
    ScratchDir dir(false);
    tqltest::WriteFile(dir.File("sim.conf"),
                       tqltest::ReadFile(dir.File("sim.conf")) + "\ninitial_position.1 = 18.0000003070469\n");
    const HostRun run = RunHost(dir.path(), {"mode4"});
    const std::string head =
        "Current robot type : GL_6L3\nOperation done successfully\nRobot num = 1\n\nRobot index :1\n"
        "Current Axis Num : 6\nID vector: \n1 2 3 4 5 6 \nEnable ... \nEnable robot successfully.\n"
        "Current position (degree) : \n180.00000307 0 -0 0 -0 0 \n\n\n";
    EXPECT_EQ(AfterBanner(run).substr(0, head.size()), head) << run.out;
    EXPECT_NE(run.err.find("Opened database successfully\n"), std::string::npos);
}

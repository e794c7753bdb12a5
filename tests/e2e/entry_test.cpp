// The tql host on the simulated arm: banner, argument checks, mode0, boot.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

using tqltest::CountOf;
using tqltest::ExecSql;
using tqltest::HostRun;
using tqltest::RunHost;
using tqltest::ScratchDir;

namespace {

const char kBannerFirstLine[] = "Orvalt Manipulator Controller v1.2.6 ( 2019-12-02 )\n";
const std::string kRule(65, '-');

void ExpectBanner(const HostRun& run) {
    ASSERT_EQ(run.out.rfind(kBannerFirstLine, 0), 0u) << run.out;
    const std::string tail = kRule + "\nOrvalt Manipulator Controller is a software for manipulator.\n" + kRule + "\n";
    EXPECT_NE(run.out.find(tail), std::string::npos) << run.out;
}

// Everything the host printed after the banner.
std::string AfterBanner(const HostRun& run) {
    const std::string end = "software for manipulator.\n" + kRule + "\n";
    const size_t pos = run.out.find(end);
    return pos == std::string::npos ? run.out : run.out.substr(pos + end.size());
}

}  // namespace

TEST(Entry, ArgumentCountAndModeWord) {
    ScratchDir dir(false);
    HostRun none = RunHost(dir.path(), {});
    ExpectBanner(none);
    EXPECT_EQ(AfterBanner(none), "Input error .1\n");
    EXPECT_EQ(none.exit_code, 255);

    HostRun three = RunHost(dir.path(), {"mode0", "extra"});
    EXPECT_EQ(AfterBanner(three), "Input error .3\n");
    EXPECT_EQ(three.exit_code, 255);

    for (const char* word : {"MODE0", "mode0 ", "mode5", "", "Mode4"}) {
        HostRun bad = RunHost(dir.path(), {word});
        ExpectBanner(bad);
        EXPECT_EQ(AfterBanner(bad), "Input error.\n") << word;
        EXPECT_EQ(bad.exit_code, 255) << word;
    }
}

TEST(Entry, Mode0DisablesWithoutOpeningTheDatabase) {
    ScratchDir dir(false);
    // Even a broken database does not matter: mode0 never opens it.
    tqltest::WriteFile(dir.File("parameter.db"), "garbage");
    const std::string csv = dir.File("record.csv");
    HostRun run = RunHost(dir.path(), {"mode0"}, "", {{"TQL_SIM_RECORD", csv}});
    EXPECT_EQ(AfterBanner(run), "Disable robot size = 6\n");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.err.find("Opened database"), std::string::npos) << run.err;
    EXPECT_EQ(tqltest::ReadFile(dir.File("parameter.db")), "garbage");

    HostRun three = RunHost(dir.path(), {"mode0"}, "", {{"TQL_SIM_ACTUATORS", "3"}});
    EXPECT_EQ(AfterBanner(three), "Disable robot size = 3\n");
}

TEST(Entry, BootReportsTheArm) {
    ScratchDir dir(false);
    HostRun run = RunHost(dir.path(), {"mode4"});
    ExpectBanner(run);
    const std::string out = AfterBanner(run);
    const std::string expected_head =
        "Current robot type : GL_6L3\n"
        "Operation done successfully\n"
        "Robot num = 1\n\n"
        "Robot index :1\n"
        "Current Axis Num : 6\n"
        "ID vector: \n"
        "1 2 3 4 5 6 \n"
        "Enable ... \n"
        "Enable robot successfully.\n"
        "Current position (degree) : \n";
    EXPECT_EQ(out.substr(0, expected_head.size()), expected_head) << out;
    // A new arm rests at its zero; the reversed joints 3 and 5 read minus zero.
    EXPECT_NE(out.find("Current position (degree) : \n0 0 -0 0 -0 0 \n\n\n"), std::string::npos) << out;
    EXPECT_NE(run.err.find("Opened database successfully\n"), std::string::npos);
}

TEST(Entry, BootShowsTheShortPi) {
    // Joint 1 at pi rad (18.0000003 actuator revolutions at ratio 36) reads
    // 180.00000307 degrees: the degree factor is 180 / 3.1415926.
    ScratchDir dir(false);
    tqltest::WriteFile(dir.File("sim.conf"), tqltest::ReadFile(dir.File("sim.conf")) + "\ninitial_position.1 = 18.0000003070469\n");
    HostRun run = RunHost(dir.path(), {"mode4"});
    EXPECT_NE(run.out.find("Current position (degree) : \n180.00000307 0 -0 0 -0 0 \n"), std::string::npos)
        << run.out;
}

TEST(Entry, BootFailures) {
    ScratchDir dir(false);
    HostRun empty_bus = RunHost(dir.path(), {"mode1"}, "", {{"TQL_SIM_ACTUATORS", "0"}});
    EXPECT_NE(empty_bus.out.find("Operation done successfully\n"), std::string::npos);
    EXPECT_NE(empty_bus.out.find("ID error,Current id size = 00-1: ID error,Current id size = 0.\n"),
              std::string::npos)
        << empty_bus.out;
    EXPECT_EQ(empty_bus.out.find("Robot num"), std::string::npos);
    EXPECT_EQ(empty_bus.exit_code, 255);

    HostRun seven = RunHost(dir.path(), {"mode2"}, "", {{"TQL_SIM_ACTUATORS", "7"}});
    EXPECT_NE(seven.out.find(" ID size = 7 > 6\n"), std::string::npos) << seven.out;
    EXPECT_EQ(seven.out.find("Enable ... "), std::string::npos);
    EXPECT_EQ(seven.exit_code, 255);

    ASSERT_TRUE(ExecSql(dir.File("parameter.db"), "UPDATE system_parameters SET VALUE='GL_9X' WHERE ID=1;"));
    HostRun bad_type = RunHost(dir.path(), {"reset"});
    EXPECT_NE(bad_type.out.find("MECHNIACL ERROR !\nThe 'GL_9X' is invalid. \nLoad parameters error!\n"),
              std::string::npos)
        << bad_type.out;
    EXPECT_EQ(bad_type.exit_code, 255);

    tqltest::WriteFile(dir.File("parameter.db"), std::string(4096, 'x'));
    HostRun corrupt = RunHost(dir.path(), {"mode4"});
    EXPECT_NE(corrupt.err.find("SQL error: "), std::string::npos) << corrupt.err;
    EXPECT_NE(corrupt.out.find("Load parameters error!\n"), std::string::npos);
    EXPECT_EQ(corrupt.exit_code, 255);

    std::remove(dir.File("parameter.db").c_str());
    HostRun missing = RunHost(dir.path(), {"calibrate"});
    EXPECT_NE(missing.err.find("Can't open database: "), std::string::npos) << missing.err;
    EXPECT_EQ(CountOf(missing.out, "Load parameters error!\n"), 1);
    EXPECT_EQ(missing.exit_code, 255);
}

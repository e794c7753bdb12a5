// Fault drills on the simulated bus, through the host: each fault, at boot or
// during the job, ends it with its message and exit status 255 (-1), no
// set-point goes out after the fault, and no file is left half-written.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::HostRun;
using tqltest::ReadFile;
using tqltest::ScratchDir;
using tqltest::SetPointTimes;

// Files named *.part (a write that did not finish) under dir/file.
int PartFiles(const ScratchDir& dir) {
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.File("file")))
        n += e.path().filename().string().find(".part") != std::string::npos;
    return n;
}

}  // namespace

TEST(FaultDrill, EachFaultEndsTheJobWithItsMessageAndNothingAfterIt) {
    const struct {
        const char* name;
        const char* mode;
        tqltest::EnvList env;
        const char* said;
        double fault_time;  // bus time of the fault (-1: before any motion, 0: at actuator 3's set-point count)
    } drills[] = {
        // Locked rotor on joint 3 at its 200th set-point, which it refuses.
        {"error word mid-move", "mode4", {{"TQL_SIM_FAULT", "error:3:0x4:setpoint:200"}}, "ID 3 error : 4\n", 0},
        // Joint 2 stops answering: the bus reports it disconnected.
        {"actuator stops answering", "mode4", {{"TQL_SIM_FAULT", "error:2:0x801:time:2.25"}}, "ID 2 error : 801\n",
         2.25},
        {"operator's Ctrl-C", "mode4", {{"TQL_SIM_INTERRUPT", "3.013"}}, "", 3.013},
        // The same during a replay and the identification run: their ticks too
        // go out whole, so joints 1 and 2 get nothing after joint 3's fault.
        {"error word mid-replay", "mode2", {{"TQL_SIM_FAULT", "error:3:0x4:setpoint:200"}}, "ID \x03 error : 4\n", 0},
        {"error word mid-excitation", "admin", {{"TQL_SIM_FAULT", "error:3:0x4:setpoint:3000"}},
         "ID \x03 error : 4\n", 0},
        {"save failure", "reset", {{"TQL_SIM_FAULT", "save_failure"}}, "Save parameters failed!\n", -1},
        // The identification run stopped half-way: nothing is written.
        {"Ctrl-C while recording", "admin", {{"TQL_SIM_INTERRUPT", "20"}}, "", 20},
    };
    for (const auto& d : drills) {
        ScratchDir dir(false);
        // The dead stop: nothing after the fault or the Ctrl-C (braking is
        // the stop tests' own).
        ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"), "UPDATE system_parameters SET VALUE='OFF' WHERE ID=9;"));
        tqltest::EnvList env = d.env;
        env.push_back({"TQL_SIM_RECORD", dir.File("rec.csv")});
        const HostRun run = tqltest::RunHost(dir.path(), {d.mode}, "1\nCYCLE\nNO\n", env);
        EXPECT_EQ(run.exit_code, 255) << d.name << "\n" << run.out;
        EXPECT_NE(run.out.find(d.said), std::string::npos) << d.name << "\n" << run.out;
        EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << d.name << run.err;
        const std::string rec = ReadFile(dir.File("rec.csv"));
        const std::vector<double> times = SetPointTimes(rec);
        double fault = d.fault_time;
        if (fault == 0) {
            const size_t count = std::stoul(d.env[0].second.substr(d.env[0].second.rfind(':') + 1));
            const std::vector<double> joint3 = SetPointTimes(rec, 3);
            ASSERT_EQ(joint3.size(), count) << d.name;
            fault = joint3.back();
            for (int id = 1; id <= 6; ++id) EXPECT_EQ(SetPointTimes(rec, id).size(), count) << d.name << " " << id;
        }
        if (fault < 0)
            EXPECT_TRUE(times.empty()) << d.name;
        else
            EXPECT_LE(times.back(), fault + 1e-9) << d.name;
        EXPECT_EQ(PartFiles(dir), 0) << d.name;
        EXPECT_FALSE(std::ifstream(dir.File("file/excitation_output.txt")).good()) << d.name;
    }
}

// Each boot failure is reported once, sends nothing beyond enabling (the
// recording's summary) and exits with 255; a vanished database as well.
TEST(FaultDrill, BootFailures) {
    const struct {
        const char* mode;
        tqltest::EnvList env;
        const char* sql;  // run on the database first; "" removes it
        std::string out, absent, err;  // printed once on standard output (and not `absent`), on standard error
    } cases[] = {
        {"mode1", {{"TQL_SIM_ACTUATORS", "0"}}, nullptr,
         "Operation done successfully\nID error,Current id size = 00-1: ID error,Current id size = 0.\n", "Robot num",
         "sim: 0 commands, 0 beyond limits\n"},
        {"mode2", {{"TQL_SIM_ACTUATORS", "7"}}, nullptr, " ID size = 7 > 6\n", "Enable ... ",
         "sim: 0 commands, 0 beyond limits\n"},
        {"mode4", {{"TQL_SIM_FAULT", "enable_failure"}}, nullptr, "Enable ... \nEnable failure.\n",
         "Enable robot successfully.", "sim: 6 commands, 0 beyond limits\n"},
        {"reset", {}, "UPDATE system_parameters SET VALUE='GL_9X' WHERE ID=1;",
         "MECHNIACL ERROR !\nThe 'GL_9X' is invalid. \nLoad parameters error!\n", "Robot num",
         "sim: 0 commands, 0 beyond limits\n"},
        {"calibrate", {}, "", "Load parameters error!\n", "Robot num",
         "Can't open database: unable to open database file\nsim: 0 commands, 0 beyond limits\n"},
    };
    for (const auto& c : cases) {
        ScratchDir dir(false);
        const std::string db = dir.File("parameter.db");
        ASSERT_TRUE(c.sql == nullptr || (*c.sql ? tqltest::ExecSql(db, c.sql) : std::remove(db.c_str()) == 0));
        tqltest::EnvList env = c.env;
        env.push_back({"TQL_SIM_RECORD", "rec.csv"});
        const HostRun run = tqltest::RunHost(dir.path(), {c.mode}, "", env);
        EXPECT_EQ(run.exit_code, 255) << c.mode;
        EXPECT_EQ(tqltest::CountOf(run.out, c.out), 1) << run.out;
        EXPECT_EQ(run.out.find(c.absent), std::string::npos) << run.out;
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    }
}

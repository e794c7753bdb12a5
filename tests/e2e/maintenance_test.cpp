// The maintenance procedures ("reset", "calibrate", "tutorials") through the
// host on the simulated arm, checked on its output, the flight recorder and
// the settings the actuators saved (sim_state.txt).
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "test_support.h"

namespace {

using tqltest::CountOf;
using tqltest::HostRun;
using tqltest::ReadFile;
using tqltest::RunHost;
using tqltest::ScratchDir;

// "key=value" fields of actuator `id` in sim_state.txt.
std::map<std::string, double> Saved(const ScratchDir& dir, int id) {
    std::map<std::string, double> fields;
    std::istringstream in(ReadFile(dir.File("sim_state.txt")));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("actuator id=" + std::to_string(id) + " ", 0) != 0) continue;
        std::istringstream words(line);
        for (std::string w; words >> w;) {
            const size_t eq = w.find('=');
            if (eq != std::string::npos) fields[w.substr(0, eq)] = std::stod(w.substr(eq + 1));
        }
    }
    return fields;
}

HostRun RunMode(const ScratchDir& dir, const std::string& mode, const std::string& answers,
            tqltest::EnvList env = {}) {
    env.push_back({"TQL_SIM_RECORD", dir.File("rec.csv")});
    return RunHost(dir.path(), {mode}, answers, env);
}

// Puts a new arm's joints 1 and 2 at 10 and 20 degrees (ratio 36).
void StartAwayFromHome(const ScratchDir& dir) {
    tqltest::WriteFile(dir.File("sim.conf"),
                       ReadFile(dir.File("sim.conf")) + "\ninitial_position.1 = 1\ninitial_position.2 = 2\n");
}

}  // namespace

TEST(Maintenance, ResetWritesTheFactorySettingsAndRunsTheTestProgram) {
    const double min_position[6] = {-15, -9, -15, -15, -15, -17.8};
    const struct {
        const char* type;
        double position_kp, velocity_kp;  // 0: refused
    } cases[] = {{"GL_6L3", 0.05, 12.0}, {"GL_2L6_4L3", 0.15, 10.0}, {"GL_2P8_P6_3P3", 0, 0}};
    for (const auto& c : cases) {
        ScratchDir dir(false);
        ASSERT_TRUE(tqltest::ExecSql(dir.File("parameter.db"),
                                     std::string("UPDATE system_parameters SET VALUE='") + c.type + "' WHERE ID=1;"));
        const HostRun run = RunMode(dir, "reset", "");
        const std::string rec = ReadFile(dir.File("rec.csv"));
        if (c.position_kp == 0) {  // nothing written, nothing moved
            EXPECT_EQ(run.exit_code, 255);
            EXPECT_NE(run.out.find("Current type not supported.\n"), std::string::npos) << run.out;
            for (const char* command : {"setHomingPosition", "setMinimumPosition", "saveAllParams", "setPosition"})
                EXPECT_EQ(rec.find(command), std::string::npos) << command;
            continue;
        }
        EXPECT_EQ(run.exit_code, 0) << run.out;
        EXPECT_NE(run.out.find("Set home position successfully.\nSet limit data successfully.\nSet lock energy "
                               "successfully.\nSet position pid data successfully.\nSet velocity pi data "
                               "successfully.\nSave parameters sucessfully!\nRun successfully.\nDisable robot "
                               "successfully.\n"),
                  std::string::npos)
            << run.out;
        for (int id = 1; id <= 6; ++id) {
            const auto saved = Saved(dir, id);
            EXPECT_EQ(saved.at("min_position"), min_position[id - 1]) << c.type << id;
            EXPECT_EQ(saved.at("max_position"), -min_position[id - 1]) << c.type << id;
            EXPECT_EQ(saved.at("lock_energy"), 20000000.0);
            EXPECT_EQ(saved.at("position_kp"), c.position_kp);
            EXPECT_EQ(saved.at("velocity_kp"), c.velocity_kp);
            EXPECT_EQ(saved.at("velocity_ki"), 0.01);
        }
        EXPECT_GT(CountOf(rec, ",setPosition,"), 600) << "the test program ran";
        EXPECT_EQ(CountOf(rec.substr(rec.rfind(",setPosition,")), ",disableActuator,"), 6);
        EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << run.err;
    }
}

TEST(Maintenance, CalibrationMakesThePresentPoseHomeOnlyForY) {
    for (const char* answer : {"Y", "yes", "y"}) {
        ScratchDir dir(false);
        StartAwayFromHome(dir);
        const HostRun run = RunMode(dir, "calibrate", std::string(answer) + "\n", {{"TQL_SIM_INTERRUPT", "3"}});
        const bool calibrated = std::string(answer) == "y";
        EXPECT_EQ(run.exit_code, 0) << run.out;
        EXPECT_NE(run.out.find("Please move the robot to the home position.\n"), std::string::npos);
        EXPECT_EQ(CountOf(run.out, "\n10 20 -0 0 -0 0 \n"), 2) << run.out;  // every 1.4 s until Ctrl-C at 3 s
        EXPECT_NE(run.out.find(std::string("Enter y to calibrate the robot ...\n") +
                               (calibrated ? "Set home position successfully.\n" : "Exit without calibration.\n") +
                               "Disable robot successfully.\n"),
                  std::string::npos)
            << run.out;
        EXPECT_EQ(CountOf(ReadFile(dir.File("rec.csv")), ",disableActuator,"), 6);
        // The next boot reports zeros only after calibrating.
        const HostRun next = RunMode(dir, "mode4", "0\n");
        EXPECT_EQ(next.out.find("Current position (degree) : \n0 0 -0 0 -0 0 \n") != std::string::npos, calibrated)
            << next.out;
    }
}

TEST(Maintenance, TutorialsMenuFromAndBackToHome) {
    const std::string menu = "Input option: \n※ 1 \t\t \n※ 2 \t\t  \n※ 3 \t\t  \n※ 4 \t\t  \n※ stop\t\t\t \n";
    for (bool away : {false, true}) {
        ScratchDir dir(false);
        if (away) StartAwayFromHome(dir);
        // (Enter,) a wrong option, the look-around at override 1, stop, Enter.
        const HostRun run = RunMode(dir, "tutorials", std::string(away ? "\n" : "") + "5\n2\n1\nstop\n\n");
        EXPECT_EQ(run.exit_code, 0) << run.out;
        EXPECT_EQ(run.out.find("The current position isn't home position\nMove to home position\nPress enter to "
                               "start ...\nDone\nCurrent position :\n0 0 0 0 0 0 \n") != std::string::npos,
                  away)
            << run.out;
        EXPECT_EQ(CountOf(run.out, menu), 3) << run.out;
        EXPECT_NE(run.out.find(menu + "You can press CTRL+C to stop during the running process.\nInput error.\n" + menu),
                  std::string::npos);
        EXPECT_NE(run.out.find("Replay end \nDone\n"), std::string::npos);
        EXPECT_NE(run.out.find("Please hold the arm with your hand and then press enter to turn off the robot ...\n"
                               "Done. \nDisable robot size = 6\n"),
                  std::string::npos)
            << run.out;
        EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << run.err;
    }
}

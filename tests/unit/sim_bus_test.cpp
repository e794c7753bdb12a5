// The simulated actuator bus: discovery, enabling, position following in
// virtual time, persistence between runs, injected faults, the flight
// recorder and the per-thread virtual clock.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim_control.h"
#include "actuatorcontroller.h"
#include "test_support.h"

namespace {

using tqltest::ReadFile;
using tqltest::WriteFile;

const char* const kSimVars[] = {"TQL_SIM_CLOCK", "TQL_SIM_ACTUATORS", "TQL_SIM_RECORD", "TQL_SIM_FAULT"};

// Every test starts in a fresh copy of the demo directory, with none of the
// simulator's environment variables set, from a freshly loaded bus.
class SimBus : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kSimVars) {
            const char* v = std::getenv(name);
            saved_.emplace_back(name, v != nullptr ? std::string(v) : std::string("\x01"));
            unsetenv(name);
        }
        tql_sim_reset();
    }
    void TearDown() override {
        for (const auto& kv : saved_) {
            if (kv.second == "\x01")
                unsetenv(kv.first.c_str());
            else
                setenv(kv.first.c_str(), kv.second.c_str(), 1);
        }
        tql_sim_reset();  // closes any recording, so the test process prints no summary
    }

    // Reloads the bus with one environment variable set.
    void ResetWith(const char* name, const char* value) {
        setenv(name, value, 1);
        tql_sim_reset();
    }

    static ActuatorController* Ctl() { return ActuatorController::initController(); }

    // Discovers, enables and switches every actuator to position mode.
    static std::vector<uint8_t> BootAll() {
        Actuator::ErrorsDefine ec = Actuator::ERR_NONE;
        auto uids = Ctl()->lookupActuators(ec);
        EXPECT_TRUE(Ctl()->enableActuatorInBatch(uids));
        auto ids = Ctl()->getActuatorIdArray();
        Ctl()->activateActuatorModeInBantch(ids, Actuator::Mode_Pos);
        return ids;
    }

    tqltest::ScratchDir dir_;
    std::vector<std::pair<std::string, std::string>> saved_;
};

// ---------------------------------------------------------------- discovery

TEST_F(SimBus, DiscoversSixActuatorsByDefaultInOneOrder) {
    EXPECT_EQ(Ctl(), ActuatorController::initController());
    EXPECT_TRUE(Ctl()->getActuatorIdArray().empty()) << "nothing is known before a lookup";
    Actuator::ErrorsDefine ec = Actuator::ERR_UNKOWN;
    auto uids = Ctl()->lookupActuators(ec);
    auto ids = Ctl()->getActuatorIdArray();
    EXPECT_EQ(ec, Actuator::ERR_NONE);
    ASSERT_EQ(uids.size(), 6u);
    ASSERT_EQ(ids.size(), 6u);
    for (size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(ids[i], i + 1);
        EXPECT_EQ(uids[i].actuatorID, ids[i]);
        EXPECT_EQ(uids[i].ipAddress, "192.168.1.30");
        EXPECT_FALSE(Ctl()->isEnable(ids[i]));
    }
}

TEST_F(SimBus, ActuatorCountFromEnvironmentIncludingNone) {
    Actuator::ErrorsDefine ec = Actuator::ERR_NONE;
    ResetWith("TQL_SIM_ACTUATORS", "7");
    EXPECT_EQ(Ctl()->lookupActuators(ec).size(), 7u);
    EXPECT_EQ(Ctl()->getActuatorIdArray().back(), 7);

    ResetWith("TQL_SIM_ACTUATORS", "0");
    EXPECT_TRUE(Ctl()->lookupActuators(ec).empty());
    EXPECT_NE(ec, Actuator::ERR_NONE);
    EXPECT_TRUE(Ctl()->getActuatorIdArray().empty());

    unsetenv("TQL_SIM_ACTUATORS");
    tql_sim_reset();
    tql_sim_set_no_actuators(1);
    EXPECT_TRUE(Ctl()->lookupActuators(ec).empty());
    tql_sim_set_no_actuators(0);
    EXPECT_EQ(Ctl()->lookupActuators(ec).size(), 6u);
}

TEST_F(SimBus, ConfigurationFileSetsIdsAndFactorySettings) {
    WriteFile("sim.conf",
              "ids = 2, 4, 9   # three actuators\n"
              "velocity_limit = 900\n"
              "min_position.4 = -9\n"
              "initial_position.9 = 1.5\n"
              "no such key here\n");  // reported on standard error, ignored
    tql_sim_reset();
    Actuator::ErrorsDefine ec = Actuator::ERR_NONE;
    auto uids = Ctl()->lookupActuators(ec);
    ASSERT_EQ(Ctl()->getActuatorIdArray(), (std::vector<uint8_t>{2, 4, 9}));
    EXPECT_DOUBLE_EQ(Ctl()->getVelocityLimit(2, true), 900.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(4, true), -9.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(2, true), -17.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMaximumPosition(4, true), 17.0);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(9, true), 1.5);

    // The environment wins over the file.
    ResetWith("TQL_SIM_ACTUATORS", "3");
    Ctl()->lookupActuators(ec);
    EXPECT_EQ(Ctl()->getActuatorIdArray(), (std::vector<uint8_t>{1, 2, 3}));
}

TEST_F(SimBus, UnknownIdsAnswerZeroAndChangeNothing) {
    BootAll();
    const uint8_t ghost = 42;
    Ctl()->setPosition(ghost, 3.0);
    Ctl()->setHomingPosition(ghost, 1.0);
    Ctl()->requestCVPValue(ghost);
    Ctl()->processEvents();
    EXPECT_EQ(Ctl()->getPosition(ghost, true), 0.0);
    EXPECT_EQ(Ctl()->getVelocity(ghost, false), 0.0);
    EXPECT_EQ(Ctl()->getMaximumPosition(ghost, true), 0.0);
    EXPECT_EQ(Ctl()->getErrorCode(ghost), 0u);
    EXPECT_FALSE(Ctl()->isEnable(ghost));
    EXPECT_FALSE(Ctl()->disableActuator(ghost));
    EXPECT_FALSE(Ctl()->saveAllParams(ghost));
    EXPECT_FALSE(Ctl()->clearError(ghost));
    EXPECT_FALSE(Ctl()->enableActuatorInBatch({ActuatorController::UnifiedID(ghost, "")}));
    EXPECT_EQ(tql_sim_inject_error(ghost, 4, 0), -1);
    EXPECT_TRUE(std::isnan(tql_sim_last_setpoint(ghost)));
}

// ---------------------------------------------------------------- enabling

TEST_F(SimBus, EnableFailureFromControlFileAndEnvironment) {
    Actuator::ErrorsDefine ec = Actuator::ERR_NONE;
    auto uids = Ctl()->lookupActuators(ec);
    tql_sim_set_enable_failure(1);
    EXPECT_FALSE(Ctl()->enableActuatorInBatch(uids));
    EXPECT_FALSE(Ctl()->isEnable(1));
    tql_sim_set_enable_failure(0);
    EXPECT_TRUE(Ctl()->enableActuatorInBatch(uids));
    for (const auto& u : uids) EXPECT_TRUE(Ctl()->isEnable(u.actuatorID));
    EXPECT_TRUE(Ctl()->disableActuator(3));
    EXPECT_FALSE(Ctl()->isEnable(3));

    WriteFile("sim.conf", "fault = enable_failure\n");
    tql_sim_reset();
    uids = Ctl()->lookupActuators(ec);
    EXPECT_FALSE(Ctl()->enableActuatorInBatch(uids));

    ResetWith("TQL_SIM_FAULT", "none");  // the environment clears the file's faults
    uids = Ctl()->lookupActuators(ec);
    EXPECT_TRUE(Ctl()->enableActuatorInBatch(uids));
}

// ---------------------------------------------------------------- motion

TEST_F(SimBus, PositionModeFollowsSetPointsInVirtualTime) {
    ResetWith("TQL_SIM_CLOCK", "virtual");
    ASSERT_EQ(tql_sim_virtual_clock(), 1);
    BootAll();
    EXPECT_EQ(tql_sim_actuator_mode(2), Actuator::Mode_Pos);
    std::vector<std::pair<int, double>> reports;
    Ctl()->addParaRequestCallback([&](ActuatorController::UnifiedID id, uint8_t attr, double v) {
        if (id.actuatorID == 2) reports.emplace_back(attr, v);
    });

    // 0.01 revolutions per 4 ms period = 150 rpm.
    for (int k = 1; k <= 50; ++k) {
        Ctl()->setPosition(2, 0.01 * k);
        tql_sim_sleep(0.004);
        ASSERT_DOUBLE_EQ(Ctl()->getPosition(2, true), 0.01 * k);
        ASSERT_NEAR(Ctl()->getVelocity(2, true), 150.0, 1e-6) << "set-point " << k;
    }
    EXPECT_NEAR(tql_sim_now(), 0.2, 1e-9);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 0.0) << "other actuators hold";
    EXPECT_EQ(tql_sim_setpoint_count(2), 50);
    EXPECT_DOUBLE_EQ(tql_sim_last_setpoint(2), 0.5);

    // Without new set-points the actuator stands still.
    tql_sim_sleep(0.1);
    EXPECT_DOUBLE_EQ(Ctl()->getVelocity(2, true), 0.0);

    // The fast reads return what was last received; a request answers
    // through processEvents, which also reports to the callbacks.
    Ctl()->setPosition(2, 0.6);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, false), 0.5);
    Ctl()->requestCVPValue(2);
    tql_sim_sleep(0.004);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, false), 0.5);
    Ctl()->processEvents();
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, false), 0.6);
    EXPECT_NEAR(Ctl()->getVelocity(2, false), 0.1 / 0.104 * 60.0, 1e-6) << "step over the pause since the last set-point";
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0].first, Actuator::ACTUAL_CURRENT);
    EXPECT_EQ(reports[1].first, Actuator::ACTUAL_VELOCITY);
    EXPECT_EQ(reports[2].first, Actuator::ACTUAL_POSITION);
    EXPECT_DOUBLE_EQ(reports[2].second, 0.6);

    // Current mode: the arm holds where it is, the current is the command.
    Ctl()->activateActuatorModeInBantch({2}, Actuator::Mode_Cur);
    Ctl()->setCurrent(2, 0.7);
    Ctl()->setPosition(2, 5.0);  // not in position mode: ignored
    tql_sim_sleep(0.5);
    EXPECT_DOUBLE_EQ(Ctl()->getCurrent(2, true), 0.7);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, true), 0.6);

    // Velocity mode integrates the commanded speed over bus time.
    Ctl()->activateActuatorModeInBantch({3}, Actuator::Mode_Vel);
    Ctl()->setVelocity(3, 600.0);
    tql_sim_sleep(1.0);
    EXPECT_NEAR(Ctl()->getPosition(3, true), 10.0, 1e-9);
    EXPECT_DOUBLE_EQ(Ctl()->getVelocity(3, true), 600.0);

    // A disabled actuator does not follow.
    Ctl()->activateActuatorModeInBantch({4}, Actuator::Mode_Pos);
    Ctl()->disableActuator(4);
    Ctl()->setPosition(4, 0.3);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(4, true), 0.0);
}

// ---------------------------------------------------------------- persistence

TEST_F(SimBus, ArmKeepsPositionsSavedSettingsAndHomeBetweenRuns) {
    BootAll();
    Ctl()->setPosition(1, 2.5);
    Ctl()->setPosition(2, -4.0);
    Ctl()->setMinimumPosition(2, -9.0);
    ASSERT_TRUE(Ctl()->saveAllParams(2));  // writes the state file at once
    EXPECT_TRUE(std::filesystem::exists("sim_state.txt"));
    Ctl()->setMaximumPosition(3, 5.0);  // never saved: lost at the next run

    // Homing: the present pose reads zero, however often it is repeated.
    Ctl()->setPosition(4, 3.0);
    Ctl()->activateActuatorModeInBantch({4}, Actuator::Mode_Homing);
    for (int i = 0; i < 2; ++i) {
        Ctl()->setHomingPosition(4, Ctl()->getPosition(4, true));
        EXPECT_NEAR(Ctl()->getPosition(4, true), 0.0, 1e-12);
    }
    ASSERT_EQ(tql_sim_save_state(), 0);  // what process exit does

    tql_sim_reset();
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 2.5);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, true), -4.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(2, true), -9.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMaximumPosition(3, true), 17.0);
    EXPECT_NEAR(Ctl()->getPosition(4, true), 0.0, 1e-12);
    EXPECT_FALSE(Ctl()->isEnable(1)) << "a new run starts disabled";

    // Moving the homed actuator moves it relative to its new zero.
    BootAll();
    Ctl()->setPosition(4, 1.0);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(4, true), 1.0);

    // A failed save keeps nothing.
    tql_sim_set_save_failure(1);
    Ctl()->setVelocityKp(1, 99.0);
    Ctl()->setMaximumPosition(1, 3.0);
    EXPECT_FALSE(Ctl()->saveAllParams(1));
    tql_sim_reset();
    EXPECT_DOUBLE_EQ(Ctl()->getMaximumPosition(1, true), 17.0);

    for (const auto& entry : std::filesystem::directory_iterator("."))
        EXPECT_EQ(entry.path().filename().string().find("sim_state.txt.tmp"), std::string::npos);
}

TEST_F(SimBus, CorruptStateFileGivesDefaults) {
    const char* corrupt[] = {
        "garbage\n",
        "sim_state 1\nactuator id=1 position=nan homing_offset=0\n",
        "sim_state 1\nactuator id=1 position=2 homing_offset=0 min_position=-3\n",  // settings half there
        "sim_state 1\nactuator id=1 position=2\n",
        "sim_state 1\nactuator id=300 position=2 homing_offset=0\n",
        "sim_state 1\nactuator id=1 position=2 homing_offset=0\nactuator id=1 position=3 homing_offset=0\n",
        "",
    };
    for (const char* text : corrupt) {
        WriteFile("sim_state.txt", text);
        tql_sim_reset();
        EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 0.0) << text;
        EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(1, true), -17.0) << text;
    }
    WriteFile("sim_state.txt", "sim_state 1\nactuator id=1 position=2 homing_offset=0.5\n");
    tql_sim_reset();
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 1.5);
}

// ---------------------------------------------------------------- errors

TEST_F(SimBus, ErrorWordAppearsAtTheKthSetPointWithCallback) {
    BootAll();
    struct Seen {
        int id;
        unsigned code;
        std::string text;
        uint32_t word_in_callback;
    };
    std::vector<Seen> seen;
    // The callback calls back into the bus: it must not run under the bus lock.
    Ctl()->addErrorCallback([&](ActuatorController::UnifiedID id, uint16_t code, std::string text) {
        seen.push_back({id.actuatorID, code, text, Ctl()->getErrorCode(id.actuatorID)});
    });
    ASSERT_EQ(tql_sim_inject_error(3, Actuator::ERR_ACTUATOR_LOCKED_ROTOR, 5), 0);
    for (int k = 1; k <= 4; ++k) Ctl()->setPosition(3, 0.01 * k);
    EXPECT_EQ(Ctl()->getErrorCode(3), 0u);
    EXPECT_TRUE(seen.empty());

    Ctl()->setPosition(3, 0.05);  // the 5th: refused, the error appears
    EXPECT_EQ(Ctl()->getErrorCode(3), static_cast<uint32_t>(Actuator::ERR_ACTUATOR_LOCKED_ROTOR));
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].id, 3);
    EXPECT_EQ(seen[0].code, static_cast<unsigned>(Actuator::ERR_ACTUATOR_LOCKED_ROTOR));
    EXPECT_FALSE(seen[0].text.empty());
    EXPECT_EQ(seen[0].word_in_callback, seen[0].code);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(3, true), 0.04);
    Ctl()->setPosition(3, 0.06);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(3, true), 0.04) << "a faulted actuator stays put";
    EXPECT_EQ(Ctl()->getErrorCode(2), 0u);

    EXPECT_TRUE(Ctl()->clearError(3));
    EXPECT_EQ(Ctl()->getErrorCode(3), 0u);
    Ctl()->setPosition(3, 0.07);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(3, true), 0.07);
    EXPECT_EQ(seen.size(), 1u);

    // Without handlers nothing is called.
    Ctl()->clearCallbackHandlers();
    tql_sim_inject_error(1, Actuator::ERR_ACTUATOR_OVERHEATING, 0);
    EXPECT_EQ(Ctl()->getErrorCode(1), static_cast<uint32_t>(Actuator::ERR_ACTUATOR_OVERHEATING));
    EXPECT_EQ(seen.size(), 1u);
}

TEST_F(SimBus, ErrorFaultsFromConfigurationBySetPointAndTime) {
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    WriteFile("sim.conf", "fault = error:2:0x8:setpoint:3, error:5:0x100:time:0.5\n");
    tql_sim_reset();
    BootAll();
    std::vector<int> ids;
    Ctl()->addErrorCallback([&](ActuatorController::UnifiedID id, uint16_t, std::string) {
        ids.push_back(id.actuatorID);
    });
    for (int k = 1; k <= 3; ++k) {
        Ctl()->setPosition(2, 0.0);
        tql_sim_sleep(0.004);
    }
    EXPECT_EQ(Ctl()->getErrorCode(2), 0x8u);
    EXPECT_EQ(Ctl()->getErrorCode(5), 0u);
    tql_sim_sleep(0.5);
    EXPECT_EQ(Ctl()->getErrorCode(5), 0x100u);
    EXPECT_EQ(ids, (std::vector<int>{2, 5}));
}

// ---------------------------------------------------------------- recorder

TEST_F(SimBus, FlightRecorderWritesEveryCommandAndCountsLimitBreaches) {
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    ResetWith("TQL_SIM_RECORD", "rec.csv");
    BootAll();  // 6 enable rows + 6 mode rows
    auto sp = [](double wait, double pos) {
        if (wait > 0.0) tql_sim_sleep(wait);
        ActuatorController::initController()->setPosition(1, pos);
    };
    sp(0.2, 0.0);        // from rest at the mode switch
    sp(0.004, 0.1);      // 1500 rpm: within 1800
    sp(0.004, 0.2252);   // 1878 rpm: beyond the velocity limit
    sp(0.0, 0.2262);     // same tick: counts as one period (15 rpm), not infinite
    sp(0.004, 17.5);     // beyond the maximum position
    sp(1.0, 17.0);       // exactly at the limit is allowed
    sp(2.0, -17.5);      // beyond the minimum at 1035 rpm
    EXPECT_EQ(tql_sim_command_count(), 19);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 3);

    tql_sim_flush_recorder();
    std::istringstream csv(ReadFile("rec.csv"));
    std::vector<std::string> rows;
    for (std::string line; std::getline(csv, line);) rows.push_back(line);
    ASSERT_EQ(rows.size(), 20u);
    EXPECT_EQ(rows[0], "time,id,mode,command,value");
    EXPECT_EQ(rows[1], "0.000000,1,0,enableActuatorInBatch,1") << "mode before enabling";
    EXPECT_EQ(rows[7], "0.000000,1,3,activateActuatorModeInBantch,3");
    EXPECT_EQ(rows[14], "0.204000,1,3,setPosition,0.1");
    EXPECT_EQ(rows[19], "3.212000,1,3,setPosition,-17.5");
}

TEST_F(SimBus, ProcessExitWritesStateAndOneSummaryLine) {
    std::cout.flush();
    std::fflush(nullptr);
    const std::string err_path = dir_.File("child.err");
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // A run of its own: record, move, exit normally.
        if (std::freopen(err_path.c_str(), "w", stderr) == nullptr) _exit(2);
        setenv("TQL_SIM_RECORD", "exit.csv", 1);
        tql_sim_reset();
        auto* ctl = ActuatorController::initController();
        Actuator::ErrorsDefine ec;
        ctl->enableActuatorInBatch(ctl->lookupActuators(ec));
        ctl->setPosition(6, 0.001);
        ctl->setPosition(6, 30.0);
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(ReadFile(err_path), "sim: 8 commands, 1 beyond limits\n");
    EXPECT_EQ(tqltest::CountOf(ReadFile(dir_.File("exit.csv")), "\n"), 9);

    tql_sim_reset();  // this process now finds the state the child left
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(6, true), 17.0) << "the set-point stops at the limit";
}

// ---------------------------------------------------------------- clock

// Two threads each sleeping 250 control periods advance the bus by 250
// periods, not 500; a thread joining them resumes from the bus clock.
TEST_F(SimBus, VirtualClockIsTheLatestWakeOfAnyThread) {
    ResetWith("TQL_SIM_CLOCK", "virtual");
    std::mutex m;
    std::condition_variable cv;
    int arrived = 0, round = 0;
    auto barrier = [&] {
        std::unique_lock<std::mutex> lock(m);
        const int my_round = round;
        if (++arrived == 2) {
            arrived = 0;
            ++round;
            cv.notify_all();
        } else {
            cv.wait(lock, [&] { return round != my_round; });
        }
    };
    auto worker = [&] {
        for (int i = 0; i < 250; ++i) {
            tql_sim_sleep(0.004);
            barrier();
        }
    };
    std::thread a(worker), b(worker);
    a.join();
    b.join();
    // The second thread's first wake may start one period later than the first's.
    const double both = tql_sim_now();
    EXPECT_GE(both, 1.0 - 1e-9);
    EXPECT_LE(both, 1.004 + 1e-9);
    tql_sim_sleep(0.004);
    EXPECT_NEAR(tql_sim_now(), both + 0.004, 1e-9);

    // A reset restarts every timeline at zero.
    tql_sim_reset();
    EXPECT_EQ(tql_sim_now(), 0.0);
    tql_sim_sleep(0.25);
    EXPECT_NEAR(tql_sim_now(), 0.25, 1e-12);
}

TEST_F(SimBus, RealClockByDefault) {
    EXPECT_EQ(tql_sim_virtual_clock(), 0);
    const double t0 = tql_sim_now();
    tql_sim_sleep(0.002);
    EXPECT_GE(tql_sim_now(), t0 + 0.002);
}

}  // namespace

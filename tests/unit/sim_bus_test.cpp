// The simulated actuator bus: discovery, enabling, position following in
// virtual time, persistence between runs, injected faults, the flight
// recorder (position limits and the drives' peak current), the per-thread
// virtual clock and the scripted operator's Ctrl-C.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <thread>

#include "test_support.h"

namespace {

using tqltest::ReadFile;
using tqltest::WriteFile;
using SimBus = tqltest::SimBusTest;

// Other bus sizes and failed enabling, as the robot's boot sees them: fault_drill_test.
TEST_F(SimBus, DiscoveryFromDefaultsEnvironmentAndConfiguration) {
    EXPECT_TRUE(Ctl()->getActuatorIdArray().empty()) << "nothing is known before a lookup";
    Actuator::ErrorsDefine ec = Actuator::ERR_UNKOWN;
    const auto uids = Ctl()->lookupActuators(ec);
    EXPECT_EQ(ec, Actuator::ERR_NONE);
    ASSERT_EQ(uids.size(), 6u);
    EXPECT_EQ(Ctl()->getActuatorIdArray(), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(uids[5].actuatorID, 6);
    EXPECT_EQ(uids[5].ipAddress, "192.168.1.30");
    EXPECT_FALSE(Ctl()->isEnable(6));
    EXPECT_TRUE(Ctl()->enableActuatorInBatch(uids));
    EXPECT_TRUE(Ctl()->isEnable(6));
    ResetWith("TQL_SIM_ACTUATORS", "0");
    EXPECT_TRUE(Ctl()->lookupActuators(ec).empty());
    EXPECT_NE(ec, Actuator::ERR_NONE);

    // An unknown key is reported and ignored; the environment clears the file's faults.
    unsetenv("TQL_SIM_ACTUATORS");
    WriteFile("sim.conf", "ids = 2, 4, 9   # three\nmin_position.4 = -9\nfault = enable_failure\nno such key\n");
    tql_sim_reset();
    EXPECT_FALSE(Ctl()->enableActuatorInBatch(Lookup()));
    EXPECT_EQ(Ctl()->getActuatorIdArray(), (std::vector<uint8_t>{2, 4, 9}));
    EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(4, true), -9.0);
    EXPECT_EQ(Ctl()->getPosition(42, true), 0.0);  // unknown ids answer zero
    ResetWith("TQL_SIM_FAULT", "none");
    EXPECT_TRUE(Ctl()->enableActuatorInBatch(Lookup()));
}

TEST_F(SimBus, ActuatorsFollowSetPointsInVirtualTime) {
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    Boot();
    ASSERT_EQ(tql_sim_virtual_clock(), 1);
    int reports = 0;
    Ctl()->addParaRequestCallback([&](ActuatorController::UnifiedID, uint8_t, double) { ++reports; });
    for (int k = 1; k <= 50; ++k) {  // 0.01 revolutions per 4 ms period = 150 rpm
        Ctl()->setPosition(2, 0.01 * k);
        tql_sim_sleep(0.004);
        ASSERT_DOUBLE_EQ(Ctl()->getPosition(2, true), 0.01 * k);
        ASSERT_NEAR(Ctl()->getVelocity(2, true), 150.0, 1e-6) << "set-point " << k;
    }
    EXPECT_NEAR(tql_sim_now(), 0.2, 1e-9);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 0.0) << "other actuators hold";
    EXPECT_EQ(tql_sim_setpoint_count(2), 50);
    tql_sim_sleep(0.1);
    EXPECT_DOUBLE_EQ(Ctl()->getVelocity(2, true), 0.0) << "no new set-point: standing still";

    // Fast reads return what was last received; processEvents answers a
    // request and reports it to the callbacks (current, velocity, position).
    Ctl()->setPosition(2, 0.6);
    Ctl()->requestCVPValue(2);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, false), 0.5);
    Ctl()->processEvents();
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(2, false), 0.6);
    EXPECT_EQ(reports, 3);
    EXPECT_TRUE(Ctl()->disableActuator(4));
    Ctl()->setPosition(4, 0.3);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(4, true), 0.0) << "a disabled actuator does not follow";
}

TEST_F(SimBus, ArmKeepsPositionsSavedSettingsAndHomeBetweenRuns) {
    Boot();
    Ctl()->setPosition(1, 2.5);
    Ctl()->setMinimumPosition(2, -9.0);
    ASSERT_TRUE(Ctl()->saveAllParams(2));
    Ctl()->setMaximumPosition(3, 5.0);  // never saved: lost at the next run
    // Homing: the present pose reads zero, however often it is repeated.
    Ctl()->setPosition(4, 3.0);
    Ctl()->activateActuatorModeInBantch({4}, Actuator::Mode_Homing);
    for (int i = 0; i < 2; ++i) Ctl()->setHomingPosition(4, Ctl()->getPosition(4, true));
    EXPECT_NEAR(Ctl()->getPosition(4, true), 0.0, 1e-12);
    ASSERT_EQ(tql_sim_save_state(), 0);  // what process exit does

    tql_sim_reset();
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), 2.5);
    EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(2, true), -9.0);
    EXPECT_DOUBLE_EQ(Ctl()->getMaximumPosition(3, true), 17.0);
    EXPECT_NEAR(Ctl()->getPosition(4, true), 0.0, 1e-12);
    Boot();
    Ctl()->setPosition(4, 1.0);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(4, true), 1.0) << "relative to the new zero";

    tql_sim_set_save_failure(1);
    Ctl()->setMaximumPosition(1, 3.0);
    EXPECT_FALSE(Ctl()->saveAllParams(1));
    tql_sim_reset();
    EXPECT_DOUBLE_EQ(Ctl()->getMaximumPosition(1, true), 17.0) << "a failed save keeps nothing";

    // A state file that is not wholly valid is ignored as a whole.
    const std::string no_offset = "sim_state 1\nactuator id=1 position=2", a1 = no_offset + " homing_offset=0";
    for (const std::string& state : {std::string("garbage\n"), a1 + " min_position=-3\n", no_offset + "\n",
                                     a1 + "\nactuator id=1 position=3 homing_offset=0\n",
                                     a1 + "\nactuator id=300 position=2 homing_offset=0\n",
                                     a1 + "\nactuator id=2 position=nan homing_offset=0\n", a1 + ".5\n"}) {
        WriteFile("sim_state.txt", state);
        tql_sim_reset();
        EXPECT_DOUBLE_EQ(Ctl()->getPosition(1, true), state == a1 + ".5\n" ? 1.5 : 0.0) << state;
        EXPECT_DOUBLE_EQ(Ctl()->getMinimumPosition(1, true), -17.0) << state;
    }
}

TEST_F(SimBus, InjectedErrorAppearsAtTheKthSetPointWithCallback) {
    Boot();
    std::vector<std::pair<int, unsigned>> seen;
    // The callback calls back into the bus: it must not run under the bus lock.
    Ctl()->addErrorCallback([&](ActuatorController::UnifiedID id, uint16_t code, std::string text) {
        EXPECT_FALSE(text.empty());
        EXPECT_EQ(Ctl()->getErrorCode(id.actuatorID), code);
        seen.emplace_back(id.actuatorID, code);
    });
    const unsigned locked = Actuator::ERR_ACTUATOR_LOCKED_ROTOR;
    ASSERT_EQ(tql_sim_inject_error(3, locked, 5), 0);
    for (int k = 1; k <= 4; ++k) Ctl()->setPosition(3, 0.01 * k);
    EXPECT_EQ(Ctl()->getErrorCode(3), 0u);
    Ctl()->setPosition(3, 0.05);  // the 5th: refused, the error appears
    EXPECT_EQ(Ctl()->getErrorCode(3), locked);
    EXPECT_EQ(seen, (std::vector<std::pair<int, unsigned>>{{3, locked}}));
    Ctl()->setPosition(3, 0.06);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(3, true), 0.04) << "a faulted actuator stays put";
    EXPECT_TRUE(Ctl()->clearError(3));
    Ctl()->setPosition(3, 0.07);
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(3, true), 0.07);
    Ctl()->clearCallbackHandlers();
    tql_sim_inject_error(1, Actuator::ERR_ACTUATOR_OVERHEATING, 0);
    EXPECT_EQ(Ctl()->getErrorCode(1), static_cast<uint32_t>(Actuator::ERR_ACTUATOR_OVERHEATING));
    EXPECT_EQ(seen.size(), 1u);
}

TEST_F(SimBus, FlightRecorderWritesEveryCommandAndCountsLimitBreaches) {
    setenv("TQL_SIM_CLOCK", "virtual", 1);
    setenv("TQL_SIM_RECORD", "rec.csv", 1);
    Boot();  // 6 enable rows + 6 mode rows
    for (const auto& sp : std::vector<std::pair<double, double>>{
             {0.2, 0.0},        // from rest at the mode switch
             {0.004, 0.1},      // 1500 rpm: within 1800
             {0.004, 0.2252},   // 1878 rpm: beyond the velocity limit
             {0.0, 0.2262},     // same tick: one period (15 rpm), not infinite
             {0.004, 17.5},     // beyond the maximum position
             {1.0, 17.0},       // exactly at the limit is allowed
             {2.0, -17.5}}) {   // beyond the minimum
        tql_sim_sleep(sp.first);
        Ctl()->setPosition(1, sp.second);
    }
    EXPECT_EQ(tql_sim_command_count(), 19);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 3);
    tql_sim_flush_recorder();
    const std::string csv = ReadFile("rec.csv");
    EXPECT_EQ(tqltest::CountOf(csv, "\n"), 26);  // and where each actuator stood at the mode switch
    for (const char* row : {"time,id,mode,command,value\n0.000000,1,0,enableActuatorInBatch,1\n",
                            "\n0.000000,1,3,activateActuatorModeInBantch,3\n0.000000,1,3,position,0\n",
                            "\n0.204000,1,3,setPosition,0.1\n",
                            "\n3.212000,1,3,setPosition,-17.5\n"})
        EXPECT_NE(csv.find(row), std::string::npos) << row << csv;
}

// A current set-point beyond the drive's peak (10 A, or its own
// "peak_current.ID"), or not finite, counts as beyond limits; exactly the
// peak does not. The drive delivers at most its peak, which a current-mode
// reading (exact here) reports; a non-finite set-point changes nothing.
TEST_F(SimBus, CurrentsBeyondThePeakAreCountedAndNotDelivered) {
    WriteFile("sim.conf", ReadFile("sim.conf") + "peak_current.3 = 4\n");
    Boot(Actuator::Mode_Cur);  // 12 commands
    tql_sim_set_current_noise(0.0);
    const struct {
        int id;
        double amps;
        long beyond;  // counted so far
        double read;
    } rows[] = {{1, 9.5, 0, 9.5},        {1, 10.0, 0, 10.0},  {1, -10.0, 0, -10.0},      {1, 10.5, 1, 10.0},
                {1, -25.0, 2, -10.0},    {1, std::nan(""), 3, -10.0}, {1, HUGE_VAL, 4, -10.0}, {3, 4.0, 4, 4.0},
                {3, -4.5, 5, -4.0},      {2, 1e300, 6, 10.0}, {42, 99.0, 6, 0.0}};  // 42: no such actuator
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << "actuator " << r.id << ", " << r.amps << " A");
        Ctl()->setCurrent(r.id, r.amps);
        EXPECT_EQ(tql_sim_current_beyond_peak_count(), r.beyond);
        EXPECT_EQ(tql_sim_beyond_limit_count(), r.beyond);
        EXPECT_EQ(Ctl()->getCurrent(r.id, true), r.read);
    }
    EXPECT_EQ(tql_sim_command_count(), 12 + 11);
    tql_sim_reset();
    EXPECT_EQ(tql_sim_current_beyond_peak_count(), 0);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(SimBus, ProcessExitWritesStateAndOneSummaryLine) {
    std::fflush(nullptr);  // the child must not write this process's buffered output again
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {  // a run of its own: record, move, exit normally
        if (std::freopen("child.err", "w", stderr) == nullptr) _exit(2);
        setenv("TQL_SIM_RECORD", "exit.csv", 1);
        tql_sim_reset();
        Ctl()->enableActuatorInBatch(Lookup());
        Ctl()->setPosition(6, 0.001);
        Ctl()->setPosition(6, 30.0);
        Ctl()->setCurrent(5, 10.5);  // beyond the peak too
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(ReadFile("child.err"), "sim: 9 commands, 2 beyond limits\n");
    EXPECT_EQ(tqltest::CountOf(ReadFile("exit.csv"), "\n"), 10);
    tql_sim_reset();  // this process now finds the state the child left
    EXPECT_DOUBLE_EQ(Ctl()->getPosition(6, true), 17.0) << "the set-point stops at the limit";
}

// Two threads sleeping one period per loop run in lockstep: the bus clock a
// thread reads after each of its sleeps steps by exactly that period (the
// other thread never runs ahead of it), and ends at the later thread's wake.
TEST_F(SimBus, VirtualClockRunsSleepingThreadsInLockstep) {
    EXPECT_EQ(tql_sim_virtual_clock(), 0) << "real clock by default";
    ResetWith("TQL_SIM_CLOCK", "virtual");
    std::vector<double> seen[2] = {std::vector<double>(250), std::vector<double>(250)};
    auto worker = [&](int me) {
        for (int i = 0; i < 250; ++i) {
            tql_sim_sleep(0.004);
            seen[me][i] = tql_sim_now();
        }
    };
    std::thread a(worker, 0), b(worker, 1);
    a.join();
    b.join();
    for (const auto& s : seen)
        for (int i = 1; i < 250; ++i) ASSERT_NEAR(s[i] - s[i - 1], 0.004, 1e-9) << i;
    const double both = tql_sim_now();
    EXPECT_EQ(both, std::max(seen[0].back(), seen[1].back()));
    tql_sim_sleep(0.004);  // a thread that never slept starts from the bus clock
    EXPECT_NEAR(tql_sim_now(), both + 0.004, 1e-9);
    tql_sim_reset();
    EXPECT_EQ(tql_sim_now(), 0.0);
}

volatile sig_atomic_t interrupts_seen = 0;

// Each listed time (from sim.conf, TQL_SIM_INTERRUPT, which wins, or the
// control function) raises SIGINT once, at the first bus call at or after it (a
// sleep that wakes at or after it counts); bad lists are reported and ignored;
// every reset arms the times again.
TEST_F(SimBus, ScriptedCtrlCArrivesOncePerListedTime) {
    struct Restore {  // nothing is armed any more when the previous disposition returns
        std::string conf;
        struct sigaction previous;
        ~Restore() {
            WriteFile("sim.conf", conf);
            unsetenv("TQL_SIM_INTERRUPT");
            tql_sim_reset();
            sigaction(SIGINT, &previous, nullptr);
        }
    } restore{ReadFile("sim.conf"), {}};
    struct sigaction count {};
    count.sa_handler = [](int) { interrupts_seen = interrupts_seen + 1; };
    sigaction(SIGINT, &count, &restore.previous);
    for (double bad : {-0.1, std::nan(""), HUGE_VAL}) EXPECT_EQ(tql_sim_set_interrupt_at(bad), -1);
    struct Row {
        const char *conf, *env;  // interrupt_at and TQL_SIM_INTERRUPT, null = absent
        std::vector<double> armed, expected;
        bool reported;
    } rows[] = {{nullptr, nullptr, {}, {}, false},           {"0.5, 1", nullptr, {}, {0.5, 1.0}, false},
                {"0.5, 1", "0.2 0.6", {}, {0.2, 0.6}, false}, {"0.5", "none", {}, {}, false},
                {nullptr, "0.3", {0.9, 0.3}, {0.3, 0.3, 0.9}, false}, {nullptr, "0.5, soon", {0.7}, {0.7}, true},
                {"-1", nullptr, {}, {}, true}};
    for (const Row& row : rows) {
        WriteFile("sim.conf", restore.conf + (row.conf ? std::string("interrupt_at = ") + row.conf + "\n" : ""));
        row.env ? setenv("TQL_SIM_INTERRUPT", row.env, 1) : unsetenv("TQL_SIM_INTERRUPT");
        for (int pass = 0; pass < 2; ++pass) {
            SCOPED_TRACE(testing::Message() << (row.conf ? row.conf : "-") << " / " << (row.env ? row.env : "-"));
            const std::string err = tqltest::Stderr([] { ResetWith("TQL_SIM_CLOCK", "virtual"); });
            EXPECT_EQ(err.find("INTERRUPT") != err.npos || err.find("interrupt_at") != err.npos, row.reported);
            for (double t : row.armed) ASSERT_EQ(tql_sim_set_interrupt_at(t), 0);
            interrupts_seen = 0;
            std::vector<double> steps, arrivals;  // bus times of the calls, and of each signal
            for (int k = 0; k < 300; ++k) {  // a getter, a request or an event round every 4 ms
                const int before = interrupts_seen;
                tql_sim_sleep(0.004);  // delivers, on waking, what fell due while asleep
                if (k % 3 == 0) Ctl()->getPosition(1, true);
                if (k % 3 == 1) Ctl()->requestCVPValue(2);
                if (k % 3 == 2) Ctl()->processEvents();
                const int raised = interrupts_seen - before;
                steps.push_back(tql_sim_now());
                arrivals.insert(arrivals.end(), raised, steps.back());
            }
            std::vector<double> want;  // the first call at or after each listed time
            for (double t : row.expected) want.push_back(*std::lower_bound(steps.begin(), steps.end(), t));
            EXPECT_EQ(arrivals, want);
            EXPECT_EQ(interrupts_seen, static_cast<int>(arrivals.size())) << "none late, at the clock calls";
        }
    }
}

}  // namespace

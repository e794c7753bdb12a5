// Program runners on the simulated arm, in virtual time: blend lengths, plain
// and blended streaming, refusals, stop handling, continuous runs, stepping.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <iostream>
#include <list>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "execute.h"
#include "path_list.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

constexpr double kDeg = 0.017453292222222222;
constexpr int kJoints = 6;
using Command = std::array<double, kJoints>;  // actuator revolutions, ids 1..6
using Runner = int (*)(Robot*, InterpolationData*, int);

// The runners sleep once after every command they send, so the sleep hook
// sees each command as it was sent.
struct Spy {
    bool recording = false;
    std::vector<Command> commands;
    long ticks = 0, hold_at = -1;          // 4 ms sleeps; block at this one...
    std::atomic<bool>* release = nullptr;  // ...until this is set
    long pauses = 0, stop_at_pause = 0;    // sleeps of 0.5 s or more; stop in this one
};
Spy spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-9) {
        if (spy.recording) {
            Command c;
            for (int id = 1; id <= kJoints; ++id) c[id - 1] = tql_sim_last_setpoint(id);
            spy.commands.push_back(c);
        }
        if (++spy.ticks == spy.hold_at)
            while (!spy.release->load()) std::this_thread::yield();
    } else if (seconds >= 0.5 - 1e-9 && ++spy.pauses == spy.stop_at_pause) {
        SetStopFlag();
    }
    tql_sim_sleep(seconds);
}

class Runners : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        spy = Spy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&SpySleep));
        robot_ = GetCurrentRobot();
        SetReplayOverride(1.0);
        ASSERT_EQ(SetSpeedOverride(), 0);
        table_.reset(new InterpolationData[kInterpolationTableSize]);
    }
    void TearDown() override {
        SetOperationCycleMode(CYCLE);
        SetSmoothReplay(false);
        SetReplayOverride(1.0);
        InitSpeedOverride();
        SimulatedArmTest::TearDown();
    }
    // Converts the lines into the table from the arm's present joints.
    int Load(const std::vector<std::string>& lines) {
        std::list<InstructionUnit> list = tqltest::DecodeLines(lines);
        double current[kMaxJointNum] = {};
        robot_->GetCurrentMachineJoint(current);
        int count = 0;
        EXPECT_GE(InstructionDataToMoveData(&list, table_.get(), current, robot_, &count), 0);
        return count;
    }

    // Runs the table; the commands go to spy.commands, the printed text to out_.
    int Run(Runner runner, int count) {
        spy.commands.clear();
        spy.recording = true;
        testing::internal::CaptureStdout();
        const int r = runner(robot_, table_.get(), count);
        out_ = testing::internal::GetCapturedStdout();
        spy.recording = false;
        return r;
    }
    // On a fresh arm: `approach` run plainly, then `lines` with `runner`.
    std::vector<Command> FreshRun(Runner runner, const std::vector<std::string>& approach,
                                  const std::vector<std::string>& lines) {
        TearDown();
        SetUp();
        if (!approach.empty()) {
            EXPECT_EQ(Run(&MovePathList, Load(approach)), 0);
        }
        const int n = Load(lines);
        EXPECT_EQ(Run(runner, n), 0) << out_;
        ExpectAtJoints(table_[n - 1].target_position, 1e-6);
        return spy.commands;
    }
    void ExpectAtJoints(const double* q_rad, double tol_rad) {
        double now[kMaxJointNum];
        robot_->GetCurrentMachineJoint(now);
        for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], q_rad[j], tol_rad) << "joint " << j + 1;
    }

    Robot* robot_ = nullptr;
    std::unique_ptr<InterpolationData[]> table_;
    std::string out_;
};

// Largest ratio of a joint's commanded speed to its limit on the demo arm
// (90 deg/s for joints 1-3, 120 deg/s for 4-6; gear ratio 36 everywhere).
double PeakSpeedRatio(const std::vector<Command>& sent) {
    double peak = 0.0;
    for (size_t k = 1; k < sent.size(); ++k)
        for (int j = 0; j < kJoints; ++j)
            peak = std::max(peak, std::fabs(sent[k][j] - sent[k - 1][j]) / 36.0 * 6.2831852 / PERIOD /
                                      ((j < 3 ? 90 : 120) * kDeg));
    return peak;
}

const std::vector<std::string> kTwoJointMoves = {
    "MOVJ VJ=100 z5 0,20,60,10,-90,0",  // long move from zero: long deceleration
    "MOVJ VJ=100 z5 5,22,62,12,-88,3",  // short move: short acceleration
};
const std::vector<std::string> kApproach = {"MOVJ VJ=100 z5 0,20,60,10,-90,0"};

}  // namespace

TEST_F(Runners, BlendIsTheShorterOfTheMeetingPhases) {
    std::mt19937 rng(77);
    std::uniform_real_distribution<double> around(-15.0, 15.0);
    std::uniform_int_distribution<int> pct(20, 100);
    for (int trial = 0; trial < 5; ++trial) {
        std::vector<std::string> lines;
        for (int i = 0; i < 8; ++i) {
            std::ostringstream s;
            s << "MOVJ VJ=" << pct(rng) << " z5 " << around(rng) << "," << 20 + around(rng) << ","
              << 60 + around(rng) << "," << 10 + around(rng) << "," << -90 + around(rng) << "," << around(rng);
            lines.push_back(s.str());
        }
        lines.push_back("MOVL V=120 z5 0,25,75,-10,-90,0");
        lines.push_back("MOVL V=60 z5 0,20,60,10,-90,0");
        const int n = Load(lines);
        ASSERT_EQ(n, 10);
        // Each move prepared on its own.
        std::vector<double> acc(n), dec(n), total(n);
        for (int i = 0; i < n; ++i) {
            std::unique_ptr<InterpolationData> alone(new InterpolationData(table_[i]));
            ASSERT_EQ(alone->MovePreProcess(robot_), 0);
            acc[i] = alone->acc_time;
            dec[i] = alone->dec_time;
            total[i] = alone->total_time;
        }
        ASSERT_EQ(PathListPreprocess(robot_, table_.get(), n), 0);
        EXPECT_EQ(table_[0].acc_time, 0.0);
        EXPECT_EQ(table_[n - 1].dec_time, 0.0);
        for (int i = 0; i < n; ++i) EXPECT_EQ(table_[i].total_time, total[i]);
        for (int i = 1; i < n; ++i) {
            EXPECT_EQ(table_[i - 1].dec_time, std::min(dec[i - 1], acc[i])) << i;
            EXPECT_EQ(table_[i].acc_time, std::min(dec[i - 1], acc[i])) << i;
        }
    }
}

// Blending shortens a run by the blend lengths and leaves the commands before
// the first junction as they were: a single move is sent alike either way.
TEST_F(Runners, BlendedRunOverlapsMovesByTheBlendLength) {
    const struct {
        std::vector<std::string> approach, moves;
        double tol;  // revolutions
    } cases[] = {{{}, kTwoJointMoves, 0.0},
                 {{}, {"MOVJ VJ=40 z5 10,20,60,10,-90,0"}, 0.0},
                 {kApproach, {"MOVL V=150 z5 0,25,75,-10,-90,0"}, 1e-9}};
    for (const auto& c : cases) {
        const std::vector<Command> plain = FreshRun(&MovePathList, c.approach, c.moves);
        const int n = static_cast<int>(c.moves.size());
        long ticks = 0, blend = 0, first = std::lround(table_[0].total_time / PERIOD);
        for (int i = 0; i < n; ++i) ticks += std::lround(table_[i].total_time / PERIOD);
        for (int i = 1; i < n; ++i) blend += std::lround(table_[i].acc_time / PERIOD);
        EXPECT_EQ(n > 1, blend > 0);
        const std::vector<Command> smooth = FreshRun(&MovePathListSmooth, c.approach, c.moves);
        ASSERT_EQ(static_cast<long>(plain.size()), ticks);
        ASSERT_EQ(static_cast<long>(smooth.size()), ticks - blend);
        for (long k = 0; k < first - blend; ++k)
            for (int j = 0; j < kJoints; ++j) ASSERT_NEAR(plain[k][j], smooth[k][j], c.tol) << k;
        // The superposed moves stay within the joint speed limits.
        EXPECT_LE(PeakSpeedRatio(smooth), 1.0001);
        EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
    }
}

TEST_F(Runners, EmptyTableSucceedsAndUnpreparableMovesAreRefusedBeforeMotion) {
    EXPECT_EQ(PathListPreprocess(robot_, table_.get(), 0), 0);
    SetOperationCycleMode(CONTINUOUS);  // must not cycle for ever
    for (Runner runner : {&MovePathList, &MovePathListSmooth, &ReplayParametersConfiguration})
        EXPECT_EQ(Run(runner, 0), 0);
    // Arc middle equal to its start; a middle not between start and end.
    for (const char* arc : {"MOVC V=100 z5 0,20,60,10,-90,0,-40,20,60,10,-90,0",
                            "MOVC V=100 z5 -40,20,60,10,-90,0,-20,20,60,10,-90,0"})
        for (Runner runner : {&MovePathList, &MovePathListSmooth}) {
            ASSERT_EQ(Load({kApproach[0], arc}), 2);
            EXPECT_EQ(Run(runner, 2), -1);
            EXPECT_NE(out_.find("Line 2 move preparation failed !\n"), std::string::npos) << out_;
        }
    EXPECT_EQ(tql_sim_setpoint_count(1), 0);
    // The same arc with its middle in between runs.
    FreshRun(&MovePathListSmooth, {}, {kApproach[0], "MOVC V=100 z5 -20,20,60,10,-90,0,-40,20,60,10,-90,0"});
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, StopFromAnotherThreadEndsTheRunBeforeTheNextCommand) {
    for (Runner runner : {&MovePathList, &MovePathListSmooth}) {
        ASSERT_EQ(Load(kTwoJointMoves), 2);
        std::atomic<bool> stopped{false};
        spy.ticks = 0;
        spy.hold_at = 60;
        spy.release = &stopped;
        const long before = tql_sim_setpoint_count(1);
        std::thread other([&] {
            while (tql_sim_setpoint_count(1) < before + 60) std::this_thread::yield();
            SetStopFlag();
            stopped.store(true);
        });
        EXPECT_EQ(Run(runner, 2), -1);
        other.join();
        EXPECT_EQ(spy.commands.size(), 60u);
        EXPECT_EQ(tql_sim_setpoint_count(1), before + 60);
        spy.hold_at = -1;
    }
}

// Cycles restart from the program's end; a stop during the pause between
// two cycles is not lost.
TEST_F(Runners, ContinuousRunsUntilStoppedEvenDuringThePause) {
    ASSERT_EQ(Run(&MovePathList, Load(kTwoJointMoves)), 0);
    SetOperationCycleMode(CONTINUOUS);
    SetSmoothReplay(true);
    spy.pauses = 0;
    spy.stop_at_pause = 3;
    EXPECT_EQ(Run(&ReplayParametersConfiguration, 2), -1);
    EXPECT_EQ(tqltest::CountOf(out_, "Cycle count : "), 3) << out_;
    EXPECT_NE(out_.find("Cycle count : 3\n"), std::string::npos);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, StepWalksForwardAndBackwardWithTheOverrideAppliedOnce) {
    SetReplayOverride(0.5);
    ASSERT_EQ(SetSpeedOverride(), 0);
    const int n = Load({kApproach[0], "MOVL V=100 z5 0,25,75,-10,-90,0",
                        "MOVC V=100 z5 -20,25,75,-10,-90,0,-40,25,75,-10,-90,0"});
    ASSERT_EQ(n, 3);
    const double full_speed = table_[0].joint_acc_dec[0].speed;
    std::istringstream in("FORWARD FORWARD FORWARD FORWARD BACKWARD BACKWARD BACKWARD quit");
    std::streambuf* old = std::cin.rdbuf(in.rdbuf());
    const int r = Run(&ReplayPathStep, n);
    std::cin.rdbuf(old);
    std::cin.clear();
    EXPECT_EQ(r, -1);
    std::string expected;
    for (const char* step : {"Current line number = 1", "Current line number = 2", "Current line number = 3",
                             "Forward failure", "Current line number = 2", "Current line number = 1",
                             "Backward failure", "Program exit!"})
        expected += std::string("FORWARD or BACKWARD ") + step + "\n";
    EXPECT_EQ(out_, expected);
    ExpectAtJoints(table_[0].target_position, 1e-6);
    EXPECT_EQ(table_[0].joint_acc_dec[0].speed, 0.5 * full_speed);
    const double peak = PeakSpeedRatio(spy.commands);
    EXPECT_LE(peak, 0.5001);
    EXPECT_GT(peak, 0.25);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

// The flight recorder's view of the demo program, plain and blended: no
// set-point beyond any actuator's limits, no refusal printed, home again.
TEST_F(Runners, DemoProgramRunsWithinEveryLimit) {
    const Runner demo = [](Robot* r, InterpolationData*, int) { return ExecuteFileInstruction(r, "file/data.txt"); };
    for (bool smooth : {false, true}) {
        SetSmoothReplay(smooth);
        EXPECT_EQ(Run(demo, 0), 0);
        EXPECT_EQ(out_, "");
        EXPECT_GT(spy.commands.size(), 1000u);
        EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
        const double home[kMaxJointNum] = {};
        ExpectAtJoints(home, 1e-9);
    }
}

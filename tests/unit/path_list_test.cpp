// Program runners on the simulated arm, in virtual time: blend lengths, plain
// and blended streaming, refusals, stop handling, continuous runs, stepping.
#include <gtest/gtest.h>

#include <cmath>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "execute.h"
#include "path_list.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

using Runner = int (*)(Robot*, InterpolationData*, int);
using tqltest::tick_spy;

class Runners : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        tick_spy = tqltest::TickSpy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&tqltest::TickSleep));
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
    // Runs the table; the commands go to tick_spy.commands, the printed text to out_.
    int Run(Runner runner, int count) {
        tick_spy.sent.clear();
        tick_spy.commands.clear();
        return tqltest::Quiet([&] { return runner(robot_, table_.get(), count); }, &out_);
    }
    // On a fresh arm: `approach` run plainly, then `lines` with `runner`.
    std::vector<tqltest::Joints> FreshRun(Runner runner, const std::vector<std::string>& approach,
                                          const std::vector<std::string>& lines) {
        TearDown();
        SetUp();
        EXPECT_TRUE(approach.empty() || Run(&MovePathList, Load(approach)) == 0);
        const int n = Load(lines);
        EXPECT_EQ(Run(runner, n), 0) << out_;
        ExpectAtJoints(table_[n - 1].target_position);
        return tick_spy.commands;
    }
    void ExpectAtJoints(const double* q) {
        for (int j = 0; j < 6; ++j) EXPECT_NEAR(tqltest::CurrentJoints()[j], q[j], 1e-6) << "joint " << j + 1;
    }

    Robot* robot_ = nullptr;
    std::unique_ptr<InterpolationData[]> table_;
    std::string out_;
};

// Largest ratio of a joint's commanded speed to its limit on the demo arm
// (90 deg/s for joints 1-3, 120 deg/s for 4-6; gear ratio 36 everywhere).
double PeakSpeedRatio(const std::vector<tqltest::Joints>& sent) {
    double peak = 0.0;
    for (size_t k = 1; k < sent.size(); ++k)
        for (int j = 0; j < 6; ++j)
            peak = std::max(peak, std::fabs(sent[k][j] - sent[k - 1][j]) / 36.0 * 6.2831852 / PERIOD /
                                      ((j < 3 ? 90 : 120) * tqltest::kDeg));
    return peak;
}

const std::vector<std::string> kTwoJointMoves = {
    "MOVJ VJ=100 z5 0,20,60,10,-90,0",  // long move from zero: long deceleration
    "MOVJ VJ=100 z5 5,22,62,12,-88,3",  // short move: short acceleration
};
const std::string kApproach = kTwoJointMoves[0];

}  // namespace

// Every junction blends over the shorter of the two meeting phases, each move
// planned on its own; the program's ends are not blended.
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
        std::vector<InterpolationData> alone(table_.get(), table_.get() + n);
        for (InterpolationData& move : alone) ASSERT_EQ(move.MovePreProcess(robot_), 0);
        ASSERT_EQ(PathListPreprocess(robot_, table_.get(), n), 0);
        EXPECT_EQ(table_[0].acc_time, 0.0);
        EXPECT_EQ(table_[n - 1].dec_time, 0.0);
        for (int i = 0; i < n; ++i) EXPECT_EQ(table_[i].total_time, alone[i].total_time);
        for (int i = 1; i < n; ++i) {
            const double blend = std::min(alone[i - 1].dec_time, alone[i].acc_time);
            EXPECT_EQ(table_[i - 1].dec_time, blend) << i;
            EXPECT_EQ(table_[i].acc_time, blend) << i;
        }
    }
}

// Blending shortens a run by the blend lengths and leaves the commands before
// the first junction as they were: a single move is sent alike either way.
// The superposed moves stay within the joint speed limits (and, as in every
// test here, the fixture's TearDown finds no set-point beyond the limits).
TEST_F(Runners, BlendedRunOverlapsMovesByTheBlendLength) {
    const struct { std::vector<std::string> approach, moves; double tol; } cases[] = {  // revolutions
        {{}, kTwoJointMoves, 0.0},
        {{}, {"MOVJ VJ=40 z5 10,20,60,10,-90,0"}, 0.0},
        {{kApproach}, {"MOVL V=150 z5 0,25,75,-10,-90,0"}, 1e-9}};
    for (const auto& c : cases) {
        const std::vector<tqltest::Joints> plain = FreshRun(&MovePathList, c.approach, c.moves);
        const int n = static_cast<int>(c.moves.size());
        long ticks = 0, blend = 0, first = std::lround(table_[0].total_time / PERIOD);
        for (int i = 0; i < n; ++i) ticks += std::lround(table_[i].total_time / PERIOD);
        for (int i = 1; i < n; ++i) blend += std::lround(table_[i].acc_time / PERIOD);
        EXPECT_EQ(n > 1, blend > 0);
        const std::vector<tqltest::Joints> smooth = FreshRun(&MovePathListSmooth, c.approach, c.moves);
        ASSERT_EQ(static_cast<long>(plain.size()), ticks);
        ASSERT_EQ(static_cast<long>(smooth.size()), ticks - blend);
        for (long k = 0; k < first - blend; ++k)
            for (int j = 0; j < 6; ++j) ASSERT_NEAR(plain[k][j], smooth[k][j], c.tol) << k;
        EXPECT_LE(PeakSpeedRatio(smooth), 1.0001);
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
            ASSERT_EQ(Load({kApproach, arc}), 2);
            EXPECT_EQ(Run(runner, 2), -1);
            EXPECT_NE(out_.find("Line 2 move preparation failed !\n"), std::string::npos) << out_;
        }
    EXPECT_EQ(tql_sim_setpoint_count(1), 0);
    // The same arc with its middle in between runs.
    FreshRun(&MovePathListSmooth, {}, {kApproach, "MOVC V=100 z5 -20,20,60,10,-90,0,-40,20,60,10,-90,0"});
}

// A stop from another thread ends the run before the next command; a stop
// during the pause between two continuous cycles is not lost either.
TEST_F(Runners, StopEndsPlainBlendedAndContinuousRuns) {
    for (Runner runner : {&MovePathList, &MovePathListSmooth}) {
        ASSERT_EQ(Load(kTwoJointMoves), 2);
        tick_spy.stop_at = 60;
        const long before = tql_sim_setpoint_count(1);
        EXPECT_EQ(Run(runner, 2), -1);
        EXPECT_EQ(tick_spy.commands.size(), 60u);
        EXPECT_EQ(tql_sim_setpoint_count(1), before + 60);
    }
    // Cycles restart from the program's end.
    tick_spy.stop_at = -1;
    ASSERT_EQ(Run(&MovePathList, Load(kTwoJointMoves)), 0);
    SetOperationCycleMode(CONTINUOUS);
    SetSmoothReplay(true);
    tick_spy.stop_at_pause = tick_spy.pauses + 3;
    EXPECT_EQ(Run(&ReplayParametersConfiguration, 2), -1);
    EXPECT_EQ(tqltest::CountOf(out_, "Cycle count : "), 3) << out_;
    EXPECT_NE(out_.find("Cycle count : 3\n"), std::string::npos);
}

TEST_F(Runners, StepWalksForwardAndBackwardWithTheOverrideAppliedOnce) {
    SetReplayOverride(0.5);
    ASSERT_EQ(SetSpeedOverride(), 0);
    const int n = Load({kApproach, "MOVL V=100 z5 0,25,75,-10,-90,0",
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
    ExpectAtJoints(table_[0].target_position);
    EXPECT_EQ(table_[0].joint_acc_dec[0].speed, 0.5 * full_speed);
    const double peak = PeakSpeedRatio(tick_spy.commands);
    EXPECT_TRUE(peak > 0.25 && peak <= 0.5001) << peak;
}

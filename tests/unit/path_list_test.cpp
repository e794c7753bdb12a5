// Program runners on the simulated arm, in virtual time: blend lengths, plain
// and blended streaming, refusals, stop handling, continuous runs, stepping.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "database.h"
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
        if (described_timing_) GetResourceDate()->cartesian_scaling_switch = false;
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
    int Load(const std::vector<std::string>& lines) { return tqltest::LoadProgram(lines, table_.get()); }
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
    bool described_timing_ = false;  // the scaling switch (row 8) off whatever the database says
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

// Largest ratio, over the joints, of speed, acceleration and jerk to the
// joint's own limits, by finite differences of the set-points sent after
// `start`, the arm at rest before and after.
double WorstLimitRatio(const tqltest::Joints& start, const std::vector<tqltest::Joints>& sent) {
    std::vector<tqltest::Joints> q(3, start);
    q.insert(q.end(), sent.begin(), sent.end());
    q.insert(q.end(), 3, q.back());
    double worst = 0.0;
    for (size_t k = 3; k < q.size(); ++k)
        for (int j = 0; j < 6; ++j) {
            const AccDecDate& limit = GetCurrentRobot()->link_[j].joint_speed_data_;
            const double d1 = q[k][j] - q[k - 1][j], d2 = d1 - (q[k - 1][j] - q[k - 2][j]);
            const double d3 = d2 - (q[k - 1][j] - 2 * q[k - 2][j] + q[k - 3][j]);
            worst = std::max({worst, std::fabs(d1) / PERIOD / limit.speed,
                              std::fabs(d2) / (PERIOD * PERIOD) / limit.acceleration,
                              std::fabs(d3) / (PERIOD * PERIOD * PERIOD) / limit.jerk});
        }
    return worst;
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
    described_timing_ = true;
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

// With braking off, a stop from another thread ends the run before the next
// command; a stop during the pause between two continuous cycles is not lost
// either.
TEST_F(Runners, StopEndsPlainBlendedAndContinuousRuns) {
    GetResourceDate()->braking_switch = false;
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

// Seeded programs of joint moves, lines and arcs around the demo's working
// pose (some with a TIMER), plain and blended, run from the same pose with the
// scaling switch (row 8) off and on. On, the set-points sent (the TIMER's rest
// periods among them) keep every joint within its speed, acceleration and jerk
// limits, across the moves' junctions and blends; a run within the limits off
// is sent bit for bit the same on; a slowed run ends at the same target.
TEST_F(Runners, ScalingKeepsProgramRunsWithinTheJointLimits) {
    std::mt19937 rng(41);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    int slowed = 0, untouched = 0, kept = 0;
    for (int trial = 0; trial < 12; ++trial) {
        const double pose[6] = {0, 20, 60, 10, -90, 0}, spread[6] = {25, 8, 12, 25, 25, 25};  // degrees
        std::vector<std::string> lines = {kApproach};
        std::vector<double> from(pose, pose + 6);  // where the last move ends
        auto text = [](const std::vector<double>& q) {
            std::ostringstream p;
            for (size_t j = 0; j < q.size(); ++j) p << (j ? "," : "") << q[j];
            return p.str();
        };
        for (int i = 0; i < 5; ++i) {
            // Every fourth program (plain) of joint moves only: within the limits.
            const int kind = trial % 4 == 0 ? 0 : static_cast<int>(3 * (u(rng) + 1) / 2);
            const int speed = static_cast<int>((trial % 3 ? 150 : 40) + (trial % 3 ? 100 : 20) * u(rng));
            std::vector<double> to(6), mid(6);
            for (int j = 0; j < 6; ++j) {
                to[j] = pose[j] + spread[j] * u(rng);
                mid[j] = (from[j] + to[j]) / 2 + 3 * u(rng);
            }
            if (kind == 0) lines.push_back("MOVJ VJ=" + std::to_string(speed / 3) + " z5 " + text(to));
            if (kind == 1) lines.push_back("MOVL V=" + std::to_string(speed) + " z5 " + text(to));
            if (kind == 2) lines.push_back("MOVC V=" + std::to_string(speed) + " z5 " + text(mid) + "," + text(to));
            if (i == 2 && trial % 3 == 0) lines.push_back("TIMER T=40");
            from = to;
        }
        const Runner runner = trial % 2 ? &MovePathListSmooth : &MovePathList;
        int result[2];
        std::vector<tqltest::Joints> sent[2];
        for (int on = 0; on < 2; ++on) {
            TearDown();
            SetUp();
            GetResourceDate()->cartesian_scaling_switch = on == 1;
            result[on] = Run(runner, Load(lines));
            sent[on] = tick_spy.sent;
        }
        SCOPED_TRACE("trial " + std::to_string(trial) + "\n" + ::testing::PrintToString(lines));
        ASSERT_EQ(result[1], result[0]) << out_;
        if (result[1] < 0) {
            EXPECT_TRUE(sent[1].empty() && sent[0].empty());
            continue;
        }
        for (int j = 0; j < 6; ++j) EXPECT_NEAR(sent[1].back()[j], sent[0].back()[j], 1e-6);
        if (out_.find("no slow-down up to 100 times") != std::string::npos) {
            // A step in the joints' stream (the inverse kinematics' own
            // error where a line or an arc starts) that no slow-down removes:
            // the run keeps its programmed timing.
            EXPECT_EQ(sent[1], sent[0]);
            ++kept;
            continue;
        }
        EXPECT_LE(WorstLimitRatio(tqltest::Joints(), sent[1]), 1 + 1e-6);
        if (WorstLimitRatio(tqltest::Joints(), sent[0]) <= 1.0) {
            EXPECT_EQ(sent[1], sent[0]);
            ++untouched;
        } else {
            EXPECT_GT(sent[1].size(), sent[0].size());
            ++slowed;
        }
    }
    EXPECT_GE(slowed, 6);
    EXPECT_GE(untouched, 2);
    EXPECT_LE(kept, 2);
}

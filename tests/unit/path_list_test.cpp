// Program runners on the simulated arm, in virtual time: preparation and
// blend lengths, plain and blended streaming, stop handling, stepping.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <list>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

namespace {

constexpr double kDeg = 0.017453292222222222;
constexpr int kJoints = 6;

using Command = std::array<double, kJoints>;  // actuator revolutions, ids 1..6

// The runners sleep once after every command they send, so a sleep hook sees
// each command as it was sent.
struct Spy {
    bool recording = false;
    std::vector<Command> commands;
    long stop_after = -1;           // set the stop flag after this many 4 ms sleeps
    long pause_stop = 0;            // set the stop flag during the n-th long pause
    long pauses = 0;
    long ticks = 0;
    std::atomic<bool>* wait_for = nullptr;  // block at stop_after until set
};
Spy spy;

void SpySleep(double seconds) {
    if (std::fabs(seconds - PERIOD) < 1e-9) {
        ++spy.ticks;
        if (spy.recording) {
            Command c;
            for (int id = 1; id <= kJoints; ++id) c[id - 1] = tql_sim_last_setpoint(id);
            spy.commands.push_back(c);
        }
        if (spy.stop_after >= 0 && spy.ticks == spy.stop_after) {
            if (spy.wait_for != nullptr) {
                while (!spy.wait_for->load()) std::this_thread::yield();
            } else {
                SetStopFlag();
            }
        }
    } else if (seconds >= 0.5 - 1e-9) {
        ++spy.pauses;
        if (spy.pause_stop > 0 && spy.pauses == spy.pause_stop) SetStopFlag();
    }
    tql_sim_sleep(seconds);
}

class Runners : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::make_unique<tqltest::ScratchDir>();
        spy = Spy();
        std::string out;
        ASSERT_EQ(tqltest::BootSimulatedArm(&SpySleep, &out), 0) << out;
        robot_ = GetCurrentRobot();
        ASSERT_EQ(robot_->GetRobotJointNum(), kJoints);
        SetReplayOverride(1.0);
        ASSERT_EQ(SetSpeedOverride(), 0);
        table_.reset(new InterpolationData[kInterpolationTableSize]);
    }

    void TearDown() override {
        tqltest::RestoreRealTime();
        SetOperationCycleMode(CYCLE);
        SetSmoothReplay(false);
        SetReplayOverride(1.0);
        InitSpeedOverride();
        dir_.reset();
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

    // Runs a table with the spy recording; returns the runner's result.
    int Run(int (*runner)(Robot*, InterpolationData*, int), int count, std::vector<Command>* sent,
            std::string* out = nullptr) {
        spy.commands.clear();
        spy.recording = true;
        testing::internal::CaptureStdout();
        const int r = runner(robot_, table_.get(), count);
        const std::string printed = testing::internal::GetCapturedStdout();
        spy.recording = false;
        if (out != nullptr) *out = printed;
        if (sent != nullptr) *sent = spy.commands;
        return r;
    }

    void ExpectAtJoints(const double* q_rad, double tol_rad) {
        double now[kMaxJointNum];
        robot_->GetCurrentMachineJoint(now);
        for (int j = 0; j < kJoints; ++j) EXPECT_NEAR(now[j], q_rad[j], tol_rad) << "joint " << j + 1;
    }

    std::unique_ptr<tqltest::ScratchDir> dir_;
    Robot* robot_ = nullptr;
    std::unique_ptr<InterpolationData[]> table_;
};

// Largest ratio of a joint's commanded speed to the given per-joint speeds
// (commands in actuator revolutions, ratio 36 on every joint of the demo arm).
double PeakSpeedRatio(const std::vector<Command>& sent, const double* limit_rad_s) {
    double peak = 0.0;
    for (size_t k = 1; k < sent.size(); ++k)
        for (int j = 0; j < kJoints; ++j) {
            const double speed = std::fabs(sent[k][j] - sent[k - 1][j]) / 36.0 * 6.2831852 / PERIOD;
            peak = std::max(peak, speed / limit_rad_s[j]);
        }
    return peak;
}

// The demo arm's joint speed limits, rad/s.
const double kJointLimits[kJoints] = {90 * kDeg, 90 * kDeg, 90 * kDeg, 120 * kDeg, 120 * kDeg, 120 * kDeg};
const double kHalfJointLimits[kJoints] = {45 * kDeg, 45 * kDeg, 45 * kDeg, 60 * kDeg, 60 * kDeg, 60 * kDeg};

const std::vector<std::string> kTwoJointMoves = {
    "MOVJ VJ=100 z5 0,20,60,10,-90,0",   // long move from zero: long deceleration
    "MOVJ VJ=100 z5 5,22,62,12,-88,3",   // short move: short acceleration
};

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

        // Each move prepared on its own, with the start the run will use.
        robot_->GetCurrentMachineJoint(table_[0].start_position);
        std::vector<double> acc(n), dec(n), total(n);
        for (int i = 0; i < n; ++i) {
            std::unique_ptr<InterpolationData> alone(new InterpolationData(table_[i]));
            ASSERT_EQ(alone->MovePreProcess(robot_), 0);
            acc[i] = alone->acc_time;
            dec[i] = alone->dec_time;
            total[i] = alone->total_time;
            ASSERT_GT(total[i], 0.0);
        }
        ASSERT_EQ(PathListPreprocess(robot_, table_.get(), n), 0);
        EXPECT_EQ(table_[0].acc_time, 0.0);
        EXPECT_EQ(table_[n - 1].dec_time, 0.0);
        for (int i = 0; i < n; ++i) EXPECT_EQ(table_[i].total_time, total[i]);
        for (int i = 1; i < n; ++i) {
            const double blend = std::min(dec[i - 1], acc[i]);
            EXPECT_EQ(table_[i - 1].dec_time, blend) << i;
            EXPECT_EQ(table_[i].acc_time, blend) << i;
        }
    }
}

TEST_F(Runners, BlendedRunOverlapsMovesByTheBlendLength) {
    const int n = Load(kTwoJointMoves);
    ASSERT_EQ(n, 2);
    std::vector<Command> plain;
    ASSERT_EQ(Run(&MovePathList, n, &plain), 0);
    const int n1 = static_cast<int>(std::lround(table_[0].total_time / PERIOD));
    const int n2 = static_cast<int>(std::lround(table_[1].total_time / PERIOD));
    const int blend = static_cast<int>(std::lround(table_[1].acc_time / PERIOD));
    ASSERT_GT(blend, 0);
    EXPECT_EQ(static_cast<int>(plain.size()), n1 + n2);
    ExpectAtJoints(table_[1].target_position, 1e-9);

    // Back to the start in a fresh scratch state, then blended.
    TearDown();
    SetUp();
    ASSERT_EQ(Load(kTwoJointMoves), 2);
    std::vector<Command> smooth;
    ASSERT_EQ(Run(&MovePathListSmooth, n, &smooth), 0);
    EXPECT_EQ(static_cast<int>(smooth.size()), n1 + n2 - blend);
    ExpectAtJoints(table_[1].target_position, 1e-9);

    // The first move's commands before the junction are identical.
    const int before = n1 - blend;
    for (int k = 0; k < before; ++k)
        for (int j = 0; j < kJoints; ++j) ASSERT_EQ(smooth[k][j], plain[k][j]) << k;
    // Superposing a decelerating and an accelerating move stays within the
    // joint speed limits (90..120 deg/s).
    EXPECT_LE(PeakSpeedRatio(smooth, kJointLimits), 1.0001);
    EXPECT_LE(PeakSpeedRatio(plain, kJointLimits), 1.0001);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, SingleMoveSendsTheSameCommandsBlendedOrNot) {
    const std::vector<std::vector<std::string>> programs = {
        {"MOVJ VJ=40 z5 10,20,60,10,-90,0"},
    };
    for (const auto& lines : programs) {
        ASSERT_EQ(Load(lines), 1);
        std::vector<Command> plain;
        ASSERT_EQ(Run(&MovePathList, 1, &plain), 0);
        TearDown();
        SetUp();
        ASSERT_EQ(Load(lines), 1);
        std::vector<Command> smooth;
        ASSERT_EQ(Run(&MovePathListSmooth, 1, &smooth), 0);
        ASSERT_EQ(plain.size(), smooth.size());
        ASSERT_FALSE(plain.empty());
        for (size_t k = 0; k < plain.size(); ++k)
            for (int j = 0; j < kJoints; ++j) ASSERT_EQ(plain[k][j], smooth[k][j]) << k;
    }
    // A Cartesian move alone, from a comfortable pose.
    const std::vector<std::string> approach = {"MOVJ VJ=100 z5 0,20,60,10,-90,0"};
    ASSERT_EQ(Load(approach), 1);
    ASSERT_EQ(Run(&MovePathList, 1, nullptr), 0);
    const std::vector<std::string> line = {"MOVL V=150 z5 0,25,75,-10,-90,0"};
    ASSERT_EQ(Load(line), 1);
    std::vector<Command> plain;
    ASSERT_EQ(Run(&MovePathList, 1, &plain), 0);
    ExpectAtJoints(table_[0].target_position, 1e-6);
    ASSERT_EQ(Load({"MOVJ VJ=100 z5 0,20,60,10,-90,0"}), 1);
    ASSERT_EQ(Run(&MovePathList, 1, nullptr), 0);
    ASSERT_EQ(Load(line), 1);
    std::vector<Command> smooth;
    ASSERT_EQ(Run(&MovePathListSmooth, 1, &smooth), 0);
    ASSERT_EQ(plain.size(), smooth.size());
    for (size_t k = 0; k < plain.size(); ++k)
        for (int j = 0; j < kJoints; ++j) ASSERT_NEAR(plain[k][j], smooth[k][j], 1e-9) << k;
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, EmptyTableDoesNothingAndSucceeds) {
    EXPECT_EQ(PathListPreprocess(robot_, table_.get(), 0), 0);
    std::vector<Command> sent;
    EXPECT_EQ(Run(&MovePathList, 0, &sent), 0);
    EXPECT_EQ(Run(&MovePathListSmooth, 0, &sent), 0);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(tql_sim_setpoint_count(1), 0);
}

TEST_F(Runners, MovesThatCannotBePreparedAreRefusedBeforeAnyMotion) {
    // Arc middle equal to its start, and an arc whose middle does not lie
    // between start and end (the arc would not end at the target).
    const std::vector<std::vector<std::string>> programs = {
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0", "MOVC V=100 z5 0,20,60,10,-90,0,-40,20,60,10,-90,0"},
        {"MOVJ VJ=100 z5 0,20,60,10,-90,0", "MOVC V=100 z5 -40,20,60,10,-90,0,-20,20,60,10,-90,0"},
    };
    for (const auto& lines : programs) {
        for (auto runner : {&MovePathList, &MovePathListSmooth}) {
            ASSERT_EQ(Load(lines), 2);
            std::string out;
            std::vector<Command> sent;
            EXPECT_EQ(Run(runner, 2, &sent, &out), -1);
            EXPECT_NE(out.find("Line 2 move preparation failed !\n"), std::string::npos) << out;
            EXPECT_TRUE(sent.empty());
            EXPECT_EQ(tql_sim_setpoint_count(1), 0);
        }
    }
    // The same arc with its middle in between runs.
    ASSERT_EQ(Load({"MOVJ VJ=100 z5 0,20,60,10,-90,0",
                    "MOVC V=100 z5 -20,20,60,10,-90,0,-40,20,60,10,-90,0"}),
              2);
    ASSERT_EQ(Run(&MovePathListSmooth, 2, nullptr), 0);
    ExpectAtJoints(table_[1].target_position, 1e-6);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, StopFromAnotherThreadEndsTheRunBeforeTheNextCommand) {
    for (auto runner : {&MovePathList, &MovePathListSmooth}) {
        ASSERT_EQ(Load(kTwoJointMoves), 2);
        std::atomic<bool> stopped{false};
        spy.ticks = 0;
        spy.stop_after = 60;
        spy.wait_for = &stopped;
        const long before = tql_sim_setpoint_count(1);
        std::thread other([&] {
            while (tql_sim_setpoint_count(1) < before + 60) std::this_thread::yield();
            SetStopFlag();
            stopped.store(true);
        });
        std::vector<Command> sent;
        const int r = Run(runner, 2, &sent);
        other.join();
        EXPECT_EQ(r, -1);
        EXPECT_EQ(sent.size(), 60u);
        EXPECT_EQ(tql_sim_setpoint_count(1), before + 60);
        spy.stop_after = -1;
        spy.wait_for = nullptr;
    }
}

TEST_F(Runners, ContinuousRunsUntilStopped) {
    ASSERT_EQ(Load(kTwoJointMoves), 2);
    SetOperationCycleMode(CONTINUOUS);
    SetSmoothReplay(false);
    // From the program's end every run is the same.
    ASSERT_EQ(Run(&MovePathList, 2, nullptr), 0);
    // Stopped in the middle of the third run.
    ASSERT_EQ(PathListPreprocess(robot_, table_.get(), 2), 0);
    spy.ticks = 0;
    testing::internal::CaptureStdout();
    const double ticks_per_run = (table_[0].total_time + table_[1].total_time) / PERIOD;
    spy.stop_after = static_cast<long>(2.5 * ticks_per_run);
    const int r = ReplayParametersConfiguration(robot_, table_.get(), 2);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(r, -1);
    EXPECT_EQ(tqltest::CountOf(out, "Cycle count : "), 3) << out;
    EXPECT_NE(out.find("Cycle count : 3\n"), std::string::npos);

    // Stopped during the pause between two runs: the stop is not lost.
    SetSmoothReplay(true);
    spy.stop_after = -1;
    spy.pauses = 0;
    spy.pause_stop = 2;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReplayParametersConfiguration(robot_, table_.get(), 2), -1);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(tqltest::CountOf(out, "Cycle count : "), 2) << out;
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, StepWalksForwardAndBackward) {
    const int n = Load({"MOVJ VJ=100 z5 0,20,60,10,-90,0", "MOVL V=100 z5 0,25,75,-10,-90,0",
                        "MOVC V=100 z5 -20,25,75,-10,-90,0,-40,25,75,-10,-90,0"});
    ASSERT_EQ(n, 3);
    std::istringstream in("FORWARD FORWARD FORWARD FORWARD BACKWARD BACKWARD BACKWARD quit");
    std::streambuf* old = std::cin.rdbuf(in.rdbuf());
    std::string out;
    const int r = Run(&ReplayPathStep, n, nullptr, &out);
    std::cin.rdbuf(old);
    std::cin.clear();
    EXPECT_EQ(r, -1);
    const std::string expected =
        "FORWARD or BACKWARD Current line number = 1\n"
        "FORWARD or BACKWARD Current line number = 2\n"
        "FORWARD or BACKWARD Current line number = 3\n"
        "FORWARD or BACKWARD Forward failure\n"
        "FORWARD or BACKWARD Current line number = 2\n"
        "FORWARD or BACKWARD Current line number = 1\n"
        "FORWARD or BACKWARD Backward failure\n"
        "FORWARD or BACKWARD Program exit!\n";
    EXPECT_EQ(out, expected);
    ExpectAtJoints(table_[0].target_position, 1e-6);
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

TEST_F(Runners, StepAppliesTheOverrideOnce) {
    SetReplayOverride(0.5);
    ASSERT_EQ(SetSpeedOverride(), 0);
    ASSERT_EQ(Load({"MOVJ VJ=100 z5 0,20,60,10,-90,0"}), 1);
    const double full_speed = table_[0].joint_acc_dec[0].speed;
    std::istringstream in("FORWARD exit");
    std::streambuf* old = std::cin.rdbuf(in.rdbuf());
    std::vector<Command> sent;
    const int r = Run(&ReplayPathStep, 1, &sent);
    std::cin.rdbuf(old);
    std::cin.clear();
    EXPECT_EQ(r, -1);
    EXPECT_EQ(table_[0].joint_acc_dec[0].speed, 0.5 * full_speed);
    EXPECT_LE(PeakSpeedRatio(sent, kHalfJointLimits), 1.0001);
    EXPECT_GT(PeakSpeedRatio(sent, kHalfJointLimits), 0.5);
    ExpectAtJoints(table_[0].target_position, 1e-9);
}

TEST_F(Runners, DemoProgramsRunWithinEveryLimit) {
    for (bool smooth : {false, true}) {
        SetOperationCycleMode(CYCLE);
        SetSmoothReplay(smooth);
        spy.recording = true;
        spy.commands.clear();
        testing::internal::CaptureStdout();
        const int r = ExecuteFileInstruction(robot_, "file/data.txt");
        const std::string out = testing::internal::GetCapturedStdout();
        spy.recording = false;
        EXPECT_EQ(r, 0) << out;
        EXPECT_EQ(out, "");
        EXPECT_GT(spy.commands.size(), 1000u);
        EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
        const double home[kMaxJointNum] = {};
        ExpectAtJoints(home, 1e-9);
    }
    // The reset's test program, at half speed, plain.
    SetReplayOverride(0.5);
    ASSERT_EQ(SetSpeedOverride(), 0);
    std::list<InstructionUnit> list;
    ASSERT_EQ(DecodeInstructionFile("file/reset_test.txt", &list), 0);
    double current[kMaxJointNum] = {};
    robot_->GetCurrentMachineJoint(current);
    int count = 0;
    ASSERT_GT(InstructionDataToMoveData(&list, table_.get(), current, robot_, &count), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(MovePathList(robot_, table_.get(), count), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(tql_sim_beyond_limit_count(), 0);
}

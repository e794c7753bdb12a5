// Drag teaching in process, two threads on the simulated arm in virtual time:
// the point-teaching dialogue (answers come from a scripted operator who
// poses the arm before each answer), refusals outside drag teaching, and the
// host ending the monitoring loop. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "database.h"
#include "execute.h"
#include "interface.h"
#include "interpolation.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

using tqltest::Joints;
using tqltest::Quiet;
using tqltest::ReadFile;

// Poses of the demo program, degrees.
const Joints kA = {0, 20, 60, 10, -90, 0};
const Joints kB = {0, 25, 75, -10, -90, 0};
const Joints kC1 = {-20, 20, 60, 10, -90, 0};
const Joints kC2 = {-40, 20, 60, 10, -90, 0};
const Joints kZero = {0, 0, 0, 0, 0, 0};

// One answer typed by the operator, after putting the arm at `pose` (when set).
struct Answer {
    std::string line;
    const Joints* pose = nullptr;
};

// Puts the (kinematic) arm at q degrees and waits until the monitoring loop
// has delivered the new pose, so the readings the recorder takes are it.
void PoseArm(const Joints& q) {
    const int direction[6] = {1, 1, -1, 1, -1, 1};
    for (int j = 0; j < 6; ++j)
        tql_sim_set_position(j + 1, q[j] * tqltest::kDeg / 6.2831852 * 36.0 * direction[j]);
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (bool there = false; !there && std::chrono::steady_clock::now() < give_up;) {
        Joints read;
        GetCurrentRobot()->GetCurrentMachineJointFast(read.data());
        there = true;
        for (int j = 0; j < 6; ++j) there = there && std::fabs(read[j] - q[j] * tqltest::kDeg) < 1e-9;
        std::this_thread::yield();
    }
}

// Standard input of the dialogue: one answer per line, the arm posed when
// the recorder asks for the line.
class ScriptedOperator : public std::streambuf {
public:
    explicit ScriptedOperator(std::vector<Answer> answers) : answers_(std::move(answers)) {}

protected:
    int_type underflow() override {
        if (next_ >= answers_.size()) return traits_type::eof();
        const Answer& a = answers_[next_++];
        if (a.pose != nullptr) PoseArm(*a.pose);
        line_ = a.line + "\n";
        setg(&line_[0], &line_[0], &line_[0] + line_.size());
        return traits_type::to_int_type(line_[0]);
    }

private:
    std::vector<Answer> answers_;
    size_t next_ = 0;
    std::string line_;
};

class DragTeach : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        setenv("TQL_SIM_URDF", "none", 1);  // a kinematic arm stays where it is posed
        ASSERT_NO_FATAL_FAILURE(BootArm());
        // Posed from pose to pose, it jumps: no torque explains that, and the
        // collision monitor would rightly stop the teaching.
        GetResourceDate()->collision_switch = false;
    }
    void TearDown() override {
        std::cin.rdbuf(saved_);
        std::cin.clear();
        unsetenv("TQL_SIM_URDF");
        tqltest::SimulatedArmTest::TearDown();
    }
    // Runs the teaching dialogue ("mode3") with these answers; returns its output.
    std::string Teach(std::vector<Answer> answers) {
        ScriptedOperator op(std::move(answers));
        saved_ = std::cin.rdbuf(&op);
        SetRunningMode(kDragTeachingMode);
        SetSystemStatus(true);
        std::string out;
        EXPECT_EQ(Quiet([] { return RecordSinglePointInDragTeachMode(GetCurrentRobot(), "file/data.txt"); }, &out), 0);
        std::cin.rdbuf(saved_);
        std::cin.clear();
        return out;
    }

    std::streambuf* saved_ = std::cin.rdbuf();
};

}  // namespace

TEST_F(DragTeach, TaughtProgramIsWrittenAsTaughtAndRuns) {
    SetTerminalFlag();
    const std::string out = Teach({{"hello"},
                                   {"MOVJ", &kA},
                                   {"MOVL", &kB},
                                   {"bogus"},
                                   {"movl", &kA},
                                   {"MOVC", &kC1},
                                   {"YES", &kC2},
                                   {"movj", &kZero},
                                   {"STOP"},
                                   {""}});  // Enter, once the arm is held
    EXPECT_EQ(ReadFile("file/data.txt"),
              "MOVJ VJ=100 z5 0,20,60,10,-90,0\n"
              "MOVL V=200 z5 0,25,75,-10,-90,0\n"
              "MOVL V=200 z5 0,20,60,10,-90,0\n"
              "MOVC V=200 z5 -20,20,60,10,-90,0,-40,20,60,10,-90,0\n"
              "MOVJ VJ=100 z5 0,0,0,0,0,0\n");
    const std::string prompt = "Insert MOVJ\u3001MOVL\u3001MOVC or STOP : \n";
    EXPECT_EQ(tqltest::CountOf(out, "The input is invalid. \nPlease try again.\n" + prompt), 2);
    EXPECT_EQ(tqltest::CountOf(out, prompt), 10);  // 8 rounds + 2 after invalid words
    EXPECT_NE(out.find("The auxiliary point has been inserted.\nInput 'YES' to insert the target point : \n"),
              std::string::npos);
    EXPECT_NE(out.find("Stop recording.\nPlease hold the arm with your hand and then press enter to continue ...\n"
                       "Done.\n"),
              std::string::npos);
    EXPECT_EQ(GetCurrentRunningMode(), kReplayTrajectoryMode);

    // The taught program runs as a motion program, on the arm where it was left.
    ASSERT_EQ(tql_sim_save_state(), 0);
    // With its physics back: the collision monitor watches currents that only
    // a physical arm gives.
    const tqltest::HostRun run = tqltest::RunHost(dir_->path(), {"mode4"}, "1\nCYCLE\nNO\n",
                                                  {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_URDF", "arm.urdf"}});
    EXPECT_EQ(run.exit_code, 0) << run.out;
    EXPECT_NE(run.err.find(", 0 beyond limits"), std::string::npos) << run.err;
}

TEST_F(DragTeach, DialogueEndings) {
    SetTerminalFlag();
    const std::vector<Answer> movj_999(999, Answer{"MOVJ"});
    auto with = [&](std::vector<Answer> head) {
        head.insert(head.end(), movj_999.begin(), movj_999.end());
        return head;
    };
    struct Case {
        int type;
        bool compensation;
        std::vector<Answer> answers;
        int lines;          // of the program afterwards; -1: the previous program kept
        std::string said;  // in the output
        bool stop_message;
    } cases[] = {
        {0, true, {{"MOVJ", &kA}, {"MOVL"}}, 1, "Insert MOVJ : \nWait to add...\n", false},
        {1, true, {{"MOVJ", &kA}, {"MOVC", &kC1}, {"NO"}}, 1, "Input 'YES' to insert the target point : \n", false},
        // The first word invalid uses up one of the 1000 rounds; a later one does not.
        {1, true, with({{"bad"}}), 999, "The input is invalid. ", false},
        {1, true, with({{"MOVJ"}, {"bad"}}), 1000, "The input is invalid. ", false},
        {1, false, {{"MOVJ", &kB}}, 1, "No more input.\nStop recording.\n", true},  // nobody answers any more
        {7, true, {{"MOVJ"}}, -1, "Wait to add...\nNothing taught: file/data.txt is unchanged.\n", false},
    };
    for (const Case& c : cases) {
        GetCurrentRobot()->robot_type_ = c.type;
        GetResourceDate()->dynamics_switch = c.compensation;
        const std::string before = ReadFile("file/data.txt");
        const std::string out = Teach(c.answers);
        if (c.lines < 0)
            EXPECT_EQ(ReadFile("file/data.txt"), before);
        else
            EXPECT_EQ(tqltest::CountOf(ReadFile("file/data.txt"), "\n"), c.lines) << c.said;
        EXPECT_NE(out.find(c.said), std::string::npos) << out.substr(0, 2000);
        EXPECT_EQ(out.find("Stop recording.") != std::string::npos, c.stop_message) << c.said;
        // Without compensation nobody is asked to hold the arm.
        EXPECT_EQ(out.find("Please hold the arm") != std::string::npos, c.compensation) << c.said;
    }
    GetCurrentRobot()->robot_type_ = kTypeGL_6L3;
}

TEST_F(DragTeach, RefusedOutsideDragTeaching) {
    SetTerminalFlag();
    GetResourceDate()->dynamics_switch = false;
    const std::string before = ReadFile("file/trajectory.txt");
    SetRunningMode(kReplayTrajectoryMode);
    std::string out;
    EXPECT_EQ(Quiet([] { return RecordContinuousPointInDragTeachMode(GetCurrentRobot(), "file/trajectory.txt"); }, &out),
              -1);
    EXPECT_EQ(tqltest::CountOf(out, "0-2: Current mode is not drag teaching mode"), 2) << out;  // both threads
    EXPECT_EQ(out.find("Recording"), std::string::npos);
    EXPECT_FALSE(GetSystemStatus());
    EXPECT_EQ(ReadFile("file/trajectory.txt"), before);
    EXPECT_EQ(Quiet([] { return RealTimeMonitoring(); }), -1);
}

TEST_F(DragTeach, HostEndsMonitoringIntoPositionHold) {
    if (IsTerminal()) GTEST_SKIP() << "needs a process that never set the terminal flag (ctest runs tests alone)";
    SetRunningMode(kDragTeachingMode);
    int result = 1;
    std::string out;
    Quiet([&] {
        std::thread monitoring([&] { result = RealTimeMonitoring(); });
        // Floating: every actuator in current mode, and the loop running.
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        auto floating = [] {
            for (int id = 1; id <= 6; ++id)
                if (tql_sim_actuator_mode(id) != Actuator::Mode_Cur) return false;
            return true;
        };
        while (!floating() && std::chrono::steady_clock::now() < give_up) std::this_thread::yield();
        EXPECT_TRUE(floating());
        // Moved by hand, the arm's pose is published as the real-time position.
        PoseArm(kA);
        bool published = false;
        while (!published && std::chrono::steady_clock::now() < give_up) {
            double q[6], pose[6];
            GetRealTimePos(q, pose);
            published = true;
            for (int j = 0; j < 6; ++j) published = published && std::fabs(q[j] - kA[j]) < 1e-6;
            std::this_thread::yield();
        }
        EXPECT_TRUE(published) << "the real-time position does not follow the floating arm";
        SetRunningMode(kReplayPathMode);
        monitoring.join();
        return 0;
    }, &out);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(GetStopFlag());
    for (int id = 1; id <= 6; ++id) EXPECT_EQ(tql_sim_actuator_mode(id), Actuator::Mode_Pos);

    // The console report of actuator readings.
    out = tqltest::Stdout([] {
        const ActuatorController::UnifiedID id(3, "192.168.1.30");
        ActuatorCallBack(id, Actuator::ACTUAL_VELOCITY, 12.5);
        ActuatorCallBack(id, Actuator::ACTUAL_POSITION, -1.25);
        ActuatorCallBack(id, Actuator::ACTUAL_CURRENT, 0.5);
        ActuatorCallBack(id, 99, 1.0);
    });
    EXPECT_EQ(out, "Actuator 3 velocity is 12.5RPM\nActuator 3 position is -1.25R\nActuator 3 current is 0.5A\n");
}

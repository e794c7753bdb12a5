// Trajectory files (writer, reader, line decoder) and their replay on the
// simulated arm in virtual time.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"
#include "timing.h"

namespace {

using tqltest::Quiet;
using tqltest::ReadFile;
using tqltest::ScratchDir;
using tqltest::WriteFile;

constexpr double kUntouched = 99.0;

// Reads `path` into rows of `cols` values (slots start at kUntouched).
int Read(const std::string& path, int cols, std::vector<double>* data, int* rows, std::string* out,
         int max_rows = 16) {
    data->assign(static_cast<size_t>(max_rows) * cols, kUntouched);
    *rows = -1;
    return Quiet([&] { return GetMatrixFromFile(path, data->data(), max_rows, cols, rows); }, out);
}

}  // namespace

TEST(TrajectoryFile, SixSignificantDigitsWrittenAndReadBack) {
    ScratchDir dir;
    double fixed[] = {12.345678, -0.5, 1e-05, 0.0, 123456789.0, -3.14159265};
    ASSERT_EQ(SaveMatrixToFile("t.txt", fixed, 2, 3), 0);
    EXPECT_EQ(ReadFile("t.txt"), "12.3457,-0.5,1e-05\n0,1.23457e+08,-3.14159\n");

    // Seeded sweep over magnitudes: what is read back is the value to six digits.
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0), exponent(-6.0, 4.0);
    std::vector<double> values(300 * 6);
    for (double& v : values) v = mantissa(rng) * std::pow(10.0, exponent(rng));
    ASSERT_EQ(SaveMatrixToFile("sweep.txt", values.data(), 300, 6), 0);
    std::vector<double> back;
    int rows = 0;
    std::string out;
    ASSERT_EQ(Read("sweep.txt", 6, &back, &rows, &out, 400), 0) << out;
    ASSERT_EQ(rows, 300);
    for (size_t i = 0; i < values.size(); ++i) EXPECT_NEAR(back[i], values[i], 5e-6 * std::fabs(values[i])) << i;
    EXPECT_EQ(back[300 * 6], kUntouched);  // nothing past the rows read

    // A write that fails leaves the good file as it was.
    ASSERT_EQ(mkdir("t.txt.part", 0755), 0);
    EXPECT_EQ(Quiet([&] { return SaveMatrixToFile("t.txt", values.data(), 300, 6); }), -1);
    EXPECT_EQ(ReadFile("t.txt"), "12.3457,-0.5,1e-05\n0,1.23457e+08,-3.14159\n");
    // So does one whose name is a directory: the whole new file written beside
    // it is removed again.
    ASSERT_EQ(mkdir("d.txt", 0755), 0);
    EXPECT_EQ(Quiet([&] { return SaveMatrixToFile("d.txt", values.data(), 2, 3); }), -1);
    struct stat st;
    EXPECT_TRUE(stat("d.txt", &st) == 0 && S_ISDIR(st.st_mode));
    EXPECT_NE(stat("d.txt.part", &st), 0);
}

TEST(TrajectoryFile, ReaderTakesWhatTheLinesHold) {
    ScratchDir dir;
    const std::string long_line(300, '1');
    const std::string full_line = "1," + std::string(253, '0');  // exactly 255 characters
    const double u = kUntouched;
    struct Case {
        std::string text;
        int result, rows;
        std::vector<double> first_rows;  // 3 columns per row
        std::string message;
        std::string strict;  // the replay's reader: its refusal, or "" when it reads the same
    } cases[] = {
        {"1.5,-2,3e-3\n", 0, 1, {1.5, -2, 0.003}, "", ""},
        {"", -1, 0, {u, u, u}, "c.txt is an empty file.\n", "c.txt is an empty file.\n"},
        // Non-numbers read 0, missing values stay untouched, extra ones are ignored.
        {"a,2,b\n7\n1,2,3,4\n", 0, 3, {0, 2, 0, 7, u, u, 1, 2, 3}, "", "line 1: \"a\" is not a number"},
        {"4,5,6", 0, 1, {4, 5, 6}, "", ""},  // no end of line
        {"1,2,3\n" + long_line + "\n4,5,6\n", 0, 1, {1, 2, 3, u, u, u}, "line 2 is longer than 255",
         "line 2: longer than 255 characters"},
        {full_line + "\n", 0, 1, {1, 0, u}, "", "line 1: 2 numbers where 3 belong"},
        {"1,2,3,4\n", 0, 1, {1, 2, 3}, "", "line 1: more than 3 numbers"},
        {" 1 , 2,3\r\n4,5,6\n", 0, 2, {1, 2, 3, 4, 5, 6}, "", ""},  // blanks around numbers, CRLF
        {"1,2,3\n\n4,5,6\n", 0, 3, {1, 2, 3, 0, u, u, 4, 5, 6}, "", "line 2: a blank line"},
        {"1;2;3\n", 0, 1, {1, u, u}, "", "line 1: ';' after number 1 where ',' belongs"},
        {"1 2 3\n", 0, 1, {1, u, u}, "", "line 1: '2' after number 1 where ',' belongs"},
        {"1,2\n", 0, 1, {1, 2, u}, "", "line 1: 2 numbers where 3 belong"},
        {"1,,3\n", 0, 1, {1, 0, 3}, "", "line 1: an empty value at position 2"},
        {"1,2,nan\n", 0, 1, {1, 2, NAN}, "", "line 1: nan is not a finite number"},
        {"1,2,3\n1,-inf,3\n", 0, 2, {1, 2, 3, 1, -INFINITY, 3}, "", "line 2: -inf is not a finite number"},
    };
    for (const Case& c : cases) {
        WriteFile("c.txt", c.text);
        std::vector<double> data;
        int rows = 0;
        std::string out;
        EXPECT_EQ(Read("c.txt", 3, &data, &rows, &out), c.result) << c.text;
        EXPECT_EQ(rows, c.rows) << c.text;
        for (size_t i = 0; i < c.first_rows.size(); ++i) {
            if (!std::isnan(c.first_rows[i])) {
                EXPECT_EQ(data[i], c.first_rows[i]) << c.text << " #" << i;
            }
        }
        if (!c.message.empty()) {
            EXPECT_NE(out.find(c.message), std::string::npos) << out;
        }
        std::vector<double> strict(data.size(), kUntouched);
        int strict_rows = -1;
        const int result = Quiet([&] { return ReadTrajectoryForReplay("c.txt", strict.data(), 16, 3, &strict_rows); }, &out);
        if (c.strict.empty()) {
            EXPECT_EQ(result, c.result) << c.text;
            EXPECT_EQ(strict_rows, c.rows) << c.text;
            for (size_t i = 0; i < c.first_rows.size(); ++i) EXPECT_EQ(strict[i], data[i]) << c.text << " #" << i;
        } else {
            EXPECT_EQ(result, -1) << c.text;
            EXPECT_NE(out.find(c.strict), std::string::npos) << out;
            const bool format = c.strict.find("empty file") == std::string::npos;
            EXPECT_EQ(out.find("Trajectory format error: c.txt ") == 0, format) << out;
        }
    }
    std::string out;
    EXPECT_EQ(Quiet([] { return GetMatrixFromFile("missing.txt", nullptr, 0, 3, nullptr); }, &out), -1);
    EXPECT_EQ(out, "Open missing.txt failure! \n");
    EXPECT_EQ(Quiet([] { return DecodeCharLine(nullptr, nullptr, 3); }, &out), -1);
    EXPECT_EQ(out, "File format error\n");
}

TEST(TrajectoryFile, NeverStoresMoreThanItsRowLimit) {
    ScratchDir dir;
    std::string text;
    for (int i = 0; i <= kMaxTrajectoryRows; ++i) text += std::to_string(i % 10) + "\n";  // 75001 lines
    WriteFile("long.txt", text);
    std::vector<double> data(kMaxTrajectoryRows + 8, kUntouched);
    int rows = 0;
    std::string out;
    EXPECT_EQ(Quiet([&] { return GetMatrixFromFile("long.txt", data.data(), kMaxTrajectoryRows, 1, &rows); }, &out), 0);
    EXPECT_EQ(rows, kMaxTrajectoryRows);
    EXPECT_EQ(data[kMaxTrajectoryRows - 1], 9.0);
    EXPECT_EQ(data[kMaxTrajectoryRows], kUntouched);
    EXPECT_EQ(out, "long.txt holds more than 75000 rows; the rest is ignored.\n");
}

namespace {

// Every sleep of the replay: its length and the real-time position then (the
// samples just sent).
struct Period {
    double seconds;
    tqltest::Joints sent;
};
std::vector<Period> periods;
void PeriodSleep(double seconds) {
    Period p{seconds, {}};
    CopyRealTimePos(p.sent.data(), 6);
    periods.push_back(p);
    tql_sim_sleep(seconds);
}

class Replay : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(BootArm(&PeriodSleep));
        periods.clear();
    }
    void TearDown() override {
        SetReplayOverride(1.0);
        tqltest::SimulatedArmTest::TearDown();
    }
};

}  // namespace

TEST_F(Replay, SamplesGoOutUnchangedAndTheOverrideStretchesThePeriod) {
    int rows = 0;  // the demo trajectory, in radians
    std::vector<double> q(static_cast<size_t>(kMaxTrajectoryRows) * 6);
    ASSERT_EQ(GetMatrixFromFile("file/trajectory.txt", q.data(), kMaxTrajectoryRows, 6, &rows), 0);
    ASSERT_EQ(rows, 1000);
    for (double& v : q) v *= kProgramDegreeToRadian;
    for (double ov : {1.0, 0.5}) {
        SetReplayOverride(ov);
        ASSERT_EQ(SetSpeedOverride(), 0);
        // Start on the first sample, so the approach move is empty.
        ASSERT_EQ(Quiet([&] { return MoveToSpecifiedPosition(q.data()); }), 0);
        periods.clear();
        const double start = tql_sim_now();
        ASSERT_EQ(Quiet([&] { return MoveTrajectoryOnce(GetCurrentRobot(), q.data(), rows); }), 0);
        EXPECT_NEAR(tql_sim_now() - start, 4.0 / ov, 0.01) << ov;
        ASSERT_GE(periods.size(), 999u);
        const size_t first = periods.size() - 999;
        for (size_t k = 0; k < 999; ++k) {
            EXPECT_NEAR(periods[first + k].seconds, 0.004 / ov, 1e-12);
            for (int j = 0; j < 6; ++j) ASSERT_EQ(periods[first + k].sent[j], q[(k + 1) * 6 + j]) << k;
        }
    }
    // The arm is at the last sample: the bus's joints agree.
    for (int id = 1; id <= 6; ++id) EXPECT_NEAR(tql_sim_joint_angle(id), q[999 * 6 + id - 1], 1e-9);
}

TEST_F(Replay, RefusedBeforeAnyMotion) {
    ASSERT_EQ(SaveMatrixToFile("file/empty.txt", nullptr, 0, 6), 0);
    // A 30 degree jump in 4 ms, a sample beyond joint 1's soft limit: the
    // pre-flight finds them before the approach move starts.
    WriteFile("file/jump.txt", "0,0,0,0,0,0\n0,0,0,0,0,0\n30,0,0,0,0,0\n");
    WriteFile("file/far.txt", "175,0,0,0,0,0\n175,0,0,0,0,0\n");
    struct Case {
        double override;
        const char* file;
        const char* message;
    } cases[] = {
        {0.05, "missing.txt", "The value of speed override is invalid(0.1-1).\n"},  // before the file is read
        {1.0, "missing.txt", "Open missing.txt failure! \n"},
        {1.0, "file/empty.txt", "file/empty.txt is an empty file.\n"},
        {1.0, "file/jump.txt", "ID 1 beyond speed limit\nSample 3 refused before motion.\n"},
        {1.0, "file/far.txt", "ID 1 beyond joint max soft limit\n"},
    };
    for (const Case& c : cases) {
        SetReplayOverride(c.override);
        std::string out;
        EXPECT_EQ(Quiet([&] { return MoveTrajectory(GetCurrentRobot(), c.file, false); }, &out), -1);
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
        EXPECT_EQ(out.find("Open") != std::string::npos, std::string(c.message).find("Open") == 0) << out;
        EXPECT_EQ(tql_sim_setpoint_count(1), 0) << c.file;
    }
    // A cyclic replay refused is a failure too (its operator's stop is not).
    SetReplayOverride(1.0);
    EXPECT_EQ(Quiet([&] { return MoveTrajectory(GetCurrentRobot(), "file/jump.txt", true); }), -1);
}

TEST_F(Replay, CyclicReplayEndsWithCtrlC) {
    // Ctrl-C during the second pass, and during the pause after the first.
    for (bool in_pause : {false, true}) {
        periods.clear();
        tqltest::tick_spy = tqltest::TickSpy();
        tqltest::tick_spy.by_signal = true;
        (in_pause ? tqltest::tick_spy.stop_at_pause : tqltest::tick_spy.stop_at) = in_pause ? 1 : 1500;
        tql::SetSleepFunction(&tqltest::TickSleep);
        std::string out;
        EXPECT_EQ(Quiet([&] { return MoveTrajectory(GetCurrentRobot(), "file/trajectory.txt", true); }, &out), 0);
        EXPECT_EQ(out.find("Cycle count : 2\n") != std::string::npos, !in_pause) << out;
        EXPECT_EQ(out.substr(out.size() - 14), " \nReplay end \n");
    }
}

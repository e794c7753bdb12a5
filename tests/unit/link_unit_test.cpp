// Joint unit: actuator types, the set-point checks at and beyond their bounds;
// the system status and error record, before and after the first error.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "mechnical_unit.h"
#include "test_support.h"

TEST(LinkUnit, ActuatorTypeTable) {
    const struct { int type; double ratio, kt; } table[] = {
        {0, 36, 2.3794}, {1, 36, 1.0623}, {2, 36, 1},     {5, 36, 1},
        {6, 101, 10.1},  {7, 81, 4.9086},  {8, 51, 1.7748}, {9, 1, 1}};
    for (const auto& row : table) {
        LinkUnit j;
        j.SetDirect(-1);
        ASSERT_EQ(j.InitActuator(7, row.type), 0);
        EXPECT_EQ(j.direct_, 1) << "InitActuator resets the direction";
        EXPECT_EQ(j.GetActuatorId(), 7);
        EXPECT_DOUBLE_EQ(j.reduction_ratio_, row.ratio);
        EXPECT_DOUBLE_EQ(j.kt_, row.kt);
    }
    for (int bad : {10, -1, 1000}) {
        LinkUnit j;
        EXPECT_EQ(tqltest::Stdout([&] { EXPECT_EQ(j.InitActuator(1, bad), -1); }), "Type is invalid.\n");
    }
}

// A joint of type 1 (ratio 36) with soft limits of +-1 rad: inclusive limits,
// the speed in actuator rpm over a 4 ms period (checked before the limits),
// and a NaN refused before anything else.
TEST(LinkUnit, CheckPosition) {
    const double at_limit = 36.0 / 6.2831852 * 60.0;  // rpm of 0.004 rad in 0.004 s, 343.77
    const double above = std::nextafter(1.0, 2.0), below = std::nextafter(-1.0, -2.0);
    const struct { double rpm, q, q_last; int result; std::string out; } cases[] = {
        {1e9, 1.0, 1.0, 0, ""},         {1e9, -1.0, -1.0, 0, ""},
        {at_limit, 0.004, 0.0, 0, ""},  {at_limit, -0.004, 0.0, 0, ""},
        {1e9, above, 1.0, -1,
         "ID 3 beyond joint max soft limit\nCUR = 57.2958 (degree) \nMAX SOFT LIMIT = 57.2958 (degree) \n"},
        {1e9, below, -1.0, -1,
         "ID 3 beyond joint min soft limit\nCurrent position = -57.2958 (degree) \n"
         "Min soft limit = -57.2958 (degree) \n"},
        {343.0, 0.004, 0.0, -1, "343.775\t 343\nID 3 beyond speed limit\n"},
        {343.0, -0.5, -0.496, -1, "-343.775\t 343\nID 3 beyond speed limit\n"},
        {343.0, 5.0, 0.0, -1, "429718\t 343\nID 3 beyond speed limit\n"},  // and beyond the limit
        {0.0, std::nan(""), 0.0, -1, "NAN\n"},  // a zero speed limit would refuse any motion
    };
    for (const auto& c : cases) {
        LinkUnit j;
        ASSERT_EQ(j.InitActuator(3, 1), 0);
        j.min_soft_limit_ = -1.0, j.max_soft_limit_ = 1.0, j.speed_limit_ = c.rpm;
        std::string out;
        EXPECT_EQ(tqltest::Quiet([&] { return j.CheckPosition(c.q, c.q_last, 0.004); }, &out), c.result) << c.q;
        EXPECT_EQ(out, c.out) << c.q;
    }
}

TEST(LinkUnit, CheckTorque) {
    LinkUnit j;
    ASSERT_EQ(j.InitActuator(1, 0), 0);  // kt 2.3794 N*m/A, peak 20 A: 47.588 N*m
    EXPECT_EQ(tqltest::Stdout([&] {
                  EXPECT_EQ(j.CheckTorque(12.5), 0);
                  EXPECT_EQ(j.CheckTorque(47.588), 0);
                  EXPECT_EQ(j.CheckTorque(std::numeric_limits<double>::infinity()), -1);
                  EXPECT_EQ(j.CheckTorque(std::nan("")), -1);
                  EXPECT_EQ(j.CheckTorque(-47.6), -1);
              }),
              "tmp NAN\ntmp NAN\nID 1 current -20.005 A beyond peak current 20 A\n");
    // The demo arm's actuator (type 1): 10 A of 1.0623 N*m/A.
    ASSERT_EQ(j.InitActuator(2, 1), 0);
    EXPECT_DOUBLE_EQ(j.PeakTorque(), 10.623);
    j.kt_ = 0.0;
    EXPECT_EQ(tqltest::Stdout([&] {
                  EXPECT_EQ(j.CheckTorque(1.0), -1);
                  EXPECT_EQ(j.CheckTorque(0.0), -1);
              }),
              "kt error .\nkt error .\n");
}

TEST(SystemStatus, ErrorTextIsDoubled) {
    std::string before, after;
    GetErrorCode(before);
    EXPECT_EQ(before, "NULL");
    EXPECT_TRUE(GetSystemStatus());
    EXPECT_EQ(tqltest::Stdout([] { SendErrorCode(-1, 12, "x"); }), "x-1-12: x.\n");
    GetErrorCode(after);
    EXPECT_EQ(after, "x-1-12: x.");
    EXPECT_FALSE(GetSystemStatus());
    SetSystemStatus(true);

    const ActuatorController::UnifiedID id(5, "192.168.1.30");
    EXPECT_EQ(tqltest::Stdout([&] { ErrorCallBack(id, 260, "Locked rotor"); }), "Error: 5  260  Locked rotor\n");
    EXPECT_TRUE(GetSystemStatus());
}

// Joint unit: actuator types, the set-point checks at and beyond their bounds.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "mechnical_unit.h"

namespace {

// A joint of type 1 (ratio 36) with soft limits of +-1 rad and a speed limit.
LinkUnit MakeJoint(double speed_limit_rpm) {
    LinkUnit j;
    EXPECT_EQ(j.InitActuator(3, 1), 0);
    j.min_soft_limit_ = -1.0;
    j.max_soft_limit_ = 1.0;
    j.speed_limit_ = speed_limit_rpm;
    return j;
}

int Check(LinkUnit& j, double q, double q_last, std::string* out) {
    testing::internal::CaptureStdout();
    const int r = j.CheckPosition(q, q_last, 0.004);
    *out = testing::internal::GetCapturedStdout();
    return r;
}

}  // namespace

TEST(LinkUnit, ActuatorTypeTable) {
    const struct {
        int type;
        double ratio, kt;
    } table[] = {{0, 36, 2.3794}, {1, 36, 1.0623}, {2, 36, 1}, {5, 36, 1},       {6, 101, 10.1},
                 {7, 81, 4.9086}, {8, 51, 1.7748}, {9, 1, 1}};
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
        testing::internal::CaptureStdout();
        EXPECT_EQ(j.InitActuator(1, bad), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Type is invalid.\n");
    }
}

TEST(LinkUnit, SoftLimitsAreInclusive) {
    std::string out;
    LinkUnit j = MakeJoint(1e9);
    EXPECT_EQ(Check(j, 1.0, 1.0, &out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Check(j, -1.0, -1.0, &out), 0);

    const double above = std::nextafter(1.0, 2.0);
    EXPECT_EQ(Check(j, above, 1.0, &out), -1);
    EXPECT_EQ(out, "ID 3 beyond joint max soft limit\nCUR = 57.2958 (degree) \nMAX SOFT LIMIT = 57.2958 (degree) \n");

    const double below = std::nextafter(-1.0, -2.0);
    EXPECT_EQ(Check(j, below, -1.0, &out), -1);
    EXPECT_EQ(out,
              "ID 3 beyond joint min soft limit\nCurrent position = -57.2958 (degree) \n"
              "Min soft limit = -57.2958 (degree) \n");
}

TEST(LinkUnit, SpeedLimitUsesTheActuatorRpm) {
    // 0.004 rad in 0.004 s on ratio 36: 36 / 6.2831852 * 60 = 343.77 rpm.
    const double rpm = 36.0 * (0.004 / 0.004) / 6.2831852 * 60.0;
    EXPECT_NEAR(rpm, 343.77, 0.005);
    std::string out;
    LinkUnit at = MakeJoint(rpm);
    EXPECT_EQ(Check(at, 0.004, 0.0, &out), 0) << out;
    EXPECT_EQ(Check(at, -0.004, 0.0, &out), 0) << out;

    LinkUnit below = MakeJoint(343.0);
    EXPECT_EQ(Check(below, 0.004, 0.0, &out), -1);
    EXPECT_EQ(out, "343.775\t 343\nID 3 beyond speed limit\n");
    EXPECT_EQ(Check(below, -0.5, -0.496, &out), -1);
    EXPECT_EQ(out, "-343.775\t 343\nID 3 beyond speed limit\n");

    // The speed test comes before the limit test.
    EXPECT_EQ(Check(below, 5.0, 0.0, &out), -1);
    EXPECT_NE(out.find("beyond speed limit"), std::string::npos);
    EXPECT_EQ(out.find("soft limit"), std::string::npos);
}

TEST(LinkUnit, NotANumberIsRefusedFirst) {
    std::string out;
    LinkUnit j = MakeJoint(0.0);  // would refuse any motion on speed
    EXPECT_EQ(Check(j, std::nan(""), 0.0, &out), -1);
    EXPECT_EQ(out, "NAN\n");
}

TEST(LinkUnit, CheckTorque) {
    LinkUnit j;
    ASSERT_EQ(j.InitActuator(1, 0), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(j.CheckTorque(12.5), 0);
    EXPECT_EQ(j.CheckTorque(std::numeric_limits<double>::infinity()), -1);
    EXPECT_EQ(j.CheckTorque(std::nan("")), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "tmp NAN\ntmp NAN\n");

    j.kt_ = 0.0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(j.CheckTorque(1.0), -1);
    EXPECT_EQ(j.CheckTorque(0.0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "kt error .\nkt error .\n");
}

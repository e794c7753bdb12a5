// The host call surface on the simulated arm: program points appended,
// limits and the real-time pose in degrees, checked against the closed-form
// forward kinematics.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "editor.h"
#include "interface.h"
#include "kinematics.h"
#include "test_support.h"

namespace {

class HostSurface : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(BootArm()); }
};

constexpr double kToDeg = 57.295780490442965;

}  // namespace

TEST_F(HostSurface, RecordPointAppendsThePresentPose) {
    tqltest::WriteFile("file/data.txt", "// kept\n");
    RecordPoint("file/data.txt", GetCurrentRobot());
    ExecuteCommandRecord(3, nullptr);  // arguments are not used
    EXPECT_EQ(tqltest::ReadFile("file/data.txt"), "// kept\nMOVJ VJ=100 z5 0,0,0,0,0,0\nMOVJ VJ=100 z5 0,0,0,0,0,0\n");
    EXPECT_EQ(tqltest::Stdout([] { RecordPoint("no/such/dir.txt", GetCurrentRobot()); }),
              "Open no/such/dir.txt failure! \n");
}

TEST_F(HostSurface, LimitsAndRealTimePoseInDegrees) {
    double lo[6], hi[6];
    GetMinLimit(lo);
    GetMaxLimit(hi);
    for (int j = 0; j < 6; ++j) {  // factory limits: +-17 actuator turns of a ratio-36 joint
        EXPECT_NEAR(lo[j], -170.0, 1e-9) << j;
        EXPECT_NEAR(hi[j], 170.0, 1e-9) << j;
    }
    const tqltest::Joints a = tqltest::Degrees({0, 20, 60, 10, -90, 30});
    tqltest::Joints target = a;
    ASSERT_EQ(tqltest::Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
    double q[6], pose[6];
    GetRealTimePos(q, pose);
    const double L[6] = {152, 112, 85, 82, 244, 213};  // d1, d4, d5, d6, a2, a3 (mm)
    double T[4][4];
    fk_ur(a.data(), T, L);
    for (int j = 0; j < 6; ++j) EXPECT_NEAR(q[j], a[j] * kToDeg, 1e-9);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(pose[i], T[i][3], 1e-9);
    // R = Rz * Ry * Rx of the reported angles against the transform's rotation
    // (the pose passes through a quaternion: a few thousandths of a radian).
    const double x = pose[3] / kToDeg, y = pose[4] / kToDeg, z = pose[5] / kToDeg;
    const double R[3][3] = {
        {std::cos(z) * std::cos(y), std::cos(z) * std::sin(y) * std::sin(x) - std::sin(z) * std::cos(x),
         std::cos(z) * std::sin(y) * std::cos(x) + std::sin(z) * std::sin(x)},
        {std::sin(z) * std::cos(y), std::sin(z) * std::sin(y) * std::sin(x) + std::cos(z) * std::cos(x),
         std::sin(z) * std::sin(y) * std::cos(x) - std::cos(z) * std::sin(x)},
        {-std::sin(y), std::cos(y) * std::sin(x), std::cos(y) * std::cos(x)}};
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(R[i][k], T[i][k], 5e-3) << i << k;
}

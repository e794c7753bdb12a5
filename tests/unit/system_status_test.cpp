// System status and the error record, before and after the first error.
#include <gtest/gtest.h>

#include <string>

#include "mechnical_unit.h"

TEST(SystemStatus, ErrorTextIsDoubled) {
    std::string before;
    GetErrorCode(before);
    EXPECT_EQ(before, "NULL");
    EXPECT_TRUE(GetSystemStatus());
    testing::internal::CaptureStdout();
    SendErrorCode(-1, 12, "x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "x-1-12: x.\n");
    std::string after;
    GetErrorCode(after);
    EXPECT_EQ(after, "x-1-12: x.");
    EXPECT_FALSE(GetSystemStatus());
    SetSystemStatus(true);

    testing::internal::CaptureStdout();
    ErrorCallBack(ActuatorController::UnifiedID(5, "192.168.1.30"), 260, "Locked rotor");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: 5  260  Locked rotor\n");
    EXPECT_TRUE(GetSystemStatus());
}

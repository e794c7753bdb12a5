// System status and the error record, before and after the first error.
#include <gtest/gtest.h>

#include <string>

#include "mechnical_unit.h"
#include "test_support.h"

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

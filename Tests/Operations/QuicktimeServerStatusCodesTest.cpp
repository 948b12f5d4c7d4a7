#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/QuicktimeServerStatusCodes.h>

namespace krv {
namespace {

TEST(QuicktimeServerStatusCodes, AreTheirOwnNames) {
    EXPECT_EQ(kOperationSend, "kOperationSend");
    EXPECT_EQ(kOperationStarted, "kOperationStarted");
    EXPECT_EQ(kOperationCompleted, "kOperationCompleted");
    EXPECT_EQ(kOperationFailed, "kOperationFailed");
    EXPECT_EQ(kOperationProgress, "kOperationProgress");
}

}  // namespace
}  // namespace krv

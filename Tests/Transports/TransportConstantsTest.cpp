#include <gtest/gtest.h>

#include <KRVQTProcessClient/Server/QuicktimeServerStatusCodes.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {
namespace {

TEST(TransportConstants, HaveTheirTexts) {
    EXPECT_EQ(kClientTransport, "8081");
    EXPECT_EQ(kServerTransport, "8082");
    EXPECT_EQ(kKRVQTProcessPing, "kKRVQuicktimeProcessPing");
    EXPECT_EQ(kHTTPServerNSURLConnectionError, "kHTTPServerNSURLConnectionError");
}

TEST(TransportConstants, TheStatusNamesAreTheirOwnTexts) {
    EXPECT_EQ(kOperationSend, "kOperationSend");
    EXPECT_EQ(kOperationStarted, "kOperationStarted");
    EXPECT_EQ(kOperationCompleted, "kOperationCompleted");
    EXPECT_EQ(kOperationFailed, "kOperationFailed");
    EXPECT_EQ(kOperationProgress, "kOperationProgress");
}

}  // namespace
}  // namespace krv

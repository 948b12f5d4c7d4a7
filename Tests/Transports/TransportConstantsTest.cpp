#include <gtest/gtest.h>

#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {
namespace {

TEST(TransportConstants, HaveTheirTexts) {
    EXPECT_EQ(kClientTransport, "8081");
    EXPECT_EQ(kServerTransport, "8082");
    EXPECT_EQ(kKRVQTProcessPing, "kKRVQuicktimeProcessPing");
    EXPECT_EQ(kHTTPServerNSURLConnectionError, "kHTTPServerNSURLConnectionError");
}

}  // namespace
}  // namespace krv

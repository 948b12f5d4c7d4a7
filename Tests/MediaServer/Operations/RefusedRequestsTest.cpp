#include <gtest/gtest.h>

#include <MediaServer/Operations/RefusedRequests.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

std::shared_ptr<const Error> refusal(const std::string& why) {
    return makeError(OperationErrorCode::InvalidArgument, "It was refused.", why);
}

TEST(RefusedRequests, AreToldAgainUnderTheirIdentifier) {
    RefusedRequests refused;
    const std::string one = refused.add(refusal("one"));
    const std::string two = refused.add(refusal("two"));
    EXPECT_NE(one, two);
    EXPECT_EQ(refused.find(one)->localizedFailureReason(), "one");
    EXPECT_EQ(refused.find(two)->localizedFailureReason(), "two");
    EXPECT_FALSE(refused.find("another"));
}

TEST(RefusedRequests, AreForgottenWhenTheyAreRemoved) {
    RefusedRequests refused;
    const std::string id = refused.add(refusal("why"));
    EXPECT_TRUE(refused.remove(id));
    EXPECT_FALSE(refused.remove(id));
    EXPECT_FALSE(refused.find(id));
}

TEST(RefusedRequests, OfLongAgoAreForgotten) {
    RefusedRequests refused;
    const std::string first = refused.add(refusal("first"));
    const std::string second = refused.add(refusal("second"));
    for (std::size_t i = 0; i < RefusedRequests::kMost - 1; ++i) {
        (void)refused.add(refusal("later"));
    }
    EXPECT_FALSE(refused.find(first));
    EXPECT_TRUE(refused.find(second));
}

}  // namespace
}  // namespace krv::server

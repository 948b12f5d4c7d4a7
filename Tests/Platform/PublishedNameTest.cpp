#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/PublishedName.h>

namespace krv {
namespace {

TEST(PublishedName, RemovesTheNumberOfAConflict) {
    EXPECT_EQ(publishedName("KRVQuicktimeProcess #2"), "KRVQuicktimeProcess");
    EXPECT_EQ(publishedName("00ff-KRVQuicktimeProcess #12"), "00ff-KRVQuicktimeProcess");
    EXPECT_EQ(publishedName("plain"), "plain");
    EXPECT_EQ(publishedName("a #b"), "a #b");
    EXPECT_EQ(publishedName("a #"), "a #");
    EXPECT_EQ(publishedName("a #02"), "a #02");
    EXPECT_EQ(publishedName(" #2"), " #2");
    EXPECT_EQ(publishedName(""), "");
}

}  // namespace
}  // namespace krv

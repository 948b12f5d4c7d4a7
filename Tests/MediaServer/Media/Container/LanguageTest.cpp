#include <gtest/gtest.h>

#include <MediaServer/Media/Container/Language.h>

namespace krv::media {
namespace {

TEST(Language, TheOtherFormOfACodeIsTranslated) {
    EXPECT_EQ(quickTimeLanguage("deu"), "ger");
    EXPECT_EQ(quickTimeLanguage("fre"), "fra");
    EXPECT_EQ(quickTimeLanguage("zho"), "chi");
}

TEST(Language, OtherCodesStayUnchanged) {
    EXPECT_EQ(quickTimeLanguage("eng"), "eng");
    EXPECT_EQ(quickTimeLanguage("ger"), "ger");
    EXPECT_EQ(quickTimeLanguage("und"), "und");
    EXPECT_EQ(quickTimeLanguage(""), "");
}

}  // namespace
}  // namespace krv::media

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

TEST(Language, FormsOfOneLanguageAreTheSame) {
    EXPECT_TRUE(sameLanguage("deu", "ger"));
    EXPECT_TRUE(sameLanguage("GER", "de"));
    EXPECT_TRUE(sameLanguage("tlh", "tlh"));
    EXPECT_FALSE(sameLanguage("deu", "eng"));
    EXPECT_FALSE(sameLanguage("", "eng"));
}

}  // namespace
}  // namespace krv::media

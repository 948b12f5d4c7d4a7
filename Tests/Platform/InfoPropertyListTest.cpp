#include <string>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/InfoPropertyList.h>

namespace krv {
namespace {

std::string list(const std::string& entries) {
    return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}

TEST(InfoPropertyList, FindsTheStringOfAKey) {
    EXPECT_EQ(stringInPropertyList(list("<key>a</key><string>1</string><key>b</key><string>2</string>"), "b"), "2");
}

TEST(InfoPropertyList, ReadsEntitiesAndCharacterData) {
    EXPECT_EQ(stringInPropertyList(list("<key>a&amp;b</key><string>&lt;<![CDATA[&x]]></string>"), "a&b"), "<&x");
}

TEST(InfoPropertyList, SkipsCommentsAndSpaceBetweenEntries) {
    EXPECT_EQ(stringInPropertyList(list("\n <!-- note --> <key>a</key> <!-- note -->\n <string>1</string>"), "a"), "1");
}

TEST(InfoPropertyList, IgnoresInnerContainers) {
    EXPECT_EQ(stringInPropertyList(list("<key>x</key><dict><key>a</key><string>1</string></dict>"), "a"), std::nullopt);
    EXPECT_EQ(stringInPropertyList(list("<key>x</key><array><string>a</string></array><string>1</string>"), "a"),
              std::nullopt);
}

TEST(InfoPropertyList, AValueOfAnotherKindIsIgnored) {
    EXPECT_EQ(stringInPropertyList(list("<key>a</key><integer>1</integer><string>2</string>"), "a"), std::nullopt);
    EXPECT_EQ(stringInPropertyList(list("<key>a</key><key>b</key><string>2</string>"), "a"), std::nullopt);
    EXPECT_EQ(stringInPropertyList("<plist><array><key>a</key><string>1</string></array></plist>", "a"), std::nullopt);
}

TEST(InfoPropertyList, TheFirstEntryOfAKeyWins) {
    EXPECT_EQ(stringInPropertyList(list("<key>a</key><string>1</string><key>a</key><string>2</string>"), "a"), "1");
}

TEST(InfoPropertyList, MalformedTextIsRefused) {
    const std::string good = list("<key>a</key><string>1</string>");
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_EQ(stringInPropertyList(good.substr(0, length), "a"), std::nullopt) << length;
    }
    EXPECT_EQ(stringInPropertyList(std::string("bplist00\0\xff", 10), "a"), std::nullopt);
    EXPECT_EQ(stringInPropertyList(list("<key>a</key><string>\xff\xfe</string>"), "a"), std::nullopt);
}

TEST(InfoPropertyList, DeepNestingIsHarmless) {
    std::string deep;
    for (int i = 0; i < 100000; ++i) {
        deep += "<array>";
    }
    EXPECT_EQ(stringInPropertyList(list(deep), "a"), std::nullopt);
}

}  // namespace
}  // namespace krv

#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/DefaultsText.h>

namespace krv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

auto settings(const std::vector<std::string>& arguments) {
    return settingsFromArguments(arguments);
}

TEST(SettingsFromArguments, AreTheKeysWithTheValuesThatFollowThem) {
    EXPECT_THAT(settings({"-minimumPortNumber", "9000", "file", "-name", "a b"}),
                ElementsAre(Pair("minimumPortNumber", "9000"), Pair("name", "a b")));
}

TEST(SettingsFromArguments, AKeyWithoutAValueIsIgnored) {
    EXPECT_THAT(settings({"-verbose", "-minimumPortNumber", "9000", "-last"}),
                ElementsAre(Pair("minimumPortNumber", "9000")));
}

TEST(SettingsFromArguments, ANegativeNumberIsAValueNotAKey) {
    EXPECT_THAT(settings({"-level", "-5", "-6", "7"}), ElementsAre(Pair("level", "-5")));
}

TEST(SettingsFromArguments, LongOptionsAreNotKeys) {
    EXPECT_THAT(settings({"--level", "5", "-", "6"}), IsEmpty());
}

TEST(SettingsFromArguments, EndAtTwoHyphens) {
    EXPECT_THAT(settings({"-a", "1", "--", "-b", "2"}), ElementsAre(Pair("a", "1")));
}

TEST(SettingsFromArguments, TheLastValueOfAKeyWins) {
    EXPECT_THAT(settings({"-a", "1", "-a", "2"}), ElementsAre(Pair("a", "2")));
}

TEST(SettingsFromArguments, AnEmptyValueIsAValue) {
    EXPECT_THAT(settings({"-a", ""}), ElementsAre(Pair("a", "")));
    EXPECT_THAT(settings({}), IsEmpty());
}

TEST(IntegerFromSetting, IsTheLeadingInteger) {
    EXPECT_EQ(integerFromSetting("8000"), 8000);
    EXPECT_EQ(integerFromSetting(" \t-12abc"), -12);
    EXPECT_EQ(integerFromSetting("+7.9"), 7);
}

TEST(IntegerFromSetting, IsZeroForOtherText) {
    for (const char* text : {"", " ", "abc", "-", "+", "+-5", "--5", "- 5", "0x10", "no", "false", "yesterday"}) {
        EXPECT_EQ(integerFromSetting(text), 0) << text;
    }
}

TEST(IntegerFromSetting, ReadsYesAndTrueAsOne) {
    for (const char* text : {"YES", "yes", "Yes", "true", "TRUE", " true "}) {
        EXPECT_EQ(integerFromSetting(text), 1) << text;
    }
}

TEST(IntegerFromSetting, IsLimitedTo64Bits) {
    EXPECT_EQ(integerFromSetting("99999999999999999999"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(integerFromSetting("-99999999999999999999"), std::numeric_limits<std::int64_t>::min());
}

}  // namespace
}  // namespace krv

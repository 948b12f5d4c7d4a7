#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Exception.h>

namespace krv {
namespace {

Dictionary::Key key(const char* text) {
    return std::make_shared<const std::string>(text);
}

TEST(Dictionary, KeepsKeysInAscendingOrder) {
    Dictionary d;
    d.set("b", 2);
    d.set("a", 1);
    d.set("b", 3);
    ASSERT_EQ(d.size(), 2U);
    EXPECT_EQ(*d.begin()->first, "a");
    EXPECT_EQ(d["b"], Value(3));
    EXPECT_EQ(d.find("c"), nullptr);
    d.remove("a");
    d.remove("a");
    EXPECT_EQ(d.size(), 1U);
}

TEST(Dictionary, TheLastOfEqualKeysIsKept) {
    for (const int count : {3, 40}) {
        std::vector<Dictionary::Entry> entries;
        for (int i = 0; i < count; ++i) {
            entries.emplace_back(key("same"), i);
            entries.emplace_back(key(std::to_string(i).c_str()), i);
        }
        const auto d = Dictionary::fromEntries(std::move(entries), Dictionary::Mutability::Immutable);
        EXPECT_EQ(d.size(), static_cast<std::size_t>(count) + 1);
        EXPECT_EQ(d["same"], Value(count - 1));
        EXPECT_EQ(d["2"], Value(2));
    }
}

TEST(Dictionary, TheImmutableKindRefusesChanges) {
    Dictionary d(Dictionary::Mutability::Immutable);
    EXPECT_THROW(d.set("a", 1), Exception);
    EXPECT_THROW(d.remove("a"), Exception);
    Dictionary copy = d.mutableCopy();
    copy.set("a", 1);
    EXPECT_EQ(copy.size(), 1U);
    EXPECT_TRUE(d.empty());
}

TEST(Dictionary, ACopyHasTheEntries) {
    const Dictionary d{{"a", 1}, {"b", "two"}};
    EXPECT_EQ(d.mutableCopy(), d);
    EXPECT_EQ(d.find("aa"), nullptr);
    Dictionary without = d.mutableCopy();
    without.remove("aa");
    EXPECT_EQ(without, d);
    EXPECT_FALSE(d == (Dictionary{{"a", 1}, {"b", "three"}}));
    EXPECT_FALSE(d == (Dictionary{{"a", 1}, {"c", "two"}}));
}

TEST(Dictionary, ACopyOfAnExpiringDictionaryTakesItsEntries) {
    Dictionary d = Dictionary::fromEntries({{std::make_shared<const std::string>("a"), Value(1)}},
                                           Dictionary::Mutability::Immutable);
    const Value* const entry = d.find("a");
    Dictionary taken = std::move(d).mutableCopy();
    EXPECT_EQ(taken.find("a"), entry);
    taken.set("b", 2);
    EXPECT_EQ(taken, (Dictionary{{"a", 1}, {"b", 2}}));
}

TEST(Dictionary, StoresNullAsAValue) {
    Dictionary d;
    d.set("a", Value());
    ASSERT_NE(d.find("a"), nullptr);
    EXPECT_TRUE(d.find("a")->isNull());
}

}  // namespace
}  // namespace krv

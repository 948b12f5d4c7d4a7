#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {
namespace {

TEST(Value, NumbersKeepTheirKind) {
    EXPECT_EQ(Value(true).kind(), Value::Kind::Boolean);
    EXPECT_EQ(Value(1).kind(), Value::Kind::Integer);
    EXPECT_EQ(Value(1.0F).kind(), Value::Kind::Float32);
    EXPECT_EQ(Value(1.0).kind(), Value::Kind::Float64);
    EXPECT_FALSE(Value(true) == Value(1));
    EXPECT_FALSE(Value(1.0F) == Value(1.0));
}

TEST(Value, EmptyReferencesAreNull) {
    EXPECT_TRUE(Value(Value::StringRef()).isNull());
    EXPECT_TRUE(Value(std::shared_ptr<Dictionary>()).isNull());
    EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
    EXPECT_EQ(Value().description(), "(null)");
}

TEST(Value, ConvertsNumbersWithinTheRangeOfTheResult) {
    EXPECT_EQ(Value(2.9).integerValue(), 2);
    EXPECT_EQ(Value(-2.9F).integerValue(), -2);
    EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
    EXPECT_EQ(Value(1e300).integerValue(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(Value(-1e300).integerValue(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value(true).integerValue(), 1);
    EXPECT_EQ(Value(false).integerValue(), 0);
    EXPECT_EQ(Value(true).doubleValue(), 1.0);
    EXPECT_TRUE(Value(0.5).boolValue());
    EXPECT_EQ(Value("7").integerValue(), 0);
}

TEST(Value, IsEmptyWhenReadAsAnotherKind) {
    EXPECT_EQ(Value(3).stringValue(), "");
    EXPECT_EQ(Value("x").sizeValue(), (Size{0, 0}));
    EXPECT_EQ(Value("x").array(), nullptr);
}

TEST(Value, DescribesContainersWithQuotedPaths) {
    EXPECT_EQ(Value(Array{"/a.mov", "b"}).description(), "(\n    \"/a.mov\",\n    b\n)");
    EXPECT_EQ(Value(Dictionary{{"k", 1}, {"two words", true}}).description(),
              "{\n    k = 1;\n    \"two words\" = 1;\n}");
}

TEST(Value, EqualityLooksIntoContainers) {
    EXPECT_EQ(Value(Array{1, "x"}), Value(Array{1, "x"}));
    EXPECT_FALSE(Value(Array{1, "x"}) == Value(Array{1, "y"}));
    const Value::ErrorRef a = Error::make("D", 1, {{"k", "v"}});
    const Value::ErrorRef b = Error::make("D", 1, {{"k", "v"}});
    EXPECT_EQ(Value(a), Value(b));
}

TEST(Error, DescribesItselfWithoutUserInfo) {
    const Error error("Domain", 7);
    EXPECT_EQ(error.localizedDescription(), "The operation couldn't be completed. (Domain error 7.)");
    EXPECT_EQ(error.localizedFailureReason(), "");
}

}  // namespace
}  // namespace krv

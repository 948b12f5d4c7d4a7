#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/Result.h>

namespace krv {
namespace {

Failure failure(const char* message = "It failed.") {
    return {Failure::Kind::NotMedia, {.message = message}};
}

TEST(Result, HoldsAValue) {
    const Result<int> result = 7;
    EXPECT_TRUE(result.has_value());
    EXPECT_TRUE(result);
    EXPECT_EQ(*result, 7);
    EXPECT_EQ(result.value(), 7);
    EXPECT_EQ(result.value_or(8), 7);
}

TEST(Result, HoldsAFailure) {
    const Result<int> result = failure();
    EXPECT_FALSE(result);
    EXPECT_EQ(result.error().kind(), Failure::Kind::NotMedia);
    EXPECT_EQ(result.value_or(8), 8);
}

TEST(Result, TheValueOfAFailureIsAnExceptionWithTheFailure) {
    const Result<std::string> result = failure("No such movie.");
    try {
        (void)result.value();
        FAIL();
    } catch (const BadResultAccess& exception) {
        EXPECT_STREQ(exception.what(), "No such movie.");
        EXPECT_EQ(exception.error().kind(), Failure::Kind::NotMedia);
    }
}

TEST(Result, GivesItsValueAway) {
    Result<std::unique_ptr<int>> result = std::make_unique<int>(3);
    EXPECT_EQ(**result, 3);
    const std::unique_ptr<int> taken = std::move(result).value();
    EXPECT_EQ(*taken, 3);
}

TEST(Result, MembersOfTheValueAreReachedByArrow) {
    const Result<std::string> result = std::string("abc");
    EXPECT_EQ(result->size(), 3U);
}

TEST(Result, FunctionsAreAppliedToTheValueOnly) {
    const auto half = [](int n) { return n % 2 == 0 ? Result<int>(n / 2) : Result<int>(failure("It is odd.")); };
    EXPECT_EQ(Result<int>(8).and_then(half).and_then(half).value(), 2);
    EXPECT_EQ(Result<int>(6).and_then(half).and_then(half).error().message(), "It is odd.");
    EXPECT_EQ(Result<int>(6).transform([](int n) { return std::to_string(n); }).value(), "6");
    EXPECT_EQ(Result<int>(failure()).transform([](int n) { return n + 1; }).error().message(), "It failed.");
}

TEST(Result, AFunctionMayReplaceTheFailure) {
    const auto zero = [](const Failure&) { return Result<int>(0); };
    EXPECT_EQ(Result<int>(failure()).or_else(zero).value(), 0);
    EXPECT_EQ(Result<int>(5).or_else(zero).value(), 5);
}

}  // namespace
}  // namespace krv

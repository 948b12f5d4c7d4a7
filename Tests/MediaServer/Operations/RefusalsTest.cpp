#include <gtest/gtest.h>

#include <MediaServer/Operations/OperationLedger.h>
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

std::shared_ptr<const Error> refusal(const std::string& why) {
    return makeError(*KRVOperationBase::provideMetadataFor("/a.mov"),
                     {.cause = FailureCause::InternalError, .reason = why});
}

class Refusals : public testing::Test {
protected:
    std::string reasonOf(const std::string& id) {
        const auto state = ledger.snapshot(id);
        return state && state->error ? state->error->localizedFailureReason() : "";
    }
    ServerOperation::Time now{1h};
    OperationLedger ledger{[] {}, [this] { return now; }};
};

TEST_F(Refusals, AreRepeatedUnderTheirIdentifier) {
    const std::string one = ledger.addRefused(refusal("one"));
    const std::string two = ledger.addRefused(refusal("two"));
    EXPECT_NE(one, two);
    EXPECT_EQ(reasonOf(one), "one");
    EXPECT_EQ(reasonOf(two), "two");
    EXPECT_FALSE(ledger.snapshot("another"));
}

TEST_F(Refusals, HaveEndedFromTheBeginning) {
    const std::string id = ledger.addRefused(refusal("why"));
    const auto state = *ledger.snapshot(id);
    EXPECT_TRUE(state.ended);
    EXPECT_FALSE(state.completed);
    EXPECT_EQ(state.progress, 0.0);
    EXPECT_TRUE(ledger.cancel(id));
    EXPECT_FALSE(ledger.snapshot(id)->cancelled);
}

TEST_F(Refusals, AreSmallWhateverTheRequestSays) {
    const std::string longText(std::size_t{15} << 20, 'x');
    const auto request = KRVOperationBase::provideMetadataFor("/" + longText);
    for (const Failure& failure :
         {Failure{.cause = FailureCause::NotAProcess, .subject = longText},
          Failure{.cause = FailureCause::InternalError, .reason = longText},
          Failure{.cause = FailureCause::InvalidArgument, .subject = longText, .detail = longText},
          Failure{.cause = FailureCause::UnreadableSource, .errorNumber = 2, .path = "/" + longText}}) {
        const auto error = makeError(*request, failure);
        EXPECT_LT(error->localizedDescription().size(), 20'000U);
        EXPECT_LT(error->localizedFailureReason().size(), 20'000U);
        EXPECT_EQ(error->userInfo()->find(kErrorFilePath), nullptr);
        (void)ledger.addRefused(error);
    }
    EXPECT_LT(ledger.counts().finishedBytes, 100'000U);
    EXPECT_GT(ledger.counts().finishedBytes, 4 * OperationLedger::kEntryCost);
}

TEST_F(Refusals, AreNotCountedAsOperations) {
    (void)ledger.addRefused(refusal("why"));
    const auto counts = ledger.counts();
    EXPECT_EQ(counts.queued + counts.running + counts.finished + counts.untold, 0U);
    EXPECT_TRUE(ledger.names().empty());
}

TEST_F(Refusals, AreDroppedWhenTheyAreRemoved) {
    const std::string id = ledger.addRefused(refusal("why"));
    EXPECT_TRUE(ledger.remove(id));
    EXPECT_FALSE(ledger.remove(id));
    EXPECT_FALSE(ledger.snapshot(id));
}

TEST_F(Refusals, AreDroppedAfterTenMinutes) {
    const std::string id = ledger.addRefused(refusal("why"));
    now += 10min;
    EXPECT_TRUE(ledger.removeOld().empty());
    EXPECT_FALSE(ledger.snapshot(id));
}

TEST_F(Refusals, AreDroppedOldestFirstWhenThereAreTooMany) {
    const std::string first = ledger.addRefused(refusal("first"));
    const std::string second = ledger.addRefused(refusal("second"));
    for (std::size_t i = 0; i < OperationLedger::kMostRefusals - 1; ++i) {
        (void)ledger.addRefused(refusal("later"));
    }
    EXPECT_FALSE(ledger.snapshot(first));
    EXPECT_TRUE(ledger.snapshot(second));
}

}  // namespace
}  // namespace krv::server

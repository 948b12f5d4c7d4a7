#include "FakeOperations.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TemporaryFolder.h"

namespace krv::test_kit {
namespace {

using testing::ElementsAre;
using R = KRVOperationBase;

class FakeOperationsTest : public testing::Test {
protected:
    void play(const std::string& text) {
        script = parseScript(text);
        operations = std::make_unique<FakeOperations>(
            script, shared,
            [this](const R& request, std::uint32_t number) {
                const std::lock_guard lock(mutex);
                reported.emplace_back(request.operationType(), number);
            },
            [this](bool crash) { deaths.push_back(crash); });
    }
    R::Ref begin(R::Ref request = nullptr) {
        return operations
            ->respond(request ? std::move(request)
                              : R::encodeVideoOperation("/in.mov", (folder.path() / "out.mp4").string()))
            .record;
    }
    Response ask(const R::Ref& operation) const {
        return operations->respond(R::progressAndCompletionOperation(operation->uniqueID()));
    }
    /// Returns the numbers that are reported until the operation ends.
    std::vector<float> numbersOf(const R::Ref& operation) const {
        std::vector<float> numbers;
        for (;;) {
            const R::Ref state = ask(operation).record;
            if (state->completed() || state->error() || state->cancelled()) {
                return numbers;
            }
            numbers.push_back(state->progress());
        }
    }

    const test::TemporaryFolder folder;
    Script script;
    SharedState shared;
    std::unique_ptr<FakeOperations> operations;
    std::mutex mutex;
    std::vector<std::pair<std::int32_t, std::uint32_t>> reported;
    std::vector<bool> deaths;
};

TEST_F(FakeOperationsTest, EachNumberIsReportedOnceWithoutWaiting) {
    play(R"({"progress": [0.1, 0.2, 0.3]})");
    EXPECT_THAT(numbersOf(begin()), ElementsAre(0.1F, 0.2F, 0.3F));
}

TEST_F(FakeOperationsTest, AReplyWithoutNewsIsSentAfterAWhile) {
    play(R"({"progress": [0.1], "every": 3600000})");
    const R::Ref operation = begin();
    EXPECT_EQ(ask(operation).record->progress(), 0.1F);
    EXPECT_EQ(ask(operation).record->progress(), 0.1F);
    EXPECT_FALSE(ask(operation).record->completed());
}

TEST_F(FakeOperationsTest, ACancelEndsAReplyThatIsHeld) {
    play(R"({"do": "stall", "at": 0.1})");
    const R::Ref operation = begin();
    EXPECT_EQ(ask(operation).record->progress(), 0.1F);
    EXPECT_TRUE(operations->respond(R::cancelOperation(operation->uniqueID())).record->cancelled());
    EXPECT_TRUE(ask(operation).record->cancelled());
    EXPECT_THAT(numbersOf(operation), testing::IsEmpty());
}

TEST_F(FakeOperationsTest, CancellingAllEndsEveryOperation) {
    play(R"({"do": "stall"})");
    const R::Ref one = begin();
    const R::Ref two = begin();
    (void)operations->respond(R::cancelAllOperationsOperation());
    EXPECT_TRUE(ask(one).record->cancelled());
    EXPECT_TRUE(ask(two).record->cancelled());
}

TEST_F(FakeOperationsTest, AnEndedOperationIsNotCancelled) {
    play(R"({"progress": []})");
    const R::Ref operation = begin();
    EXPECT_TRUE(ask(operation).record->completed());
    (void)operations->respond(R::cancelOperation(operation->uniqueID()));
    EXPECT_FALSE(ask(operation).record->cancelled());
    EXPECT_TRUE(ask(operation).record->completed());
}

TEST_F(FakeOperationsTest, ADeathFollowsTheResponseWithItsNumber) {
    play(R"({"do": "die", "at": 0.4, "progress": [0.2, 0.6]})");
    const R::Ref operation = begin();
    EXPECT_FALSE(ask(operation).afterwards);
    const Response last = ask(operation);
    EXPECT_EQ(last.record->progress(), 0.4F);
    ASSERT_TRUE(last.afterwards);
    last.afterwards();
    EXPECT_THAT(deaths, ElementsAre(true));
}

TEST_F(FakeOperationsTest, AnExitIsOrderly) {
    play(R"({"do": "exit"})");
    const Response response = operations->respond(R::encodeVideoOperation("/in.mov", "/out.mp4"));
    EXPECT_EQ(response.kind, Response::Kind::Drop);
    ASSERT_TRUE(response.afterwards);
    response.afterwards();
    EXPECT_THAT(deaths, ElementsAre(false));
}

TEST_F(FakeOperationsTest, TheBehavioursOfHTTPCanBeginLater) {
    play(R"({"nth": 1, "do": "garbage", "at": 0.1, "progress": [], "body": "x"}
{"nth": 2, "do": "status", "status": 503, "at": 0.1, "progress": []}
{"nth": 3, "do": "hang", "at": 0.1, "progress": []}
{"nth": 4, "do": "drop", "at": 0.1, "progress": []})");
    std::vector<Response> responses;
    for (int i = 0; i < 4; ++i) {
        const R::Ref operation = begin();
        EXPECT_EQ(ask(operation).record->progress(), 0.1F);
        responses.push_back(ask(operation));
    }
    EXPECT_EQ(responses[0].kind, Response::Kind::Body);
    EXPECT_EQ(responses[0].status, 200U);
    EXPECT_EQ(responses[0].body, "x");
    EXPECT_EQ(responses[1].kind, Response::Kind::Body);
    EXPECT_EQ(responses[1].status, 503U);
    EXPECT_EQ(responses[2].kind, Response::Kind::Hang);
    EXPECT_EQ(responses[3].kind, Response::Kind::Drop);
}

TEST_F(FakeOperationsTest, ARefusedOperationRepeatsItsError) {
    play(R"({"do": "fail", "error": {"code": 4}})");
    const R::Ref reply = begin();
    ASSERT_TRUE(reply->error());
    EXPECT_EQ(reply->error()->code(), 4);
    ASSERT_TRUE(ask(reply).record->error());
    EXPECT_EQ(ask(reply).record->error()->code(), 4);
}

TEST_F(FakeOperationsTest, EveryErrorHasItsCodeAndASentence) {
    for (int code = 1; code <= 10; ++code) {
        play(R"({"do": "fail", "error": {"code": )" + std::to_string(code) + "}}");
        const auto error = begin()->error();
        ASSERT_TRUE(error) << code;
        EXPECT_EQ(error->code(), code);
        EXPECT_THAT(error->localizedDescription(), testing::StartsWith("Cannot convert in.mov")) << code;
        EXPECT_FALSE(error->localizedFailureReason().empty()) << code;
    }
}

TEST_F(FakeOperationsTest, TheResultIsThatOfTheRealServerWithTheEntriesOfTheScript) {
    play(R"({"operation": "convert", "result": {"sourceTruncatedAt": 1.5}})");
    const R::Ref operation = begin();
    (void)numbersOf(operation);
    const R::Ref record = operations->respond(R::returnResultForOperation(operation->uniqueID())).record;
    EXPECT_EQ((*record->result())[kResultDroppedTracks], Value(Array()));
    EXPECT_EQ((*record->result())[kResultSourceTruncatedAt], Value(1.5));
    EXPECT_TRUE(record->completed());
}

TEST_F(FakeOperationsTest, AResultCanBeRemoved) {
    play("");
    const R::Ref operation = begin();
    EXPECT_EQ(operations->respond(R::removeReturnResultForOperation(operation->uniqueID())).record->error(), nullptr);
    ASSERT_TRUE(ask(operation).record->error());
    EXPECT_EQ(ask(operation).record->error()->code(), 2);
}

TEST_F(FakeOperationsTest, InterestingTimesHaveATimescale) {
    play("");
    const R::Ref operation = begin(R::getInterestingTimesOperation("/in.mov", false, 0));
    (void)numbersOf(operation);
    const R::Ref record = operations->respond(R::returnResultForOperation(operation->uniqueID())).record;
    const auto times = (*record->result())[kResultInterestingTimes].dictionary();
    ASSERT_TRUE(times);
    EXPECT_EQ((*times)[kResultInterestingTimeTimescale], Value(std::int64_t{600}));
}

TEST_F(FakeOperationsTest, AGateHoldsTheEnd) {
    play(R"({"progress": [0.1], "gate": "g"})");
    const R::Ref operation = begin();
    EXPECT_EQ(ask(operation).record->progress(), 0.1F);
    EXPECT_FALSE(ask(operation).record->completed());
    shared.open(0);
    EXPECT_TRUE(ask(operation).record->completed());
}

TEST_F(FakeOperationsTest, AGateThatIsOpenedEndsAReplyThatIsHeld) {
    play(R"({"progress": [], "gate": "g"})");
    const R::Ref operation = begin();
    std::jthread opener([this] { shared.open(0); });
    while (!ask(operation).record->completed()) {
    }
    EXPECT_TRUE(std::filesystem::exists(folder.path() / "out.mp4"));
}

TEST_F(FakeOperationsTest, ClientsAreRegisteredUntilTheyUnregister) {
    play("");
    const auto registered = [this] {
        return operations->respond(R::amIRegisteredOperation()).record->isClientRegistered();
    };
    EXPECT_FALSE(registered());
    EXPECT_TRUE(operations->respond(R::registerWithServerOperation()).record->isClientRegistered());
    EXPECT_TRUE(registered());
    EXPECT_FALSE(operations->respond(R::unregisterFromServerOperation()).record->isClientRegistered());
    EXPECT_FALSE(registered());
}

TEST_F(FakeOperationsTest, CountsTheOperationsThatHaveNotEnded) {
    play(R"({"nth": 1, "progress": []})");
    const R::Ref first = begin();
    (void)begin();
    const auto count = [this] {
        return operations->respond(R::numberOfOperationsOperation()).record->numOpsNumberOfOperations();
    };
    EXPECT_EQ(count(), Value(std::int64_t{2}));
    EXPECT_TRUE(ask(first).record->completed());
    EXPECT_EQ(count(), Value(std::int64_t{1}));
}

TEST_F(FakeOperationsTest, ReportsEachRequestWithItsNumber) {
    play("");
    (void)begin();
    (void)operations->respond(R::amIRegisteredOperation());
    (void)begin();
    EXPECT_THAT(reported, ElementsAre(std::pair(OpEncodeVideo, 1U), std::pair(OpAmIRegistered, 1U),
                                      std::pair(OpEncodeVideo, 2U)));
}

TEST_F(FakeOperationsTest, ManyThreadsMayAskAtOnce) {
    play(R"({"progress": [0.1, 0.2, 0.3], "write": false})");
    std::vector<std::vector<float>> seen(8);
    {
        std::vector<std::jthread> threads;
        for (auto& numbers : seen) {
            threads.emplace_back([&] { numbers = numbersOf(begin()); });
        }
    }
    EXPECT_THAT(seen, testing::Each(ElementsAre(0.1F, 0.2F, 0.3F)));
}

}  // namespace
}  // namespace krv::test_kit

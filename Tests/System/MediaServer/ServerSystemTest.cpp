// The real server: its status page, its clients and how it checks requests.
#include <csignal>
#include <fstream>

#include "ServerFixture.h"

namespace krv::server {
namespace {

TEST_F(Server, ReportsItsStatus) {
    start();
    const auto json = status();
    EXPECT_EQ(json["name"], "KRVQuicktimeProcess");
    EXPECT_EQ(json["version"], std::string(libraryVersion()));
    EXPECT_EQ(json["port"], port);
    EXPECT_EQ(json["queued"], 0);
    EXPECT_EQ(json["running"], 0);
    EXPECT_TRUE(json["clients"].empty());
    EXPECT_GE(json["workers"], 1);
}

TEST_F(Server, AnswersHousekeepingRequests) {
    start();
    const auto count = ask(R::numberOfOperationsOperation());
    EXPECT_EQ(count->numOpsNumberOfOperations(), Value(0));
    EXPECT_TRUE(count->numOpsNames()->empty());
    EXPECT_EQ(ask(R::readyToProcessRequestOperation())->operationType(), OpReadyToProcessRequests);
    EXPECT_FALSE(client->amIRegistered());
    client->registerWithServer();
    EXPECT_TRUE(client->amIRegistered());
    EXPECT_EQ(status()["clients"], nlohmann::json::array({::getpid()}));
    client->unregisterFromServer();
    EXPECT_FALSE(client->amIRegistered());
}

TEST_F(Server, RefusesToRegisterAnythingButALivingProcess) {
    start();
    const auto operation = R::registerWithServerOperation();
    for (const Value& pid : std::vector<Value>{0, -1, 0x7FFFFFFF, "text", Value()}) {
        operation->setRegInfoPID(pid);
        const auto reply = ask(operation);
        ASSERT_TRUE(reply->error());
        EXPECT_EQ(reply->error()->code(), 9);
    }
}

TEST_F(Server, NamesTheWrongArgument) {
    start();
    const auto codeOf = [this](const std::function<void(Dictionary&)>& change) {
        const auto operation = R::encodeVideoOperation(movie(), out());
        change(*operation->arguments());
        const auto error = ask(operation)->error();
        return error ? fmt::format("{} {}", error->code(), error->localizedFailureReason()) : "accepted";
    };
    EXPECT_EQ(codeOf([](auto& a) { a.remove("encodingSourceFilename"); }),
              "9 the argument \"encodingSourceFilename\" is missing");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingSourceFilename", 7); }),
              "9 the argument \"encodingSourceFilename\" is not a string");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingDestinationFilename", "relative.mp4"); }),
              "9 the argument \"encodingDestinationFilename\" is not an absolute path");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingType", "H.264"); }),
              "9 the argument \"encodingType\" is not an integer");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingVideoParams", 1); }),
              "9 the argument \"encodingVideoParams\" does not contain encoding parameters of its kind");
    EXPECT_EQ(codeOf([](auto& a) { a.set("encodingType", 99); }), "6 the encoding type 99 does not exist");
}

TEST_F(Server, RefusesUnknownOperations) {
    start();
    const auto operation = std::make_shared<R>();
    for (const std::int32_t type : {0, 18, -1}) {
        operation->setOperationType(type);
        EXPECT_EQ(ask(operation)->error()->code(), 9);
    }
    for (const auto& unknown : {R::progressAndCompletionOperation("x"), R::returnResultForOperation("x"),
                                R::cancelOperation("x"), R::removeReturnResultForOperation(std::nullopt)}) {
        EXPECT_EQ(ask(unknown)->error()->code(), 2);
    }
}

TEST_F(Server, TestsItself) {
    start();
    auto operation = R::httpServerTestingOperation();
    operation->testInfo()->timeToLive = 1;
    const auto reply = ask(operation);
    ASSERT_TRUE(reply->uniqueID());
    float last = -1;
    for (;;) {
        const auto state = ask(R::progressAndCompletionOperation(reply->uniqueID()));
        EXPECT_GE(state->progress(), last);
        last = state->progress();
        if (state->completed()) {
            break;
        }
    }
    EXPECT_EQ(last, 1.0F);
    operation->testInfo()->shouldError = 1;
    EXPECT_EQ(ask(operation)->error()->code(), 8);
    operation->testInfo()->shouldError = 0;
    operation->testInfo()->shouldThrow = 1;
    EXPECT_EQ(ask(operation)->error()->code(), 8);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
    operation->testInfo()->shouldThrow = 0;
    operation->testInfo()->shouldCrash = 1;
    EXPECT_THROW(ask(operation), Exception);
    EXPECT_EQ(process->wait(), -SIGABRT);
}

TEST_F(Server, AClientThatExitsIsForgotten) {
    start();
    ChildProcess mortal({"sleep", "1000"});
    const auto operation = R::registerWithServerOperation();
    operation->setRegInfoPID(std::int64_t{mortal.pid()});
    EXPECT_TRUE(ask(operation)->isClientRegistered());
    const auto work = R::httpServerTestingOperation();
    work->setRegInfoPID(std::int64_t{mortal.pid()});
    work->testInfo()->timeToLive = 1000;
    const auto id = ask(work)->uniqueID();
    mortal.signal(SIGKILL);
    mortal.wait();
    waitUntil([this] { return status()["clients"].empty(); });
    EXPECT_EQ(ask(R::progressAndCompletionOperation(id))->error()->code(), 2);
}

TEST_F(Server, ASecondServerExitsQuietly) {
    start();
    ChildProcess second({KRV_SERVER});
    EXPECT_EQ(second.wait(), 0);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
}

}  // namespace
}  // namespace krv::server

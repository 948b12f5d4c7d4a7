// Every type of operation, as a client sends it. The operations are carried out by the test.
#include <future>

#include <unistd.h>

#include <gmock/gmock.h>

#include "LedgerFixture.h"
#include "NoDescriptors.h"
#include <MediaServer/Operations/OperationDispatcher.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;

class Dispatcher : public Ledger {
protected:
    /// Sends the request in the name of this process and returns what will be the reply.
    std::future<R::Ref> send(const R::Ref& request) {
        request->setRegInfoPID(::getpid());
        const auto promise = std::make_shared<std::promise<R::Ref>>();
        dispatcher.dispatch(request, sender, [promise](const R::Ref& reply) { promise->set_value(reply); });
        return promise->get_future();
    }
    R::Ref ask(const R::Ref& request) { return send(request).get(); }
    static std::int64_t codeOf(const R::Ref& reply) { return reply->error() ? reply->error()->code() : 0; }

    R::Ref encode() { return R::encodeVideoOperation("/s", "/d"); }
    /// Sends a media operation and returns its identifier.
    std::string accepted(const R::Ref& request) {
        const R::Ref reply = ask(request);
        EXPECT_EQ(codeOf(reply), 0);
        return reply->uniqueID().value_or("");
    }
    static R::Ref selfTestFor(std::int64_t seconds) {
        auto request = R::httpServerTestingOperation();
        request->testInfo()->timeToLive = seconds;
        request->testInfo()->shouldComplete = 1;
        return request;
    }

    ClientRegistry clients;
    RequestSender sender;
    int shutDowns = 0;
    OperationDispatcher dispatcher{clients, ledger, held, [this] { ++shutDowns; }};
};

TEST_F(Dispatcher, RefusesAnUnknownType) {
    auto request = std::make_shared<R>();
    request->setOperationType(99);
    const R::Ref reply = ask(request);
    EXPECT_EQ(codeOf(reply), 9);
    EXPECT_THAT(reply->error()->localizedDescription(), testing::HasSubstr("99"));
}

TEST_F(Dispatcher, IsReadyAtOnce) {
    const R::Ref reply = ask(R::readyToProcessRequestOperation());
    EXPECT_EQ(codeOf(reply), 0);
    EXPECT_FALSE(reply->uniqueID());
}

TEST_F(Dispatcher, RegistersAndUnregistersTheProcess) {
    EXPECT_FALSE(ask(R::amIRegisteredOperation())->isClientRegistered());
    EXPECT_TRUE(ask(R::registerWithServerOperation())->isClientRegistered());
    EXPECT_TRUE(ask(R::amIRegisteredOperation())->isClientRegistered());
    EXPECT_EQ(clients.registeredPids(), std::vector<pid_t>{::getpid()});
    EXPECT_FALSE(ask(R::unregisterFromServerOperation())->isClientRegistered());
    EXPECT_FALSE(ask(R::amIRegisteredOperation())->isClientRegistered());
}

TEST_F(Dispatcher, RefusesARequestThatNamesNoLivingProcess) {
    const auto request = R::registerWithServerOperation();
    for (const Value& pid : {Value(), Value("me"), Value(-1), Value(std::int64_t{1} << 40)}) {
        request->arguments()->set(kArgumentPIDRegInfo, pid);
        R::Ref reply;
        dispatcher.dispatch(request, sender, [&](const R::Ref& given) { reply = given; });
        ASSERT_TRUE(reply);
        EXPECT_EQ(codeOf(reply), 9) << pid.description();
        EXPECT_FALSE(reply->isClientRegistered());
    }
    EXPECT_TRUE(clients.empty());
}

TEST_F(Dispatcher, RefusesSendersInAnotherPidNamespaceWithCodeOne) {
    sender.pidNamespace = pidNamespace();
    EXPECT_EQ(codeOf(ask(R::registerWithServerOperation())), 0);
    sender.pidNamespace = pidNamespace() + 1;
    for (const R::Ref& request : {R::registerWithServerOperation(), R::amIRegisteredOperation(), encode(),
                                  R::cancelAllOperationsOperation(), R::shutdownCommand()}) {
        EXPECT_EQ(codeOf(ask(request)), 1) << request->nameFromType();
    }
    EXPECT_EQ(shutDowns, 0);
    EXPECT_EQ(ledger.counts().queued + ledger.counts().running, 0U);
}

TEST_F(Dispatcher, RefusesWithCodeOneWhenItCannotLookTheClientUp) {
    const test::NoDescriptors none;
    const R::Ref reply = ask(encode());
    EXPECT_EQ(codeOf(reply), 1);
}

TEST_F(Dispatcher, CountsAndNamesOperationsInOrder) {
    accepted(encode());
    started(0);
    accepted(R::muxAudioTo2chOperation("/s", "/d"));
    const R::Ref reply = ask(R::numberOfOperationsOperation());
    EXPECT_EQ((*reply->arguments())[kArgumentNumOpsNumberOnServer], Value(2));
    const auto names = (*reply->arguments())[kArgumentNumOpsNames].array();
    ASSERT_TRUE(names && names->size() == 2);
    EXPECT_EQ((*names)[0], Value("Encode video"));
    EXPECT_EQ((*names)[1], Value("Mux movie audio to 2ch"));
}

TEST_F(Dispatcher, AcceptsAMediaOperationAndSaysNothingOfItsEnd) {
    auto reply = send(encode());
    started(0)->end.set_value(completed());
    const R::Ref first = reply.get();
    EXPECT_EQ(codeOf(first), 0);
    EXPECT_EQ(first->uniqueID().value_or("").size(), 36U);
    EXPECT_FALSE(first->completed());
    EXPECT_EQ(first->progress(), 0.0F);
    EXPECT_FALSE(clients.empty());
}

TEST_F(Dispatcher, RepeatsARefusalUnderItsIdentifier) {
    const auto request = encode();
    request->arguments()->remove(kArgumentEncodingSourceFilename);
    const R::Ref reply = ask(request);
    EXPECT_EQ(codeOf(reply), 9);
    const std::string id = reply->uniqueID().value_or("");
    EXPECT_EQ(codeOf(ask(R::progressAndCompletionOperation(id))), 9);
    EXPECT_EQ(codeOf(ask(R::returnResultForOperation(id))), 9);
    EXPECT_EQ(codeOf(ask(R::removeReturnResultForOperation(id))), 0);
    EXPECT_EQ(codeOf(ask(R::progressAndCompletionOperation(id))), 2);
}

TEST_F(Dispatcher, RefusesMediaOperationsWithCodeOneWhenTheLedgerIsClosed) {
    ledger.close();
    EXPECT_EQ(codeOf(ask(encode())), 1);
    EXPECT_EQ(codeOf(ask(R::readyToProcessRequestOperation())), 0);
}

TEST_F(Dispatcher, ReportsProgressAsSoonAsItChangesVisibly) {
    const std::string id = accepted(encode());
    const auto job = started(0);
    auto reply = send(R::progressAndCompletionOperation(id));
    job->report(0.25);
    R::Ref progress = reply.get();
    while (progress->progress() == 0.0F) {  // a machine under load may have let the reply's time pass before the report
        progress = ask(R::progressAndCompletionOperation(id));
    }
    EXPECT_NEAR(progress->progress(), 0.25F, 1e-6F);
    EXPECT_FALSE(progress->completed());
}

TEST_F(Dispatcher, TellsAWaitingOperationHowManyAreBeforeIt) {
    const std::string running = accepted(encode());
    const auto job = started(0);
    const std::string second = accepted(encode());
    const std::string third = accepted(R::muxAudioTo2chOperation("/s", "/d"));
    const auto positionOf = [this](const std::string& id) {
        return (*ask(R::progressAndCompletionOperation(id))->arguments())[kArgumentQueuePosition];
    };
    EXPECT_EQ(positionOf(running), Value());
    EXPECT_EQ(positionOf(second), Value(1));
    EXPECT_EQ(positionOf(third), Value(2));
    ask(R::cancelOperation(second));
    EXPECT_EQ(positionOf(third), Value(1));
    EXPECT_EQ(positionOf(second), Value()) << "it has ended";
    job->end.set_value(completed());
    started(1);
    EXPECT_EQ(positionOf(third), Value());
}

TEST_F(Dispatcher, ReportsTheEndAsSoonAsItIsThere) {
    const std::string id = accepted(encode());
    const auto job = started(0);
    auto reply = send(R::progressAndCompletionOperation(id));
    job->end.set_value(completed());
    R::Ref end = reply.get();
    while (!end->completed()) {  // likewise
        end = ask(R::progressAndCompletionOperation(id));
    }
    EXPECT_TRUE(end->completed());
    EXPECT_EQ(end->progress(), 1.0F);
    EXPECT_EQ(ledger.counts().untold, 0U);
}

TEST_F(Dispatcher, WaitsForAnEndThatIsNearIfTheClientAsksSeldom) {
    const std::string id = accepted(encode());
    const auto job = started(0);
    ask(R::progressAndCompletionOperation(id));
    ++seconds;
    job->report(0.8);
    const auto before = std::chrono::steady_clock::now();
    auto reply = send(R::progressAndCompletionOperation(id));
    job->report(0.9);
    held.checkAgain();
    job->end.set_value(completed());
    const R::Ref end = reply.get();
    // A machine under load may have let the reply's time pass before the end.
    EXPECT_TRUE(end->completed() || std::chrono::steady_clock::now() - before > std::chrono::milliseconds(400));
}

TEST_F(Dispatcher, ReturnsAndRemovesTheResult) {
    const std::string id = accepted(encode());
    started(0)->end.set_value(completed());
    waitForEnd(id);
    const R::Ref result = ask(R::returnResultForOperation(id));
    EXPECT_TRUE(result->completed());
    EXPECT_EQ((*result->arguments())["made"], Value(true));
    EXPECT_EQ(result->encodingSourceFilename(), "/s");
    EXPECT_EQ(codeOf(ask(R::removeReturnResultForOperation(id))), 0);
    EXPECT_EQ(codeOf(ask(R::removeReturnResultForOperation(id))), 2);
    EXPECT_EQ(codeOf(ask(R::returnResultForOperation(id))), 2);
}

TEST_F(Dispatcher, AnswersWithCodeTwoForAnUnknownIdentifier) {
    for (const R::Ref& request : {R::cancelOperation("nobody"), R::progressAndCompletionOperation("nobody"),
                                  R::returnResultForOperation("nobody"), R::removeReturnResultForOperation("nobody")}) {
        const R::Ref reply = ask(request);
        EXPECT_EQ(codeOf(reply), 2) << request->nameFromType();
        EXPECT_THAT(reply->error()->localizedDescription(), testing::HasSubstr("nobody"));
    }
}

TEST_F(Dispatcher, CancelsOneOperation) {
    const std::string id = accepted(encode());
    const auto job = started(0);
    EXPECT_TRUE(ask(R::cancelOperation(id))->cancelled());
    EXPECT_TRUE(job->cancellation->requested());
    job->end.set_value({Outcome::Kind::Cancelled, nullptr, nullptr});
    EXPECT_TRUE(waitForEnd(id).cancelled);
}

TEST_F(Dispatcher, CancelsAllOperationsOfTheCallingClientOnly) {
    const auto other = add("/other", {1, 1});
    started(0);
    const std::string mine = accepted(encode());
    EXPECT_TRUE(ask(R::cancelAllOperationsOperation())->cancelled());
    EXPECT_TRUE(ledger.snapshot(mine)->cancelled);
    EXPECT_FALSE(started(0)->cancellation->requested());
    EXPECT_FALSE(ledger.snapshot(other->id)->ended);
}

TEST_F(Dispatcher, StartsTheEndOfTheServer) {
    EXPECT_EQ(codeOf(ask(R::shutdownCommand())), 0);
    EXPECT_EQ(shutDowns, 1);
}

TEST_F(Dispatcher, RunsSelfTests) {
    const std::string id = accepted(selfTestFor(10));
    seconds += 5;
    EXPECT_NEAR(ask(R::progressAndCompletionOperation(id))->progress(), 0.5F, 1e-6F);
    seconds += 5;
    EXPECT_TRUE(ask(R::progressAndCompletionOperation(id))->completed());
    EXPECT_TRUE(ask(R::returnResultForOperation(id))->completed());
}

TEST_F(Dispatcher, SurvivesASelfTestThatFailsOrThrows) {
    const auto failing = selfTestFor(1);
    failing->testInfo()->shouldError = 1;
    EXPECT_EQ(codeOf(ask(failing)), 8);
    const auto throwing = selfTestFor(1);
    throwing->testInfo()->shouldThrow = 1;
    EXPECT_EQ(codeOf(ask(throwing)), 8);
    EXPECT_EQ(codeOf(ask(R::readyToProcessRequestOperation())), 0);
}

}  // namespace
}  // namespace krv::server

// What the shared client can do beyond the interface: passed on once, without casts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using testing::ElementsAre;
using Record = KRVOperationBase;

class ProxyClientOperations : public testing::Test {
protected:
    static Record::Ref record(bool completed) {
        const auto reply = std::make_shared<Record>();
        reply->setUniqueID("u");
        reply->setCompleted(completed);
        return reply;
    }

    FakeClock clock;
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<KRVQTProcessClientOperations> shared =
        ReliabilityProxy::proxyForOperations(std::make_shared<KRVQuicktimeProcessClient>(transport, clock), clock);
    std::shared_ptr<const Error> error;
};

TEST_F(ProxyClientOperations, MergingPassesItsArgumentsAndItsResultOn) {
    transport->reply(record(false)).reply(record(true)).reply(record(true)).reply(record(true));
    EXPECT_TRUE(shared->mergeSources(Value(Array{"/a", "/b"}), "/d", true, nullptr, &error));
    const Record& sent = *transport->sent().front();
    EXPECT_EQ(sent.operationType(), OpMergeSources);
    EXPECT_EQ((*sent.arguments())["videoMergeSources"], Value(Array{"/a", "/b"}));
    EXPECT_EQ((*sent.arguments())[kArgumentEncodingDestinationFilename], Value("/d"));
    EXPECT_EQ(transport->sentTypes().back(), OpRemoveReturnResult);
}

TEST_F(ProxyClientOperations, MergingReportsTheServersError) {
    const auto failed = record(true);
    failed->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 5));
    transport->reply(record(false)).reply(failed).reply(failed).reply(record(true));
    EXPECT_FALSE(shared->mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 5);
}

TEST_F(ProxyClientOperations, MergingIsNotRepeated) {
    transport->unreachable();
    EXPECT_THROW((void)shared->mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error), Exception);
    EXPECT_THAT(transport->sentTypes(), ElementsAre(OpMergeSources));
}

TEST_F(ProxyClientOperations, ResultsAreFetchedAndRemovedOnce) {
    const auto result = record(true);
    result->setProgress(0.5F);
    transport->reply(result).reply(record(true)).unreachable();
    const auto received = shared->getResultOfOperation(record(true), &error);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->progress(), 0.5F);
    shared->removeResultsFromServer(record(true));
    EXPECT_THROW((void)shared->getResultOfOperation(record(true), &error), Exception);
    EXPECT_THAT(transport->sentTypes(), ElementsAre(OpReturnResult, OpRemoveReturnResult, OpReturnResult));
}

/// A target with the operations of the interface only.
class InterfaceOnly final : public KRVQTProcessOperations {
public:
    bool convertMovie(std::string_view, std::string_view, const VideoSettings&, const AudioSettings&,
                      const ProgressDelegate&, ErrorOut) override {
        return true;
    }
    std::shared_ptr<const Dictionary> getMetadataFor(std::string_view, ErrorOut) override { return nullptr; }
    Value getInterestingTimesForMovie(std::string_view, bool, std::int32_t, ErrorOut) override { return {}; }
    std::shared_ptr<KRVTransport> transport() const override { return nullptr; }
    bool amIRegistered() override { return true; }
    bool isServerReadyToTakeRequests() override { return true; }
    Array operationsPendingCompletion() override { return {}; }
    void registerWithServer() override {}
    void unregisterFromServer() override {}
    bool queueShutdownOfCurrentServer() override { return true; }

protected:
    bool performConvertMovie(std::string_view, std::string_view, std::int32_t, bool, const ProgressDelegate&,
                             ErrorOut) override {
        return true;
    }
    bool performCreateThumbnails(std::string_view, std::string_view, Size, const ProgressDelegate&, ErrorOut) override {
        return true;
    }
    bool performMuxMovie(std::string_view, std::string_view, const ProgressDelegate&, ErrorOut) override {
        return true;
    }
    bool performCancelAllOperations(ErrorOut) override { return true; }
};

TEST_F(ProxyClientOperations, ATargetWithoutThemDoesNotRecogniseThem) {
    const auto proxy = ReliabilityProxy::proxyForOperations(std::make_shared<InterfaceOnly>(), clock);
    const auto nameRaisedBy = [](const std::function<void()>& call) {
        try {
            call();
        } catch (const Exception& exception) {
            return exception.name();
        }
        return std::string("nothing");
    };
    EXPECT_EQ(nameRaisedBy([&] { (void)proxy->mergeSources(Value(Array{}), "/d", false, nullptr, nullptr); }),
              "NSInvalidArgumentException");
    EXPECT_EQ(nameRaisedBy([&] { (void)proxy->getResultOfOperation(nullptr, nullptr); }), "NSInvalidArgumentException");
    EXPECT_EQ(nameRaisedBy([&] { proxy->removeResultsFromServer(nullptr); }), "NSInvalidArgumentException");
}

}  // namespace
}  // namespace krv

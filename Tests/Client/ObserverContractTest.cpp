// What an application's observer sees of a call, and what its answers do, over the proxy, the client and its transport.
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using R = KRVOperationBase;
using Types = std::vector<std::int32_t>;

class Seen final : public OperationProgress {
public:
    bool operation(const R::Ref& operation, float progress) override {
        calls.emplace_back(operation, progress);
        return answer();
    }
    std::vector<std::pair<std::weak_ptr<R>, float>> calls;
    std::function<bool()> answer = [] { return true; };
};

class ObserverContract : public testing::Test {
protected:
    static R::Ref state(float progress, std::shared_ptr<const Error> failure = nullptr) {
        const auto record = R::progressAndCompletionOperation("u");
        record->setProgress(progress, progress == 1.0F);
        record->setError(std::move(failure));
        return record;
    }

    FakeClock clock;
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<KRVQTProcessOperations> shared =
        ReliabilityProxy::proxyForOperations(std::make_shared<KRVQuicktimeProcessClient>(transport, clock), clock);
    std::shared_ptr<Seen> observer = std::make_shared<Seen>();
    std::shared_ptr<const Error> error;
};

TEST_F(ObserverContract, AnExceptionDoesNotCancelTheOperation) {
    observer->answer = []() -> bool { throw std::runtime_error("own"); };
    transport->reply(state(0)).reply(state(0.1F));
    EXPECT_THROW(shared->convertMovie("/s", "/d", 1, false, observer, &error), std::runtime_error);
    EXPECT_EQ(transport->sentTypes(), (Types{OpEncodeVideo, OpProgressAndCompletion}));
}

TEST_F(ObserverContract, ProgressStartsOverWithAnotherServer) {
    transport->reply(state(0)).reply(state(0.5F)).unreachable();
    transport->reply(state(0)).reply(state(0.1F)).reply(state(1));
    shared->convertMovie("/s", "/d", 1, false, observer, &error);
    EXPECT_FALSE(error);
    ASSERT_EQ(observer->calls.size(), 2U);
    EXPECT_EQ(observer->calls[0].second, 0.5F);
    EXPECT_EQ(observer->calls[1].second, 0.1F);
}

TEST_F(ObserverContract, ARepeatedCallHasAnotherRecord) {
    std::vector<R::Ref> records;
    observer->answer = [&] {
        records.push_back(observer->calls.back().first.lock());
        return true;
    };
    transport->reply(state(0)).reply(state(0.5F)).unreachable();
    transport->reply(state(0)).reply(state(0.1F)).reply(state(1));
    shared->convertMovie("/s", "/d", 1, false, observer, &error);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_NE(records[0], records[1]);
}

TEST_F(ObserverContract, IsNotAskedWhileThereIsNoServer) {
    std::size_t callsWhenBack = 0;
    observer->answer = [] { return false; };
    transport->unreachable().then([&](const auto&) {
        callsWhenBack = observer->calls.size();
        return std::make_shared<const Data>(state(0)->convertToData());
    });
    transport->reply(state(0.1F));
    transport->readiness = {false, false, false};
    const auto start = clock.now();
    shared->convertMovie("/s", "/d", 1, false, observer, &error);
    EXPECT_GE(clock.now() - start, 3s);
    EXPECT_EQ(callsWhenBack, 0U);
    // Asked by the new server's first report only, and then cancelled.
    EXPECT_EQ(observer->calls.size(), 1U);
    EXPECT_EQ(transport->sentTypes().back(), OpCancelOperation);
}

TEST_F(ObserverContract, ThumbnailsHideTheServersError) {
    const auto failure = Error::make(std::string(kMediaServerErrorDomain), 3, {});
    transport->reply(state(0)).reply(state(0.1F, failure));
    shared->createThumbnailsFor("/s", "/folder", {}, observer, &error);
    EXPECT_FALSE(error);
}

TEST_F(ObserverContract, TheFirstAttemptFailsWhileThePortIsNotKnown) {
    class Port final : public ServicePort {
    public:
        [[nodiscard]] long servicePortNumber() const override { return asked++ == 0 ? 0 : 8001; }
        mutable int asked = 0;
    };
    FakeHTTPClient http;
    http.respond("http://localhost:8001/status", FakeHTTPClient::reply("{}"));
    http.respond("http://localhost:8001", FakeHTTPClient::reply(state(1)->convertToData()));
    const auto overHTTP = std::make_shared<KRVHTTPClientTransport>(std::make_shared<Port>(), http);
    const auto proxy =
        ReliabilityProxy::proxyForOperations(std::make_shared<KRVQuicktimeProcessClient>(overHTTP, clock), clock);
    proxy->convertMovie("/s", "/d", 1, false, nullptr, &error);
    EXPECT_FALSE(error);
    EXPECT_EQ(http.urls(), (std::vector<std::string>{"http://localhost:0", "http://localhost:8001/status",
                                                     "http://localhost:8001", "http://localhost:8001"}));
}

}  // namespace
}  // namespace krv

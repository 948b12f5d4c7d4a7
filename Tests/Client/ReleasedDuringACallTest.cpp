// Observers that release the client in the middle of its call.
#include <utility>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using R = KRVOperationBase;

class ReleasedDuringACall : public testing::Test {
protected:
    class Releasing final : public OperationProgress {
    public:
        explicit Releasing(std::shared_ptr<KRVQuicktimeProcessClient>& client)
            : client_(client) {}
        bool operation(const R::Ref& /*operation*/, float /*progress*/) override {
            client_.reset();
            return true;
        }

    private:
        std::shared_ptr<KRVQuicktimeProcessClient>& client_;
    };

    ReleasedDuringACall() {
        for (const float progress : {0.0F, 0.5F, 1.0F}) {
            const auto state = R::progressAndCompletionOperation("u");
            state->setProgress(progress, progress == 1.0F);
            transport->reply(state);
        }
    }

    FakeClock clock;
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<KRVQuicktimeProcessClient> client = std::make_shared<KRVQuicktimeProcessClient>(transport, clock);
    std::shared_ptr<OperationProgress> observer = std::make_shared<Releasing>(client);
    std::shared_ptr<const Error> error;
};

TEST_F(ReleasedDuringACall, AMergeStillRemovesItsResult) {
    const std::weak_ptr<KRVQuicktimeProcessClient> released = client;
    EXPECT_TRUE(client->mergeSources(Value(Array{"/a", "/b"}), "/d", false, observer, &error));
    EXPECT_FALSE(client);
    EXPECT_TRUE(released.expired());
    EXPECT_EQ(transport->sentTypes(), (std::vector<std::int32_t>{OpMergeSources, OpProgressAndCompletion,
                                                                 OpProgressAndCompletion, OpRemoveReturnResult}));
}

TEST_F(ReleasedDuringACall, AConversionEndsAsUsual) {
    client->convertMovie("/s", "/d", 1, false, observer, &error);
    EXPECT_FALSE(client);
    EXPECT_FALSE(error);
    EXPECT_EQ(transport->stepsLeft(), 0U);
}

TEST_F(ReleasedDuringACall, AProxyEndsItsCallAsUsual) {
    class ReleasingTheProxy final : public OperationProgress {
    public:
        bool operation(const R::Ref& /*operation*/, float /*progress*/) override {
            proxy.reset();
            return true;
        }
        std::shared_ptr<ReliabilityProxy> proxy;
    };
    const auto releasing = std::make_shared<ReleasingTheProxy>();
    releasing->proxy = ReliabilityProxy::proxyForOperations(std::exchange(client, nullptr), clock);
    const std::weak_ptr<ReliabilityProxy> released = releasing->proxy;
    releasing->proxy->convertMovie("/s", "/d", 1, false, releasing, &error);
    EXPECT_TRUE(released.expired());
    EXPECT_FALSE(error);
    EXPECT_EQ(transport->stepsLeft(), 0U);
}

}  // namespace
}  // namespace krv

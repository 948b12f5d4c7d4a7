// Null records, which are tolerated wherever an operation is.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

namespace krv {
namespace {

using R = KRVOperationBase;
using Texts = std::vector<std::string>;

/// Gives the same reply to everything, null records included.
class Echo final : public KRVTransport {
public:
    std::shared_ptr<const Data> sendOperation(const R::Ref& operation) override {
        sent.push_back(operation);
        if (failure) {
            throw Exception(*failure);
        }
        return reply ? std::make_shared<const Data>(reply->convertToData()) : nullptr;
    }
    [[nodiscard]] bool isThisACommunicationsFailure(const Exception& /*exception*/) const override { return false; }
    [[nodiscard]] bool serviceReadyToRock() override { return true; }
    [[nodiscard]] std::string description() const override { return "<Echo>"; }

    R::Ref reply = R::provideMetadataFor("/s");
    std::optional<Exception> failure;
    std::vector<R::Ref> sent;
};

class NullRecord : public testing::Test {
protected:
    FakeClock clock;
    std::shared_ptr<Echo> transport = std::make_shared<Echo>();
    KRVQuicktimeProcessClient client{transport, clock};
    TransportInvocation invocation{clock};
    std::shared_ptr<const Error> error;
};

TEST_F(NullRecord, IsNamedInTheExceptionForAMissingReply) {
    try {
        TransportInvocation::throwExceptionBasedOnResponse(nullptr, nullptr);
        FAIL();
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), "TransportCheck");
        EXPECT_EQ(exception.reason(), "Unable to (null), no response returned from server.");
    }
}

TEST_F(NullRecord, HasAReplyLikeAnyOther) {
    const auto reply = std::make_shared<const Data>(R::shutdownCommand()->convertToData());
    EXPECT_EQ(TransportInvocation::throwExceptionBasedOnResponse(nullptr, reply)->operationType(), OpShutdownServer);
    EXPECT_EQ(TransportInvocation::throwExceptionIfNoError(&error, nullptr, reply)->operationType(), OpShutdownServer);
}

TEST_F(NullRecord, IsSentByAnInvocationWithoutInput) {
    EXPECT_TRUE(invocation.invokeOverTransport(transport, &error));
    EXPECT_EQ(transport->sent, std::vector<R::Ref>{nullptr});
    transport->failure = Exception("Name", "reason");
    EXPECT_FALSE(invocation.invokeOverTransport(transport, &error));
    EXPECT_EQ(error->localizedDescription(), "Unable to (null)");
}

TEST_F(NullRecord, IsNotWaitedFor) {
    EXPECT_FALSE(invocation.invokeOverTransportGetProgressWaitToComplete(transport, &error, 1.0F));
    EXPECT_FALSE(error);
    EXPECT_EQ(transport->sent, std::vector<R::Ref>{nullptr});
}

TEST_F(NullRecord, WhoseReplyIsMissingThrowsFromTheWaitToo) {
    transport->reply = nullptr;
    EXPECT_THROW((void)invocation.invokeOverTransportGetProgressWaitToComplete(transport, &error, 1.0F), Exception);
}

TEST_F(NullRecord, IsCancelledOnTheServerWithoutAnIdentifier) {
    LogRecorder log;
    invocation.tryToCancelOperation(nullptr, transport);
    ASSERT_EQ(transport->sent.size(), 1U);
    EXPECT_EQ(transport->sent[0]->operationType(), OpCancelOperation);
    EXPECT_EQ(transport->sent[0]->uniqueID(), std::nullopt);
    EXPECT_EQ(log.texts(), Texts{});
    transport->failure = Exception("Name", "reason");
    invocation.tryToCancelOperation(nullptr, transport);
    EXPECT_EQ(log.texts(), Texts{"Attempting to cancel (null) failed with Unable to Cancel operation. Ignoring."});
}

TEST_F(NullRecord, HasNoResultOfItsOwn) {
    EXPECT_EQ(client.getResultOfOperation(nullptr, &error)->operationType(), OpProvideMetadata);
    ASSERT_EQ(transport->sent.size(), 1U);
    EXPECT_EQ(transport->sent[0]->operationType(), OpReturnResult);
    EXPECT_EQ(transport->sent[0]->uniqueID(), std::nullopt);
    EXPECT_FALSE(error);
}

TEST_F(NullRecord, MayHaveItsResultsRemoved) {
    LogRecorder log;
    client.removeResultsFromServer(nullptr);
    ASSERT_EQ(transport->sent.size(), 1U);
    EXPECT_EQ(transport->sent[0]->operationType(), OpRemoveReturnResult);
    EXPECT_EQ(transport->sent[0]->uniqueID(), std::nullopt);
    EXPECT_EQ(log.texts(), Texts{});
    transport->failure = Exception("Name", "reason");
    client.removeResultsFromServer(nullptr);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_TRUE(log.texts()[0].starts_with("Couldn't remove results from server for (null), "));
}

TEST_F(NullRecord, HasNoErrorToMove) {
    EXPECT_TRUE(KRVQuicktimeProcessClient::migrateInvocationError(nullptr, &error));
    EXPECT_FALSE(error);
}

TEST_F(NullRecord, IsPostedWithoutABody) {
    class Port final : public ServicePort {
        [[nodiscard]] long servicePortNumber() const override { return 8001; }
    };
    FakeHTTPClient http;
    http.respond("http://localhost:8001", FakeHTTPClient::reply("not a record", 400));
    KRVHTTPClientTransport overHTTP(std::make_shared<Port>(), http);
    EXPECT_TRUE(overHTTP.sendOperation(nullptr));
    ASSERT_EQ(http.requests().size(), 1U);
    EXPECT_EQ(http.requests()[0].body, Data());
}

}  // namespace
}  // namespace krv

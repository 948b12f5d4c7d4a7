#include <stdexcept>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using R = KRVOperationBase;

std::shared_ptr<const Data> bytesOf(const R::Ref& record) {
    return std::make_shared<const Data>(record->convertToData());
}

class TransportInvocationTest : public testing::Test {
protected:
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<const Error> error;
    TransportInvocation::Ref invocation = TransportInvocation::invocationWith(R::cancelOperation("id"));
};

template <typename F>
Exception exceptionOf(const F& f) {
    try {
        f();
    } catch (const Exception& e) {
        return e;
    }
    return {"nothing was raised", ""};
}

TEST_F(TransportInvocationTest, StartsWithItsOperationAndATimeoutOfAMinute) {
    EXPECT_EQ(invocation->input()->operationType(), OpCancelOperation);
    EXPECT_EQ(invocation->progressTimeoutDuration(), 60.0F);
    const TransportInvocation plain;
    EXPECT_EQ(plain.input(), nullptr);
    EXPECT_EQ(plain.progressTimeoutDuration(), 60.0F);
}

TEST_F(TransportInvocationTest, ReturnsTheRawReply) {
    transport->replyBytes("not an archive");
    const auto reply = invocation->invokeOverTransport(transport, &error);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->size(), 14U);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(invocation->input()->uniqueID(), "id");
}

TEST_F(TransportInvocationTest, AReplyWithAnErrorIsReturnedNormally) {
    const auto record = std::make_shared<R>();
    record->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 4));
    transport->reply(record);
    const auto reply = invocation->invokeOverTransport(transport, &error);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(R::operationFromData(reply)->error()->code(), 4);
}

TEST_F(TransportInvocationTest, ACommunicationsFailurePropagatesUnchanged) {
    transport->unreachable("no port");
    const Exception raised = exceptionOf([&] { (void)invocation->invokeOverTransport(transport, &error); });
    EXPECT_EQ(raised.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(raised.reason(), "no port");
    EXPECT_EQ(error, nullptr);
}

TEST_F(TransportInvocationTest, AnyOtherExceptionBecomesAnErrorThatNamesTheOperation) {
    error = std::make_shared<const Error>("old", 1);
    transport->fail("the cause");
    EXPECT_EQ(invocation->invokeOverTransport(transport, &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "TransportInvocation");
    EXPECT_EQ(error->code(), 0);
    EXPECT_EQ(error->localizedDescription(), "Unable to Cancel operation");
    EXPECT_EQ(error->localizedFailureReason(), "the cause");
    EXPECT_EQ(error->userInfo()->size(), 2U);
}

TEST_F(TransportInvocationTest, AnyOtherExceptionIsDroppedWithoutAnOutParameter) {
    transport->fail("the cause");
    EXPECT_EQ(invocation->invokeOverTransport(transport, nullptr), nullptr);
}

TEST_F(TransportInvocationTest, OtherExceptionsPropagate) {
    transport->then([](const auto&) -> std::shared_ptr<const Data> { throw std::runtime_error("own"); });
    EXPECT_THROW((void)invocation->invokeOverTransport(transport, &error), std::runtime_error);
    EXPECT_EQ(error, nullptr);
}

TEST_F(TransportInvocationTest, WithoutATransportThereIsNoReply) {
    EXPECT_EQ(invocation->invokeOverTransport(nullptr, &error), nullptr);
    EXPECT_EQ(error, nullptr);
}

TEST_F(TransportInvocationTest, AnErrorIsMadeOnlyForAnOutParameter) {
    EXPECT_FALSE(invocation->errorBasedOnOperation(nullptr, nullptr));
    EXPECT_TRUE(invocation->errorBasedOnOperation(&error, nullptr));
    EXPECT_EQ(error->userInfo()->size(), 1U);
    EXPECT_EQ(error->localizedDescription(), "Unable to Cancel operation");
}

TEST_F(TransportInvocationTest, AnErrorWithoutAnOperationSaysSo) {
    EXPECT_TRUE(TransportInvocation().errorBasedOnOperation(&error, nullptr));
    EXPECT_EQ(error->localizedDescription(), "Unable to (null)");
}

TEST_F(TransportInvocationTest, UserInfoNamesTheOperationAndTheReason) {
    EXPECT_EQ(TransportInvocation::createErrorDictionaryFromException("Name", nullptr),
              (Dictionary{{NSLocalizedDescriptionKey, "Unable to Name"}}));
    const Exception e("N", "R");
    EXPECT_EQ(TransportInvocation::createErrorDictionaryFromException("Name", &e),
              (Dictionary{{NSLocalizedDescriptionKey, "Unable to Name"}, {NSLocalizedFailureReasonErrorKey, "R"}}));
}

TEST_F(TransportInvocationTest, AMissingEmptyOrForeignReplyThrowsWithTheOperationsName) {
    const auto sent = R::cancelAllOperationsOperation();
    const auto foreign = std::make_shared<const Data>(Data(10, std::byte{1}));
    for (const auto& reply : {std::shared_ptr<const Data>(), std::make_shared<const Data>(), foreign}) {
        const Exception raised = exceptionOf([&] { TransportInvocation::throwExceptionBasedOnResponse(sent, reply); });
        EXPECT_EQ(raised.name(), "TransportCheck");
        EXPECT_EQ(raised.reason(), "Unable to Cancel all operations, no response returned from server.");
    }
    const auto decoded = TransportInvocation::throwExceptionBasedOnResponse(sent, bytesOf(R::provideMetadataFor("/s")));
    EXPECT_EQ(decoded->operationType(), OpProvideMetadata);
}

TEST_F(TransportInvocationTest, AReplyIsNotCheckedWhenThereIsAnError) {
    const auto sent = R::shutdownCommand();
    const auto reply = bytesOf(sent);
    EXPECT_TRUE(TransportInvocation::throwExceptionIfNoError(&error, sent, reply));
    EXPECT_TRUE(TransportInvocation::throwExceptionIfNoError(nullptr, sent, reply));
    EXPECT_THROW(TransportInvocation::throwExceptionIfNoError(&error, sent, nullptr), Exception);
    EXPECT_THROW(TransportInvocation::throwExceptionIfNoError(nullptr, sent, nullptr), Exception);
    error = std::make_shared<const Error>("D", 1);
    EXPECT_EQ(TransportInvocation::throwExceptionIfNoError(&error, sent, reply), nullptr);
    EXPECT_EQ(TransportInvocation::throwExceptionIfNoError(&error, sent, nullptr), nullptr);
}

}  // namespace
}  // namespace krv

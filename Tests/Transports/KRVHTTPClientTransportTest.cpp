#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

namespace krv {
namespace {

using namespace std::chrono_literals;
using R = KRVOperationBase;
using Texts = std::vector<std::string>;

constexpr LinesOf kLines("Source/Transports/KRVHTTPClientTransport");

/// Returns the texts as lines of the traffic between client and server.
Texts traffic(std::initializer_list<std::string_view> texts) {
    Texts lines;
    for (const std::string_view text : texts) {
        lines.push_back(kLines.verbose("makeHTTPCallAndReturnData:", text));
    }
    return lines;
}

class SettablePort final : public ServicePort {
public:
    [[nodiscard]] long servicePortNumber() const override { return port; }
    long port = 8001;
};

class Transport : public testing::Test {
protected:
    static constexpr const char* kUrl = "http://localhost:8001";

    Exception raisedBy(const R::Ref& request) {
        try {
            (void)transport.sendOperation(request);
        } catch (const Exception& exception) {
            return exception;
        }
        return {"nothing was raised", ""};
    }
    static Data archived(const std::shared_ptr<const Error>& error = nullptr) {
        R reply;
        reply.setError(error);
        return reply.convertToData();
    }
    static std::shared_ptr<const Error> error(const char* domain, std::int64_t code) {
        return Error::make(domain, code, {{NSLocalizedDescriptionKey, "the queue is full"}});
    }

    FakeHTTPClient http;
    std::shared_ptr<SettablePort> port = std::make_shared<SettablePort>();
    KRVHTTPClientTransport transport{port, http};
    const R::Ref operation = R::provideMetadataFor("/s");
};

TEST_F(Transport, AnAbsentServerThrowsAtOnce) {
    port->port = -1;
    LogRecorder log(15, ~0U);
    const Exception raised = raisedBy(operation);
    EXPECT_EQ(raised.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(raised.reason(), "Unable to talk to server. No port number.");
    EXPECT_TRUE(http.requests().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Transport, APortNotYetKnownIsTriedAndFails) {
    port->port = 0;
    EXPECT_FALSE(transport.serviceReadyToRock());
    EXPECT_TRUE(http.requests().empty());
    const Exception raised = raisedBy(operation);
    EXPECT_EQ(raised.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(http.urls(), Texts{"http://localhost:0"});
}

TEST_F(Transport, PostsTheArchivedRecordToTheRootWithinAMinute) {
    http.respond(kUrl, FakeHTTPClient::reply(archived()));
    (void)transport.sendOperation(operation);
    ASSERT_EQ(http.requests().size(), 1U);
    const HTTPRequest sent = http.requests()[0];
    EXPECT_EQ(sent.url, kUrl);
    EXPECT_EQ(sent.timeout, 60s);
    ASSERT_TRUE(sent.body);
    EXPECT_EQ(*sent.body, operation->convertToData());
}

TEST_F(Transport, ReturnsTheBytesOfARecord) {
    http.respond(kUrl, FakeHTTPClient::reply(archived()));
    EXPECT_EQ(*transport.sendOperation(operation), archived());
}

TEST_F(Transport, BytesThatAreNotARecordAreReturnedAndLogged) {
    http.respond(kUrl, FakeHTTPClient::reply("not a record", 500));
    LogRecorder log(15, kLoggingHTTPMessaging);
    EXPECT_EQ(transport.sendOperation(operation)->size(), 12U);
    EXPECT_EQ(log.whole(), traffic({"Making connection for Get poster frame and metadata to http://localhost:8001",
                                    "Could not convert response: (null) into an operation payload"}));
}

TEST_F(Transport, AServerThatCannotTakeWorkCountsAsUnreachable) {
    http.respond(kUrl, FakeHTTPClient::reply(archived(error("KRVQuicktimeProcess", 1))));
    LogRecorder log(15, 0);
    const Exception raised = raisedBy(operation);
    EXPECT_EQ(raised.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(raised.reason(), "Command Get poster frame and metadata failed with the queue is full");
    EXPECT_TRUE(transport.isThisACommunicationsFailure(raised));
    EXPECT_EQ(log.whole(), Texts{kLines.warning("makeHTTPCallAndReturnData:", raised.reason())});
}

TEST_F(Transport, OtherErrorsInTheReplyAreLeftToTheCaller) {
    for (const auto& other : {error("KRVQuicktimeProcess", 2), error("Elsewhere", 1)}) {
        http.respond(kUrl, FakeHTTPClient::reply(archived(other)));
        EXPECT_EQ(*transport.sendOperation(operation), archived(other));
    }
}

TEST_F(Transport, AMissingReplyThrowsWithTheConnectionsError) {
    http.respond(kUrl, {std::nullopt, 0, "the cause"});
    LogRecorder log(15, kLoggingHTTPMessaging);
    EXPECT_EQ(raisedBy(operation).reason(),
              "No data was returned from the sendSynchronousRequest. Error from NSURLConnection: the cause");
    EXPECT_EQ(log.whole(), traffic({"Making connection for Get poster frame and metadata to http://localhost:8001",
                                    "Received back nil for url: http://localhost:8001"}));
    http.respond(kUrl, {std::nullopt, 0, std::nullopt});
    EXPECT_EQ(raisedBy(operation).reason(),
              "No data was returned from the sendSynchronousRequest. Probably NSURLConnection problem.");
}

TEST_F(Transport, ABodyTogetherWithAnErrorThrows) {
    HTTPResponse response = FakeHTTPClient::reply(archived());
    response.error = "cut short";
    http.respond(kUrl, response);
    const Exception raised = raisedBy(operation);
    EXPECT_EQ(raised.name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(raised.reason(), "Unable to talk to server, error: cut short");
}

TEST_F(Transport, ARecordThatCannotBeArchivedIsNotACommunicationsFailure) {
    const Exception raised = raisedBy(R::provideMetadataFor("\xFF"));
    EXPECT_EQ(raised.name(), "NSInvalidArgumentException");
    EXPECT_FALSE(transport.isThisACommunicationsFailure(raised));
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(Transport, HousekeepingIsLoggedOnlyAtHighVerbosity) {
    http.respond(kUrl, FakeHTTPClient::reply(archived()));
    const auto linesFor = [this](std::int32_t type, std::int32_t verbosity) {
        LogRecorder log(15, kLoggingHTTPMessaging);
        Logging::setQuicktimeLoggingLevel(verbosity);
        const auto sent = std::make_shared<R>();
        sent->setOperationType(type);
        (void)transport.sendOperation(sent);
        return log.lines().size();
    };
    for (std::int32_t type = 0; type <= 5; ++type) {
        EXPECT_EQ(linesFor(type, 14), 0U) << type;
        EXPECT_EQ(linesFor(type, 15), 2U) << type;  // with its payload
    }
    for (const std::int32_t type : {6, 14, 17, -559038737}) {
        EXPECT_EQ(linesFor(type, 14), 1U) << type;
        EXPECT_EQ(linesFor(type, 15), 2U) << type;
    }
}

TEST_F(Transport, ThePayloadLineShowsTheReply) {
    http.respond(kUrl, FakeHTTPClient::reply(operation->convertToData()));
    LogRecorder log(15, kLoggingHTTPMessaging);
    Logging::setQuicktimeLoggingLevel(15);
    (void)transport.sendOperation(operation);
    EXPECT_EQ(log.whole(), traffic({"Making connection for Get poster frame and metadata to http://localhost:8001",
                                    "Payload for http://localhost:8001 is " + operation->description()}));
}

TEST_F(Transport, TrafficIsNotLoggedWithoutItsMask) {
    LogRecorder log(15, ~kLoggingHTTPMessaging);
    Logging::setQuicktimeLoggingLevel(15);
    http.respond(kUrl, FakeHTTPClient::reply(archived()));
    (void)transport.sendOperation(operation);
    http.respond(kUrl, FakeHTTPClient::reply("not a record"));
    (void)transport.sendOperation(operation);
    http.respond(kUrl, {std::nullopt, 0, std::nullopt});
    EXPECT_EQ(raisedBy(operation).name(), kHTTPServerNSURLConnectionError);
    EXPECT_EQ(log.whole(), Texts{});
}

TEST_F(Transport, IsReadyWhenTheStatusPageReturnsAnyResponse) {
    const char* const status = "http://localhost:8001/status";
    EXPECT_FALSE(transport.serviceReadyToRock());
    http.respond(status, FakeHTTPClient::reply("", 404));
    EXPECT_TRUE(transport.serviceReadyToRock());
    http.respond(status, FakeHTTPClient::cutShort("x"));
    EXPECT_FALSE(transport.serviceReadyToRock());
    http.respond(status, {std::nullopt, 0, std::nullopt});
    EXPECT_FALSE(transport.serviceReadyToRock());
    EXPECT_EQ(http.requests()[0].timeout, 1s);
    EXPECT_FALSE(http.requests()[0].body);
}

TEST_F(Transport, IsNotReadyWithoutAPort) {
    for (const long none : {0L, -1L}) {
        port->port = none;
        EXPECT_FALSE(transport.serviceReadyToRock());
    }
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(Transport, UsesThePortThatIsKnownAtEachCall) {
    http.respond(kUrl, FakeHTTPClient::reply(archived()));
    http.respond("http://localhost:8002", FakeHTTPClient::reply(archived()));
    (void)transport.sendOperation(operation);
    port->port = 8002;
    (void)transport.sendOperation(operation);
    EXPECT_EQ(http.urls(), (Texts{kUrl, "http://localhost:8002"}));
    EXPECT_EQ(transport.description(), "<KRVHTTPClientTransport: port 8002>");
}

TEST_F(Transport, RecognisesItsExceptionsByName) {
    EXPECT_TRUE(transport.isThisACommunicationsFailure(Exception("kHTTPServerNSURLConnectionError", "any")));
    EXPECT_FALSE(transport.isThisACommunicationsFailure(Exception("TransportCheck", "any")));
}

}  // namespace
}  // namespace krv

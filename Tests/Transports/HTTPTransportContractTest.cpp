// The contract of KRVTransport, over real HTTP to a scripted server in another process.
#include <fstream>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

#include "FixedPort.h"
#include "ScriptedServerProcess.h"
#include "TemporaryFolder.h"

namespace krv {
namespace {

using R = KRVOperationBase;

class HTTPTransport : public testing::Test {
protected:
    void answersWith(const Data& bytes) {
        const auto path = (folder.path() / "answer").string();
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        server.tell("body-file", path);
    }
    void expectUnreachable() {
        try {
            (void)transport.sendOperation(operation);
            FAIL() << "nothing was raised";
        } catch (const Exception& exception) {
            EXPECT_TRUE(transport.isThisACommunicationsFailure(exception)) << exception.what();
        }
    }

    test::TemporaryFolder folder;
    test::ScriptedServerProcess server;
    KRVHTTPClientTransport transport{std::make_shared<test::FixedPort>(server.port())};
    const R::Ref operation = R::encodeVideoOperation("/s", "/d");
};

TEST_F(HTTPTransport, TheServerReceivesTheRecordAndTheCallerTheReply) {
    const auto reply = R::encodeVideoOperation("/s", "/d");
    reply->setUniqueID("u");
    answersWith(reply->convertToData());
    const auto bytes = transport.sendOperation(operation);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(R::operationFromData(bytes)->uniqueID(), "u");

    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/");
    EXPECT_EQ(request.headers.count("Expect"), 0U);
    EXPECT_EQ(request.headers.count("Content-Type"), 0U);
    const auto* p = reinterpret_cast<const std::byte*>(request.body.data());
    const auto sent = R::operationFromData(std::make_shared<const Data>(p, p + request.body.size()));
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->encodingSourceFilename(), "/s");
}

TEST_F(HTTPTransport, AThreadsCallsShareAConnection) {
    answersWith(operation->convertToData());
    for (int i = 0; i < 3; ++i) {
        (void)transport.sendOperation(operation);
    }
    EXPECT_EQ(server.requestCount(), 3);
    EXPECT_EQ(server.connectionCount(), 1);
}

TEST_F(HTTPTransport, AnyStatusIsAReply) {
    server.tell("status", "404");
    server.tell("body", "nothing here");
    EXPECT_EQ(transport.sendOperation(operation)->size(), 12U);
    EXPECT_TRUE(transport.serviceReadyToRock());
}

TEST_F(HTTPTransport, ABodyThatIsCutShortIsACommunicationsFailure) {
    answersWith(operation->convertToData());
    server.tell("claim", "100000");
    server.tell("behave", "close");
    expectUnreachable();
}

TEST_F(HTTPTransport, AConnectionClosedWithoutAResponseIsACommunicationsFailure) {
    server.tell("behave", "drop");
    expectUnreachable();
    server.tell("behave", "refuse");
    expectUnreachable();
}

TEST_F(HTTPTransport, AnExitedServerIsACommunicationsFailure) {
    (void)transport.canWeGetStatusFromServer();
    server.kill();
    expectUnreachable();
    EXPECT_FALSE(transport.serviceReadyToRock());
}

TEST_F(HTTPTransport, ASilentServerIsNotReady) {
    server.tell("behave", "hang");
    EXPECT_FALSE(transport.serviceReadyToRock());
}

TEST_F(HTTPTransport, ContinuesWithAServerThatRespondsAgain) {
    server.tell("behave", "drop");
    expectUnreachable();
    server.tell("behave", "answer");
    answersWith(operation->convertToData());
    EXPECT_TRUE(transport.sendOperation(operation));
}

}  // namespace
}  // namespace krv

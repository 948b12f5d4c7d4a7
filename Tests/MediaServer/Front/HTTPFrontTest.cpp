// What the HTTP front makes of requests, and of its handlers' replies.
#include <future>
#include <list>
#include <string>

#include <sys/resource.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include "FrontFixture.h"
#include "WaitUntil.h"
#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(Front, ServesTheStatusPage) {
    const std::string response = HTTPConnection(port).ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_THAT(response, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(response, HasSubstr("Content-Type: application/json"));
    EXPECT_TRUE(response.ends_with("\r\n\r\n{\"name\":\"test\"}"));
    EXPECT_EQ(requests, 0);
}

TEST_F(Front, HandsOverARecordAndReturnsTheReplyOnAConnectionThatStaysOpen) {
    const HTTPConnection connection(port);
    for (int i = 1; i <= 3; ++i) {
        const std::string response = connection.ask(post(archived(R::readyToProcessRequestOperation())));
        EXPECT_THAT(response, StartsWith("HTTP/1.1 200"));
        EXPECT_THAT(response, HasSubstr("Content-Type: application/octet-stream"));
        const R::Ref reply = recordIn(response);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->operationType(), OpReadyToProcessRequests);
        EXPECT_EQ(reply->uniqueID(), "id");
        EXPECT_EQ(requests, i);
    }
}

TEST_F(Front, SendsAReplyThatIsGivenLaterOnAnotherThread) {
    std::promise<HTTPFront::Reply> given;
    onRequest = [&](const R::Ref&, const HTTPFront::Reply& reply) { given.set_value(reply); };
    const HTTPConnection connection(port);
    connection.send(post(archived(R::readyToProcessRequestOperation())));
    const HTTPFront::Reply reply = given.get_future().get();
    // Another connection is served meanwhile.
    EXPECT_THAT(HTTPConnection(port).ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                StartsWith("HTTP/1.1 200"));
    reply(R::shutdownCommand());
    const R::Ref answer = recordIn(connection.receive());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->operationType(), OpShutdownServer);
}

TEST_F(Front, SurvivesAReplyThatCannotBeArchived) {
    onRequest = [](const R::Ref&, const HTTPFront::Reply& reply) {
        const auto answer = std::make_shared<R>();
        answer->setUniqueID("\xFF is not UTF-8");
        reply(answer);
    };
    const HTTPConnection connection(port);
    EXPECT_THAT(connection.ask(post(archived(R::readyToProcessRequestOperation()))), StartsWith("HTTP/1.1 500"));
    EXPECT_THAT(connection.ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n"), StartsWith("HTTP/1.1 200"));
}

TEST_F(Front, PassesOnThePidNamespaceOfTheSender) {
    const std::string record = archived(R::readyToProcessRequestOperation());
    const HTTPConnection connection(port);
    (void)connection.ask(post(record));
    EXPECT_FALSE(sender.pidNamespace);
    (void)connection.ask(post(record, "krv-pid-namespace: 4026531836\r\n"));
    EXPECT_EQ(sender.pidNamespace, 4026531836U);
    (void)connection.ask(post(record, "KRV-Pid-Namespace: -1\r\n"));
    EXPECT_FALSE(sender.pidNamespace);
}

TEST_F(Front, NamesItselfInEveryResponse) {
    const std::string server = fmt::format("\r\nServer: KRVQuicktimeProcess/{}\r\n", libraryVersion());
    EXPECT_THAT(HTTPConnection(port).ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n"), HasSubstr(server));
    EXPECT_THAT(HTTPConnection(port).ask(post(archived(R::readyToProcessRequestOperation()))), HasSubstr(server));
    EXPECT_THAT(HTTPConnection(port).ask(post("not a record")), HasSubstr(server));
    EXPECT_THAT(HTTPConnection(port).ask("GET /elsewhere HTTP/1.1\r\nHost: localhost\r\n\r\n"), HasSubstr(server));
}

TEST_F(Front, NamesItsPidNamespaceInResponses) {
    EXPECT_THAT(HTTPConnection(port).ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                HasSubstr(fmt::format("\r\nKRV-Pid-Namespace: {}\r\n", pidNamespace())));
}

TEST_F(Front, RefusesABodyThatIsNotARecord) {
    EXPECT_THAT(HTTPConnection(port).ask(post("not a record")), StartsWith("HTTP/1.1 400"));
    EXPECT_THAT(HTTPConnection(port).ask(post("")), StartsWith("HTTP/1.1 400"));
    EXPECT_EQ(requests, 0);
}

TEST_F(Front, RefusesABodyThatIsTooLarge) {
    // The length alone is enough.
    const std::string declared = HTTPConnection(port).ask(
        fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n", kLargestRequest + 1));
    EXPECT_THAT(declared, StartsWith("HTTP/1.1 413"));
    EXPECT_EQ(requests, 0);
}

TEST_F(Front, RefusesWhatThePolicyRefusesBeforeTheHandlerSeesIt) {
    const std::string record = archived(R::shutdownCommand());
    EXPECT_THAT(HTTPConnection(port).ask(post(record, "Origin: http://evil.example\r\n")), StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(HTTPConnection(port).ask(post(record, "sec-fetch-site: cross-site\r\n")), StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(HTTPConnection(port).ask(fmt::format(
                    "POST / HTTP/1.1\r\nHost: evil.example\r\nContent-Length: {}\r\n\r\n{}", record.size(), record)),
                StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(HTTPConnection(port).ask("GET /elsewhere HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(HTTPConnection(port).ask("DELETE / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n"),
                StartsWith("HTTP/1.1 405"));
    EXPECT_EQ(requests, 0);
}

TEST_F(Front, DecodesALargeRecordWithoutHoldingUpOthers) {
    std::promise<void> begun;
    std::promise<void> go;
    onRequest = [&](const R::Ref& request, const HTTPFront::Reply& reply) {
        if (request->operationType() == OpReturnResult) {
            begun.set_value();
            go.get_future().wait();
        }
        reply(request);
    };
    const auto large = R::returnResultForOperation(std::string(std::size_t{1} << 20, 'x'));
    const HTTPConnection connection(port);
    connection.send(post(archived(large)));
    begun.get_future().wait();
    EXPECT_THAT(HTTPConnection(port).ask(post(archived(R::readyToProcessRequestOperation()))),
                StartsWith("HTTP/1.1 200"));
    go.set_value();
    const R::Ref answer = recordIn(connection.receive());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->uniqueID(), large->uniqueID());
}

TEST_F(Front, BoundsTheMemoryOfAllBodiesThatArrive) {
    // Bodies that do not end: sixteen take all the room, and the next one is refused when it does.
    const std::string head =
        fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n", kLargestRequest);
    const std::string unfinished(kLargestRequest - 1, 'x');
    std::list<HTTPConnection> connections;
    for (int i = 0; i < 16; ++i) {
        connections.emplace_back(port).send(head);
        connections.back().send(unfinished);
    }
    const std::string response = HTTPConnection(port).ask(post(unfinished));
    EXPECT_THAT(response, StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(HTTPConnection(port).ask("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(HTTPConnection(port).ask(post(archived(R::readyToProcessRequestOperation()))),
                StartsWith("HTTP/1.1 503"));
    connections.clear();
    // The room is free again when the server has seen that they are closed.
    test::waitUntil([this] {
        return HTTPConnection(port)
            .ask(post(archived(R::readyToProcessRequestOperation())))
            .starts_with("HTTP/1.1 200");
    });
}

TEST_F(Front, BoundsTheMemoryOfRepliesThatAreNotRead) {
    const auto large = std::make_shared<R>();
    large->setUniqueID(std::string((std::size_t{16} << 20) - 4096, 'x'));
    onRequest = [&](const R::Ref& request, const HTTPFront::Reply& reply) {
        reply(request->operationType() == OpReturnResult ? large : request);
    };
    const std::string forLarge = post(archived(R::returnResultForOperation("id")));
    constexpr std::size_t kStatusLine = 12;
    std::list<HTTPConnection> connections;
    for (int i = 0; i < 16; ++i) {
        connections.emplace_back(port).send(forLarge);
        EXPECT_EQ(connections.back().receive(kStatusLine), "HTTP/1.1 200");
    }
    EXPECT_THAT(HTTPConnection(port).ask(forLarge), StartsWith("HTTP/1.1 503"));
    EXPECT_THAT(HTTPConnection(port).ask(post(archived(R::readyToProcessRequestOperation()))),
                StartsWith("HTTP/1.1 200"));
    connections.clear();
    // The room is free again when the server has seen that they are closed.
    test::waitUntil([&] { return HTTPConnection(port).ask(forLarge).starts_with("HTTP/1.1 200"); });
}

TEST_F(Front, RefusesALargeBodyThatIsNotARecord) {
    EXPECT_THAT(HTTPConnection(port).ask(post(std::string(std::size_t{1} << 20, 'x'))), StartsWith("HTTP/1.1 400"));
    EXPECT_EQ(requests, 0);
}

TEST(FrontWithFewDescriptors, ClosesTheConnectionThatIsIdleLongestToServeANewOne) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    constexpr rlim_t kFew = 64;
    const rlimit few{kFew, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    HTTPFront front({[](const R::Ref& request, const RequestSender&, const HTTPFront::Reply& reply) { reply(request); },
                     [](PageName) { return Page{.body = "{}"}; }});
    const int first = 20000 + ::getpid() % 20000;
    auto sockets = ListeningSockets::open(first, first + 1000);
    ASSERT_TRUE(sockets);
    const std::uint16_t port = sockets->port;
    ASSERT_TRUE(front.start(std::move(*sockets)));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);  // this process also holds the clients' ends

    const std::string get = "GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n";
    std::list<HTTPConnection> connections;
    for (rlim_t i = 0; i < kFew; ++i) {
        EXPECT_THAT(connections.emplace_back(port).ask(get), StartsWith("HTTP/1.1 200")) << i;
    }
    EXPECT_EQ(connections.front().receive(), "");  // closed
    EXPECT_THAT(connections.back().ask(get), StartsWith("HTTP/1.1 200"));
}

TEST_F(Front, SendsAPageWithItsTypeAndItsHeaders) {
    for (const std::string path : {"/activity", "/activity.json"}) {
        const std::string response = HTTPConnection(port).ask("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
        EXPECT_THAT(response, StartsWith("HTTP/1.1 200")) << path;
        EXPECT_THAT(response, HasSubstr("\r\nContent-Type: text/html\r\n")) << path;
        EXPECT_THAT(response, HasSubstr("\r\nX-Own: yes\r\n")) << path;
        EXPECT_THAT(response, EndsWith("\r\n\r\n<p>")) << path;
    }
    EXPECT_EQ(requests, 0);
}

TEST_F(Front, SendsRepliesThatAreOnTheirWayBeforeItStops) {
    std::promise<HTTPFront::Reply> given;
    onRequest = [&](const R::Ref&, const HTTPFront::Reply& reply) { given.set_value(reply); };
    const HTTPConnection connection(port);
    connection.send(post(archived(R::readyToProcessRequestOperation())));
    given.get_future().get()(R::shutdownCommand());
    front.stop();
    const R::Ref answer = recordIn(connection.receive());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->operationType(), OpShutdownServer);
}

}  // namespace
}  // namespace krv::server

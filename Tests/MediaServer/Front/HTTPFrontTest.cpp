// The HTTP front in this process, with a socket of its own and handlers of the test's.
#include <atomic>
#include <future>
#include <list>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include "WaitUntil.h"
#include <MediaServer/Front/HTTPFront.h>
#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;
using testing::HasSubstr;
using testing::StartsWith;

/// One HTTP connection, byte by byte.
class HTTPConnection {
public:
    explicit HTTPConnection(std::uint16_t port)
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            ASSERT_GT(count, 0);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    /// Reads one response, headers and body; shorter if the server closes the connection.
    std::string receive() const {
        std::string response;
        for (;;) {
            const auto end = response.find("\r\n\r\n");
            const auto length = response.find("Content-Length: ");
            if (end != std::string::npos && length != std::string::npos &&
                response.size() >= end + 4 + std::stoul(response.substr(length + 16))) {
                return response;
            }
            char buffer[4096];
            const ssize_t count = ::recv(socket_.get(), buffer, sizeof buffer, 0);
            if (count <= 0) {
                return response;
            }
            response.append(buffer, static_cast<std::size_t>(count));
        }
    }
    std::string ask(std::string_view bytes) const {
        send(bytes);
        return receive();
    }

private:
    Descriptor socket_;
};

std::string post(std::string_view body, std::string_view headers = "") {
    return fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\n{}Content-Length: {}\r\n\r\n{}", headers, body.size(),
                       body);
}
std::string archived(const R::Ref& record) {
    const Data bytes = record->convertToData();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
R::Ref recordIn(const std::string& response) {
    const std::string body = response.substr(response.find("\r\n\r\n") + 4);
    const auto* const p = reinterpret_cast<const std::byte*>(body.data());
    return R::operationFromData(std::make_shared<const Data>(p, p + body.size()));
}

class Front : public testing::Test {
protected:
    Front() {
        const int first = 20000 + ::getpid() % 20000;
        auto sockets = ListeningSockets::open(first, first + 1000);
        EXPECT_TRUE(sockets);
        port = sockets->port;
        EXPECT_TRUE(front.start(std::move(*sockets)));
    }

    std::uint16_t port = 0;
    std::atomic<int> requests{0};
    RequestSender sender;
    /// Called with each record; by default it replies with the same type and an identifier.
    std::function<void(const R::Ref&, const HTTPFront::Reply&)> onRequest = [](const R::Ref& request,
                                                                               const HTTPFront::Reply& reply) {
        const auto answer = std::make_shared<R>();
        answer->setOperationType(request->operationType());
        answer->setUniqueID("id");
        reply(answer);
    };
    HTTPFront front{{[this](const R::Ref& request, const RequestSender& from, const HTTPFront::Reply& reply) {
                         ++requests;
                         sender = from;
                         onRequest(request, reply);
                     },
                     [] { return std::string("{\"name\":\"test\"}"); }}};
};

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
                     [] { return std::string("{}"); }});
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

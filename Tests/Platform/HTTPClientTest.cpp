#include <atomic>
#include <memory>
#include <span>
#include <thread>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include "ScriptedServerProcess.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::ScriptedServerProcess;
using testing::HasSubstr;
using testing::Optional;

constexpr Clock::Duration kLong = 60s;  // expires only if a test fails

/// Above the size from which curl would send "Expect: 100-continue".
constexpr std::size_t kLargeBody = 3U << 19U;

Data data(std::string_view text) {
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

std::string text(const std::optional<Data>& body) {
    return body ? std::string(reinterpret_cast<const char*>(body->data()), body->size()) : "(no body)";
}

HTTPResponse get(const std::string& url, Clock::Duration timeout = kLong) {
    return HTTPClient::shared().send({url, {}, timeout});
}

HTTPResponse post(const std::string& url, std::string_view body) {
    return HTTPClient::shared().send({url, data(body), kLong});
}

/// Returns the header line of our server, for raw responses.
std::string serverLine() {
    return "Server: KRVQuicktimeProcess/" + std::string(buildVersion()) + "\\r\\n";
}

/// Returns the number of connections that a server has accepted so far, according to the next one.
int connectionsSoFar(ScriptedServerProcess& server) {
    int number = 0;
    std::thread([&] {
        (void)get(server.url("/count"));
        for (auto request = server.nextRequest();; request = server.nextRequest()) {
            if (request.path == "/count") {
                number = request.connection;
                return;
            }
        }
    }).join();
    return number - 1;
}

TEST(HTTPClient, WithoutABodyItSendsAGet) {
    ScriptedServerProcess server({"body", "pong"});
    const auto response = get(server.url("/status"));
    EXPECT_EQ(text(response.body), "pong");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.error, std::nullopt);
    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.path, "/status");
    EXPECT_EQ(request.body, "");
}

TEST(HTTPClient, WithABodyItPostsThoseBytes) {
    ScriptedServerProcess server;
    const std::string body("\0binary\r\n\r\n\xff", 12);
    EXPECT_EQ(post(server.url(), body).status, 200);
    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/");
    EXPECT_EQ(request.body, body);
    EXPECT_EQ(request.headers.at("Content-Length"), "12");
}

TEST(HTTPClient, AnEmptyBodyIsPostedToo) {
    ScriptedServerProcess server;
    EXPECT_EQ(post(server.url(), "").status, 200);
    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.headers.at("Content-Length"), "0");
}

TEST(HTTPClient, SendsNoContentTypeAndNoExpectHeader) {
    ScriptedServerProcess server;
    EXPECT_EQ(post(server.url(), std::string(kLargeBody, 'x')).status, 200);
    const auto request = server.nextRequest();
    EXPECT_EQ(request.body.size(), kLargeBody);
    EXPECT_EQ(request.headers.count("Content-Type"), 0U);
    EXPECT_EQ(request.headers.count("Expect"), 0U);
}

TEST(HTTPClient, AGetAfterAPostHasNoBody) {
    ScriptedServerProcess server;
    (void)post(server.url(), "x");
    (void)get(server.url("/status"));
    (void)server.nextRequest();
    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.headers.count("Content-Length"), 0U);
}

TEST(HTTPClient, TheBodyIsPresentForAnyStatus) {
    ScriptedServerProcess server;
    for (const char* status : {"200", "404", "503"}) {
        server.tell("status", status);
        const auto response = get(server.url());
        EXPECT_EQ(response.status, std::stoi(status));
        EXPECT_THAT(response.body, Optional(Data()));
        EXPECT_EQ(response.error, std::nullopt);
    }
    server.tell("raw", "HTTP/1.1 204 None\\r\\n" + serverLine() + "\\r\\n");
    EXPECT_THAT(get(server.url()).body, Optional(Data()));
}

TEST(HTTPClient, AnInformationalResponseIsSkipped) {
    ScriptedServerProcess server;
    server.tell("raw", "HTTP/1.1 100 Continue\\r\\n\\r\\nHTTP/1.1 404 Not\\r\\n" + serverLine() +
                           "Content-Length: 2\\r\\n\\r\\nno");
    const auto response = get(server.url());
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(text(response.body), "no");
    server.tell("raw", "HTTP/1.1 100 Continue\\r\\n\\r\\n");
    EXPECT_EQ(get(server.url()).body, std::nullopt);
}

TEST(HTTPClient, AResponseOfAnotherProgramIsAConnectionError) {
    ScriptedServerProcess server({"body", "hello"});
    const std::string other = std::to_string(majorVersion(buildVersion()) + 1);
    for (const std::string& name :
         {std::string(), std::string("SimpleHTTP/0.6 Python/3.11"), std::string("KRVQuicktimeProcess"),
          std::string("KRVQuicktimeProcessor/0.1.0"), "KRVQuicktimeProcess/" + other + ".0.0"}) {
        server.tell("server", name);
        for (const HTTPResponse& response : {get(server.url("/status")), post(server.url(), "x")}) {
            EXPECT_EQ(response.body, std::nullopt) << name;
            EXPECT_EQ(response.status, 0) << name;
            EXPECT_THAT(response.error, Optional(HasSubstr("another program"))) << name;
        }
    }
    server.tell("server", "KRVQuicktimeProcess/" + std::string(buildVersion()));
    EXPECT_EQ(text(get(server.url()).body), "hello");
}

TEST(HTTPClient, AServerOfAnotherPidNamespaceIsAConnectionError) {
    const std::string header(kPidNamespaceHeader);
    ScriptedServerProcess server({"body", "hello", "header", header + ": " + std::to_string(pidNamespace())});
    EXPECT_EQ(text(get(server.url()).body), "hello");
    server.tell("header", "");
    server.tell("header", header + ": " + std::to_string(pidNamespace() + 1));
    const auto response = get(server.url());
    EXPECT_EQ(response.body, std::nullopt);
    EXPECT_THAT(response.error, Optional(HasSubstr("another pid namespace")));
}

TEST(HTTPClient, AnInformationalResponseDoesNotSpeakForTheFinalOne) {
    ScriptedServerProcess server;
    server.tell("raw", "HTTP/1.1 100 Continue\\r\\n" + serverLine() +
                           "\\r\\nHTTP/1.1 200 OK\\r\\nContent-Length: 2\\r\\n\\r\\nno");
    EXPECT_EQ(get(server.url()).body, std::nullopt);
}

TEST(HTTPClient, AServersNameIsFoundInAnySpelling) {
    ScriptedServerProcess server;
    server.tell("raw", "HTTP/1.1 200 OK\\r\\nsErVeR:KRVQuicktimeProcess/" + std::string(buildVersion()) +
                           "  \\r\\nContent-Length: 2\\r\\n\\r\\nok");
    EXPECT_EQ(text(get(server.url()).body), "ok");
}

TEST(HTTPClient, ABodyThatIsCutShortComesWithAnError) {
    ScriptedServerProcess server({"body", "half", "claim", "8"});
    const auto response = get(server.url());
    EXPECT_EQ(text(response.body), "half");
    EXPECT_EQ(response.status, 200);
    EXPECT_THAT(response.error, Optional(HasSubstr("lost")));
}

TEST(HTTPClient, WithoutResponseHeadersThereIsOnlyAnError) {
    ScriptedServerProcess server;
    for (const char* how : {"drop", "refuse"}) {
        server.tell("behave", how);
        const auto response = get(server.url());
        EXPECT_EQ(response.body, std::nullopt) << how;
        EXPECT_EQ(response.status, 0) << how;
        EXPECT_THAT(response.error, Optional(HasSubstr("lost"))) << how;
    }
    server.tell("behave", "answer");
    for (const char* raw : {"HTTP/1.1 200 OK\\r\\nContent-Le", "not an HTTP response", "\\r\\n\\r\\n"}) {
        server.tell("raw", raw);
        const auto response = get(server.url());
        EXPECT_EQ(response.body, std::nullopt) << raw;
        EXPECT_NE(response.error, std::nullopt) << raw;
    }
}

TEST(HTTPClient, ErrorsAreSentences) {
    ScriptedServerProcess server({"behave", "drop"});
    for (const auto& error : {get(server.url()).error, get("http://localhost:0").error, get("nonsense").error}) {
        ASSERT_TRUE(error);
        EXPECT_TRUE(error->ends_with('.')) << *error;
        EXPECT_GT(error->size(), 10U);
    }
}

TEST(HTTPClient, ATimeoutCoversTheWholeExchange) {
    ScriptedServerProcess server({"behave", "hang"});
    const auto silent = get(server.url(), 50ms);
    EXPECT_EQ(silent.body, std::nullopt);
    EXPECT_THAT(silent.error, Optional(HasSubstr("timed out")));
    // Bytes keep arriving, but the response does not end in time.
    server.tell("body-size", "100000");
    server.tell("pause", "1");
    server.tell("behave", "drip");
    const auto slow = get(server.url(), 400ms);
    EXPECT_THAT(slow.error, Optional(HasSubstr("timed out")));
    server.tell("behave", "deaf");
    EXPECT_THAT(get(server.url("/deaf"), 50ms).error, Optional(HasSubstr("timed out")));
}

TEST(HTTPClient, AnExpiredTimeoutStillTimesOut) {
    ScriptedServerProcess server({"behave", "hang"});
    EXPECT_THAT(get(server.url(), 0s).error, Optional(HasSubstr("timed out")));
    EXPECT_THAT(get(server.url(), -5s).error, Optional(HasSubstr("timed out")));
}

TEST(HTTPClient, APortWithoutAServerIsAConnectionError) {
    std::string url;
    {
        ScriptedServerProcess server;
        url = server.url();
    }
    for (const std::string& nobody : {url, std::string("http://localhost:0"), std::string("http://localhost:70000"),
                                      std::string("http://localhost:-1")}) {
        const auto response = get(nobody);
        EXPECT_EQ(response.body, std::nullopt) << nobody;
        EXPECT_EQ(response.status, 0) << nobody;
        EXPECT_THAT(response.error, Optional(HasSubstr("Could not connect"))) << nobody;
    }
}

TEST(HTTPClient, RefusesOtherMachinesAndOtherProtocols) {
    for (const char* url : {"http://example.org:8000", "https://localhost:8000", "file:///etc/hostname"}) {
        const auto response = get(url);
        EXPECT_EQ(response.body, std::nullopt) << url;
        EXPECT_NE(response.error, std::nullopt) << url;
    }
}

TEST(HTTPClient, FindsAServerOnEitherLoopbackAddress) {
    std::unique_ptr<ScriptedServerProcess> server;
    try {
        server = std::make_unique<ScriptedServerProcess>(ScriptedServerProcess::Options{"address", "::1"});
    } catch (const std::runtime_error&) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address";
    }
    EXPECT_EQ(get(server->url()).status, 200);
    EXPECT_EQ(get("http://[::1]:" + std::to_string(server->port())).status, 200);
}

TEST(HTTPClient, ConnectionsStayOpenBetweenCalls) {
    ScriptedServerProcess server;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(post(server.url(), "x").status, 200);
        EXPECT_EQ(server.nextRequest().connection, 1);
    }
}

TEST(HTTPClient, EachThreadHasItsOwnConnectionsAndClosesThemWhenItExits) {
    ScriptedServerProcess server;
    (void)get(server.url());
    EXPECT_EQ(server.nextRequest().connection, 1);
    std::thread([&] { (void)get(server.url()); }).join();
    EXPECT_EQ(server.nextRequest().connection, 2);
    server.waitForClose(2);
    (void)get(server.url());
    EXPECT_EQ(server.nextRequest().connection, 1);
}

TEST(HTTPClient, AConnectionThatTheServerClosedIsReopenedSilently) {
    ScriptedServerProcess server({"behave", "close"});
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(post(server.url(), "x").error, std::nullopt);
        EXPECT_EQ(server.nextRequest().connection, i);
    }
}

TEST(HTTPClient, ARequestThatTheServerHasReceivedIsNotSentAgain) {
    ScriptedServerProcess server({"behave", "drop"});
    EXPECT_NE(post(server.url(), "once").error, std::nullopt);
    EXPECT_EQ(server.nextRequest().body, "once");
    server.tell("behave", "answer");
    (void)post(server.url("/after"), "");
    EXPECT_EQ(server.nextRequest().path, "/after");
}

TEST(HTTPClient, DoesNotFollowRedirects) {
    ScriptedServerProcess target;
    ScriptedServerProcess server({"status", "302", "header", "Location: " + target.url("/target"), "body", "moved"});
    const auto response = get(server.url());
    EXPECT_EQ(response.status, 302);
    EXPECT_EQ(text(response.body), "moved");
    EXPECT_EQ(connectionsSoFar(target), 0);
}

TEST(HTTPClient, DoesNotKeepCookies) {
    ScriptedServerProcess server({"header", "Set-Cookie: a=b"});
    (void)get(server.url());
    (void)get(server.url());
    EXPECT_EQ(server.nextRequest().headers.count("Cookie"), 0U);
    EXPECT_EQ(server.nextRequest().headers.count("Cookie"), 0U);
}

TEST(HTTPClient, IgnoresProxiesInTheEnvironment) {
    ScriptedServerProcess trap;
    ScriptedServerProcess server;
    for (const char* form : {"http_proxy=", "HTTP_PROXY=", "all_proxy=", "ALL_PROXY="}) {
        ChildProcess probe({"env", form + trap.url(), "no_proxy=", KRV_PLATFORM_PROBE, "get", server.url("/status")});
        EXPECT_EQ(probe.readLine(), "200 no error") << form;
    }
    EXPECT_EQ(connectionsSoFar(trap), 0);
}

TEST(HTTPClient, RefusesABodyOverSixtyFourMebibytes) {
    ScriptedServerProcess server({"body-size", std::to_string(64 << 20)});
    const auto largest = get(server.url());
    EXPECT_EQ(largest.error, std::nullopt);
    ASSERT_TRUE(largest.body);
    EXPECT_EQ(largest.body->size(), std::size_t{64} << 20U);
    server.tell("claim", std::to_string((64 << 20) + 1));
    EXPECT_THAT(get(server.url()).error, Optional(HasSubstr("64 MiB")));
    // Without a Content-Length the response ends with the connection.
    server.tell("claim", "none");
    server.tell("body-size", std::to_string((64 << 20) + 1));
    EXPECT_THAT(get(server.url()).error, Optional(HasSubstr("64 MiB")));
}

TEST(HTTPClient, RefusesAServerOfAnotherUserBeforeSending) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root can run a server as another user";
    }
    for (const char* how : {"answer", "deaf"}) {  // deaf: the connection is not accepted yet when it is checked
        ScriptedServerProcess server({"user", "65534", "behave", how});
        for (int i = 0; i < 2; ++i) {
            const auto response = post(server.url(), "secret");
            EXPECT_EQ(response.body, std::nullopt) << how;
            EXPECT_THAT(response.error, Optional(HasSubstr("Could not connect"))) << how;
        }
        server.tell("behave", "answer");
        ChildProcess probe({KRV_PLATFORM_PROBE, "user", "65534", "get", server.url("/own")});
        EXPECT_EQ(probe.readLine(), "done");
        EXPECT_EQ(probe.readLine(), "200 no error");
        EXPECT_EQ(server.nextRequest().path, "/own") << "something was sent before";
    }
}

TEST(HTTPClient, AnotherUserIsRefusedForEveryCaller) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root can run a client as another user";
    }
    ScriptedServerProcess server;
    ChildProcess probe({KRV_PLATFORM_PROBE, "user", "65534", "get", server.url()});
    EXPECT_EQ(probe.readLine(), "done");
    EXPECT_THAT(probe.readLine(), Optional(HasSubstr("Could not connect")));
}

TEST(HTTPClient, IsThreadSafe) {
    ScriptedServerProcess server({"body", "pong"});
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 20; ++k) {
                answered += text(post(server.url(), "ping").body) == "pong" ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answered, 160);
}

TEST(FakeHTTPClient, ReturnsTheGivenResponsesAndRecordsRequests) {
    FakeHTTPClient http;
    const std::string url = "http://localhost:8000/status";
    EXPECT_THAT(http.send({url, {}, 1s}).error, Optional(HasSubstr("connect")));
    http.respond(url, FakeHTTPClient::reply("always", 404));
    http.respondOnce(url, FakeHTTPClient::timedOut());
    http.respondOnce(url, FakeHTTPClient::cutShort("ha"));
    EXPECT_THAT(http.send({url, {}, 1s}).error, Optional(HasSubstr("timed out")));
    const auto cut = http.send({url, {}, 1s});
    EXPECT_EQ(text(cut.body), "ha");
    EXPECT_NE(cut.error, std::nullopt);
    const auto whole = http.send({url, data("x"), 2s});
    EXPECT_EQ(text(whole.body), "always");
    EXPECT_EQ(whole.status, 404);
    EXPECT_EQ(whole.error, std::nullopt);
    http.refuse(url);
    EXPECT_EQ(http.send({url, {}, 1s}).body, std::nullopt);
    ASSERT_EQ(http.requests().size(), 5U);
    EXPECT_EQ(http.requests()[3].body, data("x"));
    EXPECT_EQ(http.requests()[3].timeout, 2s);
    EXPECT_EQ(http.urls().front(), url);
}

TEST(FakeHTTPClient, AHandlerMaySend) {
    FakeHTTPClient http;
    http.respond("http://localhost:1", FakeHTTPClient::reply("inner"));
    http.respond("http://localhost:2", [&](const HTTPRequest& request) {
        return http.send({"http://localhost:1", request.body, request.timeout});
    });
    EXPECT_EQ(text(http.send({"http://localhost:2", {}, 1s}).body), "inner");
}

}  // namespace
}  // namespace krv

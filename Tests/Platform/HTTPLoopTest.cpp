#include <chrono>
#include <csignal>
#include <future>
#include <set>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/HTTPLoop.h>

#include "NoDescriptors.h"
#include "ScriptedServerProcess.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using test::ScriptedServerProcess;
using testing::HasSubstr;

constexpr auto kLong = 20s;

std::string text(const std::optional<Data>& body) {
    return body ? std::string(reinterpret_cast<const char*>(body->data()), body->size()) : "(none)";
}

class Loop : public testing::Test {
protected:
    /// Runs something on the loop's thread and returns its result.
    template <typename Function>
    auto onLoop(const Function& function) {
        std::promise<decltype(function())> result;
        loop->post([&] { result.set_value(function()); });
        return result.get_future().get();
    }
    HTTPLoop::Token send(const std::string& url, HTTPLoop::Reply reply, Clock::Duration timeout = kLong) {
        return onLoop([&] { return loop->send({url, std::nullopt, timeout}, std::move(reply)); });
    }
    HTTPResponse get(const std::string& url, Clock::Duration timeout = kLong) {
        std::promise<HTTPResponse> response;
        send(
            url, [&](HTTPResponse received) { response.set_value(std::move(received)); }, timeout);
        return response.get_future().get();
    }

    std::unique_ptr<HTTPLoop> loop = HTTPLoop::start("KRVTestLoop");
};

TEST_F(Loop, RunsTasksInOrderOnOneThreadThatBlocksSignals) {
    std::vector<int> order;
    for (int i = 0; i < 5; ++i) {
        loop->post([&order, i] { order.push_back(i); });
    }
    const bool blocked = onLoop([] {
        sigset_t set;
        pthread_sigmask(SIG_SETMASK, nullptr, &set);
        return sigismember(&set, SIGTERM) == 1;
    });
    EXPECT_TRUE(blocked);
    EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 3, 4));
    EXPECT_NE(onLoop([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
}

TEST_F(Loop, RunsATimerOnceAndNotBeforeItsTime) {
    std::promise<Clock::TimePoint> called;
    const auto start = Clock::steady().now();
    onLoop([&] { return loop->after(30ms, [&] { called.set_value(Clock::steady().now()); }); });
    EXPECT_GE(called.get_future().get() - start, 30ms);
}

TEST_F(Loop, ADroppedTimerIsNotCalled) {
    bool called = false;
    std::promise<void> later;
    onLoop([&] {
        loop->drop(loop->after(0s, [&] { called = true; }));
        loop->after(1ms, [&] { later.set_value(); });
        return 0;
    });
    later.get_future().wait();
    EXPECT_FALSE(called);
}

TEST_F(Loop, ATimerMayDropAnotherThatIsDueToo) {
    bool called = false;
    std::promise<void> later;
    onLoop([&] {
        const auto second = std::make_shared<HTTPLoop::Token>();
        loop->after(0s, [this, second] { loop->drop(*second); });
        *second = loop->after(0s, [&] { called = true; });
        loop->after(1ms, [&] { later.set_value(); });
        return 0;
    });
    later.get_future().wait();
    EXPECT_FALSE(called);
}

TEST_F(Loop, LogsWhatATaskThrowsAndContinues) {
    LogRecorder log;
    loop->post([] { throw std::runtime_error("a reason"); });
    EXPECT_EQ(onLoop([] { return 7; }), 7);
    EXPECT_THAT(log.texts(), testing::Contains(HasSubstr("a reason")));
}

TEST_F(Loop, SendsAndPosts) {
    ScriptedServerProcess server({"body", "pong"});
    EXPECT_EQ(text(get(server.url("/status")).body), "pong");
    EXPECT_EQ(server.nextRequest().method, "GET");
    std::promise<HTTPResponse> response;
    onLoop([&] {
        return loop->send({server.url(), Data{std::byte{'x'}}, kLong},
                          [&](HTTPResponse received) { response.set_value(std::move(received)); });
    });
    EXPECT_EQ(response.get_future().get().status, 200);
    const auto request = server.nextRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.body, "x");
}

TEST_F(Loop, DoesNotWaitForOneResponseBeforeItSendsTheNextRequest) {
    ScriptedServerProcess slow({"behave", "hang"});
    ScriptedServerProcess quick({"body", "pong"});
    send(slow.url(), [](const HTTPResponse&) {});
    (void)slow.nextRequest();
    EXPECT_EQ(text(get(quick.url()).body), "pong");
}

TEST_F(Loop, KeepsConnectionsOpen) {
    ScriptedServerProcess server;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(get(server.url()).status, 200);
        EXPECT_EQ(server.nextRequest().connection, 1);
    }
}

TEST_F(Loop, ADroppedRequestIsNotAnsweredAndItsConnectionIsClosed) {
    ScriptedServerProcess server({"behave", "hang"});
    bool answered = false;
    const auto token = send(server.url(), [&](const HTTPResponse&) { answered = true; });
    const int connection = server.nextRequest().connection;
    onLoop([&] {
        loop->drop(token);
        return 0;
    });
    server.waitForClose(connection);
    EXPECT_FALSE(onLoop([&] { return answered; }));
}

TEST_F(Loop, ReportsFailuresInTheWordsOfTheClient) {
    ScriptedServerProcess server;
    const std::string url = server.url();
    server.kill();
    EXPECT_THAT(get(url).error, testing::Optional(HasSubstr("Could not connect to the server on port")));
    EXPECT_THAT(get("http://localhost:0").error, testing::Optional(HasSubstr("has no port from 1")));
    EXPECT_THAT(get("http://example.com:80").error, testing::Optional(HasSubstr("is not a server on this machine")));
}

TEST_F(Loop, ARequestTimesOut) {
    ScriptedServerProcess server({"behave", "hang"});
    EXPECT_EQ(get(server.url(), 50ms).error, "The request timed out.");
}

TEST_F(Loop, AnotherProgramsResponseIsAnErrorOnEveryRequest) {
    ScriptedServerProcess server({"raw", "HTTP/1.1 200 OK\\r\\nContent-Length: 0\\r\\n\\r\\n"});
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(get(server.url()).error, testing::Optional(HasSubstr("belongs to another program")));
    }
}

TEST_F(Loop, ManyRequestsAreAllAnswered) {
    ScriptedServerProcess server({"body", "pong"});
    constexpr int kMany = 50;
    std::promise<void> all;
    int answers = 0;
    onLoop([&] {
        for (int i = 0; i < kMany; ++i) {
            loop->send({server.url(), std::nullopt, kLong}, [&](const HTTPResponse& response) {
                EXPECT_EQ(text(response.body), "pong");
                if (++answers == kMany) {
                    all.set_value();
                }
            });
        }
        return 0;
    });
    all.get_future().wait();
}

TEST(HTTPLoop, CannotBeStartedWithoutDescriptors) {
    const test::NoDescriptors none;
    try {
        (void)HTTPLoop::start("KRVTestLoop");
        ADD_FAILURE() << "it was started";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), "OutOfDescriptors");
    }
}

TEST_F(Loop, IsDestroyedInTheMiddleOfARequest) {
    ScriptedServerProcess server({"behave", "hang"});
    bool answered = false;
    send(server.url(), [&](const HTTPResponse&) { answered = true; });
    const int connection = server.nextRequest().connection;
    loop.reset();
    server.waitForClose(connection);
    EXPECT_FALSE(answered);
}

}  // namespace
}  // namespace krv

#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeProcessTable.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

#include "TemporaryFolder.h"

namespace krv {

constexpr LinesOf kRunnerLines("Source/Client/ServerRunner");

/// A launched program that exits when a test says so.
class FakeTask final : public Task {
public:
    explicit FakeTask(pid_t pid)
        : pid_(pid) {}
    [[nodiscard]] pid_t processIdentifier() const override { return pid_; }
    [[nodiscard]] bool isRunning() const override { return running; }
    bool running = true;

private:
    const pid_t pid_;
};

/// A runner in a fake environment. Nothing happens by itself: the test runs the body of the runner's thread, and each
/// step is a call. `loop` is the current loop of the calling thread, `mainLoop` the main loop.
class RunnerFixture : public testing::Test {
protected:
    RunnerFixture() {
        ::setenv("XDG_STATE_HOME", folder.path().c_str(), 1);
        HTTPServerDiscovery::Environment search;
        search.makeBrowser = [this] { return browser; };
        search.mainLoop = [this]() -> RunLoop& { return mainLoop; };
        search.currentLoop = [this]() -> RunLoop& { return loop; };
        search.isMainThread = [] { return true; };
        search.startThread = [](const std::function<void()>&) {};
        search.now = [this] { return clock.now(); };
        search.httpClient = [this]() -> HTTPClient& { return http; };
        search.notificationCenter = [this]() -> NotificationCenter& { return center; };
        discovery = HTTPServerDiscovery::make(std::move(search));

        environment.discovery = [this] { return discovery; };
        environment.now = [this] { return clock.now(); };
        environment.processes = &processes;
        environment.mainBundle = [this]() -> const Bundle& { return mainBundle; };
        environment.libraryBundle = [this] { return std::optional(libraryBundle); };
        environment.classes = &classes;
        environment.launch = [this](const Task::Launch& what) { return launch(what); };
        environment.powerEvents = [this]() -> NotificationCenter& { return power; };
        environment.notificationCenter = [this]() -> NotificationCenter& { return center; };
        environment.mainLoop = [this]() -> RunLoop& { return mainLoop; };
        environment.startThread = [this](std::function<void()> body) { thread = std::move(body); };
        token = center.addObserver(kKRVNewKRVQuicktimeProcessorStarted, [this](const Notification& notification) {
            EXPECT_EQ(notification.object, runner);
            ++notifications;
        });
    }
    ~RunnerFixture() override {
        center.removeObserver(token);
        if (runner) {
            runner->stopMonitorTimer();
            runner->cleanUp();
        }
        discovery->stopSearch();
    }

    void makeRunner() { runner = ServerRunner::initWithProcessMonitor(monitor, client, environment); }
    void makeBundle(const char* where) { folder.write(std::string(where) + kExecutableInBundle, "program"); }
    std::string bundlePath(const char* where) const {
        return (folder.path() / where / "KRVQuicktimeProcess.app").string();
    }

    void serverRuns() { processes.add({4711, "KRVQuicktimeProcess", 1000, 1}); }
    void serverIsKnown(long port = 8000) { discovery->setServicePortNumber(port); }
    /// Scripts the server's reply to the next am-I-registered request or registration.
    void serverAnswers(bool registered) {
        const auto record = std::make_shared<KRVOperationBase>();
        record->setIsClientRegistered(registered);
        transport->reply(record);
    }
    std::vector<std::int32_t> sent() const { return transport->sentTypes(); }

    static constexpr const char* kExecutableInBundle = "/KRVQuicktimeProcess.app/Contents/MacOS/KRVQuicktimeProcess";

    test::TemporaryFolder folder;
    FakeClock clock;
    FakeRunLoop mainLoop{clock};
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    FakeHTTPClient http;
    NotificationCenter center;
    NotificationCenter power;
    NotificationCenter::Token token;
    FakeProcessTable processes;
    ClassRegistry classes;
    Bundle mainBundle{{(folder.path() / "main").string()}};
    Bundle libraryBundle{{(folder.path() / "library").string()}};
    std::shared_ptr<FakeServiceBrowser> browser = std::make_shared<FakeServiceBrowser>();
    std::shared_ptr<HTTPServerDiscovery> discovery;
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    std::shared_ptr<KRVProcessMonitor> monitor = std::make_shared<KRVProcessMonitor>();
    std::shared_ptr<KRVQuicktimeProcessClient> client = std::make_shared<KRVQuicktimeProcessClient>(transport, clock);
    ServerRunner::Environment environment;
    std::function<void()> thread;
    std::vector<Task::Launch> launches;
    std::vector<std::shared_ptr<FakeTask>> tasks;
    std::optional<Exception> launchFailure;
    int notifications = 0;
    std::shared_ptr<ServerRunner> runner;

private:
    std::shared_ptr<Task> launch(const Task::Launch& what) {
        launches.push_back(what);
        if (launchFailure) {
            throw Exception(*launchFailure);
        }
        tasks.push_back(std::make_shared<FakeTask>(static_cast<pid_t>(100 + tasks.size())));
        return tasks.back();
    }
};

}  // namespace krv

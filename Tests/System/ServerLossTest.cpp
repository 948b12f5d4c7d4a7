// The server is launched, lost and found again while applications keep calling it.
#include <algorithm>
#include <csignal>
#include <iostream>
#include <optional>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

#include "FixedPort.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class ServerLoss : public SystemFixture {
protected:
    /// Starts an application and waits until it is registered.
    Application& start() {
        application = std::make_unique<Application>(install());
        std::cout << "[ measured ] from the shared client to "
                  << application->ask("wait-registered", "registered after") << " s\n";
        return *application;
    }
    void convert(const std::string& id, const char* source) {
        application->tell("convert " + id + ' ' + media(source) + ' ' + out(id + ".mp4"));
    }
    static nlohmann::json page(int port) { return nlohmann::json::parse(status(port), nullptr, false); }
    static std::size_t count(int port, const char* what) {
        const auto json = page(port);
        return json.is_object() ? json[what].get<std::size_t>() : 0;
    }
    static bool knows(int port, pid_t client) {
        const auto json = page(port);
        return json.is_object() && std::any_of(json["clients"].begin(), json["clients"].end(),
                                               [client](const auto& pid) { return pid == client; });
    }

    std::unique_ptr<Application> application;
};

TEST_F(ServerLoss, AnApplicationsFirstCallLaunchesAServerAndSucceeds) {
    Application first(install());
    first.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_EQ(first.result("one"), "done");
    EXPECT_THAT(first.ask("wait-registered", "registered"), StartsWith("registered after"));
    EXPECT_THAT(servers(), SizeIs(1));
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 2.0, 0.1);
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
}

TEST_F(ServerLoss, TheSharedClientMergesButDoesNotRepeatAMergeWhoseServerIsLost) {
    Application& app = start();
    app.tell("merge one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_EQ(app.result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 4.0, 0.1);

    app.tell("pause two 0");
    app.tell("merge two " + media("long.mov") + ' ' + out("two.mp4"));
    app.waitFor("two paused");
    killServer(waitForServer().pid);
    app.tell("resume two");
    EXPECT_THAT(app.result("two"), StartsWith("exception"));
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
}

TEST_F(ServerLoss, TheServerOutlivesTheApplicationAndServesTheNext) {
    start();
    const Serving server = waitForServer();
    application.reset();
    Application next(install("Next"));
    next.ask("wait-registered", "registered");
    EXPECT_THAT(servers(), ElementsAre(server.pid));
}

TEST_F(ServerLoss, AnIdleServerThatIsKilledIsReplaced) {
    start();
    const Serving before = waitForServer();
    killServer(before.pid);
    const auto begin = std::chrono::steady_clock::now();
    const Serving after =
        waitForServer([&](const Serving& s) { return s.pid != before.pid && knows(s.port, application->pid()); });
    std::cout << "[ measured ] idle server killed, and registered with another after "
              << std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() << " s\n";
    convert("one", "plain.mov");
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_THAT(servers(), ElementsAre(after.pid));
}

/// The server is killed when the conversion's progress reaches the parameter.
class Killed : public ServerLoss, public testing::WithParamInterface<double> {};

TEST_P(Killed, DuringAConversionTheCallSucceedsAndTheOutputIsComplete) {
    start();
    const Serving server = waitForServer();
    convert("one", "longer.mov");
    const double progress = application->waitForProgress("one", GetParam());
    ASSERT_GE(progress, GetParam());
    killServer(server.pid);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(filesInOut(), SizeIs(0));
    (void)application->waitForProgress("one", 1e-6);
    std::cout << "[ measured ] killed at " << progress << ", working again after "
              << std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() << " s\n";
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 90.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
    EXPECT_THAT(servers(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(ServerLoss, Killed, testing::Values(0.05, 0.5));

TEST_F(ServerLoss, KilledWithOperationsQueuedAllOfThemSucceed) {
    start();
    const Serving server = waitForServer();
    const auto workers = count(server.port, "workers");
    std::vector<std::string> ids;
    for (std::size_t i = 0; i <= workers; ++i) {
        ids.push_back("id" + std::to_string(i));
        convert(ids.back(), "long.mov");
    }
    waitUntil([&] { return count(server.port, "running") + count(server.port, "queued") == ids.size(); });
    EXPECT_GE(count(server.port, "queued"), 1U);
    killServer(server.pid);
    std::vector<std::string> expected;
    for (const std::string& id : ids) {
        expected.push_back(id + ".mp4");
    }
    // They end in any order, with lines about the others in between.
    std::size_t done = 0;
    while (done < ids.size()) {
        const std::string line = application->waitFor("id");
        ASSERT_FALSE(line.empty());
        ASSERT_THAT(line, testing::Not(HasSubstr("exception")));
        ASSERT_THAT(line, testing::Not(HasSubstr("error")));
        done += static_cast<std::size_t>(line.ends_with(" done"));
    }
    EXPECT_EQ(filesInOut(), expected);
    for (const std::string& file : expected) {
        EXPECT_NEAR(readableSeconds(out(file)), 30.0, 0.5);
    }
}

TEST_F(ServerLoss, KilledAfterCompletionButBeforeTheClientKnowsTheCallStillSucceeds) {
    start();
    const Serving server = waitForServer();
    application->tell("pause one 0.0");
    convert("one", "long.mov");
    application->waitFor("one paused");
    waitUntil([&] { return count(server.port, "finished") == 1; });
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
    killServer(server.pid);
    application->tell("resume one");
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 30.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
}

TEST_F(ServerLoss, AServerThatIsStoppedForAWhileIsNotReplacedAndContinues) {
    start();
    const Serving server = waitForServer();
    application->ask("log", "logging");
    convert("one", "longer.mov");
    application->waitForProgress("one", 0.01);
    ::kill(server.pid, SIGSTOP);
    // Long enough for one of the runner's requests to time out. The worker is not stopped and continues by itself.
    const auto stopped = std::chrono::steady_clock::now();
    waitUntil([&] { return std::chrono::steady_clock::now() - stopped > std::chrono::seconds(8); });
    EXPECT_THAT(servers(), ElementsAre(server.pid));
    ::kill(server.pid, SIGCONT);
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_THAT(servers(), ElementsAre(server.pid));
    EXPECT_FALSE(application->hasSaid("log I will start"));
}

TEST_F(ServerLoss, AClientThatTheServerForgotRegistersAgain) {
    start();
    const Serving server = waitForServer();
    const auto unregister = KRVOperationBase::unregisterFromServerOperation();
    unregister->setRegInfoPID(std::int64_t{application->pid()});
    KRVHTTPClientTransport transport(std::make_shared<FixedPort>(server.port));
    (void)transport.sendOperation(unregister);
    ASSERT_FALSE(knows(server.port, application->pid()));
    waitUntil([&] { return knows(server.port, application->pid()); });
    EXPECT_THAT(servers(), ElementsAre(server.pid));
}

TEST_F(ServerLoss, AServerThatRestartsOnAnotherPortIsFoundThere) {
    start();
    const Serving before = waitForServer();
    killServer(before.pid);
    // The last thread of a killed process may hold its sockets slightly longer than the process table shows it.
    std::optional<ChildProcess> taken;
    std::optional<std::string> line;
    while (!line) {
        taken.emplace(
            std::vector<std::string>{KRV_SCRIPTED_SERVER, "port", std::to_string(before.port), "behave", "refuse"});
        line = taken->readLine();
    }
    ASSERT_EQ(line, "port " + std::to_string(before.port));
    const Serving after = waitForServer([&](const Serving& s) { return s.pid != before.pid; });
    EXPECT_NE(after.port, before.port);
    convert("one", "plain.mov");
    EXPECT_EQ(application->result("one"), "done");
    waitUntil([&] { return application->ask("port", "port ") == "port " + std::to_string(after.port); });
}

TEST_F(ServerLoss, SixApplicationsThatStartAtOnceShareOneServer) {
    std::vector<std::unique_ptr<Application>> applications;
    for (int i = 0; i < 6; ++i) {
        applications.push_back(std::make_unique<Application>(install("App" + std::to_string(i))));
    }
    for (const auto& each : applications) {
        each->ask("wait-registered", "registered");
    }
    EXPECT_THAT(servers(), SizeIs(1));
    EXPECT_EQ(page(waitForServer().port)["clients"].size(), 6U);
}

TEST_F(ServerLoss, AnApplicationThatIsKilledIsForgottenWithItsWork) {
    start();
    const Serving server = waitForServer();
    convert("one", "longer.mov");
    application->waitForProgress("one", 0.01);
    const pid_t pid = application->pid();
    application->kill();
    const auto killed = std::chrono::steady_clock::now();
    waitUntil([&] { return !knows(server.port, pid) && count(server.port, "running") == 0; });
    std::cout << "[ measured ] application killed, and forgotten after "
              << std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count() << " s\n";
    EXPECT_THAT(filesInOut(), SizeIs(0));
    EXPECT_THAT(servers(), ElementsAre(server.pid));
}

}  // namespace
}  // namespace krv::test

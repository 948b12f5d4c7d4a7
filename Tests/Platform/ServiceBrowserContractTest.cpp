// One test per sentence of ServiceBrowser.h, with the fake and with the real browser. The program runs in a network
// namespace of its own in which only the loopback interface is up.
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeServiceBrowser.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Platform/ServiceBrowser.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

#include "ChildProcess.h"
#include "Shell.h"
#include "TemporaryFolder.h"

namespace krv {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;

constexpr auto kType = "_http._tcp.";
constexpr auto kDomain = "local.";

class Observer final : public ServiceBrowserDelegate, public NetServiceDelegate {
public:
    struct Report {
        std::string name;
        bool empty;
        bool moreComing;
        std::shared_ptr<NetService> service;
    };
    void didFindService(const std::shared_ptr<ServiceBrowser>&, const std::shared_ptr<NetService>& service,
                        bool moreComing) override {
        reports.push_back({service ? service->name() : "", !service, moreComing, service});
        if (onReport) {
            onReport();
        }
    }
    void netServiceDidResolveAddress(const std::shared_ptr<NetService>& service) override {
        resolvedPort = service->port();
    }
    void didNotResolve(const std::shared_ptr<NetService>&) override { ++failures; }

    [[nodiscard]] std::multiset<std::string> names() const {
        std::multiset<std::string> all;
        for (const Report& report : reports) {
            if (!report.empty) {
                all.insert(report.name);
            }
        }
        return all;
    }
    [[nodiscard]] std::size_t silences() const { return reports.size() - names().size(); }

    std::vector<Report> reports;
    std::function<void()> onReport;
    long resolvedPort = 0;
    int failures = 0;
};

/// One kind of browser and its environment.
class World {
public:
    virtual ~World() = default;
    virtual std::shared_ptr<ServiceBrowser> makeBrowser() = 0;
    /// Publishes services and returns their ports when they are established.
    virtual std::vector<long> publish(const std::vector<std::string>& names) = 0;
    /// Runs the run loop until the condition holds. Returns false if that takes too long.
    virtual bool turnUntil(const std::function<bool()>& condition) = 0;
    /// Runs the run loop for that long.
    virtual void turnFor(Clock::Duration duration) = 0;
};

class FakeWorld final : public World {
public:
    std::shared_ptr<ServiceBrowser> makeBrowser() override {
        browser_ = std::make_shared<FakeServiceBrowser>();
        return browser_;
    }
    std::vector<long> publish(const std::vector<std::string>& names) override {
        std::vector<long> ports;
        for (const std::string& name : names) {
            ports.push_back(next_);
            services_.push_back(std::make_shared<FakeNetService>(name, next_++));
        }
        return ports;
    }
    bool turnUntil(const std::function<bool()>& condition) override {
        for (int step = 0; step < 200 && !condition(); ++step) {
            turnFor(50ms);
        }
        return condition();
    }
    void turnFor(Clock::Duration duration) override {
        if (browser_ && browser_->isSearching() && shownTo_ != browser_->searches().size()) {
            shownTo_ = browser_->searches().size();
            browser_->show(services_);
        }
        loop_.advanceBy(duration);
    }

private:
    FakeClock clock_;
    FakeRunLoop loop_{clock_};
    RunLoop::Replacement replacement_{loop_};
    std::shared_ptr<FakeServiceBrowser> browser_;
    std::vector<std::shared_ptr<NetService>> services_;
    std::size_t shownTo_ = 0;
    long next_ = 8000;
};

class RealWorld final : public World {
public:
    std::shared_ptr<ServiceBrowser> makeBrowser() override { return ServiceBrowser::make(); }
    std::vector<long> publish(const std::vector<std::string>& names) override {
        std::vector<std::unique_ptr<ChildProcess>> started;
        for (const std::string& name : names) {
            started.push_back(announce({name, "0"}));
        }
        std::vector<long> ports;
        for (auto& announcer : started) {
            const std::string line = announcer->readLine().value_or("");
            established.push_back(line);
            ports.push_back(std::atol(line.substr(line.rfind(' ') + 1).c_str()));
            announcers.push_back(std::move(announcer));
        }
        return ports;
    }
    static std::unique_ptr<ChildProcess> announce(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), KRV_SERVICE_ANNOUNCER);
        return std::make_unique<ChildProcess>(std::move(arguments));
    }
    bool turnUntil(const std::function<bool()>& condition) override {
        const auto deadline = Clock::steady().now() + 20s;
        while (!condition() && Clock::steady().now() < deadline) {
            turnFor(20ms);
        }
        return condition();
    }
    void turnFor(Clock::Duration duration) override { RunLoop::current().runUntil(Clock::steady().now() + duration); }

    std::vector<std::unique_ptr<ChildProcess>> announcers;
    std::vector<std::string> established;
};

template <typename W>
class ServiceBrowserContract : public testing::Test {
protected:
    W world;
    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
    std::shared_ptr<ServiceBrowser> browser = world.makeBrowser();

    void SetUp() override { browser->setDelegate(observer); }
    void search() { browser->searchForServicesOfType(kType, kDomain); }
    bool seen(const std::string& name) {
        return world.turnUntil([&] { return observer->names().count(name) > 0; });
    }
};
using Worlds = testing::Types<FakeWorld, RealWorld>;

class WorldNames {
public:
    template <typename W>
    static std::string GetName(int) {
        return std::is_same_v<W, FakeWorld> ? "Fake" : "Real";
    }
};
TYPED_TEST_SUITE(ServiceBrowserContract, Worlds, WorldNames);

TYPED_TEST(ServiceBrowserContract, ShowsAServiceUnderItsName) {
    this->world.publish({"one"});
    this->search();
    ASSERT_TRUE(this->seen("one"));
    EXPECT_EQ(this->observer->reports.back().service->port(), -1);
}

TYPED_TEST(ServiceBrowserContract, AShownServiceResolvesToItsPort) {
    const auto ports = this->world.publish({"one"});
    this->search();
    ASSERT_TRUE(this->seen("one"));
    const auto service = this->observer->reports.back().service;
    service->setDelegate(this->observer);
    service->resolveWithTimeout(5s);
    EXPECT_EQ(this->observer->resolvedPort, 0);
    ASSERT_TRUE(this->world.turnUntil([&] { return this->observer->resolvedPort != 0; }));
    EXPECT_EQ(this->observer->resolvedPort, ports[0]);
    EXPECT_EQ(service->port(), ports[0]);
    EXPECT_EQ(this->observer->failures, 0);
}

TYPED_TEST(ServiceBrowserContract, ShowsForeignServicesOfTheSameBatchAndEndsIt) {
    this->world.publish({"ours", "foreign one", "foreign two"});
    this->search();
    ASSERT_TRUE(this->world.turnUntil([&] { return this->observer->names().size() == 3; }));
    EXPECT_EQ(this->observer->names(), (std::multiset<std::string>{"foreign one", "foreign two", "ours"}));
    EXPECT_FALSE(this->observer->reports.back().moreComing);
    EXPECT_EQ(this->observer->silences(), 0U);
}

TYPED_TEST(ServiceBrowserContract, NothingArrivesAfterStop) {
    this->world.publish({"one", "two", "three"});
    this->observer->onReport = [&] { this->browser->stop(); };
    this->search();
    ASSERT_TRUE(this->world.turnUntil([&] { return !this->observer->reports.empty(); }));
    this->world.turnFor(3s);
    EXPECT_EQ(this->observer->reports.size(), 1U);
}

TYPED_TEST(ServiceBrowserContract, ASearchThatIsStoppedAtOnceShowsNothing) {
    this->world.publish({"one"});
    this->search();
    this->browser->stop();
    this->browser->stop();
    this->world.turnFor(2500ms);
    EXPECT_TRUE(this->observer->reports.empty());
}

TYPED_TEST(ServiceBrowserContract, EachSearchShowsTheServiceAgain) {
    this->world.publish({"one"});
    for (std::size_t round = 1; round <= 3; ++round) {
        this->search();
        ASSERT_TRUE(this->world.turnUntil([&] { return this->observer->names().count("one") == round; }));
        if (round % 2 == 0) {
            this->browser->stop();
        }
    }
}

TYPED_TEST(ServiceBrowserContract, ASilentSearchEndsABatchAfterTwoSecondsAndAgainAfterSix) {
    const auto start = Clock::steady().now();
    this->search();
    ASSERT_TRUE(this->world.turnUntil([&] { return !this->observer->reports.empty(); }));
    if (!std::is_same_v<TypeParam, FakeWorld>) {
        EXPECT_GE(Clock::steady().now() - start, 1900ms);
    }
    EXPECT_TRUE(this->observer->reports[0].empty);
    EXPECT_FALSE(this->observer->reports[0].moreComing);
    ASSERT_TRUE(this->world.turnUntil([&] { return this->observer->reports.size() == 2; }));
    EXPECT_TRUE(this->observer->reports[1].empty);
}

TYPED_TEST(ServiceBrowserContract, ASearchAfterASilentOneLeavesTimeForItsOwnersFallBack) {
    this->search();
    ASSERT_TRUE(this->world.turnUntil([&] { return !this->observer->reports.empty(); }));
    this->search();
    this->world.turnFor(5500ms);
    EXPECT_EQ(this->observer->reports.size(), 1U);
}

TYPED_TEST(ServiceBrowserContract, ADelegateThatHasGoneIsNotToldAnything) {
    this->world.publish({"one"});
    this->search();
    const std::weak_ptr<Observer> weak = this->observer;
    this->observer = nullptr;
    EXPECT_TRUE(weak.expired());
    this->world.turnFor(1s);
}

TYPED_TEST(ServiceBrowserContract, DescribesItself) {
    EXPECT_FALSE(this->browser->description().empty());
}

// The rest concerns the machine, so it tests only the real browser.

using RealServiceBrowser = ServiceBrowserContract<RealWorld>;

TEST_F(RealServiceBrowser, FindsAServiceThatIsPublishedDuringTheSearch) {
    search();
    world.turnFor(100ms);
    world.publish({"late"});
    EXPECT_TRUE(seen("late"));
}

TEST_F(RealServiceBrowser, AServiceWithoutAListenerIsNotReported) {
    const auto ghost = RealWorld::announce({"ghost", "8123", "--no-listener"});
    ASSERT_EQ(ghost->readLine(), "established ghost 8123");
    world.publish({"alive"});
    search();
    ASSERT_TRUE(seen("alive"));
    world.turnFor(500ms);
    EXPECT_EQ(observer->names().count("ghost"), 0U);
}

TEST_F(RealServiceBrowser, AKilledServiceIsNotReportedFromACache) {
    world.publish({"victim"});
    search();
    ASSERT_TRUE(seen("victim"));
    world.announcers[0]->signal(SIGKILL);
    world.announcers[0]->wait();
    observer->reports.clear();
    search();
    ASSERT_TRUE(world.turnUntil([&] { return !observer->reports.empty(); }));
    EXPECT_TRUE(observer->reports[0].empty);
}

TEST_F(RealServiceBrowser, AServiceThatDiesBeforeItIsResolvedDoesNotResolve) {
    world.publish({"victim"});
    search();
    ASSERT_TRUE(seen("victim"));
    const auto service = observer->reports.back().service;
    world.announcers[0]->signal(SIGKILL);
    world.announcers[0]->wait();
    service->setDelegate(observer);
    service->resolveWithTimeout(5s);
    ASSERT_TRUE(world.turnUntil([&] { return observer->failures > 0; }));
    EXPECT_EQ(service->port(), -1);
}

TEST_F(RealServiceBrowser, ASecondPublisherOfTheSameNameIsReportedUnderThatName) {
    world.publish({"twin"});
    world.publish({"twin"});
    EXPECT_EQ(world.established[1].find("established twin #2 "), 0U) << world.established[1];
    search();
    ASSERT_TRUE(world.turnUntil([&] { return observer->names().size() == 2; }));
    EXPECT_EQ(observer->names(), (std::multiset<std::string>{"twin", "twin"}));
}

TEST_F(RealServiceBrowser, ARestartOnAnotherPortIsFoundThere) {
    world.publish({"server"});
    search();
    ASSERT_TRUE(seen("server"));
    world.announcers[0]->closeInput();
    world.announcers[0]->wait();
    const auto ports = world.publish({"server"});
    observer->reports.clear();
    search();
    ASSERT_TRUE(seen("server"));
    const auto service = observer->reports.back().service;
    service->setDelegate(observer);
    service->resolveWithTimeout(5s);
    ASSERT_TRUE(world.turnUntil([&] { return observer->resolvedPort != 0; }));
    EXPECT_EQ(observer->resolvedPort, ports.back());
}

TEST_F(RealServiceBrowser, CallsTheDelegateOnTheMainLoopWhicheverThreadStartedTheSearch) {
    world.publish({"one"});
    std::thread::id told;
    observer->onReport = [&] { told = std::this_thread::get_id(); };
    std::atomic<bool> done{false};
    std::thread other([&] {
        search();
        while (!done) {
            RunLoop::current().runUntil(Clock::steady().now() + 20ms);
        }
    });
    EXPECT_TRUE(seen("one"));
    done = true;
    other.join();
    EXPECT_EQ(told, std::this_thread::get_id());
}

TEST_F(RealServiceBrowser, ASearchSurvivesTheEndOfItsThread) {
    std::thread([&] { search(); }).join();
    world.publish({"one"});
    EXPECT_TRUE(seen("one"));
}

/// A runtime folder of the test's own, a socket that listens, and a record of this process for it. Multicast does not
/// work, so everything is found by the record.
class RecordedService : public RealServiceBrowser {
protected:
    RecordedService() {
        ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
        EXPECT_EQ(test::runShell("ip route add prohibit 224.0.0.0/4"), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
        sockaddr_in address{};
        socklen_t size = sizeof address;
        EXPECT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size), 0);
        record = *serviceRecordOfThisProcess("recorded", ntohs(address.sin_port));
    }
    ~RecordedService() override {
        browser->stop();
        ::close(listener_);
        EXPECT_EQ(test::runShell("ip route del prohibit 224.0.0.0/4"), 0);
        ::unsetenv("XDG_RUNTIME_DIR");
    }

    void write() { file_ = std::make_unique<ServiceRecordFile>(folder_.path().string(), record); }
    /// Returns whether a search that finds the record reports nothing.
    bool isDropped() {
        write();
        observer->reports.clear();
        search();
        return world.turnUntil([&] { return !observer->reports.empty(); }) && observer->reports[0].empty;
    }

    ServiceRecord record;

private:
    const test::TemporaryFolder folder_;
    const int listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::unique_ptr<ServiceRecordFile> file_;
};

TEST_F(RecordedService, IsReportedAndResolvesToItsPort) {
    write();
    search();
    ASSERT_TRUE(seen("recorded"));
    EXPECT_EQ(observer->silences(), 0U);
    const auto service = observer->reports.back().service;
    service->setDelegate(observer);
    service->resolveWithTimeout(5s);
    ASSERT_TRUE(world.turnUntil([&] { return observer->resolvedPort != 0; }));
    EXPECT_EQ(observer->resolvedPort, record.port);
}

TEST_F(RecordedService, IsReportedWhenItsRecordAppearsDuringASearch) {
    search();
    EXPECT_TRUE(observer->reports.empty());
    write();
    // The first report is not that of a search that has found nothing.
    ASSERT_TRUE(world.turnUntil([&] { return !observer->reports.empty(); }));
    EXPECT_EQ(observer->reports[0].name, "recorded");
}

TEST_F(RecordedService, IsReportedOncePerSearch) {
    search();
    write();
    write();
    ASSERT_TRUE(seen("recorded"));
    write();
    search();
    ASSERT_TRUE(world.turnUntil([&] { return observer->reports.size() >= 2; }));
    EXPECT_EQ(observer->names(), (std::multiset<std::string>{"recorded", "recorded"}));
}

TEST_F(RecordedService, IsDroppedIfItsProcessHasExited) {
    record.startTime += 1;
    EXPECT_TRUE(isDropped());
}

TEST_F(RecordedService, IsDroppedIfItIsInAnotherPidNamespace) {
    record.pidNamespace += 1;
    EXPECT_TRUE(isDropped());
}

TEST_F(RecordedService, IsDroppedIfItIsOfAnotherMajorVersion) {
    record.version = std::to_string(majorVersion(record.version) + 1) + ".0.0";
    EXPECT_TRUE(isDropped());
}

TEST_F(RecordedService, IsDroppedIfNobodyListensOnItsPort) {
    record.port = 1;
    EXPECT_TRUE(isDropped());
}

TEST_F(RecordedService, IsNotReportedToASearchForAnotherType) {
    write();
    browser->searchForServicesOfType("_ipp._tcp.", kDomain);
    ASSERT_TRUE(world.turnUntil([&] { return !observer->reports.empty(); }));
    EXPECT_TRUE(observer->reports[0].empty);
}

TEST_F(RealServiceBrowser, WorksNextToADaemon) {
    if (::access("/run", W_OK) != 0) {
        GTEST_SKIP() << "the daemon needs root, for its folder in /run";
    }
    const auto folder = std::filesystem::temp_directory_path() / ("krv-avahi-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "avahi.conf") << "[server]\nenable-dbus=no\nallow-interfaces=lo\n";
    // The daemon's pid file has a fixed path, so it gets a private folder there.
    ChildProcess daemon({"unshare", "--mount", "sh", "-c",
                         "mkdir -p /run/avahi-daemon && mount -t tmpfs none /run/avahi-daemon && exec avahi-daemon "
                         "--no-drop-root --no-chroot --no-rlimits -f " +
                             (folder / "avahi.conf").string() + " 2>&1"});
    for (;;) {
        const auto line = daemon.readLine();
        ASSERT_TRUE(line) << "the daemon did not start";
        if (line->find("Server startup complete") != std::string::npos) {
            break;
        }
    }
    const auto ports = world.publish({"beside"});
    search();
    ASSERT_TRUE(seen("beside"));
    EXPECT_GT(ports[0], 0);
    std::filesystem::remove_all(folder);
}

TEST_F(RealServiceBrowser, StaysSilentWhereMulticastDoesNotWork) {
    ASSERT_EQ(test::runShell("ip route add prohibit 224.0.0.0/4"), 0);
    search();
    EXPECT_TRUE(world.turnUntil([&] { return !observer->reports.empty(); }));
    EXPECT_TRUE(observer->reports[0].empty);
    ASSERT_EQ(test::runShell("ip route del prohibit 224.0.0.0/4"), 0);
}

}  // namespace
}  // namespace krv

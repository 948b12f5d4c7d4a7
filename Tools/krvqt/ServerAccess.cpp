#include "ServerAccess.h"

#include <condition_variable>
#include <mutex>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

#include "Interruption.h"

namespace krvqt {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// How often to look again without news of discovery.
constexpr auto kProbeInterval = 100ms;
/// A server usually responds within this time. Only a longer wait is worth a message.
constexpr auto kSilentWait = 3s;

/// Wakes a waiting thread when discovery has looked for the server.
class DiscoveryNews {
public:
    DiscoveryNews()
        : token_(krv::NotificationCenter::defaultCenter().addObserver(
              krv::kHTTPServerDiscoveryServiceChangeNotification,
              [state = state_](const krv::Notification&) { state->arrived(); })) {}
    ~DiscoveryNews() { krv::NotificationCenter::defaultCenter().removeObserver(token_); }
    DiscoveryNews(const DiscoveryNews&) = delete;
    DiscoveryNews& operator=(const DiscoveryNews&) = delete;

    /// Returns when there has been news since the previous call, or when the time is up.
    void wait(SteadyClock::duration atMost) {
        std::unique_lock lock(state_->mutex);
        state_->condition.wait_for(lock, atMost, [this] { return state_->news; });
        state_->news = false;
    }

private:
    /// Outlives this object if a notification is being delivered meanwhile.
    struct State {
        std::mutex mutex;
        std::condition_variable condition;
        bool news = false;  // guarded by mutex

        void arrived() {
            {
                const std::lock_guard lock(mutex);
                news = true;
            }
            condition.notify_all();
        }
    };
    const std::shared_ptr<State> state_ = std::make_shared<State>();
    const krv::NotificationCenter::Token token_;
};

/// Returns whether a server process is running. Its record is looked at first, because that costs less than the process
/// table.
bool serverIsRunning() {
    const auto& processes = krv::ProcessTable::ofThisUser();
    if (const auto record = krv::readServiceRecord(krv::runtimeFolder(krv::kMediaServerName))) {
        const auto process = processes.process(record->pid);
        if (process && process->startTime == record->startTime) {
            return true;
        }
    }
    return krv::KRVProcessMonitor::isProcessRunningNamed(krv::kMediaServerName, processes);
}

/// Prints each reason for waiting once.
class Announcer {
public:
    explicit Announcer(bool quiet)
        : quiet_(quiet) {}

    void say(std::string reason) {
        if (reason == last_ || SteadyClock::now() - start_ < kSilentWait) {
            return;
        }
        if (!quiet_) {
            fmt::print(stderr, "krvqt: waiting for the media server: {}\n", reason);
        }
        last_ = std::move(reason);
    }

private:
    const bool quiet_;
    const SteadyClock::time_point start_ = SteadyClock::now();
    std::string last_;
};

/// Returns why no server responds yet.
std::string whyNotYet(const ServerAccess& access) {
    if (const long port = access.discovery->servicePortNumber(); port >= 1) {
        return fmt::format("found on port {}, but it does not respond", port);
    }
    const auto launch = krv::ServerRunner::latestLaunch();
    if (!access.launches || !launch) {
        return serverIsRunning() ? "one is running, but its port has not been found yet" : "none is running yet";
    }
    if (launch->bundle.empty()) {
        return fmt::format("there is no {}.app beside krvqt or its library to start it from", krv::kMediaServerName);
    }
    if (!launch->failure.empty()) {
        return launch->failure;
    }
    if (launch->running) {
        return fmt::format("launched as process {}, but it does not respond yet", launch->pid);
    }
    return fmt::format("{} was launched and exited at once{}{}", launch->executable,
                       launch->standardErrorFile.empty() ? "" : "; its output is in ", launch->standardErrorFile);
}

/// A registered process appears in the server's status, where others can see it and cancel its work. The client's
/// runner would register it too, but only a second or two from now.
ExitStatus registerOurselves(const ServerAccess& access) {
    try {
        access.client->registerWithServer();
        return kDone;
    } catch (const krv::Exception& exception) {
        fmt::print(stderr, "krvqt: the media server refused to register this process: {}\n", exception.reason());
        return kNoServer;
    }
}

/// Launches a server, once: one that exits at once would do so again.
class Launcher {
public:
    explicit Launcher(const ServerAccess& access)
        : runner_(access.launches ? access.client->serverRunner() : nullptr) {}

    /// Launches a server if none is running. Returns false where another attempt would end in the same way.
    bool launchIfMissing() {
        if (!runner_ || serverIsRunning()) {
            return true;
        }
        if (launched_) {
            return false;
        }
        try {
            launched_ = runner_->launchIfMissing();
            return true;
        } catch (const krv::Exception&) {
            return false;  // ServerRunner::latestLaunch() tells why
        }
    }

private:
    const std::shared_ptr<krv::ServerRunner> runner_;
    bool launched_ = false;
};

}  // namespace

ServerAccess ServerAccess::launching() {
    ServerAccess access;
    access.discovery = krv::HTTPServerDiscovery::defaultInstance();
    access.transport = std::make_shared<krv::KRVHTTPClientTransport>(access.discovery);
    access.client = krv::KRVQuicktimeProcessClient::initWithTransport(access.transport, true);
    access.launches = true;
    return access;
}

ServerAccess ServerAccess::looking() {
    ServerAccess access;
    access.discovery = krv::HTTPServerDiscovery::defaultInstance();
    access.transport = std::make_shared<krv::KRVHTTPClientTransport>(access.discovery);
    access.client = std::make_shared<krv::KRVQuicktimeProcessClient>(access.transport);
    return access;
}

ExitStatus reachServer(const ServerAccess& access, const CommonOptions& common) {
    DiscoveryNews news;
    if (!access.launches && !serverIsRunning()) {
        fmt::print(stderr, "krvqt: no media server is running\n");
        return kNoServer;
    }
    Announcer announcer(common.quiet);
    Launcher launcher(access);
    const auto deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(common.wait);
    for (;;) {
        if (Interruption::requested()) {
            return kCancelled;
        }
        if (access.transport->serviceReadyToRock()) {
            return access.launches ? registerOurselves(access) : kDone;
        }
        const bool hope = launcher.launchIfMissing();
        const std::string reason = whyNotYet(access);
        if (!hope) {
            fmt::print(stderr, "krvqt: the media server could not be started: {}\n", reason);
            return kNoServer;
        }
        announcer.say(reason);
        if (SteadyClock::now() >= deadline) {
            fmt::print(stderr, "krvqt: the media server could not be reached within {:.0f} s: {}\n",
                       common.wait.count(), reason);
            return kNoServer;
        }
        news.wait(kProbeInterval);
    }
}

}  // namespace krvqt

#include "ServerAccess.h"

#include <thread>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>

#include "Interruption.h"

namespace krvqt {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr auto kProbeInterval = 100ms;
/// A server usually responds within this time. Only a longer wait is worth a message.
constexpr auto kSilentWait = 2s;

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
        return krv::KRVProcessMonitor::isProcessRunningNamed(krv::kMediaServerName, krv::ProcessTable::ofThisUser())
                   ? "one is running, but its port has not been found yet"
                   : "none is running yet";
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

}  // namespace

ServerAccess ServerAccess::launching() {
    ServerAccess access;
    access.discovery = krv::HTTPServerDiscovery::defaultInstance();
    access.client = krv::KRVQuicktimeProcessClient::defaultClient();
    access.transport = access.client->transport();
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
    if (!access.launches &&
        !krv::KRVProcessMonitor::isProcessRunningNamed(krv::kMediaServerName, krv::ProcessTable::ofThisUser())) {
        fmt::print(stderr, "krvqt: no media server is running\n");
        return kNoServer;
    }
    Announcer announcer(common.quiet);
    const auto deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(common.wait);
    for (;;) {
        if (Interruption::requested()) {
            return kCancelled;
        }
        if (access.transport->serviceReadyToRock()) {
            return access.launches ? registerOurselves(access) : kDone;
        }
        const std::string reason = whyNotYet(access);
        announcer.say(reason);
        if (SteadyClock::now() >= deadline) {
            fmt::print(stderr, "krvqt: the media server could not be reached within {:.0f} s: {}\n",
                       common.wait.count(), reason);
            return kNoServer;
        }
        std::this_thread::sleep_for(kProbeInterval);
    }
}

}  // namespace krvqt

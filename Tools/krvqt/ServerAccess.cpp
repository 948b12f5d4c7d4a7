#include "ServerAccess.h"

#include <thread>

#include <fmt/format.h>

#include "Interruption.h"
#include "ServerLaunch.h"

namespace krvqt {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::string_view kServerName = "KRVQuicktimeProcess";
constexpr auto kProbeInterval = 100ms;
/// A server usually answers before anybody wonders; only a longer wait is worth a line.
constexpr auto kSilentWait = 2s;

/// Says each reason for waiting once.
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

/// A registered process is one that others see in the server's status, and can cancel the work of.
ExitStatus registerOurselves(const ServerAccess& access) {
    try {
        access.client->registerWithServer();
        return kDone;
    } catch (const krv::Exception& exception) {
        fmt::print(stderr, "krvqt: the media server does not take us on: {}\n", exception.reason());
        return kNoServer;
    }
}

}  // namespace

ExitStatus reachServer(ServerAccess& access, const CommonOptions& common, WhenAbsent whenAbsent) {
    access.discovery = krv::HTTPServerDiscovery::defaultInstance();
    access.transport = std::make_shared<krv::KRVHTTPClientTransport>(access.discovery);
    access.client = std::make_shared<krv::KRVQuicktimeProcessClient>(access.transport);

    bool launched = false;
    if (!krv::KRVProcessMonitor::isProcessRunningNamed(kServerName)) {
        if (whenAbsent == WhenAbsent::GiveUp) {
            fmt::print(stderr, "krvqt: no media server is running\n");
            return kNoServer;
        }
        const ServerLaunch launch = launchServer();
        if (!launch.launched) {
            fmt::print(stderr, "krvqt: {}\n", launch.text);
            return kNoServer;
        }
        launched = true;
    }

    Announcer announcer(common.quiet);
    const auto deadline = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(common.wait);
    std::string reason;
    for (;;) {
        if (Interruption::requested()) {
            return kCancelled;
        }
        const long port = access.discovery->servicePortNumber();
        if (port >= 1 && access.transport->canWeGetStatusFromServer()) {
            return whenAbsent == WhenAbsent::Launch ? registerOurselves(access) : kDone;
        }
        reason = port >= 1  ? fmt::format("found on port {}, but it does not answer", port)
                 : launched ? "launched, and not yet found"
                            : "one is running, but its port is not yet found";
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

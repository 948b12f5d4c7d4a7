#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Discovery/PortNumbering.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/Port.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

namespace krv {

constinit const std::string_view kHTTPServerDiscoveryDefaultServiceName = kMediaServerName;
constinit const std::string_view kHTTPServerDiscoveryServiceChangeNotification =
    "kHTTPServerDiscoveryServiceChangeNotification";

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kServiceType = "_http._tcp.";
constexpr std::string_view kDomain = "local.";
constexpr auto kResolveTimeout = 5s;
/// Delay after a resolved or unresolvable service and after a successful poll.
constexpr auto kRestartAfterResult = 1s;
/// Delay after a batch without a match and after serverIsntThere().
constexpr auto kRestartAfterAbsence = 250ms;
constexpr auto kPollingDelay = 5s;
constexpr auto kPollTimeout = 1s;
constexpr std::int32_t kPolledPorts = 10;
/// Interval of a timer that never fires; it only gives the thread's run loop something to wait for.
constexpr auto kKeepAliveInterval = 2147483647s;
constexpr auto kRunLoopPeriod = 4294967295s;
constexpr long kAbsent = -1;

constexpr LogSite site(std::string_view function, std::uint32_t mask = 0) {
    return {"Source/Client/HTTPServerDiscovery", Selector(function), mask};
}

/// The shared instance and its lock. Never destroyed, because threads may use it until the process exits.
struct SharedInstance {
    RecursiveMutex mutex;
    std::shared_ptr<HTTPServerDiscovery> discovery KRV_GUARDED_BY(mutex);
};

SharedInstance& sharedInstance() {
    static auto* instance = new SharedInstance;
    return *instance;
}

}  // namespace

std::shared_ptr<HTTPServerDiscovery> HTTPServerDiscovery::defaultInstance() {
    SharedInstance& shared = sharedInstance();
    const LockGuard lock(shared.mutex);
    if (!shared.discovery) {
        shared.discovery = make(Environment{});
    }
    return shared.discovery;
}

void HTTPServerDiscovery::destroyDefaultInstance() {
    SharedInstance& shared = sharedInstance();
    const LockGuard lock(shared.mutex);
    if (shared.discovery) {
        KRV_LOG(kLogFlagWarning, site("destroyDefaultInstance"), "Default discovery being destroyed");
        shared.discovery.reset();
    }
}

void HTTPServerDiscovery::startDetachedThread(std::function<void()> body) {
    try {
        threadWithoutSignals("KRVDiscovery", [body = std::move(body)] {
            try {
                body();
            } catch (...) {
                // The body has logged that it ends. No caller could catch it, and it must not terminate the application.
                KRV_LOG(kLogFlagError, site("startDiscoveryOnThread"), "The discovery thread has failed");
            }
        }).detach();
    } catch (const std::system_error& failure) {
        throw Exception(std::string(kHTTPServerDiscoveryException),
                        fmt::format("The discovery thread cannot be started: {}", failure.what()));
    }
}

std::shared_ptr<HTTPServerDiscovery> HTTPServerDiscovery::make(Environment environment) {
    const std::shared_ptr<HTTPServerDiscovery> discovery(new HTTPServerDiscovery(std::move(environment)));
    const LogSite init = site("init");
    KRV_LOG(kLogFlagInfo, init, "HTTP Server discovery initializing with name: {}",
            kHTTPServerDiscoveryDefaultServiceName);
    discovery->setServiceName(ServerNaming::machineSpecificNameFor(kHTTPServerDiscoveryDefaultServiceName));
    KRV_LOG(kLogFlagInfo, init, "HTTP Discovery will look for: {}", discovery->serviceName());
    const auto browser = discovery->environment_.makeBrowser();
    discovery->setBrowser(browser);
    browser->setDelegate(discovery);
    discovery->environment_.startThread([discovery] { discovery->startDiscoveryOnThread(); });
    return discovery;
}

HTTPServerDiscovery::HTTPServerDiscovery(Environment environment)
    : environment_(std::move(environment)) {}

HTTPServerDiscovery::~HTTPServerDiscovery() {
    if (const auto browser = this->browser()) {
        browser->stop();
    }
    SharedInstance& shared = sharedInstance();
    std::shared_ptr<HTTPServerDiscovery> dropped;
    const LockGuard lock(shared.mutex);
    dropped.swap(shared.discovery);
}

std::string HTTPServerDiscovery::serviceName() const {
    return serviceName_.get();
}

void HTTPServerDiscovery::setServiceName(std::string serviceName) {
    serviceName_.set(std::move(serviceName));
}

std::shared_ptr<ServiceBrowser> HTTPServerDiscovery::browser() const {
    return browser_.get();
}

void HTTPServerDiscovery::setBrowser(std::shared_ptr<ServiceBrowser> browser) {
    browser_.set(std::move(browser));
}

void HTTPServerDiscovery::startDiscoveryOnThread() {
    RunLoop& loop = environment_.currentLoop();
    const auto keepAlive = loop.scheduleTimer(kKeepAliveInterval, [] {});
    const auto terminating = [&] {
        KRV_LOG(kLogFlagWarning, site("startDiscoveryOnThread"), "HTTP discovery search is terminating");
        keepAlive->invalidate();
    };
    try {
        KRV_LOG(kLogFlagInfo, site("startDiscoveryOnThread"), "HTTP Server Discovery started searching...");
        startSearch();
        for (;;) {
            loop.runUntil(environment_.now() + kRunLoopPeriod);
        }
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagError, site("startDiscoveryOnThread"), "Exception in HTTPDiscovery: {}",
                exception.description());
        terminating();
    } catch (...) {
        terminating();
        throw;
    }
}

void HTTPServerDiscovery::startSearch() {
    if (const auto current = browser()) {
        current->searchForServicesOfType(kServiceType, kDomain);
    }
}

void HTTPServerDiscovery::stopSearch() {
    if (const auto current = browser()) {
        current->stop();
    }
    environment_.currentLoop().cancelPerform(this, kFallbackToHTTPPolling);
}

void HTTPServerDiscovery::didFindService(const std::shared_ptr<ServiceBrowser>& browser,
                                         const std::shared_ptr<NetService>& service, bool moreComing) {
    if (!service) {
        // The browser has shown nothing for a while. That happens every few seconds without a server, so it is not
        // logged.
        if (!moreComing) {
            resolvedToPort(kAbsent, kRestartAfterAbsence);
        }
        return;
    }
    const LogSite here = site("netServiceBrowser:didFindService:moreComing:", kLoggingHTTPDiscovery);
    KRV_LOG(kLogFlagVerbose, here, "Observing network service: {}. More on the way?:{}", service->name(),
            moreComing ? 1 : 0);
    const std::string ours = serviceName();
    if (service->name() == ours) {
        KRV_LOG(kLogFlagVerbose, here, "{} is up. Will now resolve.", ours);
        browser->stop();
        resolving_.set(service);
        service->setDelegate(weak_from_this());
        service->resolveWithTimeout(kResolveTimeout);
    } else if (!moreComing) {
        KRV_LOG(kLogFlagVerbose, here, "{} is down. Will begin search again shortly.", ours);
        resolvedToPort(kAbsent, kRestartAfterAbsence);
    }
}

void HTTPServerDiscovery::netServiceDidResolveAddress(const std::shared_ptr<NetService>& service) {
    resolvedToPort(service->port(), kRestartAfterResult);
    resolving_.set(nullptr);
}

void HTTPServerDiscovery::didNotResolve(const std::shared_ptr<NetService>& /*service*/) {
    KRV_LOG(kLogFlagVerbose, site("netService:didNotResolve:", kLoggingHTTPDiscovery), "Failed to resolve {}.",
            serviceName());
    resolvedToPort(kAbsent, kRestartAfterResult);
    resolving_.set(nullptr);
}

void HTTPServerDiscovery::resolvedToPort(long port, Clock::Duration beginAgainIn) {
    if (port < 1) {
        setServicePortNumber(kAbsent);
    } else {
        // The line shows the previous port, so that two successive lines show a change.
        KRV_LOG(kLogFlagVerbose, site("resolvedToPort:beginAgainIn:", kLoggingHTTPDiscovery),
                "Resolved {}. It has port: {}", serviceName(), servicePortNumber());
        setServicePortNumber(port);
    }
    environment_.notificationCenter().post({.name = std::string(kHTTPServerDiscoveryServiceChangeNotification),
                                            .value = static_cast<std::int32_t>(servicePortNumber()),
                                            .object = nullptr});
    if (beginAgainIn != Clock::Duration::zero()) {
        stopSearch();
        beginSearchAgainIn(beginAgainIn);
    }
}

void HTTPServerDiscovery::beginSearchAgainIn(Clock::Duration delay) {
    const auto self = shared_from_this();
    // Scheduled before the check of the thread, so a call on another thread leaves a poll on that thread's loop too.
    RunLoop& current = environment_.currentLoop();
    current.cancelPerform(this, kFallbackToHTTPPolling);
    current.performAfterDelay(kPollingDelay, self, kFallbackToHTTPPolling, [self] { self->fallbackToHTTPPolling(); });

    const LogSite here = site("beginSearchAgainIn:", kLoggingHTTPDiscovery);
    const double seconds = secondsFromDuration(delay);
    if (!environment_.isMainThread()) {
        KRV_LOG(kLogFlagInfo, here, "Pushing request to begin search again in {:2.2f}s to main thread", seconds);
        environment_.mainLoop().perform([self, seconds] { self->beginSearchAgainWithNumber(seconds); });
        return;
    }
    KRV_LOG(kLogFlagInfo, here, "Beginning HTTP Server search in {:2.2f}s", seconds);
    environment_.mainLoop().performAfterDelay(delay, self, kStartSearch, [self] { self->startSearch(); });
}

void HTTPServerDiscovery::beginSearchAgainWithNumber(double seconds) {
    beginSearchAgainIn(durationFromSeconds(seconds));
}

void HTTPServerDiscovery::fallbackToHTTPPolling() {
    const auto bound = [] { return std::min(PortNumbering::minimumPortNumber() + kPolledPorts, kHighestPort); };
    for (std::int32_t port = PortNumbering::minimumPortNumber(); port < bound(); ++port) {
        const HTTPResponse response = environment_.httpClient().send(
            {.url = fmt::format("http://localhost:{}/status", port), .body = std::nullopt, .timeout = kPollTimeout});
        if (response.body && !response.error) {
            resolvedToPort(port, kRestartAfterResult);
            return;
        }
    }
    // The text always shows the default range, not the configured one.
    KRV_LOG(kLogFlagInfo, site("fallbackToHTTPPolling"), "Couldn't find server on ports {}-{} via HTTP polling",
            kMinPortNumber, kMinPortNumber + kPolledPorts);
}

void HTTPServerDiscovery::serverIsntThere() {
    const LogSite here = site("serverIsntThere");
    KRV_LOG(kLogFlagInfo, here, "App is saying server isn't there - and forcing service refresh");
    const auto current = browser();
    KRV_LOG(kLogFlagInfo, here, "Current browser is: {}", current ? current->description() : "(null)");
    resolvedToPort(kAbsent, kRestartAfterAbsence);
}

}  // namespace krv

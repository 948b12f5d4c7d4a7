#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Discovery/ServicePort.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Platform/ServiceBrowser.h>

namespace krv {

/// Base of the service name that is searched for.
KRV_EXPORT extern const std::string_view kHTTPServerDiscoveryDefaultServiceName;
/// Notification: a result was recorded, even if it changed nothing. Its value is the port as an integer, -1 if there is
/// no server. Posted on the default notification centre by the thread that records the result: the main thread, or the
/// caller's thread for serverIsntThere(). After serverIsntThere() on a thread that runs its loop, one poll runs there
/// too. What an observer throws is logged and dropped.
KRV_EXPORT extern const std::string_view kHTTPServerDiscoveryServiceChangeNotification;

/// Knows the loopback port on which the media server listens, for the whole process.
///
/// The search runs in cycles: browse for a service with this machine's own name, resolve the first match, record the
/// port (or its absence), post a notification, start again. A cycle without a result within five seconds polls ten
/// ports, upwards from the lowest of the range. With a healthy server a cycle takes about a second, so a server that
/// comes back on another port is found without a request.
///
/// Threads: the first search is started by a thread of the object's own. Results, later searches and the polling run on
/// the main run loop, which the application must run. servicePortNumber and serverIsntThere are thread-safe. The
/// object's thread never exits and keeps a reference to the object.
class KRV_EXPORT HTTPServerDiscovery final : public ServicePort,
                                             public ServiceBrowserDelegate,
                                             public NetServiceDelegate,
                                             public std::enable_shared_from_this<HTTPServerDiscovery> {
public:
    /// The services that the object uses. The defaults are the real ones.
    struct Environment {
        std::function<std::shared_ptr<ServiceBrowser>()> makeBrowser = &ServiceBrowser::make;
        std::function<RunLoop&()> mainLoop = &RunLoop::main;
        std::function<RunLoop&()> currentLoop = &RunLoop::current;
        std::function<bool()> isMainThread = &RunLoop::isMainThread;
        /// Runs the body on a new thread and does not wait for it.
        std::function<void(std::function<void()> body)> startThread = &startDetachedThread;
        std::function<Clock::TimePoint()> now = [] { return Clock::steady().now(); };
        std::function<HTTPClient&()> httpClient = &HTTPClient::shared;
        std::function<NotificationCenter&()> notificationCenter = &NotificationCenter::defaultCenter;
    };

    /// Returns the shared instance, and creates it and starts its search on first use. Thread-safe.
    [[nodiscard]] static std::shared_ptr<HTTPServerDiscovery> defaultInstance();
    /// Drops the library's reference to the shared instance. Its thread continues and keeps a reference to it. The next
    /// defaultInstance() creates another one. For applications; the library never calls it.
    static void destroyDefaultInstance();

    /// Creates an instance and starts its search.
    [[nodiscard]] static std::shared_ptr<HTTPServerDiscovery> make(Environment environment);
    ~HTTPServerDiscovery() override;

    [[nodiscard]] long servicePortNumber() const override { return servicePortNumber_.load(std::memory_order_relaxed); }
    /// Replaces the port until the next result.
    void setServicePortNumber(long port) { servicePortNumber_.store(port, std::memory_order_relaxed); }
    [[nodiscard]] std::string serviceName() const;
    /// Replaces the name of the service that the next search looks for.
    void setServiceName(std::string serviceName);
    [[nodiscard]] std::shared_ptr<ServiceBrowser> browser() const;
    /// Replaces the browser of the next search. Its delegate must be set by the caller, and the old one be stopped.
    void setBrowser(std::shared_ptr<ServiceBrowser> browser);

    /// Reports that the server does not respond: forgets its port and searches again. Thread-safe.
    void serverIsntThere();

    // The steps of the search.

    void startDiscoveryOnThread();
    void startSearch();
    void stopSearch();
    /// Records a port (any number below 1 means absent) and posts the notification. Starts the next cycle after the
    /// delay, unless that is zero.
    void resolvedToPort(long port, Clock::Duration beginAgainIn);
    void beginSearchAgainIn(Clock::Duration delay);
    void beginSearchAgainWithNumber(double seconds);
    void fallbackToHTTPPolling();

    void didFindService(const std::shared_ptr<ServiceBrowser>& browser, const std::shared_ptr<NetService>& service,
                        bool moreComing) override;
    void netServiceDidResolveAddress(const std::shared_ptr<NetService>& service) override;
    void didNotResolve(const std::shared_ptr<NetService>& service) override;

    static constexpr Selector kStartSearch{"startSearch"};
    static constexpr Selector kFallbackToHTTPPolling{"fallbackToHTTPPolling"};

private:
    explicit HTTPServerDiscovery(Environment environment);
    static void startDetachedThread(std::function<void()> body);

    const Environment environment_;
    std::atomic<long> servicePortNumber_{0};
    Guarded<std::string> serviceName_;
    Guarded<std::shared_ptr<ServiceBrowser>> browser_;
    /// The service that is being resolved.
    Guarded<std::shared_ptr<NetService>> resolving_;
};

}  // namespace krv

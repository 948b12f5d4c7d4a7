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

/// Base of the service name that is looked for.
KRV_EXPORT extern const std::string_view kHTTPServerDiscoveryDefaultServiceName;
/// Notification: a result was recorded, even if it changed nothing. Posted on the default notification centre, on the
/// main thread while the main run loop runs the search. An application that calls resolvedToPort or serverIsntThere
/// gets it on the calling thread. Its value is the port as an integer, -1 if there is no server.
KRV_EXPORT extern const std::string_view kHTTPServerDiscoveryServiceChangeNotification;

/// Keeps, for the whole process, the loopback port on which the media server listens.
///
/// One cycle of the search: browse for a service of this machine's own name; resolve the first that matches; record
/// the port (or its absence) and say so; begin again. A cycle that brings no result within five seconds polls ten
/// ports, from the lowest of the range upward. With a healthy server the port is found anew about once a second, so a
/// server that comes back on another port is found without being asked for.
///
/// Threads: the first browse runs on a thread of the object's own, every later one and the polling on the main run
/// loop, which the application must turn. servicePortNumber and serverIsntThere may be called from any thread. The
/// object's thread never ends, and keeps the object.
class KRV_EXPORT HTTPServerDiscovery final : public ServicePort,
                                             public ServiceBrowserDelegate,
                                             public NetServiceDelegate,
                                             public std::enable_shared_from_this<HTTPServerDiscovery> {
public:
    /// What the object uses of the system. The defaults are the real things.
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

    /// The shared instance, made (and its search begun) on first use. Any thread.
    [[nodiscard]] static std::shared_ptr<HTTPServerDiscovery> defaultInstance();
    /// Drops the library's reference to the shared instance. Its thread goes on and keeps it; a later
    /// defaultInstance() makes another one. For applications; the library never calls it.
    static void destroyDefaultInstance();

    /// An instance of its own. The search begins at once.
    [[nodiscard]] static std::shared_ptr<HTTPServerDiscovery> make(Environment environment);
    ~HTTPServerDiscovery() override;

    [[nodiscard]] long servicePortNumber() const override { return servicePortNumber_.load(std::memory_order_relaxed); }
    void setServicePortNumber(long port) { servicePortNumber_.store(port, std::memory_order_relaxed); }
    [[nodiscard]] std::string serviceName() const;
    void setServiceName(std::string serviceName);
    [[nodiscard]] std::shared_ptr<ServiceBrowser> browser() const;
    void setBrowser(std::shared_ptr<ServiceBrowser> browser);

    /// The server does not answer: forget its port and search again. Any thread.
    void serverIsntThere();

    // The steps of the search.

    void startDiscoveryOnThread();
    void startSearch();
    void stopSearch();
    /// Records a port (anything below 1 counts as absent) and posts the notification. A delay other than zero begins
    /// the next cycle after it.
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
    /// The service being resolved, held until one of the two answers comes.
    Guarded<std::shared_ptr<NetService>> resolving_;
};

}  // namespace krv

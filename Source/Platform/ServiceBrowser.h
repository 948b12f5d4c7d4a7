#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

class NetService;
class ServiceBrowser;

/// Receives the result of a resolution, on the run loop that requested it. Called exactly once per request, unless the
/// request is stopped.
class NetServiceDelegate {
public:
    virtual ~NetServiceDelegate() = default;
    virtual void netServiceDidResolveAddress(const std::shared_ptr<NetService>& service) = 0;
    virtual void didNotResolve(const std::shared_ptr<NetService>& service) = 0;
};

/// A service that a browser has found.
class KRV_EXPORT NetService {
public:
    virtual ~NetService();
    /// Returns the name under which the service was published.
    [[nodiscard]] virtual const std::string& name() const = 0;
    /// Returns the port, 1 to 65535; -1 until the service is resolved.
    [[nodiscard]] virtual long port() const = 0;
    /// Borrows the delegate, which may be destroyed at any time.
    virtual void setDelegate(std::weak_ptr<NetServiceDelegate> delegate) = 0;
    /// Starts a resolution. Calls the delegate on the calling thread's run loop within the time-out.
    virtual void resolveWithTimeout(Clock::Duration timeout) = 0;
};

/// Receives the results of a search, on the main run loop.
class ServiceBrowserDelegate {
public:
    virtual ~ServiceBrowserDelegate() = default;
    /// Reports one service. moreComing is true if others of the same batch follow at once. For a batch that ended
    /// without a service, service is empty and moreComing is false.
    virtual void didFindService(const std::shared_ptr<ServiceBrowser>& browser,
                                const std::shared_ptr<NetService>& service, bool moreComing) = 0;
};

/// Searches for services of one type on this machine.
///
/// Finds services that are published on the loopback interface and, for "_http._tcp." in "local.", the server of this
/// user's service record. Reports a service under the name it was published with, even if a conflict has renamed it
/// ("NAME #2"), and only if a process of this user listens on its port. Drops services of another pid namespace or
/// major version. While a search has found no service, the browser reports an ended batch without a match after 2 s and
/// then every 6 s. The search that follows such a report waits 6 s from the start.
///
/// Thread-safe. Delivers on the main run loop, whichever thread started the search. A stop on another thread does not
/// wait for a callback that has started there.
class KRV_EXPORT ServiceBrowser : public std::enable_shared_from_this<ServiceBrowser> {
public:
    virtual ~ServiceBrowser();
    /// Borrows the delegate, which may be destroyed at any time.
    virtual void setDelegate(std::weak_ptr<ServiceBrowserDelegate> delegate) = 0;
    /// Starts a search, such as ("_http._tcp.", "local."). Stops a running search first.
    virtual void searchForServicesOfType(std::string_view type, std::string_view inDomain) = 0;
    /// Stops the search, if one is running.
    virtual void stop() = 0;
    /// For log lines.
    [[nodiscard]] virtual std::string description() const = 0;

    /// Creates a browser over the service record and over multicast DNS on the loopback interface. Never fails: where
    /// multicast does not work, its searches find only what has a record.
    [[nodiscard]] static std::shared_ptr<ServiceBrowser> make();
};

}  // namespace krv

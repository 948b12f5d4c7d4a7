#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

class NetService;
class ServiceBrowser;

/// Told how a resolution went, on the run loop from which it was asked for; exactly one call for each request
/// that is not stopped.
class NetServiceDelegate {
public:
    virtual ~NetServiceDelegate() = default;
    virtual void netServiceDidResolveAddress(const std::shared_ptr<NetService>& service) = 0;
    virtual void didNotResolve(const std::shared_ptr<NetService>& service) = 0;
};

/// One service that a browser has found.
class KRV_EXPORT NetService {
public:
    virtual ~NetService();
    /// The name under which the service was published.
    [[nodiscard]] virtual const std::string& name() const = 0;
    /// 1 to 65535 once resolved, -1 before.
    [[nodiscard]] virtual long port() const = 0;
    /// Not owned; expires harmlessly.
    virtual void setDelegate(std::weak_ptr<NetServiceDelegate> delegate) = 0;
    /// Starts a resolution; the delegate is told on the calling thread's run loop within the time-out.
    virtual void resolveWithTimeout(Clock::Duration timeout) = 0;
};

/// Told what a search finds, on the run loop from which the search was started.
class ServiceBrowserDelegate {
public:
    virtual ~ServiceBrowserDelegate() = default;
    /// One found service. moreComing says whether others of the same batch follow at once. A batch that ended
    /// without showing any service is told with an empty service and moreComing false.
    virtual void didFindService(const std::shared_ptr<ServiceBrowser>& browser,
                                const std::shared_ptr<NetService>& service, bool moreComing) = 0;
};

/// Looks for services of one type on this machine.
///
/// Only services published on the loopback interface are seen. A service is reported under the name it was
/// published with, also when a conflict has renamed it ("NAME #2"), and only when its port is held by a
/// process of this user. While a search has shown no service, an ended batch without a match is reported 2 s
/// after the search began and then every 6 s; a search that follows such a report waits 6 s at once.
///
/// search and stop may be called on any thread; stopping from a thread other than the one that turns the
/// search's run loop lets a call-back that has begun there finish.
class KRV_EXPORT ServiceBrowser : public std::enable_shared_from_this<ServiceBrowser> {
public:
    virtual ~ServiceBrowser();
    /// Not owned; expires harmlessly.
    virtual void setDelegate(std::weak_ptr<ServiceBrowserDelegate> delegate) = 0;
    /// Starts a search, such as ("_http._tcp.", "local."), on the calling thread's run loop. A running search
    /// is stopped first.
    virtual void searchForServicesOfType(std::string_view type, std::string_view inDomain) = 0;
    /// Ends the search. Nothing happens when there is none.
    virtual void stop() = 0;
    /// For log lines.
    [[nodiscard]] virtual std::string description() const = 0;

    /// A browser over multicast DNS on the loopback interface. Making it never fails: where multicast does
    /// not work its searches show nothing.
    [[nodiscard]] static std::shared_ptr<ServiceBrowser> make();
};

}  // namespace krv

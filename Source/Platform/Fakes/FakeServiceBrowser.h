#pragma once

#include <string>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Platform/ServiceBrowser.h>

namespace krv {

/// A service whose resolution a test controls. For one thread.
class FakeNetService final : public NetService, public std::enable_shared_from_this<FakeNetService> {
public:
    explicit FakeNetService(std::string name, long resolvesTo = -1)
        : name_(std::move(name))
        , resolvesTo_(resolvesTo) {}

    [[nodiscard]] const std::string& name() const override { return name_; }
    [[nodiscard]] long port() const override { return port_; }
    void setDelegate(std::weak_ptr<NetServiceDelegate> delegate) override { delegate_ = std::move(delegate); }
    /// Calls the delegate from the calling thread's loop: resolved if the service has a port of at least 1.
    void resolveWithTimeout(Clock::Duration timeout) override;

    [[nodiscard]] const std::vector<Clock::Duration>& resolutions() const { return resolutions_; }

private:
    const std::string name_;
    const long resolvesTo_;
    long port_ = -1;
    std::weak_ptr<NetServiceDelegate> delegate_;
    std::vector<Clock::Duration> resolutions_;
};

/// A browser whose searches find the services that a test shows. For one thread.
///
/// Like the real one it reports a silent search after 2 s and then every 6 s, across searches.
class FakeServiceBrowser final : public ServiceBrowser {
public:
    void setDelegate(std::weak_ptr<ServiceBrowserDelegate> delegate) override { delegate_ = std::move(delegate); }
    void searchForServicesOfType(std::string_view type, std::string_view inDomain) override;
    void stop() override;
    [[nodiscard]] std::string description() const override { return "<FakeServiceBrowser>"; }

    /// Reports these services as one batch to the running search, if there is one.
    void show(std::vector<std::shared_ptr<NetService>> batch);

    [[nodiscard]] bool isSearching() const { return searching_; }
    /// Returns the type and the domain of each search so far.
    [[nodiscard]] const std::vector<std::pair<std::string, std::string>>& searches() const { return searches_; }

private:
    void scheduleSilence(Clock::Duration after);
    void report(const std::shared_ptr<NetService>& service, bool moreComing);

    std::weak_ptr<ServiceBrowserDelegate> delegate_;
    std::vector<std::pair<std::string, std::string>> searches_;
    std::shared_ptr<RunLoop::Timer> silence_;
    RunLoop* loop_ = nullptr;
    bool searching_ = false;
    bool silent_ = false;
};

}  // namespace krv

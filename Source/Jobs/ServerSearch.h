#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Jobs/ServerLink.h>
#include <KRVQTProcessClient/Platform/HTTPLoop.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>

namespace krv {

/// Looks for the server, launches one if none is running, and registers this process with it. ServerSearch.cpp explains
/// how.
class ServerSearch final : public ServerLink {
public:
    /// runner: launches servers; null if none may be launched. The loop must outlive the search.
    ServerSearch(HTTPLoop& http, std::shared_ptr<ServerRunner> runner);
    ~ServerSearch() override;
    ServerSearch(const ServerSearch&) = delete;
    ServerSearch& operator=(const ServerSearch&) = delete;

    Token whenReady(Waiter waiter) override;
    void drop(Token token) override;
    [[nodiscard]] long port() const override { return port_; }
    void lost(long port) override;

private:
    struct Waiting {
        Waiter waiter;
        Clock::TimePoint deadline;
    };

    void look();
    void lookAgainIn(Clock::Duration delay);
    [[nodiscard]] std::optional<long> findPort();
    void probe(long port);
    /// Launches a server if none is running. Returns why none can be expected to respond, nothing if one can.
    [[nodiscard]] std::optional<Failure> launchIfMissing();
    [[nodiscard]] std::optional<Failure> launch();
    [[nodiscard]] std::string whyNotYet() const;
    void answerAll(const std::optional<Failure>& failure);
    void tellReasonAndExpire();

    HTTPLoop& http_;
    const std::shared_ptr<ServerRunner> runner_;
    std::shared_ptr<HTTPServerDiscovery> discovery_;
    std::optional<NotificationCenter::Token> observation_;
    std::map<Token, Waiting> waiters_;
    Token lastToken_ = 0;
    long port_ = 0;
    /// Why the latest probe failed; empty if there was none since the server was lost.
    std::string probeFailure_;
    std::string reason_;
    bool probing_ = false;
    bool launched_ = false;
    Clock::TimePoint searchBegan_{};
    std::optional<Clock::TimePoint> processesRead_;
    std::optional<HTTPLoop::Token> timer_;
};

}  // namespace krv

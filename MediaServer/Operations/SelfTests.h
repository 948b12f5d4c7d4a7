#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Operations/OperationQueue.h>

namespace krv::server {

/// The self-test operations that run: nothing but time, which a test of a client can follow. Any thread.
class SelfTests {
public:
    explicit SelfTests(OperationQueue::Clock clock = &std::chrono::steady_clock::now)
        : clock_(std::move(clock)) {}

    /// Begins one that takes that long and then completes, or never does. Returns its id.
    [[nodiscard]] std::string add(std::chrono::seconds timeToLive, bool completes, const ClientKey& client);
    /// Steady progress up to the end; nothing for an unknown id.
    [[nodiscard]] std::optional<OperationQueue::Snapshot> snapshot(const std::string& id) const;
    bool cancel(const std::string& id);
    void cancelAllOf(const ClientKey& client);
    bool remove(const std::string& id);
    void removeAllOf(const ClientKey& client);
    [[nodiscard]] std::size_t running() const;

private:
    struct Test {
        ServerOperation::Time start;
        std::chrono::duration<double> timeToLive;
        bool completes;
        bool cancelled = false;
        ClientKey client;
    };
    [[nodiscard]] OperationQueue::Snapshot stateOf(const Test& test) const;

    const OperationQueue::Clock clock_;
    mutable Mutex mutex_;
    std::map<std::string, Test> tests_ KRV_GUARDED_BY(mutex_);
    unsigned next_ KRV_GUARDED_BY(mutex_) = 0;
};

}  // namespace krv::server

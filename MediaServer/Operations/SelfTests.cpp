#include <algorithm>

#include <fmt/format.h>

#include <MediaServer/Operations/SelfTests.h>

namespace krv::server {

std::string SelfTests::add(std::chrono::seconds timeToLive, bool completes, const ClientKey& client) {
    const LockGuard lock(mutex_);
    std::string id = fmt::format("SELF-TEST-{}", ++next_);
    tests_[id] = {clock_(), std::max(timeToLive, std::chrono::seconds::zero()), completes, false, client};
    return id;
}

OperationQueue::Snapshot SelfTests::stateOf(const Test& test) const {
    const std::chrono::duration<double> elapsed = clock_() - test.start;
    const bool over = elapsed >= test.timeToLive;
    const bool completed = over && test.completes && !test.cancelled;
    // Without an end the number comes ever closer to one and never stands still.
    const double steady = test.completes ? std::min(elapsed / test.timeToLive, 0.999)
                                         : elapsed / (elapsed + test.timeToLive + std::chrono::seconds(1));
    return {completed ? 1.0 : steady, completed, test.cancelled, completed || test.cancelled, nullptr};
}

std::optional<OperationQueue::Snapshot> SelfTests::snapshot(const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto place = tests_.find(id);
    return place == tests_.end() ? std::nullopt : std::optional(stateOf(place->second));
}

bool SelfTests::cancel(const std::string& id) {
    const LockGuard lock(mutex_);
    const auto place = tests_.find(id);
    if (place == tests_.end()) {
        return false;
    }
    place->second.cancelled |= !stateOf(place->second).ended;
    return true;
}

void SelfTests::cancelAllOf(const ClientKey& client) {
    const LockGuard lock(mutex_);
    for (auto& [id, test] : tests_) {
        test.cancelled |= test.client == client && !stateOf(test).ended;
    }
}

bool SelfTests::remove(const std::string& id) {
    const LockGuard lock(mutex_);
    return tests_.erase(id) > 0;
}

void SelfTests::removeAllOf(const ClientKey& client) {
    const LockGuard lock(mutex_);
    std::erase_if(tests_, [&](const auto& entry) { return entry.second.client == client; });
}

std::size_t SelfTests::running() const {
    const LockGuard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(tests_.begin(), tests_.end(),
                                                  [this](const auto& entry) { return !stateOf(entry.second).ended; }));
}

}  // namespace krv::server

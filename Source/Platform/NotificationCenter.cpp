#include <algorithm>
#include <exception>

#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>

namespace krv {
namespace {

constexpr LogSite kSite{"Source/Platform/NotificationCenter", Selector("postNotification:")};

}  // namespace

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, Observer observer) {
    auto shared = std::make_shared<const Observer>(std::move(observer));
    const LockGuard lock(mutex_);
    const auto id = nextId_++;
    entries_.push_back({id, std::string(name), std::move(shared)});
    return Token(id);
}

void NotificationCenter::removeObserver(Token token) {
    Entry removed;  // destroyed after the lock, because an observer's destructor may call this object
    const LockGuard lock(mutex_);
    const auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.id == token.id_; });
    if (it != entries_.end()) {
        removed = std::move(*it);
        entries_.erase(it);
    }
}

void NotificationCenter::post(const Notification& notification) const {
    try {
        deliver(notification);
    } catch (const std::exception& exception) {
        KRV_LOG(kLogFlagError, kSite, "Exception in an observer of {}: {}", notification.name, exception.what());
    } catch (...) {
        KRV_LOG(kLogFlagError, kSite, "Exception of an unknown kind in an observer of {}", notification.name);
    }
}

void NotificationCenter::deliver(const Notification& notification) const {
    std::vector<Entry> observers;
    {
        const LockGuard lock(mutex_);
        std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(observers),
                     [&](const Entry& e) { return e.name == notification.name; });
    }
    for (const Entry& entry : observers) {
        if (*entry.observer && isObserving(entry.id)) {
            (*entry.observer)(notification);
        }
    }
}

bool NotificationCenter::isObserving(std::uint64_t id) const {
    const LockGuard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.id == id; });
}

}  // namespace krv

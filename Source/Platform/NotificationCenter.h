#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv {

/// What an observer receives: the notification's name and its object.
struct Notification {
    std::string name;
    /// A plain value, such as a port number; null if the object is not a value.
    Value value;
    /// The object if it is one of the library's own, to be compared by address; else empty.
    std::shared_ptr<const void> object;
};

/// Delivers named notifications to observers, synchronously, on the thread that posts.
///
/// Observers are called in the order in which they were added, without a lock held, from a copy of the list. So an
/// observer may add and remove observers and post. One that is removed during a post, before its call, is not called.
/// If an observer throws, whatever it throws, delivery stops and one line is logged at error level; post() returns, so
/// that an observer cannot end the thread that posts. Thread-safe.
class KRV_EXPORT NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    /// Identifies one observation. Copyable; may be removed more than once.
    class Token {
    public:
        Token() = default;

    private:
        friend class NotificationCenter;
        explicit Token(std::uint64_t id)
            : id_(id) {}
        std::uint64_t id_ = 0;
    };

    NotificationCenter();
    ~NotificationCenter();

    /// Returns the process's notification centre. Never destroyed.
    [[nodiscard]] static NotificationCenter& defaultCenter();

    /// Observes a name until the token is removed.
    [[nodiscard]] Token addObserver(std::string_view name, Observer observer);
    /// Stops deliveries to the observer. A call that another thread has already started may still be running.
    void removeObserver(Token token);
    /// Calls the observers of the notification's name, except empty ones. Throws nothing that an observer throws.
    void post(const Notification& notification) const;

private:
    struct Entry {
        std::uint64_t id = 0;
        std::string name;
        std::shared_ptr<const Observer> observer;
    };

    void deliver(const Notification& notification) const;
    [[nodiscard]] bool isObserving(std::uint64_t id) const;

    mutable Mutex mutex_;
    std::vector<Entry> entries_ KRV_GUARDED_BY(mutex_);
    std::uint64_t nextId_ KRV_GUARDED_BY(mutex_) = 1;
};

}  // namespace krv

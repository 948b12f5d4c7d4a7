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

/// What an observer is told: the notification's name and the object it is about.
struct Notification {
    std::string name;
    /// A plain value, such as a port number. Null when the object is not a value.
    Value value;
    /// The object when it is one of the library's own (compare by address). Empty otherwise.
    std::shared_ptr<const void> object;
};

/// Delivers named notifications to observers, synchronously, on the thread that posts.
///
/// Thread-safe. Observers are called without a lock held, in the order in which they were added, from a list
/// taken when the post began: an observer may add, remove and post. One that is removed while a post is under
/// way and has not been called yet is not called any more. What an observer throws ends the post and passes
/// to the poster.
class KRV_EXPORT NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    /// Names one observation; copyable, and harmless to remove twice.
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

    /// The process's centre. Lives as long as the process.
    [[nodiscard]] static NotificationCenter& defaultCenter();

    /// Observes a name until the token is removed.
    [[nodiscard]] Token addObserver(std::string_view name, Observer observer);
    /// After this returns no new delivery starts; one that another thread has begun may still run.
    void removeObserver(Token token);
    /// An empty observer is never called.
    void post(const Notification& notification) const;

private:
    struct Entry {
        std::uint64_t id = 0;
        std::string name;
        std::shared_ptr<const Observer> observer;
    };

    [[nodiscard]] bool isObserving(std::uint64_t id) const;

    mutable Mutex mutex_;
    std::vector<Entry> entries_ KRV_GUARDED_BY(mutex_);
    std::uint64_t nextId_ KRV_GUARDED_BY(mutex_) = 1;
};

}  // namespace krv

#pragma once

#include <atomic>
#include <functional>
#include <set>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// Asks a running operation to end. Thread-safe.
class Cancellation {
public:
    /// Has a function called on the thread that requests the cancellation. If it has been requested before, the
    /// function is not called.
    class Observer {
    public:
        /// cancellation: must outlive this object.
        Observer(const Cancellation& cancellation, std::function<void()> onRequest);
        /// Waits for a call in progress.
        ~Observer();
        Observer(const Observer&) = delete;
        Observer& operator=(const Observer&) = delete;

    private:
        friend Cancellation;
        const Cancellation& cancellation_;
        const std::function<void()> onRequest_;
    };

    Cancellation();
    void request();
    [[nodiscard]] bool requested() const noexcept { return requested_; }
    /// A descriptor that is readable after request(); borrowed.
    [[nodiscard]] int descriptor() const noexcept { return event_.get(); }

private:
    Descriptor event_;
    std::atomic<bool> requested_{false};
    mutable Mutex mutex_;
    mutable std::set<const Observer*> observers_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::server

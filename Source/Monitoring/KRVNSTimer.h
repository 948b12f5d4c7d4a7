#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {

/// Calls a derived class once per second on the run loop of the thread that starts it. Observers can follow whether it
/// is running.
///
/// Objects must be owned by shared references: while the timer runs, the run loop keeps one too. Different threads may
/// start and stop it. Stopping does not wait for a tick that is running on another thread.
class KRV_EXPORT KRVNSTimer : public std::enable_shared_from_this<KRVNSTimer> {
public:
    virtual ~KRVNSTimer();
    KRVNSTimer(const KRVNSTimer&) = delete;
    KRVNSTimer& operator=(const KRVNSTimer&) = delete;

    /// Starts ticking on the calling thread's run loop, first after one second. Replaces a running timer; observers are
    /// then also called for the stop, between this operation's own two calls.
    void startMonitorTimer();
    /// Stops ticking. Does nothing if the timer is not running.
    void stopMonitorTimer();
    [[nodiscard]] bool isMonitoring() const;

    /// Called at each tick. Does nothing by default.
    virtual void krvNSTimerFired();

    /// The key that observers receive.
    static constexpr std::string_view kIsMonitoringKey = "isMonitoring";
    enum class Change : bool { Before, After };
    /// Called before and after every change, on the thread that starts or stops the timer, without a lock held. What it
    /// throws is logged at error level and dropped, as by every notification centre.
    using Observer = std::function<void(const KRVNSTimer& timer, std::string_view key, Change change)>;
    [[nodiscard]] NotificationCenter::Token addObserver(Observer observer);
    void removeObserver(NotificationCenter::Token token);

protected:
    KRVNSTimer();

private:
    void announce(Change change) const;

    NotificationCenter observers_;
    mutable Mutex mutex_;
    bool isMonitoring_ KRV_GUARDED_BY(mutex_) = false;
    /// Weak, because the run loop keeps the timer, and the timer keeps a reference to this object.
    std::weak_ptr<RunLoop::Timer> timer_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv

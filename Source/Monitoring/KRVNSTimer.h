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

/// Gives a derived class one repeating tick a second on the run loop of the thread that starts it, and lets others
/// observe whether it ticks.
///
/// Objects are owned by shared references only: while the timer runs, the run loop keeps the object alive. Starting
/// and stopping may happen on different threads; a tick that has already begun on another thread is not waited for.
class KRV_EXPORT KRVNSTimer : public std::enable_shared_from_this<KRVNSTimer> {
public:
    virtual ~KRVNSTimer();
    KRVNSTimer(const KRVNSTimer&) = delete;
    KRVNSTimer& operator=(const KRVNSTimer&) = delete;

    /// Begins to tick on the calling thread's run loop, the first time a second from now. A timer that runs already is
    /// replaced. Observers see the announcements of stopMonitorTimer between this operation's own.
    void startMonitorTimer();
    /// Ends the ticks; harmless when there are none.
    void stopMonitorTimer();
    [[nodiscard]] bool isMonitoring() const;

    /// The tick. Does nothing here.
    virtual void krvNSTimerFired();

    /// The key under which the change is announced.
    static constexpr std::string_view kIsMonitoringKey = "isMonitoring";
    enum class Change : bool { Coming, Made };
    /// Called before and after every change, on the thread that starts or stops, with no lock held.
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
    /// The run loop keeps it: it holds this object, and would hold itself with it.
    std::weak_ptr<RunLoop::Timer> timer_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv

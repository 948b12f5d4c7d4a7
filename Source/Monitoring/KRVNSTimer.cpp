#include <chrono>
#include <utility>

#include <KRVQTProcessClient/Monitoring/KRVNSTimer.h>

namespace krv {
namespace {

constexpr std::chrono::seconds kInterval{1};

}  // namespace

KRVNSTimer::KRVNSTimer() = default;
KRVNSTimer::~KRVNSTimer() = default;

void KRVNSTimer::startMonitorTimer() {
    const auto self = shared_from_this();  // an observer may drop the last other reference
    announce(Change::Before);
    stopMonitorTimer();
    const auto timer = RunLoop::current().scheduleTimer(kInterval, [self] { self->krvNSTimerFired(); });
    std::shared_ptr<RunLoop::Timer> old;
    {
        const LockGuard lock(mutex_);
        old = std::exchange(timer_, timer).lock();
        isMonitoring_ = true;
    }
    // If two threads start at the same time, only one timer remains.
    if (old) {
        old->invalidate();
    }
    announce(Change::After);
}

void KRVNSTimer::stopMonitorTimer() {
    const auto self = weak_from_this().lock();  // as above; empty in a destructor
    announce(Change::Before);
    std::shared_ptr<RunLoop::Timer> timer;
    {
        const LockGuard lock(mutex_);
        timer = std::exchange(timer_, {}).lock();
        isMonitoring_ = false;
    }
    if (timer) {
        timer->invalidate();
    }
    announce(Change::After);
}

bool KRVNSTimer::isMonitoring() const {
    const LockGuard lock(mutex_);
    return isMonitoring_;
}

void KRVNSTimer::krvNSTimerFired() {}

NotificationCenter::Token KRVNSTimer::addObserver(Observer observer) {
    return observers_.addObserver(
        kIsMonitoringKey, [this, observer = std::move(observer)](const Notification& notification) {
            observer(*this, kIsMonitoringKey, notification.value.boolValue() ? Change::After : Change::Before);
        });
}

void KRVNSTimer::removeObserver(NotificationCenter::Token token) {
    observers_.removeObserver(token);
}

void KRVNSTimer::announce(Change change) const {
    observers_.post({std::string(kIsMonitoringKey), Value(change == Change::After), nullptr});
}

}  // namespace krv

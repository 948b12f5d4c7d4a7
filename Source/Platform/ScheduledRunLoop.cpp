#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

RunLoop::~RunLoop() = default;
RunLoop::Timer::~Timer() = default;

struct ScheduledRunLoop::Call {
    Clock::TimePoint due;
    Callback callback;
    std::shared_ptr<RepeatingTimer> timer;  // empty for a single call
    std::shared_ptr<const void> target;     // empty unless delayed
    Selector operation{""};
};

struct ScheduledRunLoop::Pending {
    using Key = std::pair<Clock::TimePoint, std::uint64_t>;

    mutable Mutex mutex;
    std::map<Key, Call> calls KRV_GUARDED_BY(mutex);
    std::uint64_t lastSequence KRV_GUARDED_BY(mutex) = 0;
    bool closed KRV_GUARDED_BY(mutex) = false;

    [[nodiscard]] std::optional<Clock::TimePoint> next() const KRV_REQUIRES(mutex) {
        return calls.empty() ? std::nullopt : std::optional(calls.begin()->first.first);
    }
    void insert(Call call) KRV_REQUIRES(mutex) {
        const auto due = call.due;
        calls.emplace(Key(due, ++lastSequence), std::move(call));
    }
    /// Moves the matching calls out. The caller destroys them after unlocking, because the destructor of a callback or
    /// a target may call the loop.
    template <typename Predicate>
    std::vector<Call> extract(Predicate matches) KRV_REQUIRES(mutex) {
        std::vector<Call> removed;
        for (auto it = calls.begin(); it != calls.end();) {
            if (matches(it->second)) {
                removed.push_back(std::move(it->second));
                it = calls.erase(it);
            } else {
                ++it;
            }
        }
        return removed;
    }
};

class ScheduledRunLoop::RepeatingTimer final : public RunLoop::Timer {
public:
    RepeatingTimer(std::shared_ptr<Pending> pending, Clock::Duration interval, Callback callback)
        : pending_(std::move(pending))
        , interval_(interval)
        , callback_(std::make_shared<const Callback>(std::move(callback))) {}

    void invalidate() override {
        std::shared_ptr<const Callback> dropped;
        std::vector<Call> removed;
        const LockGuard lock(pending_->mutex);
        dropped = std::exchange(callback_, nullptr);
        removed = pending_->extract([this](const Call& call) { return call.timer.get() == this; });
    }

    [[nodiscard]] bool isValid() const override {
        const LockGuard lock(pending_->mutex);
        return callback_ != nullptr && !pending_->closed;
    }

    /// Returns the callback, or null if the timer is invalid. The caller keeps the reference during the call, because
    /// the callback may invalidate its own timer.
    [[nodiscard]] std::shared_ptr<const Callback> callback() const {
        const LockGuard lock(pending_->mutex);
        return callback_;
    }

    /// The caller must have locked the pending calls.
    [[nodiscard]] bool hasCallback() const { return callback_ != nullptr; }

    /// Returns the first time after `time` on the grid of intervals that starts at `due`, which skips missed calls.
    [[nodiscard]] Clock::TimePoint nextDue(Clock::TimePoint due, Clock::TimePoint time) const {
        const auto missed = time > due ? (time - due) / interval_ : 0;
        return timePointAfter(due + missed * interval_, interval_);
    }

private:
    const std::shared_ptr<Pending> pending_;
    const Clock::Duration interval_;
    std::shared_ptr<const Callback> callback_;  // guarded by the mutex of the pending calls
};

ScheduledRunLoop::ScheduledRunLoop()
    : pending_(std::make_shared<Pending>()) {}

ScheduledRunLoop::~ScheduledRunLoop() {
    close();
}

std::shared_ptr<RunLoop::Timer> ScheduledRunLoop::scheduleTimer(Clock::Duration interval, Callback callback) {
    interval = std::max<Clock::Duration>(interval, std::chrono::milliseconds(1));
    auto timer = std::make_shared<RepeatingTimer>(pending_, interval, std::move(callback));
    add({timePointAfter(now(), interval), {}, timer, {}});
    return timer;
}

void ScheduledRunLoop::performAfterDelay(Clock::Duration delay, std::shared_ptr<const void> target, Selector operation,
                                         Callback callback) {
    if (!target) {
        throw Exception(std::string(kInvalidArgumentException), "a delayed call needs a target");
    }
    add({timePointAfter(now(), std::max(delay, Clock::Duration::zero())),
         std::move(callback),
         {},
         std::move(target),
         operation});
}

void ScheduledRunLoop::cancelPerform(const void* target, Selector operation) {
    std::vector<Call> removed;
    const LockGuard lock(pending_->mutex);
    removed = pending_->extract(
        [&](const Call& call) { return call.target && call.target.get() == target && call.operation == operation; });
}

void ScheduledRunLoop::perform(Callback callback) {
    add({now(), std::move(callback), {}, {}});
}

void ScheduledRunLoop::add(Call call) {
    const LockGuard lock(pending_->mutex);
    if (pending_->closed) {
        return;
    }
    pending_->insert(std::move(call));
    nextCallChanged(pending_->next());
}

void ScheduledRunLoop::makeDueCalls() {
    const auto time = now();
    std::uint64_t lastOfThisTurn = 0;
    {
        const LockGuard lock(pending_->mutex);
        lastOfThisTurn = pending_->lastSequence;
    }
    for (;;) {
        std::optional<Call> call;
        {
            const LockGuard lock(pending_->mutex);
            const auto it = std::find_if(pending_->calls.begin(), pending_->calls.end(),
                                         [&](const auto& entry) { return entry.first.second <= lastOfThisTurn; });
            if (it != pending_->calls.end() && it->first.first <= time) {
                call = std::move(it->second);
                pending_->calls.erase(it);
            }
            nextCallChanged(pending_->next());
        }
        if (!call) {
            return;
        }
        makeCall(*call);
    }
}

void ScheduledRunLoop::makeCall(Call& call) {
    if (!call.timer) {
        if (call.callback) {
            call.callback();
        }
        return;
    }
    // The timer is rescheduled only after its callback, so that a nested run of the loop does not call it again. It is
    // rescheduled even if the callback throws.
    struct PutBack {
        ScheduledRunLoop& loop;
        Call& call;
        ~PutBack() {
            call.due = call.timer->nextDue(call.due, loop.now());
            const LockGuard lock(loop.pending_->mutex);
            if (!loop.pending_->closed && call.timer->hasCallback()) {
                loop.pending_->insert(std::move(call));
                loop.nextCallChanged(loop.pending_->next());
            }
        }
    } const putBack{*this, call};
    if (const auto callback = call.timer->callback(); callback && *callback) {
        (*callback)();
    }
}

std::optional<Clock::TimePoint> ScheduledRunLoop::nextCall() const {
    const LockGuard lock(pending_->mutex);
    return pending_->next();
}

std::size_t ScheduledRunLoop::pendingCount() const {
    const LockGuard lock(pending_->mutex);
    return pending_->calls.size();
}

std::size_t ScheduledRunLoop::pendingCount(const void* target, Selector operation) const {
    const LockGuard lock(pending_->mutex);
    return static_cast<std::size_t>(
        std::count_if(pending_->calls.begin(), pending_->calls.end(), [&](const auto& entry) {
            return entry.second.target && entry.second.target.get() == target && entry.second.operation == operation;
        }));
}

void ScheduledRunLoop::close() {
    std::vector<Call> removed;
    const LockGuard lock(pending_->mutex);
    pending_->closed = true;
    removed = pending_->extract([](const Call&) { return true; });
}

}  // namespace krv

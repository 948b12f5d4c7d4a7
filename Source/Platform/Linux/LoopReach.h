#pragma once

#include <memory>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {

/// A reference to another thread's run loop that stays valid after that thread has exited. Later requests are dropped.
class LoopReach {
public:
    /// Returns the reference to the calling thread's loop.
    [[nodiscard]] static std::shared_ptr<LoopReach> current();
    /// Returns a reference to the main thread's loop.
    [[nodiscard]] static std::shared_ptr<LoopReach> main();

    explicit LoopReach(RunLoop& loop)
        : loop_(&loop) {}

    void perform(RunLoop::Callback callback) {
        const LockGuard lock(mutex_);
        if (loop_) {
            loop_->perform(std::move(callback));
        }
    }
    std::shared_ptr<RunLoop::Timer> scheduleTimer(Clock::Duration interval, RunLoop::Callback callback) {
        const LockGuard lock(mutex_);
        return loop_ ? loop_->scheduleTimer(interval, std::move(callback)) : nullptr;
    }
    void threadHasEnded() {
        const LockGuard lock(mutex_);
        loop_ = nullptr;
    }

private:
    Mutex mutex_;
    RunLoop* loop_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv

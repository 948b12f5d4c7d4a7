#include <algorithm>
#include <utility>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Platform/ThreadRunLoop.h>

namespace krv {

ThreadRunLoop::ThreadRunLoop() = default;

ThreadRunLoop::~ThreadRunLoop() {
    close();
}

Clock::TimePoint ThreadRunLoop::now() const {
    return Clock::steady().now();
}

void ThreadRunLoop::nextCallChanged(std::optional<Clock::TimePoint> due) {
    // Notified with the lock held, because the loop's thread may destroy the loop as soon as it has woken.
    const LockGuard lock(mutex_);
    due_ = due;
    changed_.notify_all();
}

void ThreadRunLoop::requireOwnThread() const {
    if (thread_ != std::this_thread::get_id()) {
        throw Exception(std::string(kInternalInconsistencyException),
                        "a run loop can be turned by its own thread only");
    }
}

void ThreadRunLoop::waitUntil(std::optional<Clock::TimePoint> time) {
    const LockGuard lock(mutex_);
    // A stop request ends the wait of run() only; runUntil runs until its time.
    while (time || !stopRequested_) {
        const auto next = due_ && time ? std::min(*due_, *time) : (due_ ? due_ : time);
        if (!next) {
            changed_.wait(mutex_);
        } else if (now() >= *next || changed_.wait_until(mutex_, *next) == std::cv_status::timeout) {
            return;
        }
    }
}

void ThreadRunLoop::runUntil(Clock::TimePoint time) {
    requireOwnThread();
    makeDueCalls();
    while (now() < time) {
        waitUntil(time);
        makeDueCalls();
    }
}

void ThreadRunLoop::run() {
    requireOwnThread();
    while (!takeStopRequest()) {
        waitUntil(std::nullopt);
        makeDueCalls();
    }
}

void ThreadRunLoop::stop() {
    const LockGuard lock(mutex_);
    stopRequested_ = true;
    changed_.notify_all();
}

bool ThreadRunLoop::takeStopRequest() {
    const LockGuard lock(mutex_);
    return std::exchange(stopRequested_, false);
}

}  // namespace krv

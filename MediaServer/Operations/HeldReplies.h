#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv::server {

/// Replies that wait a moment for news, so that a client need not ask twice. No request thread waits with them: one
/// thread looks after all, and answers each when its news is there or its time is up. Any thread.
class HeldReplies {
public:
    HeldReplies();
    /// Answers what is still held.
    ~HeldReplies();
    HeldReplies(const HeldReplies&) = delete;
    HeldReplies& operator=(const HeldReplies&) = delete;

    /// Answers as soon as isReady says so, and at the deadline at the latest. Both are called on the thread of this
    /// object, answer exactly once, and must not throw.
    void hold(std::chrono::milliseconds atMost, std::function<bool()> isReady, std::function<void()> answer);

    /// Something may have become ready.
    void lookAgain();

private:
    struct Held {
        std::chrono::steady_clock::time_point deadline;
        std::function<bool()> isReady;
        std::function<void()> answer;
    };
    void loop();

    Mutex mutex_;
    std::condition_variable_any wake_;
    std::list<Held> held_ KRV_GUARDED_BY(mutex_);
    bool news_ KRV_GUARDED_BY(mutex_) = false;
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace krv::server

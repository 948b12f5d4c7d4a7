#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv::server {

/// Replies that wait a moment for news, so that a client need not ask twice. They occupy no request thread: one thread
/// checks them all and sends each when it is ready or its time is up. Thread-safe.
class HeldReplies {
public:
    HeldReplies();
    /// Sends what is still held.
    ~HeldReplies();
    HeldReplies(const HeldReplies&) = delete;
    HeldReplies& operator=(const HeldReplies&) = delete;

    /// Calls send as soon as isReady returns true, at the latest after atMost. Both are called on the thread of this
    /// object and must not throw; send is called exactly once.
    void hold(std::chrono::milliseconds atMost, std::function<bool()> isReady, std::function<void()> send);

    /// Checks all held replies. Call this when one may have become ready.
    void checkAgain();

private:
    struct Held {
        std::chrono::steady_clock::time_point deadline;
        std::function<bool()> isReady;
        std::function<void()> send;
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

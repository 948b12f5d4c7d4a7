#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <thread>

#include <KRVQTProcessClient/Foundation/Mutex.h>

namespace krv::server {

/// Replies that wait a moment for news, so that a client need not ask twice. They occupy no request thread. Each is sent
/// by the thread that brings its news, because handing it to another would delay it; one thread of this object sends
/// those whose time is up. Thread-safe.
class HeldReplies {
public:
    HeldReplies();
    /// Sends what is still held.
    ~HeldReplies();
    HeldReplies(const HeldReplies&) = delete;
    HeldReplies& operator=(const HeldReplies&) = delete;

    /// Calls send as soon as isReady returns true, at the latest after atMost. That may be before hold() returns. Both
    /// are called on any thread and must not throw. send is called exactly once. isReady must not use this object.
    void hold(std::chrono::milliseconds atMost, std::function<bool()> isReady, std::function<void()> send);

    /// Sends those of the held replies that are ready. Call this when one may have become ready.
    void checkAgain();

private:
    using Time = std::chrono::steady_clock::time_point;
    struct Held {
        Time deadline;
        std::function<bool()> isReady;
        std::function<void()> send;
    };
    using List = std::list<Held>;
    /// Moves the replies for which the condition holds to a list of their own.
    [[nodiscard]] List take(const std::function<bool(const Held&)>& condition) KRV_REQUIRES(mutex_);
    static void send(const List& replies);
    void loop();

    Mutex mutex_;
    std::condition_variable_any wake_;
    List held_ KRV_GUARDED_BY(mutex_);
    /// When the thread wakes up next.
    Time alarm_ KRV_GUARDED_BY(mutex_) = Time::max();
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace krv::server

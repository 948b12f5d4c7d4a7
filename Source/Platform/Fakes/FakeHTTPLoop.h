#pragma once

#include <deque>
#include <map>
#include <vector>

#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Platform/HTTPLoop.h>

namespace krv {

/// An HTTP loop in virtual time, run by a test, which plays the server: it looks at the requests that are pending and
/// replies to them. Posting is thread-safe; everything else is for the test's thread.
class FakeHTTPLoop final : public HTTPLoop {
public:
    /// Borrows the clock.
    explicit FakeHTTPLoop(FakeClock& clock);
    ~FakeHTTPLoop() override;

    struct Pending {
        Token token;
        HTTPRequest request;
    };
    /// Runs the tasks, and the timers that are due.
    void runReady();
    /// Advances the clock from timer to timer. Requests whose time-out passes are not answered by this.
    void advanceBy(Clock::Duration duration);
    /// Returns the requests without a reply, in the order in which they were sent.
    [[nodiscard]] std::vector<Pending> pending() const;
    /// Replies to a request, and runs what follows. Throws std::logic_error if it is not pending.
    void reply(Token token, HTTPResponse response);
    /// Returns the number of timers.
    [[nodiscard]] std::size_t timers() const { return timers_.size(); }

    void post(Task task) override;
    Token after(Clock::Duration delay, Task task) override;
    Token send(HTTPRequest request, Reply reply) override;
    void drop(Token token) override;

private:
    struct Timer {
        Clock::TimePoint due;
        Task task;
    };
    struct Sent {
        HTTPRequest request;
        Reply reply;
    };
    bool runOne();

    FakeClock& clock_;
    mutable Mutex mutex_;
    std::deque<Task> tasks_ KRV_GUARDED_BY(mutex_);
    std::map<Token, Timer> timers_;
    std::map<Token, Sent> sent_;
    Token lastToken_ = 0;
};

}  // namespace krv

#pragma once

#include <atomic>

#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// A run loop in virtual time: nothing happens until a test lets the time of its clock pass, and then each
/// call is made at exactly its time. It may be turned by any thread, one at a time.
///
///     FakeClock clock;
///     FakeRunLoop loop(clock);
///     const RunLoop::Replacement replacement(loop);   // main() and current() are this loop now
///     discovery.serverIsntThere();
///     loop.advanceBy(250ms);                          // ...and the search has begun again
class FakeRunLoop final : public ScheduledRunLoop {
public:
    /// The clock is not owned. Loops that share one see the same time; each is turned on its own.
    explicit FakeRunLoop(FakeClock& clock);
    ~FakeRunLoop() override;

    /// Lets that much time pass and makes the calls that come due, in order, each with the clock at its time.
    /// What a call-back throws passes through, with the clock where it happened.
    void advanceBy(Clock::Duration duration);
    /// Makes the calls that are due now, those that they ask for at once included. Time stands still.
    void runReady();

    /// How many calls are pending; a repeating timer counts as one.
    using ScheduledRunLoop::pendingCount;
    /// When the earliest pending call is due.
    using ScheduledRunLoop::nextCall;

    /// Lets the time pass up to that time, like advanceBy.
    void runUntil(Clock::TimePoint time) override;
    /// Lets the time pass from call to call until stop() is called. Raises std::logic_error when no call is
    /// pending any more, where a real loop would wait for ever.
    void run() override;
    void stop() override;

private:
    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;

    FakeClock& clock_;
    std::atomic<bool> stopRequested_{false};
};

} // namespace krv

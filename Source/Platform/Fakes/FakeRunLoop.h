#pragma once

#include <atomic>

#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Platform/ScheduledRunLoop.h>

namespace krv {

/// A run loop in virtual time. Nothing happens until a test advances its clock; then each call is made at exactly its
/// time. Any thread may run it, one at a time.
///
///     FakeClock clock;
///     FakeRunLoop loop(clock);
///     const RunLoop::Replacement replacement(loop);   // main() and current() are this loop now
///     discovery.serverIsntThere();
///     loop.advanceBy(250ms);                          // the search has started again
class FakeRunLoop final : public ScheduledRunLoop {
public:
    /// Borrows the clock. Loops that share a clock have the same time and are run separately.
    explicit FakeRunLoop(FakeClock& clock);
    ~FakeRunLoop() override;

    /// Advances the clock by the duration and makes the calls that become due, in order, each with the clock at its
    /// time. If a callback throws, the exception propagates and the clock stays at that time.
    void advanceBy(Clock::Duration duration);
    /// Makes the calls that are due now, and those that they request for now. Does not advance the clock.
    void runReady();

    using ScheduledRunLoop::nextCall;
    using ScheduledRunLoop::pendingCount;

    /// Advances the clock to that time, like advanceBy.
    void runUntil(Clock::TimePoint time) override;
    /// Advances the clock from call to call until stop() is called. Throws std::logic_error if no call is pending any
    /// more, where a real loop would wait forever.
    void run() override;
    void stop() override;

private:
    [[nodiscard]] Clock::TimePoint now() const override;
    void nextCallChanged(std::optional<Clock::TimePoint> due) override;

    FakeClock& clock_;
    std::atomic<bool> stopRequested_{false};
};

}  // namespace krv

#pragma once

#include <memory>
#include <optional>

#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {

/// The part that all run loops share: the pending calls and their order.
///
/// Calls run in the order of their times, and those of the same time in the order of the requests. A call from another
/// thread is due at the time of its request, so a stream of such calls cannot delay the timers. Internal to the
/// library: the real loop and the fake derive from it, so that both behave alike.
class ScheduledRunLoop : public RunLoop {
public:
    ~ScheduledRunLoop() override;
    std::shared_ptr<Timer> scheduleTimer(Clock::Duration interval, Callback callback) final;
    void performAfterDelay(Clock::Duration delay, std::shared_ptr<const void> target, Selector operation,
                           Callback callback) final;
    void cancelPerform(const void* target, Selector operation) final;
    void perform(Callback callback) final;

protected:
    ScheduledRunLoop();

    /// Returns the loop's time. Thread-safe.
    [[nodiscard]] virtual Clock::TimePoint now() const = 0;
    /// Called when the earliest pending call may have changed; due is absent if none is pending. Called on any thread
    /// with the pending calls locked, so it must not call this object.
    virtual void nextCallChanged(std::optional<Clock::TimePoint> due) = 0;

    /// Makes the calls that are due now, on the calling thread. Calls that they request wait for the next iteration.
    /// If a callback throws, the exception propagates and the remaining calls stay pending.
    void makeDueCalls();
    /// Returns the time of the earliest pending call.
    [[nodiscard]] std::optional<Clock::TimePoint> nextCall() const;
    /// Returns the number of pending calls; a repeating timer counts as one.
    [[nodiscard]] std::size_t pendingCount() const;
    /// Returns the number of pending delayed calls of that target and operation.
    [[nodiscard]] std::size_t pendingCount(const void* target, Selector operation) const;
    /// Drops the pending calls, invalidates the timers and ignores later requests. A derived class calls it before it
    /// destroys anything that nextCallChanged needs.
    void close();

private:
    struct Call;
    struct Pending;
    class RepeatingTimer;

    void add(Call call);
    void makeCall(Call& call);

    const std::shared_ptr<Pending> pending_;  // timers share it and may outlive the loop
};

}  // namespace krv

#pragma once

#include <memory>
#include <optional>

#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {

/// The part of a run loop that is the same whoever turns it: which calls are pending and in which order they
/// run.
///
/// Calls run in the order of their times, and those of the same time in the order in which they were asked
/// for. A call from another thread counts as due from the moment it was asked for, so a stream of such calls
/// cannot hold up the timers. Not for applications: the machine's loop and the fake one derive from it, so
/// that both behave alike.
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

    /// The loop's time. Any thread.
    [[nodiscard]] virtual Clock::TimePoint now() const = 0;
    /// The earliest pending call may have changed; absent when none is pending. Called on any thread with the
    /// pending calls locked: it must not ask anything of this object.
    virtual void nextCallChanged(std::optional<Clock::TimePoint> due) = 0;

    /// Makes the calls that are due now, on the calling thread, and leaves those that they ask for to the
    /// next turn. An exception ends the turn and passes through; the calls that were to follow stay pending.
    void makeDueCalls();
    /// When the earliest pending call is due.
    [[nodiscard]] std::optional<Clock::TimePoint> nextCall() const;
    /// How many calls are pending; a repeating timer counts as one.
    [[nodiscard]] std::size_t pendingCount() const;
    /// How many delayed calls of that target and operation are pending.
    [[nodiscard]] std::size_t pendingCount(const void* target, Selector operation) const;
    /// Forgets what is pending and ignores what is asked for from now on; timers become invalid. A derived
    /// class calls it before anything that nextCallChanged needs goes away.
    void close();

private:
    struct Call;
    struct Pending;
    class RepeatingTimer;

    void add(Call call);
    void makeCall(Call& call);

    const std::shared_ptr<Pending> pending_;  // outlives the loop for as long as somebody holds a timer
};

}  // namespace krv

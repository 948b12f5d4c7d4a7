#pragma once

#include <cstdint>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// The rules by which a caller waits for an operation that the server has accepted: when it has ended, when it has
/// stalled, when to ask again. Sends nothing and never blocks, so that a call that blocks its thread and a loop that
/// follows many operations wait by the same rules. For one thread.
class KRV_EXPORT OperationWait {
public:
    /// How to learn of progress.
    enum class Pace : std::uint8_t {
        /// Asks every half second. A call may notice the end of its work that much later.
        HalfSecond,
        /// Asks again as soon as a reply has arrived, and relies on the server to hold each reply until there is news.
        /// So a call notices the end of its work within milliseconds. A server that holds nothing is asked at most four
        /// times a second while nothing changes.
        WithTheServer,
    };

    /// The stall clock starts now. operation: the record that is kept up to date; its identifier is known. The clock
    /// must outlive this object.
    OperationWait(KRVOperationBase::Ref operation, Pace pace, const Clock& clock);

    enum class Next : std::uint8_t {
        /// Ask for the state again after pause().
        AskAgain,
        /// Ask the server to cancel the operation, and stop waiting.
        Cancel,
        /// The record holds an error, or is cancelled.
        Failed,
        Completed,
    };
    /// Notes when the state is asked for. Call it before each request.
    void aboutToAsk();
    /// Takes the state that the server has reported, and calls the record's observer if the operation goes on. Exceptions
    /// of the observer propagate. An operation without progress for more than progressTimeout seconds has stalled: its
    /// record gets the error "TransportCheck" 201.
    [[nodiscard]] Next take(const KRVOperationBase::Ref& state, float progressTimeout);
    /// Returns how long to wait before the next request. Call it once after AskAgain.
    [[nodiscard]] Clock::Duration pause();

private:
    [[nodiscard]] bool hasStalled(float progressTimeout);

    const KRVOperationBase::Ref operation_;
    const Pace pace_;
    const Clock& clock_;
    /// The progress with which the stall clock started, and when.
    float lastChange_ = 0.0F;
    Clock::TimePoint changed_;
    /// For the pace.
    Clock::TimePoint asked_{};
    Clock::Duration interval_;
    float progress_ = 0.0F;
    float lastNews_ = -1.0F;
};

}  // namespace krv

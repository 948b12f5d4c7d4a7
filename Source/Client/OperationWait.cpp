// Waiting for long work.
//
// The server replies to the request at once with an identifier and does the work in the background. Whoever waits asks
// for its state until it has ended.
//
// Pace. Callers of the client's operations are polled for every half second, which their observers may rely on. Others
// let the server set the pace: it holds a reply until there is news, and the next request follows at once. A server
// that does not hold replies must not be asked in a tight loop, so without news the interval doubles up to a quarter of
// a second. That is shorter than the server holds a reply, so with our server nobody sleeps.
//
// Stalls. The stall clock starts when the first reply has been copied. It restarts whenever the reported number differs
// from the last one that restarted it, in either direction: a number that changes is a sign of life, and the server
// keeps it changing while anything works. The comparison is raw and exact, so an odd report (1.5, a NaN) counts as a
// change, although the observer only ever sees 0 to 1. The clock is steady, so setting the wall clock is not a stall.
//
// Cancelling. An observer that returns false, and a stall, both lead to a cancel request. It can only name the
// operation by the identifier in the server's first reply. Therefore the observer is first called after that reply, and
// an observer that wants to cancel earlier has to remember it until then. Giving up before the reply would gain
// nothing: the request has been sent, and the server would go on with work that nobody can name to stop it. If the
// cancel request fails, the operation still counts as cancelled here. The caller no longer waits for it, and the server
// stops it by itself when it finds that its client has exited.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/OperationWait.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr Clock::Duration kPollInterval = 500ms;
/// Between requests at the server's pace, after news and without.
constexpr Clock::Duration kShortestInterval = 5ms;
constexpr Clock::Duration kLongestInterval = 250ms;
/// The change of progress that counts as news; the server's own threshold. It creeps by less to show that it lives.
constexpr float kVisibleChange = 0.005F;

/// Returns a value between 0 and 1, also for a NaN.
float clamped(float progress) noexcept {
    const float atMostOne = progress < 1.0F ? progress : 1.0F;
    return atMostOne > 0.0F ? atMostOne : 0.0F;
}

float secondsSince(Clock::TimePoint start, const Clock& clock) {
    return static_cast<float>(std::fabs(secondsFromDuration(clock.now() - start)));
}

std::shared_ptr<const Error> stalled(const KRVOperationBase& operation, float elapsedSeconds) {
    return Error::make(
        std::string(kTransportCheckErrorDomain), kNoProgressErrorCode,
        {{NSLocalizedDescriptionKey, fmt::format("Unable to {}. Timed out while monitoring progress (at {:2.2f})",
                                                 operation.nameFromType(), elapsedSeconds)}});
}

}  // namespace

OperationWait::OperationWait(KRVOperationBase::Ref operation, Pace pace, const Clock& clock)
    : operation_(std::move(operation))
    , pace_(pace)
    , clock_(clock)
    , changed_(clock.now())
    , interval_(kShortestInterval) {}

void OperationWait::aboutToAsk() {
    asked_ = clock_.now();
}

OperationWait::Next OperationWait::take(const KRVOperationBase::Ref& state, float progressTimeout) {
    operation_->copyProgressInfoFrom(state);
    if (operation_->error()) {
        return Next::Failed;
    }
    if (operation_->completed()) {
        return Next::Completed;
    }
    progress_ = state->progress();
    if (const auto delegate = operation_->progressDelegate();
        delegate && !delegate->operation(operation_, clamped(progress_))) {
        return Next::Cancel;
    }
    if (operation_->cancelled()) {
        return Next::Failed;
    }
    return hasStalled(progressTimeout) ? Next::Cancel : Next::AskAgain;
}

bool OperationWait::hasStalled(float progressTimeout) {
    if (progress_ != lastChange_) {
        lastChange_ = progress_;
        changed_ = clock_.now();
    }
    const float elapsed = secondsSince(changed_, clock_);
    if (elapsed <= progressTimeout) {
        return false;
    }
    operation_->setError(stalled(*operation_, elapsed));
    return true;
}

Clock::Duration OperationWait::pause() {
    if (pace_ == Pace::HalfSecond) {
        return kPollInterval;
    }
    if (std::fabs(progress_ - lastNews_) < kVisibleChange) {
        interval_ = std::min(2 * interval_, kLongestInterval);
    } else {
        interval_ = kShortestInterval;
        lastNews_ = progress_;
    }
    return std::max(asked_ + interval_ - clock_.now(), Clock::Duration::zero());
}

}  // namespace krv

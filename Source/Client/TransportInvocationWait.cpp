// Waiting for long work, and cancelling it.
//
// The server replies to the request at once with an identifier and does the work in the background. This loop polls
// the state on the caller's thread and blocks it. So the caller decides which thread waits, and there is nothing to
// synchronise.
//
// Pace. Callers of the client's operations are polled for every half second, which their observers may rely on. Others
// let the server set the pace: it holds a reply until there is news, and the next request follows at once. A server
// that does not hold replies must not be asked in a tight loop, so without news the interval doubles up to a quarter of
// a second. That is shorter than the server holds a reply, so with our server the loop never sleeps.
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

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollInterval = 500ms;
/// Between requests at the server's pace, after news and without.
constexpr Clock::Duration kShortestInterval = 5ms;
constexpr Clock::Duration kLongestInterval = 250ms;
/// The change of progress that counts as news; the server's own threshold. It creeps by less to show that it lives.
constexpr float kVisibleChange = 0.005F;
constexpr std::string_view kTimeoutDomain = "TransportCheck";
constexpr std::int64_t kTimeoutCode = 201;

constexpr LogSite kWaitSite{"Source/Client/TransportInvocation",
                            Selector("invokeOverTransportGetProgressWaitToComplete:error:progressTimeout:")};
constexpr LogSite kCancelSite{"Source/Client/TransportInvocation", Selector("tryToCancelOperation:usingTransport:")};

/// Returns a value between 0 and 1, also for a NaN.
float clamped(float progress) noexcept {
    const float atMostOne = progress < 1.0F ? progress : 1.0F;
    return atMostOne > 0.0F ? atMostOne : 0.0F;
}

class StallClock {
public:
    explicit StallClock(const Clock& clock)
        : clock_(clock)
        , start_(clock.now()) {}

    void progressIs(float progress) {
        if (progress != last_) {
            last_ = progress;
            start_ = clock_.now();
        }
    }

    [[nodiscard]] float elapsedSeconds() const {
        return static_cast<float>(std::fabs(secondsFromDuration(clock_.now() - start_)));
    }

private:
    const Clock& clock_;
    Clock::TimePoint start_;
    float last_ = 0.0F;
};

/// Sleeps between polls.
class Pacing {
public:
    Pacing(TransportInvocation::Pace pace, Clock& clock)
        : pace_(pace)
        , clock_(clock) {}

    void aboutToAsk() { asked_ = clock_.now(); }

    void sleepAfter(float progress) {
        if (pace_ == TransportInvocation::Pace::HalfSecond) {
            clock_.sleepFor(kPollInterval);
            return;
        }
        if (std::fabs(progress - last_) < kVisibleChange) {
            interval_ = std::min(2 * interval_, kLongestInterval);
        } else {
            interval_ = kShortestInterval;
            last_ = progress;
        }
        if (const auto rest = asked_ + interval_ - clock_.now(); rest > Clock::Duration::zero()) {
            clock_.sleepFor(rest);
        }
    }

private:
    const TransportInvocation::Pace pace_;
    Clock& clock_;
    Clock::TimePoint asked_{};
    Clock::Duration interval_ = kShortestInterval;
    float last_ = -1.0F;
};

void store(ErrorOut error, std::shared_ptr<const Error> value) {
    if (error) {
        *error = std::move(value);
    }
}

std::shared_ptr<const Error> stalled(const KRVOperationBase& operation, float elapsedSeconds) {
    return Error::make(
        std::string(kTimeoutDomain), kTimeoutCode,
        {{NSLocalizedDescriptionKey, fmt::format("Unable to {}. Timed out while monitoring progress (at {:2.2f})",
                                                 operation.nameFromType(), elapsedSeconds)}});
}

}  // namespace

KRVOperationBase::Ref TransportInvocation::poll(const KRVOperationBase::Ref& request, const Transport& transport,
                                                ErrorOut transportError) const {
    const Reply reply = another(KRVOperationBase::progressAndCompletionOperation(request->uniqueID()))
                            ->invokeOverTransport(transport, transportError);
    if (*transportError) {
        return nullptr;
    }
    return throwExceptionBasedOnResponse(request, reply);
}

KRVOperationBase::Ref TransportInvocation::invokeOverTransportGetProgressWaitToComplete(const Transport& transport,
                                                                                        ErrorOut error,
                                                                                        float progressTimeout) {
    setProgressTimeoutDuration(progressTimeout);
    const auto request = input();
    std::shared_ptr<const Error> transportError;
    const Reply reply = invokeOverTransport(transport, &transportError);
    if (transportError) {
        store(error, std::move(transportError));
        return nullptr;
    }
    const auto firstReply = throwExceptionBasedOnResponse(request, reply);
    if (!request) {
        return nullptr;  // there is no identifier to ask about, and no record to keep up to date
    }
    request->copyFrom(firstReply);

    StallClock stallClock(clock_);
    Pacing pacing(pace_, clock_);
    for (;;) {
        pacing.aboutToAsk();
        const auto state = poll(request, transport, &transportError);
        if (!state) {
            store(error, std::move(transportError));
            return nullptr;
        }
        request->copyProgressInfoFrom(state);
        if (request->error()) {
            return request;
        }
        if (request->completed()) {
            KRV_LOG(kLogFlagInfo, kWaitSite, "Operation {} completed", request->description());
            return firstReply;
        }
        if (const auto delegate = request->progressDelegate();
            delegate && !delegate->operation(request, clamped(state->progress()))) {
            tryToCancelOperation(request, transport);
        }
        if (request->cancelled()) {
            return request;
        }
        stallClock.progressIs(state->progress());
        if (const float elapsed = stallClock.elapsedSeconds(); elapsed > progressTimeoutDuration()) {
            request->setError(stalled(*request, elapsed));
            tryToCancelOperation(request, transport);
            return request;
        }
        pacing.sleepAfter(state->progress());
    }
}

void TransportInvocation::tryToCancelOperation(const KRVOperationBase::Ref& operation,
                                               const Transport& usingTransport) {
    const auto description = [&operation] { return operation ? operation->description() : "(null)"; };
    try {
        std::shared_ptr<const Error> error;
        (void)another(KRVOperationBase::cancelOperation(operation ? operation->uniqueID() : std::nullopt))
            ->invokeOverTransport(usingTransport, &error);
        if (error) {
            KRV_LOG(kLogFlagError, kCancelSite, "Attempting to cancel {} failed with {}. Ignoring.", description(),
                    error->localizedDescription());
        }
    } catch (const Exception&) {
        KRV_LOG(kLogFlagError, kCancelSite, "Tried to cancel operation {}, but couldn't. Ignoring", description());
    }
    if (operation) {
        operation->setCancelled(true);
    }
}

}  // namespace krv

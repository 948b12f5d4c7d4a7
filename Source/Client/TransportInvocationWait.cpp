// Waiting for long work, and cancelling it.
//
// The server answers the request at once with an identifier, and the work goes on there. This loop asks for its state
// every half second on the caller's thread, which is blocked meanwhile: the caller decides which thread that is, and
// there is nothing to synchronise.
//
// Progress that stands still. The stall clock starts when the first reply has been taken in and starts again whenever
// the reported number differs from the last one that restarted it, in whatever direction: a number that moves is life,
// and the server makes it move as long as anything does. It is compared raw and exactly, so an odd report (1.5, a
// NaN) counts as a change although the observer only ever sees 0 to 1. The clock is steady, so a change of the wall
// clock is no stall.
//
// Cancelling. The observer's answer false and a stall both end in a cancel request. It can only name the operation by
// the identifier in the server's first reply; that is why the observer is first asked after that reply, and a wish to
// cancel that comes earlier is kept by the observer until then. Nothing is gained by giving up before: the request is
// on its way, the server would work on without anybody knowing the name to stop it by. When the cancel request
// fails, the operation still counts as cancelled here: the caller has turned away from it, and the server stops it by
// itself when it finds its client gone.
#include <chrono>
#include <cmath>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr auto kPollInterval = 500ms;
constexpr std::string_view kTimeoutDomain = "TransportCheck";
constexpr std::int64_t kTimeoutCode = 201;

constexpr LogSite kWaitSite{"Source/Client/TransportInvocation",
                            Selector("invokeOverTransportGetProgressWaitToComplete:error:progressTimeout:")};
constexpr LogSite kCancelSite{"Source/Client/TransportInvocation", Selector("tryToCancelOperation:usingTransport:")};

/// Also for a NaN the result lies between 0 and 1.
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
    request->copyFrom(firstReply);

    StallClock stallClock(clock_);
    for (;;) {
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
        clock_.sleepFor(kPollInterval);
    }
}

void TransportInvocation::tryToCancelOperation(const KRVOperationBase::Ref& operation,
                                               const Transport& usingTransport) {
    try {
        std::shared_ptr<const Error> error;
        (void)another(KRVOperationBase::cancelOperation(operation->uniqueID()))
            ->invokeOverTransport(usingTransport, &error);
        if (error) {
            KRV_LOG(kLogFlagError, kCancelSite, "Attempting to cancel {} failed with {}. Ignoring.",
                    operation->description(), error->localizedDescription());
        }
    } catch (const Exception&) {
        KRV_LOG(kLogFlagError, kCancelSite, "Tried to cancel operation {}, but couldn't. Ignoring",
                operation->description());
    }
    operation->setCancelled(true);
}

}  // namespace krv

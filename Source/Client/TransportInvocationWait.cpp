// Waiting for long work on the caller's thread, which it blocks. So the caller decides which thread waits, and there is
// nothing to synchronise. OperationWait.cpp explains the rules.
#include <fmt/format.h>

#include <KRVQTProcessClient/Client/OperationWait.h>
#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

constexpr LogSite kWaitSite{"Source/Client/TransportInvocation",
                            Selector("invokeOverTransportGetProgressWaitToComplete:error:progressTimeout:")};
constexpr LogSite kCancelSite{"Source/Client/TransportInvocation", Selector("tryToCancelOperation:usingTransport:")};

void store(ErrorOut error, std::shared_ptr<const Error> value) {
    if (error) {
        *error = std::move(value);
    }
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

    OperationWait wait(request, pace_, clock_);
    for (;;) {
        wait.aboutToAsk();
        const auto state = poll(request, transport, &transportError);
        if (!state) {
            store(error, std::move(transportError));
            return nullptr;
        }
        switch (wait.take(state, progressTimeoutDuration())) {
        case OperationWait::Next::AskAgain:
            if (const auto pause = wait.pause(); pause > Clock::Duration::zero()) {
                clock_.sleepFor(pause);
            }
            break;
        case OperationWait::Next::Cancel:
            tryToCancelOperation(request, transport);
            return request;
        case OperationWait::Next::Failed:
            return request;
        case OperationWait::Next::Completed:
            KRV_LOG(kLogFlagInfo, kWaitSite, "Operation {} completed", request->description());
            return firstReply;
        }
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

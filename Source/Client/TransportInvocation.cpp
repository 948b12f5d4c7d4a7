#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {
namespace {

std::string nameOf(const KRVOperationBase::Ref& operation) {
    return operation ? operation->nameFromType() : "(null)";
}

}  // namespace

TransportInvocation::Ref TransportInvocation::invocationWith(KRVOperationBase::Ref operation, Clock& clock) {
    auto invocation = std::make_shared<TransportInvocation>(clock);
    invocation->setInput(std::move(operation));
    return invocation;
}

TransportInvocation::TransportInvocation(Clock& clock)
    : clock_(clock) {}

KRVOperationBase::Ref TransportInvocation::input() const {
    return input_.get();
}

void TransportInvocation::setInput(KRVOperationBase::Ref input) {
    input_.set(std::move(input));
}

float TransportInvocation::progressTimeoutDuration() const {
    return progressTimeoutDuration_;
}

void TransportInvocation::setProgressTimeoutDuration(float seconds) {
    progressTimeoutDuration_ = seconds;
}

void TransportInvocation::setPace(Pace pace) {
    pace_ = pace;
}

TransportInvocation::Ref TransportInvocation::another(KRVOperationBase::Ref operation) const {
    return invocationWith(std::move(operation), clock_);
}

TransportInvocation::Reply TransportInvocation::invokeOverTransport(const Transport& transport, ErrorOut error) {
    if (!transport) {
        return nullptr;
    }
    try {
        return transport->sendOperation(input());
    } catch (const Exception& exception) {
        if (transport->isThisACommunicationsFailure(exception)) {
            throw;
        }
        errorBasedOnOperation(error, &exception);
        return nullptr;
    }
}

bool TransportInvocation::errorBasedOnOperation(ErrorOut error, const Exception* exception) const {
    if (!error) {
        return false;
    }
    *error = Error::make(std::string(kTransportInvocationErrorDomain), 0,
                         createErrorDictionaryFromException(nameOf(input()), exception));
    return true;
}

Dictionary TransportInvocation::createErrorDictionaryFromException(std::string_view operationName,
                                                                   const Exception* ex) {
    Dictionary userInfo;
    userInfo.set(NSLocalizedDescriptionKey, fmt::format("Unable to {}", operationName));
    if (ex) {
        userInfo.set(NSLocalizedFailureReasonErrorKey, ex->reason());
    }
    return userInfo;
}

KRVOperationBase::Ref TransportInvocation::throwExceptionBasedOnResponse(const KRVOperationBase::Ref& operation,
                                                                         const Reply& response) {
    if (auto reply = KRVOperationBase::operationFromData(response)) {
        return reply;
    }
    throw Exception(std::string(kTransportCheckException),
                    fmt::format("Unable to {}, no response returned from server.", nameOf(operation)));
}

KRVOperationBase::Ref TransportInvocation::throwExceptionIfNoError(ErrorOut error,
                                                                   const KRVOperationBase::Ref& forOperation,
                                                                   const Reply& andResponseEmpty) {
    if (error && *error) {
        return nullptr;
    }
    return throwExceptionBasedOnResponse(forOperation, andResponseEmpty);
}

}  // namespace krv

#include "OwnRecord.h"

namespace krvqt {
namespace {

using krv::KRVOperationBase;
using krv::TransportInvocation;

/// Seconds without progress after which the operation is given up.
constexpr float kProgressTimeout = 60;

}  // namespace

KRVOperationBase::Ref sendRecord(const ServerAccess& access, const KRVOperationBase::Ref& operation,
                                 krv::ErrorOut error) {
    const auto reply = TransportInvocation::invocationWith(operation)->invokeOverTransport(access.transport, error);
    return TransportInvocation::throwExceptionIfNoError(error, operation, reply);
}

std::optional<std::int64_t> queuePosition(const ServerAccess& access, const KRVOperationBase& operation) {
    try {
        std::shared_ptr<const krv::Error> ignored;
        const auto reply =
            sendRecord(access, KRVOperationBase::progressAndCompletionOperation(operation.uniqueID()), &ignored);
        const krv::Value before = reply ? (*reply->arguments())[krv::kArgumentQueuePosition] : krv::Value();
        return before.kind() == krv::Value::Kind::Integer ? std::optional(before.integerValue()) : std::nullopt;
    } catch (const krv::Exception&) {
        return std::nullopt;
    }
}

KRVOperationBase::Ref runRecord(const ServerAccess& access, const KRVOperationBase::Ref& record,
                                const std::shared_ptr<krv::OperationProgress>& progress, krv::ErrorOut error) {
    record->setProgressDelegate(progress);
    const auto invocation = TransportInvocation::invocationWith(record);
    invocation->setPace(TransportInvocation::Pace::WithTheServer);
    (void)invocation->invokeOverTransportGetProgressWaitToComplete(access.transport, error, kProgressTimeout);
    if (!*error) {
        *error = record->error();
    }
    if (*error || record->cancelled()) {
        return nullptr;
    }
    auto finished = sendRecord(access, KRVOperationBase::returnResultForOperation(record->uniqueID()), error);
    if (finished && finished->error()) {
        *error = finished->error();
    }
    std::shared_ptr<const krv::Error> ignored;  // the server drops old results by itself
    (void)sendRecord(access, KRVOperationBase::removeReturnResultForOperation(record->uniqueID()), &ignored);
    return *error ? nullptr : finished;
}

}  // namespace krvqt

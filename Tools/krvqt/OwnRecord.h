#pragma once

#include <memory>

#include "ServerAccess.h"

namespace krvqt {

/// Sends a record of our own once and returns the reply; null when it failed, and then error, if given, is written.
/// Raises as TransportInvocation does.
[[nodiscard]] krv::KRVOperationBase::Ref
sendRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record, krv::ErrorOut error = nullptr);

/// Runs a record of our own over the client's transport and waits for its end: for operations that the client has no
/// call for, or whose call does not tell what is wanted. A server that is lost on the way is not replaced.
///
/// Returns the finished record with its result; null when it failed, and then error is written, or was cancelled.
/// Raises as TransportInvocation does.
[[nodiscard]] krv::KRVOperationBase::Ref runRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record,
                                                   const std::shared_ptr<krv::OperationProgress>& progress,
                                                   krv::ErrorOut error);

}  // namespace krvqt

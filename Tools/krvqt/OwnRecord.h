#pragma once

#include <memory>

#include "ServerAccess.h"

namespace krvqt {

/// Runs a record of our own over the client's transport and waits for its end: for operations that the client has no
/// call for, or whose call does not tell what is wanted. A server that is lost on the way is not replaced.
///
/// Returns the finished record with its result; null when it failed, and then error is written, or was cancelled.
/// Raises as TransportInvocation does.
[[nodiscard]] krv::KRVOperationBase::Ref runRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record,
                                                   const std::shared_ptr<krv::OperationProgress>& progress,
                                                   krv::ErrorOut error);

}  // namespace krvqt

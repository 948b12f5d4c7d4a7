#pragma once

#include <memory>

#include "ServerAccess.h"

namespace krvqt {

/// Sends a record once and returns the reply. On failure returns null and writes the error, if given. Throws like
/// TransportInvocation.
[[nodiscard]] krv::KRVOperationBase::Ref
sendRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record, krv::ErrorOut error = nullptr);

/// Runs a record over the client's transport and blocks until the operation ends. For operations that the client has no
/// call for, or whose call does not return the result. If the server is lost, the operation is not repeated.
///
/// Returns the finished record with its result. Returns null if the operation failed, with the error written, or was
/// cancelled. Throws like TransportInvocation.
[[nodiscard]] krv::KRVOperationBase::Ref runRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record,
                                                   const std::shared_ptr<krv::OperationProgress>& progress,
                                                   krv::ErrorOut error);

}  // namespace krvqt

#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "ServerAccess.h"

namespace krvqt {

/// Sends a record once and returns the reply. On failure returns null and writes the error, if given. Throws like
/// TransportInvocation.
[[nodiscard]] krv::KRVOperationBase::Ref
sendRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record, krv::ErrorOut error = nullptr);

/// Asks the server how many operations are before one that waits. Returns nothing if it does not wait, or if the server
/// cannot be asked.
[[nodiscard]] std::optional<std::int64_t> queuePosition(const ServerAccess& access,
                                                        const krv::KRVOperationBase& operation);

/// Runs a record over the client's transport and blocks until the operation ends, which it notices within milliseconds.
/// The client's own calls may take half a second longer, and some do not return the result. If the server is lost, the
/// operation is not repeated.
///
/// Returns the finished record with its result. Returns null if the operation failed, with the error written, or was
/// cancelled. Throws like TransportInvocation.
[[nodiscard]] krv::KRVOperationBase::Ref runRecord(const ServerAccess& access, const krv::KRVOperationBase::Ref& record,
                                                   const std::shared_ptr<krv::OperationProgress>& progress,
                                                   krv::ErrorOut error);

}  // namespace krvqt

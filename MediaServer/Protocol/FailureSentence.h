#pragma once

#include <memory>
#include <span>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// Returns the error record of a failed operation: the cause's code, a sentence for a person, the technical cause and,
/// where a file is to blame, its path. No other code of the server or the worker words a failure. Pure.
///
/// The sentence names the operation, the file and the problem: "Cannot extract audio from good.mov: it has no audio
/// track."
[[nodiscard]] std::shared_ptr<const Error> makeError(const KRVOperationBase& request, const Failure& failure);

/// Returns the error code of a cause.
[[nodiscard]] OperationErrorCode codeOf(FailureCause cause) noexcept;

/// Returns every cause, in the order of the enumeration.
[[nodiscard]] std::span<const FailureCause> failureCauses() noexcept;

}  // namespace krv::server

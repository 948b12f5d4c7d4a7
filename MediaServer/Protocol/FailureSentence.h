#pragma once

#include <memory>
#include <span>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// The largest error number that the kernel uses.
inline constexpr int kLargestErrorNumber = 4095;

/// Returns the error record of a failed operation: the cause's code, a sentence for a person, the technical cause and,
/// where a file is to blame, its path. If a failed system call is the cause, the record has its error number. No other
/// code of the server or the worker words a failure. Pure.
///
/// The sentence names the operation, the file and the problem: "Cannot extract audio from good.mov: it has no audio
/// track."
[[nodiscard]] std::shared_ptr<const Error> makeError(const KRVOperationBase& request, const Failure& failure);

/// Returns the error code of a cause.
[[nodiscard]] OperationErrorCode codeOf(FailureCause cause) noexcept;

/// Returns every cause, in the order of the enumeration.
[[nodiscard]] std::span<const FailureCause> failureCauses() noexcept;

}  // namespace krv::server

#pragma once

#include <cstdint>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The errors that calls report. An error record of the media server's domain has one of the codes below,
/// `NSLocalizedDescriptionKey` (a sentence for a person that names the file), `NSLocalizedFailureReasonErrorKey` (the
/// technical cause) and, where a file is concerned, `kErrorFilePath`. Where a failed system call is the cause, it has
/// `kErrorNumber`.
namespace krv {

/// Domain of every error that the media server reports: "KRVQuicktimeProcess".
KRV_EXPORT extern const std::string_view kMediaServerErrorDomain;

/// User-info key, string: absolute path of the file that the error is about.
KRV_EXPORT extern const std::string_view kErrorFilePath;

/// User-info key, integer: the error number (errno) of the system call that failed, such as ENOSPC or EACCES. Missing if
/// the error has another cause.
KRV_EXPORT extern const std::string_view kErrorNumber;

/// Codes of kMediaServerErrorDomain. The numbers are part of the wire form.
enum class OperationErrorCode : std::int64_t {
    CannotAcceptWork = 1,       ///< shutting down, or the queue is full; the client library retries
    UnknownOperation = 2,       ///< no operation with that identifier
    UnreadableSource = 3,       ///< source missing, not readable by this user, or not readable to its end
    UnusableSource = 4,         ///< source is not media, is empty, is too damaged, or lacks a required track
    UnwritableDestination = 5,  ///< folder missing, no permission, no space, read-only
    Unsupported = 6,            ///< container, codec, quality or setting not supported
    WorkerFailed = 7,           ///< the worker crashed, ran out of memory or time, or made no progress
    Internal = 8,               ///< a defect of the media server
    InvalidArgument = 9,        ///< unknown operation type, or an argument is missing or of the wrong kind
    SameFile = 10               ///< destination and source are the same file
};

// The client library reports these itself.

/// Domain of the error of a call that could not be sent or got no usable reply. The code is 0.
inline constexpr std::string_view kTransportInvocationErrorDomain = "TransportInvocation";

/// Domain and code of the error of an operation that was given up because it made no progress.
inline constexpr std::string_view kTransportCheckErrorDomain = "TransportCheck";
inline constexpr std::int64_t kNoProgressErrorCode = 201;

}  // namespace krv

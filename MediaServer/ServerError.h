#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// Domain of the errors that the server reports.
inline constexpr std::string_view kErrorDomain = "KRVQuicktimeProcess";
/// User-info key of the file that is meant.
inline constexpr std::string_view kFilePathKey = "KRVFilePath";

enum class ErrorCode : std::int64_t {
    CannotTakeWorkNow = 1,  ///< shutting down, or the queue is full; the client tries again
    NoSuchOperation = 2,
    UnreadableSource = 3,
    UnusableSource = 4,
    UnwritableDestination = 5,
    Unsupported = 6,
    WorkerDied = 7,
    Internal = 8,
    BadArgument = 9,
    SameFile = 10
};

/// description: a sentence for a person, which names the file if one is meant. reason: the cause. path: the file, or
/// empty.
[[nodiscard]] std::shared_ptr<const Error> makeError(ErrorCode code, std::string description, std::string reason,
                                                     const std::string& path = {});

/// A destination that cannot be written, for this error number.
[[nodiscard]] std::shared_ptr<const Error> unwritable(const std::string& path, int number);

}  // namespace krv::server

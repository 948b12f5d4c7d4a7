#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// How an operation ended.
struct Outcome {
    enum class Kind { Completed, Failed, Cancelled };
    Kind kind = Kind::Failed;
    /// For Failed.
    std::shared_ptr<const Error> error;
    /// For Completed: the worker's record.
    KRVOperationBase::Ref record;
};

/// The longest text of a description in bytes, except the path.
inline constexpr std::size_t kLongestDescriptionText = 4096;

/// Returns how long the archived record that ends an operation of this type may be, in bytes: 16 MiB, and twice as much
/// for interesting times, of which a long movie has millions.
[[nodiscard]] std::size_t longestReport(std::int32_t operationType) noexcept;

/// Checks the record that ends a job against its request, because a hostile file may have taken the worker over.
/// Returns the failure that the record reports, or completion with what may be in the reply. A record that no honest
/// worker sends is an internal error. Pure.
///
///   - An error has the media server's domain, a code from 3 to 9, our keys only, and a path of the request. Codes 3
///     and 5 may have an error number that the system uses.
///   - There are at most as many thumbnails as were asked for, each with a time and a slice of the worker's file of at
///     most kLargestPoster bytes. The slices do not overlap.
///   - A description has its own keys only, each with a value of the right kind; the path is that of the source.
///   - Its tracks, tags and chapters are as copyMovieContents() says.
///   - Interesting times are ascending and unique, and their time scale is positive.
///   - Dropped tracks have our keys only, an index, texts of bounded length and, in a merge, the number of a source.
///   - Ends of truncated sources are numbers, for a merge one or null for each source.
///   - The result has no other keys.
///
/// The contents of the texts and numbers remain the worker's word.
///
/// size: of the archived record in bytes.
[[nodiscard]] Outcome outcomeOf(const KRVOperationBase& request, const KRVOperationBase& report, std::size_t size);

}  // namespace krv::server

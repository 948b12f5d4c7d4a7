#pragma once

#include <optional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Failure.h>

namespace krv::server {

/// How many thumbnails are made without kArgumentThumbnailCount.
inline constexpr int kStandardThumbnailCount = 12;
/// How many thumbnails can be made at once: their file names have four digits.
inline constexpr int kMostThumbnails = 9999;
/// The largest poster of a description in bytes. A noisy one of the largest size in pixels has half as many.
inline constexpr std::size_t kLargestPoster = std::size_t{8} << 20;

/// The longest text about a dropped track in bytes.
inline constexpr std::size_t kLongestDroppedTrackText = 1024;
/// Limits of a description: numbers of entries, and lengths of texts in bytes.
inline constexpr std::size_t kMostMovieTracks = 1000;
inline constexpr std::size_t kMostMovieTags = 100;
inline constexpr std::size_t kMostMovieChapters = 2000;
inline constexpr std::size_t kLongestMovieTitle = 256;
inline constexpr std::size_t kLongestMovieTagKey = 64;
inline constexpr std::size_t kLongestMovieTag = 4096;
/// How many movies can be merged at once: as many descriptors as can be passed to a worker.
inline constexpr std::size_t kMostMergeSources = 1000;

/// Keys of what a worker reports of each thumbnail besides its time, integers: offset and length in bytes of its JPEG
/// data in the output file.
inline constexpr std::string_view kThumbnailOffset = "offset";
inline constexpr std::string_view kThumbnailLength = "length";

/// Checks a request for a media operation (types 6 to 11) without touching a file: arguments that are missing, of the
/// wrong kind or not absolute paths, and encoding types that do not exist. Empty if the request is valid. Pure.
[[nodiscard]] std::optional<Failure> checkMediaRequest(const KRVOperationBase& request);

/// Returns a copy of a valid request with only the arguments that its operation and the server read.
[[nodiscard]] KRVOperationBase::Ref withKnownArguments(const KRVOperationBase& request);

/// Returns the paths of the files that a request reads, in order. The request may be invalid; what is not a path is
/// left out then.
[[nodiscard]] std::vector<std::string> sourcesOf(const KRVOperationBase& request);

/// Returns how many thumbnails a request asks for. The request must be valid.
[[nodiscard]] int thumbnailCountOf(const KRVOperationBase& request);

}  // namespace krv::server

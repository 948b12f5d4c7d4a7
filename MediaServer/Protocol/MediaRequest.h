#pragma once

#include <memory>
#include <string>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// How many are made when nobody says, and how many at most: their names have four digits.
inline constexpr int kStandardThumbnailCount = 12;
inline constexpr int kMostThumbnails = 9999;
/// How many movies can be merged at once: as many as files can be handed to a worker.
inline constexpr std::size_t kMostMergeSources = 1000;

/// Keys of what a worker reports of each thumbnail besides its time: where its JPEG data is in the output file, in
/// bytes.
inline constexpr std::string_view kThumbnailOffset = "offset";
inline constexpr std::string_view kThumbnailLength = "length";

/// What can be said of a request for media work (types 6 to 11) without touching a file: arguments that are missing, of
/// the wrong kind, or name no file, and encoding types that do not exist. Null when all is well. Pure.
[[nodiscard]] std::shared_ptr<const Error> checkMediaRequest(const KRVOperationBase& request);

/// The files that a request reads, in order. The request must have been checked.
[[nodiscard]] std::vector<std::string> sourcesOf(const KRVOperationBase& request);

/// The number of thumbnails that a request for them wants. The request must have been checked.
[[nodiscard]] int thumbnailCountOf(const KRVOperationBase& request);

/// What a person would call the files that a request reads: one path, or the first of several and how many more.
[[nodiscard]] std::string describeSources(const KRVOperationBase& request);

}  // namespace krv::server

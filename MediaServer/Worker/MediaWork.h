#pragma once

#include <cstdint>

#include <MediaServer/Media/Subtitles/Font.h>
#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {

/// Performs one request with the descriptors that came with it and reports progress over the channel. Returns the
/// record that ends it: with an error, or with the operation's `arguments` or `result`. Does not throw. font: for text
/// that is drawn into video.
[[nodiscard]] KRVOperationBase::Ref performRequest(const WorkerChannel::Message& job, WorkerChannel& channel,
                                                   const media::Font& font);

/// Returns whether performRequest() knows this type of operation.
[[nodiscard]] bool canPerform(std::int32_t type) noexcept;

}  // namespace krv::server

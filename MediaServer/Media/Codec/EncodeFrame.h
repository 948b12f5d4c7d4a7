#pragma once

#include <functional>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Gives an encoder a frame, or the end of the stream if it is null, and passes on each packet that is ready, which may
/// be taken. Returns 0 or FFmpeg's error. Throws only what the sink throws.
[[nodiscard]] int encodeFrame(AVCodecContext& encoder, const AVFrame* frame,
                              const std::function<void(AVPacket& packet)>& sink);

}  // namespace krv::media

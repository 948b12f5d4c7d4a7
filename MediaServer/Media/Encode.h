#pragma once

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>
#include <MediaServer/Media/Transcode/EncodeRequest.h>

namespace krv::media {

/// Converts the source into the destination, which is complete when this returns. Runs on the calling thread,
/// with threads of the codecs beside it. One operation at a time per process (FFmpeg's log is shared). Throws
/// Failure or std::bad_alloc; the destination's content is worthless then.
void encode(const EncodeRequest& request, ProgressSink& sink);

}  // namespace krv::media

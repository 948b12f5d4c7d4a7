#pragma once

#include <MediaServer/Media/EncodeRequest.h>
#include <MediaServer/Media/Failure.h>
#include <MediaServer/Media/ProgressSink.h>

namespace krv::media {

/// Converts the source into the destination, which is complete when this returns. Runs on the calling thread,
/// with threads of the codecs beside it. One operation at a time per process (FFmpeg's log is shared). Throws
/// Failure, with the file named, or std::bad_alloc; the destination's content is worthless then.
void encode(const EncodeRequest& request, ProgressSink& sink);

}  // namespace krv::media

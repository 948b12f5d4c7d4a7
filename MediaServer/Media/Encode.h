#pragma once

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/MovieReport.h>
#include <MediaServer/Media/Foundation/ProgressSink.h>
#include <MediaServer/Media/Transcode/EncodeRequest.h>

namespace krv::media {

/// Converts the source into the destination, which is complete when this returns. Runs on the calling thread; the
/// codecs use threads of their own. Only one operation may run in a process at a time, because FFmpeg's log is shared.
/// Throws Failure or std::bad_alloc; the destination is then invalid.
MovieReport encode(const EncodeRequest& request, ProgressSink& sink);

}  // namespace krv::media

#pragma once

namespace krv::media {

/// Makes FFmpeg compute the tables of the usual codecs, which it would do when the first movie needs them. Processes
/// that are forked afterwards share them. Call it while there is one thread; starts none.
void computeStaticTables() noexcept;

}  // namespace krv::media

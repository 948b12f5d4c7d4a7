#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Returns the chunks that mark chapters in a WAV file: points with their titles. Leaves out chapters that begin too
/// late for its 32 bits. Empty if none is left. rate: samples per second. Pure.
[[nodiscard]] std::string cueChunks(std::span<const AVChapter* const> chapters, int rate);

/// Appends chunks to a finished WAV file and makes its header count them. Does nothing if the file would become too
/// long for its header. Returns false with errno set if the file cannot be read or written. file: open for both.
[[nodiscard]] bool appendChunks(int file, std::string chunks);

}  // namespace krv::media

#pragma once

#include <string>

namespace krv::media {

/// Returns the form of a three-letter language code that FFmpeg's muxer for QuickTime movies knows. The container
/// stores a number per language. The muxer's names for the numbers mix the two ISO 639-2 forms, and it drops a code in
/// the other form. Returns all other codes unchanged.
[[nodiscard]] std::string quickTimeLanguage(const std::string& code);

}  // namespace krv::media

#pragma once

#include <string>

namespace krv::media {

/// Returns the form of a three-letter language code that FFmpeg's muxer for QuickTime movies knows. The container
/// stores a number per language. The muxer's names for the numbers mix the two ISO 639-2 forms, and it drops a code in
/// the other form. Returns all other codes unchanged.
[[nodiscard]] std::string quickTimeLanguage(const std::string& code);

/// Returns whether two codes mean the same language, as the two forms that ISO 639-2 has for some, or its two letters. In
/// any case.
[[nodiscard]] bool sameLanguage(const std::string& one, const std::string& other);

}  // namespace krv::media

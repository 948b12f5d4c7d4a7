#pragma once

#include <string>

namespace krv::media {

/// The form of a three-letter language code that the muxer of QuickTime movies knows. That container numbers
/// its languages, and the muxer's names for the numbers mix the two ISO 639-2 forms; a code in the other form
/// would be lost. Codes that need no translation come back as they are.
[[nodiscard]] std::string quickTimeLanguage(const std::string& code);

}  // namespace krv::media

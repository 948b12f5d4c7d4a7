#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Video/StillPicture.h>

namespace krv::media {

/// Limits of a description. A file that has more is described up to them.
inline constexpr std::size_t kMostListedTracks = 1000;
inline constexpr std::size_t kMostListedTags = 100;
inline constexpr std::size_t kMostListedChapters = 2000;
/// The longest texts in bytes. Titles and values that are longer are cut off; tags with a longer key are left out.
inline constexpr std::size_t kLongestListedTitle = 256;
inline constexpr std::size_t kLongestListedKey = 64;
inline constexpr std::size_t kLongestListedValue = 4096;

/// A track of a movie. Its index is its place in the list.
struct ListedTrack {
    std::string kind;      ///< see kindOf()
    std::string codec;     ///< see displayName(); else a four-character code; may be empty
    std::string language;  ///< see languageOf()
    std::string title;     ///< may be empty
    bool isDefault = false;
    std::optional<Extent> dimensions{};  ///< of video and covers, as displayed
    std::optional<double> frameRate{};   ///< of video, in frames per second
    std::optional<int> channels{};       ///< of audio
    std::optional<int> sampleRate{};     ///< of audio, in Hz
};

struct ListedChapter {
    double start;  ///< in seconds of the movie's own time
    double end;    ///< not before the start
    std::string title;
};

/// The tracks, tags and chapters of a movie. All texts are valid UTF-8 without control characters other than tabs and
/// ends of lines: U+FFFD takes the place of all other bytes.
struct MovieContents {
    std::vector<ListedTrack> tracks;
    /// The keys are FFmpeg's, in small letters. Tags that describe the file itself are left out.
    std::map<std::string, std::string> tags;
    std::vector<ListedChapter> chapters;  ///< in order
};

/// Lists what the headers say. Reads nothing.
[[nodiscard]] MovieContents contentsOf(const Source& source);

}  // namespace krv::media

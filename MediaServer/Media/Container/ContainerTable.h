#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

enum class CoverArt {
    None,        ///< not supported
    Stream,      ///< written as a stream with the "attached picture" disposition
    Attachment,  ///< written as an attached file
    Tag,         ///< written as a tag of the movie
};

/// How a container stores when something is played.
enum class Times {
    Stored,     ///< every packet has times of its own
    Following,  ///< packets follow one another; silence replaces a late start
    Counted,    ///< like Following, and frames have a constant rate and are shown in the order of decoding
    Delays,     ///< each frame has a duration in hundredths of a second; there is no audio
};

/// A container: its name, its muxer and what it can hold. One row per supported extension.
struct Container {
    std::string_view extension;
    const char* muxer;
    std::uint32_t defaultVideo;  ///< fourcc of the codec that is used by default; 0: it cannot hold video
    std::uint32_t defaultAudio;  ///< 0: it cannot hold audio
    AVCodecID textSubtitles;     ///< what text subtitles are converted to; AV_CODEC_ID_NONE: it cannot hold any
    CoverArt cover;
    bool indexInFront;   ///< "fast start" is possible and wanted
    bool displayMatrix;  ///< can store that video is shown rotated
    bool edits;          ///< has edit lists, which can hide the beginning
    bool singleTrack;    ///< holds one audio track and nothing else
    Times times;
    const char* options;  ///< "key=value:…" for the muxer

    /// Returns whether the container can hold streams of this codec.
    [[nodiscard]] bool holds(AVCodecID codec) const;
    /// Returns whether it can hold attached files, such as fonts.
    [[nodiscard]] bool holdsAttachments() const { return extension == "mkv"; }
};

/// Returns all rows.
[[nodiscard]] std::span<const Container> containers() noexcept;

/// Returns the container that the path's extension names, in upper or lower case.
/// Throws Failure with NoContainer or UnsupportedContainer.
[[nodiscard]] const Container& containerForPath(const std::string& path);

}  // namespace krv::media

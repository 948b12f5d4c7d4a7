#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

enum class CoverArt {
    None,        ///< the container has no place for it
    Stream,      ///< written as a stream with the "attached picture" disposition
    Attachment,  ///< written as an attached file
};

/// What a container is called, made with, and able to hold. One row per supported extension.
struct Container {
    std::string_view extension;
    const char* muxer;
    std::uint32_t defaultVideo;  ///< fourcc of the codec used when none is asked for; 0: no moving pictures
    std::uint32_t defaultAudio;
    AVCodecID textSubtitles;  ///< what text subtitles are converted to; AV_CODEC_ID_NONE: cannot hold any
    CoverArt cover;
    bool indexInFront;    ///< "fast start" is possible and wanted
    bool displayMatrix;   ///< can say that a picture is to be shown rotated
    bool edits;           ///< can say that the beginning of what is stored is not to be shown
    bool singleTrack;     ///< holds one audio track and nothing else
    bool timed;           ///< keeps times; without them a late start has to be filled with silence
    const char* options;  ///< "key=value:…" for the muxer

    /// Whether streams of this codec may stand in it.
    [[nodiscard]] bool holds(AVCodecID codec) const;
};

/// All rows.
[[nodiscard]] std::span<const Container> containers() noexcept;

/// The container that the path's extension names (letter case does not matter).
/// Throws Failure with NoContainer or UnsupportedContainer.
[[nodiscard]] const Container& containerForPath(const std::string& path);

}  // namespace krv::media

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/Metadata.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// The properties of a track that a merge needs. Times are in microseconds of the movie's own time and do not include
/// what an edit list hides.
struct TrackSurvey {
    std::size_t index = 0;                    ///< of the stream
    CodecParametersPtr parameters;            ///< a copy
    AVRational pixelShape{0, 1};              ///< pixel aspect ratio; that of the container overrides that of the codec
    std::vector<std::uint8_t> displayMatrix;  ///< empty if there is none
    AVRational rate{0, 1};                    ///< of frames
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::int64_t packets = 0;
    std::int64_t longestPacket = 0;   ///< microseconds
    bool startsWithKeyFrame = false;  ///< the first packet is a key frame and the first to be shown
    bool hidesPackets = false;        ///< some packets are hidden
    bool hidesLaterPackets = false;   ///< some packets after the first shown one are hidden
    bool isTransparent = false;       ///< of video: has an alpha channel
    bool reordersFrames = false;      ///< frames are not stored in the order of presentation
    std::string language{};           ///< of subtitles
    bool forced = false;              ///< of subtitles: shown also if the viewer wants none
};

/// The properties of a movie that a merge needs.
struct SourceSurvey {
    std::vector<TrackSurvey> video;  ///< the default track, or else the first one; may be empty
    std::vector<TrackSurvey> audio;  ///< all audio tracks
    /// All tracks of subtitles. They do not count for the length of the movie, and their times are not known.
    std::vector<TrackSurvey> subtitles;
    std::int64_t bytes = 0;
    std::string title;                 ///< from its tags; may be empty
    std::vector<Chapter> chapters;     ///< in order, each later than the one before
    std::optional<std::size_t> cover;  ///< index of the stream with the cover
    /// An attached file, such as a font of subtitles.
    struct Attachment {
        std::size_t index;  ///< of the stream
        std::string name;
        int bytes;
        bool operator==(const Attachment& other) const { return name == other.name && bytes == other.bytes; }
    };
    std::vector<Attachment> attachments;

    /// Return the end of the longest and of the shortest track.
    [[nodiscard]] std::int64_t longest() const;
    [[nodiscard]] std::int64_t shortest() const;
};

/// Reads all packets without decoding them. Calls position with the progress, in 0…1.
/// Throws Failure: NoVideoOrAudioTrack, UnknownCodec or NoPlayableTrack.
[[nodiscard]] SourceSurvey survey(Source& source, const std::function<void(double)>& position);

}  // namespace krv::media

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Foundation/Progress.h>

namespace krv::media {

/// What has to be known of a track before it is joined to others. Times are in microseconds on the movie's
/// own time, those of what is shown or heard: what an edit list hides does not count.
struct TrackSurvey {
    std::size_t index = 0;           ///< of the stream
    CodecParametersPtr parameters;   ///< a copy
    AVRational pixelShape{0, 1};     ///< what is shown, container before codec
    std::vector<std::uint8_t> turn;  ///< the display matrix, if there is one
    AVRational rate{0, 1};           ///< of pictures
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::int64_t packets = 0;
    std::int64_t longestPacket = 0;  ///< microseconds
    bool startsWhole = false;        ///< the first packet is a key frame, and nothing is shown before it
    bool hides = false;              ///< there are packets that are not to be shown
    bool reorders = false;           ///< pictures are not stored in the order in which they are shown
};

/// What has to be known of a movie before it is joined to others.
struct SourceSurvey {
    std::vector<TrackSurvey> video;  ///< the default track or the first; or empty
    std::vector<TrackSurvey> audio;  ///< all of them
    std::int64_t bytes = 0;
    std::string title;  ///< from its tags; or empty

    [[nodiscard]] std::int64_t longest() const;
    [[nodiscard]] std::int64_t shortest() const;
};

/// Reads all packets, and decodes none. position is called with how far it has come, in 0…1.
/// Throws Failure: NoVideoOrAudioTrack, UnknownCodec or NoPlayableTrack.
[[nodiscard]] SourceSurvey survey(Source& source, const std::function<void(double)>& position);

}  // namespace krv::media

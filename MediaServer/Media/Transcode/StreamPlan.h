#pragma once

#include <cstddef>
#include <vector>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/MovieReport.h>
#include <MediaServer/Media/Transcode/EncodeRequest.h>
#include <MediaServer/Media/Transcode/EncodingType.h>
#include <MediaServer/Media/Transcode/TrackChoice.h>

namespace krv::media {

/// What is done with one stream of the source.
struct StreamPlan {
    enum class Treatment { Copy, Encode, ConvertSubtitles, Cover };
    std::size_t index;  ///< of the stream in the source
    Treatment treatment;
    const Codec* codec = nullptr;  ///< for Encode only
};

/// Decides what is done with every stream of the source that the choice keeps. Dropped streams are not in the result. Video comes first, then
/// audio, subtitles, data and cover pictures. Throws Failure with ContainerCannotHold or UndecodableCodec for a codec,
/// EditsCannotBeCopied if a track that must be copied would show what the edits of the movie cut out, and with
/// NoAudioTrack, NoVideoOrAudioTrack or NoPlayableTrack if nothing would remain.
[[nodiscard]] std::vector<StreamPlan> planStreams(const Source& source, const Container& container,
                                                  const EncodingType& type, const EncodeRequest& request,
                                                  const TrackChoice& choice);

/// Decides what is done with all streams except audio. They are copied, but text subtitles are converted if necessary,
/// video whose edits the copy would lose is encoded, and containers for audio get no video. The result may be empty.
/// Throws Failure with ContainerCannotHold if the container cannot hold the codec of the video.
[[nodiscard]] std::vector<StreamPlan> planAllButAudio(const Source& source, const Container& container);

/// Lists what of the source a movie written by this plan will not have. Tracks that the request leaves out are not
/// missed: those outside its choice and, if it asks for audio only, those of other kinds.
[[nodiscard]] std::vector<DroppedTrack> tracksDroppedBy(const std::vector<StreamPlan>& plan, const Source& source,
                                                        const Container& container, const TrackChoice& choice,
                                                        bool audioOnly);

}  // namespace krv::media

#pragma once

#include <cstddef>
#include <vector>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Transcode/EncodeRequest.h>
#include <MediaServer/Media/Transcode/EncodingType.h>

namespace krv::media {

/// What becomes of one stream of the source.
struct StreamPlan {
    enum class Treatment { Copy, Encode, ConvertSubtitles, Cover };
    std::size_t index;  ///< in the source
    Treatment treatment;
    const Codec* codec = nullptr;  ///< for Encode
};

/// Decides what becomes of every stream of the source; those that are left out are not in the answer. Video
/// comes first, then audio, subtitles and cover pictures. Throws Failure with ContainerCannotHold or
/// UndecodableCodec for a codec, and with NoAudioTrack, NoVideoOrAudioTrack or NoPlayableTrack if nothing would remain.
[[nodiscard]] std::vector<StreamPlan> planStreams(const Source& source, const Container& container,
                                                  const EncodingType& type, const EncodeRequest& request);

/// The same for everything but the sound, all of which is copied; text subtitles are converted where that is
/// needed, and a container without moving pictures goes without them. May be empty. Throws Failure
/// with ContainerCannotHold for the codec of the pictures.
[[nodiscard]] std::vector<StreamPlan> planAllButAudio(const Source& source, const Container& container);

}  // namespace krv::media

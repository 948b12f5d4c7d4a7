#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace krv::media {

/// How the video of a conversion is to be made. Streams that are copied are not affected. The codec counts
/// for the encoding type "Custom" only, the other values for whatever is encoded.
struct VideoRequest {
    std::uint32_t codec = 0;  ///< four-character code, first character in the highest byte; 0: the container's default
    float quality = 0;        ///< 0: the encoder's default; else up to 1, the best
    float fps = 0;            ///< frames per second, constant; 0: the source's own timing
    std::string settings;     ///< "key=value:key=value" in UTF-8: width, height, bitrate, pixelFormat, encoder options
};

/// How the audio of a conversion is to be made.
struct AudioRequest {
    std::uint32_t codec = 0;
    float quality = 0;
    std::string settings;  ///< "key=value:key=value" in UTF-8: channels, sampleRate, bitrate, encoder options
};

/// A conversion. Both files are already open: nothing here ever opens a path.
struct EncodeRequest {
    int source = -1;                ///< readable and seekable; not owned
    std::string sourcePath;         ///< for messages; its extension helps to recognise the format
    int destination = -1;           ///< open for reading and writing; emptied first; not owned
    std::string destinationPath;    ///< its extension names the container; for messages
    std::int32_t encodingType = 0;  ///< see EncodingType.h
    bool flattenOnly = false;       ///< copy every stream, whatever the type
    std::optional<VideoRequest> video;
    std::optional<AudioRequest> audio;
};

}  // namespace krv::media

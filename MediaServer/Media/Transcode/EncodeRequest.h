#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <MediaServer/Media/Subtitles/Font.h>

namespace krv::media {

/// How a conversion encodes video. Copied streams are not affected. The codec applies to the encoding type "Custom"
/// only, the other values to every encoded stream.
struct VideoRequest {
    std::uint32_t codec = 0;  ///< four-character code, first character in the highest byte; 0: the container's default
    float quality = 0;        ///< 0: the encoder's default; else up to 1, the best
    float fps = 0;            ///< frames per second, constant rate; 0: the source's own timing
    std::string settings;     ///< "key=value:key=value" in UTF-8: width, height, bitrate, pixelFormat, encoder options
};

/// How a conversion encodes audio; see VideoRequest.
struct AudioRequest {
    std::uint32_t codec = 0;
    float quality = 0;
    std::string settings;  ///< "key=value:key=value" in UTF-8: channels, sampleRate, bitrate, encoder options
};

/// A conversion. Both files are already open; the library never opens a path.
struct EncodeRequest {
    int source = -1;                ///< readable and seekable; borrowed
    std::string sourcePath;         ///< its extension helps to recognise the format
    int destination = -1;           ///< open for reading and writing; truncated first; borrowed
    std::string destinationPath;    ///< its extension names the container
    std::int32_t encodingType = 0;  ///< see EncodingType.h
    bool flattenOnly = false;       ///< copies every stream, whatever the type
    std::optional<VideoRequest> video;
    std::optional<AudioRequest> audio;
    Font font{};  ///< for subtitles that are drawn into the video and whose own font the movie does not have
};

}  // namespace krv::media

#pragma once

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The brightness of the screen a picture was mastered on, and of its content: of the stream, or of its first
/// frame where only the coded pictures carry it.
class HDRMetadata {
public:
    HDRMetadata(const AVStream& stream, const AVFrame& frame);

    /// The brightest that is to be expected, in candela per square metre: of the content, else of the screen it was
    /// mastered on, else what is usual.
    [[nodiscard]] double peakLuminance() const;

    /// Tells an encoder that writes it into the coded pictures. Before the encoder is opened.
    void describeTo(AVCodecContext& encoder) const;
    /// Tells the container.
    void describeTo(AVStream& stream) const;

private:
    const void* mastering_ = nullptr;
    std::size_t masteringSize_ = 0;
    const void* light_ = nullptr;
    std::size_t lightSize_ = 0;
};

/// Adds one entry to an option of an encoder that is a list of "key=value" itself. Returns FFmpeg's result.
int addToListOption(void* object, const char* option, const char* key, const char* value);

}  // namespace krv::media

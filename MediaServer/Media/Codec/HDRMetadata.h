#pragma once

#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// The mastering display and content light metadata of a stream, or of its first frame if only the coded frames carry
/// them. Borrows the data of both.
class HDRMetadata {
public:
    HDRMetadata(const AVStream& stream, const AVFrame& frame);

    /// Returns the expected peak luminance in candela per square metre. It is that of the content if known, else that
    /// of the mastering display, else a common value.
    [[nodiscard]] double peakLuminance() const;

    /// Passes the metadata to an encoder that writes them into the coded frames. Call before the encoder is opened.
    void describeTo(AVCodecContext& encoder) const;
    /// Adds the metadata to a stream, for its container.
    void describeTo(AVStream& stream) const;

private:
    struct SideData {
        const void* data = nullptr;
        std::size_t size = 0;
    };
    static SideData find(const AVStream& stream, const AVFrame& frame, AVPacketSideDataType inStream,
                         AVFrameSideDataType inFrame);
    static void store(AVStream& stream, AVPacketSideDataType type, const SideData& side);

    SideData mastering_;
    SideData light_;
};

/// Adds one entry to an encoder option that is itself a list of "key=value" entries. Returns FFmpeg's result.
int addToListOption(void* object, const char* option, const char* key, const char* value);

}  // namespace krv::media

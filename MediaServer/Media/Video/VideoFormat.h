#pragma once

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// What the pictures look like that an encoder gets, and what has to be done to the source's pictures for
/// that.
struct VideoFormat {
    int width = 0;
    int height = 0;
    AVPixelFormat pixels = AV_PIX_FMT_NONE;
    AVRational sampleAspect{0, 1};
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace space = AVCOL_SPC_UNSPECIFIED;
    AVChromaLocation chroma = AVCHROMA_LOC_UNSPECIFIED;
    bool interlaced = false;       ///< stays interlaced, and is flagged so
    bool topFieldFirst = false;    ///< when interlaced
    bool toneMapped = false;       ///< the source is HDR and this is not
    double peakLuminance = 0;      ///< of the source, in candela per square metre; for tone mapping
    bool convertsColours = false;  ///< pictures of another matrix are brought to this one, not only described by it
    int quarterTurns = 0;          ///< clockwise turns of the pixels, where the container cannot say it
    /// Likewise: after the turns, mirrored across the axis that was the source's horizontal one.
    bool mirrored = false;
    bool fitted = false;  ///< pictures that are shown in another shape get bars; else the first one's are stretched
};

/// Where a VideoFormat comes from.
struct VideoFormatRequest {
    const AVStream& stream;
    const AVFrame& frame;  ///< the first one; its colour description wins over the stream's
    const Codec& codec;
    const Settings& settings;
    const Container& container;
};

/// Pure. Throws Failure with SettingDoesNotApply if a pixel format that was asked for is not one of the codec's.
[[nodiscard]] VideoFormat chooseVideoFormat(const VideoFormatRequest& request);

/// Sets the turns and the mirroring that make a stream's pictures upright.
void turnUpright(VideoFormat& format, const AVStream& stream);

/// Tells an encoder that is not open yet what its pictures will be like.
void describe(const VideoFormat& format, AVCodecContext& encoder);

/// What the colours of pictures of this size are taken to be where nobody says it: small ones come from television of
/// old and large ones from the new one.
[[nodiscard]] constexpr AVColorSpace assumedMatrix(int width, int height) noexcept {
    return height > 576 || width > 1024 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

/// Whether the display matrix turns the picture by 90 or 270 degrees.
[[nodiscard]] bool displayedSideways(const AVStream& stream);

/// Whether the transfer characteristic is one of high dynamic range.
[[nodiscard]] constexpr bool isHDR(AVColorTransferCharacteristic transfer) noexcept {
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

}  // namespace krv::media

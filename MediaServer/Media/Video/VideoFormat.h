#pragma once

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/ContainerTable.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Subtitles/FrameLayout.h>

namespace krv::media {

/// The format of the frames that an encoder receives, and how the source's frames are converted to it.
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
    bool interlaced = false;       ///< stays interlaced, and is flagged as such
    bool topFieldFirst = false;    ///< if interlaced
    bool toneMapped = false;       ///< the source is HDR and the target is not
    double peakLuminance = 0;      ///< of the source, in candela per square metre; for tone-mapping
    bool convertsColours = false;  ///< frames with another matrix are converted, not only relabelled
    int quarterTurns = 0;          ///< clockwise rotation of the pixels, for containers without a display matrix
    /// Likewise: mirrored, after the rotation, across the axis that was the source's horizontal one.
    bool mirrored = false;
    bool fitted = false;  ///< letterboxes frames of another display shape; otherwise the first shape is stretched
};

/// What a VideoFormat is chosen from.
struct VideoFormatRequest {
    const AVStream& stream;
    const AVFrame& frame;  ///< the first frame; its colour description overrides the stream's
    const Codec& codec;
    const Settings& settings;
    const Container& container;
};

/// Chooses the format of the frames for an encoder. Throws Failure with SettingDoesNotApply if the codec does not
/// support the requested pixel format. Pure.
[[nodiscard]] VideoFormat chooseVideoFormat(const VideoFormatRequest& request);

/// Sets the rotation and mirroring that make a stream's frames upright.
void rotateUpright(VideoFormat& format, const AVStream& stream);

/// Returns the format for frames of another stream: upright, and tone-mapped if they need it and the format does not keep
/// high dynamic range.
[[nodiscard]] VideoFormat adapted(VideoFormat format, const AVStream& stream, const AVFrame& frame);

/// Returns how frames of a format are stored and shown.
[[nodiscard]] FrameLayout layoutOf(const VideoFormat& format, const VideoFormatRequest& request);

/// Copies the format into the context of an encoder that is not open yet.
void describe(const VideoFormat& format, AVCodecContext& encoder);

/// Returns the colour matrix that is assumed if neither the stream nor the frame names one. Small frames come from
/// standard-definition television, large ones from high definition.
[[nodiscard]] constexpr AVColorSpace assumedMatrix(int width, int height) noexcept {
    return height > 576 || width > 1024 ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

/// Returns whether the display matrix rotates the video by 90 or 270 degrees.
[[nodiscard]] bool displayedSideways(const AVStream& stream);

/// Returns whether a transfer characteristic is one of high dynamic range.
[[nodiscard]] constexpr bool isHDR(AVColorTransferCharacteristic transfer) noexcept {
    return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

}  // namespace krv::media

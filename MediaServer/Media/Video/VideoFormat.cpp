#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include <MediaServer/Media/Codec/HDRMetadata.h>
#include <MediaServer/Media/Video/VideoFormat.h>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

const std::int32_t* displayMatrix(const AVStream& stream) {
    std::size_t size = 0;
    const auto* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    return data && size >= 9 * sizeof(std::int32_t) ? reinterpret_cast<const std::int32_t*>(data) : nullptr;
}

int clockwiseQuarterTurns(const std::int32_t* matrix) {
    const double degrees = -av_display_rotation_get(matrix);  // FFmpeg's angle is counter-clockwise
    return std::isfinite(degrees) ? (static_cast<int>(std::lround(degrees / 90)) % 4 + 4) % 4 : 0;
}

/// Returns whether a display matrix mirrors, which it does if its determinant is negative. FFmpeg then reports the
/// angle of its first column.
bool mirrors(const std::int32_t* matrix) {
    const auto a = static_cast<double>(matrix[0]), b = static_cast<double>(matrix[1]);
    const auto c = static_cast<double>(matrix[3]), d = static_cast<double>(matrix[4]);
    return a * d - b * c < 0;
}

int depth(AVPixelFormat format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor ? descriptor->comp[0].depth : 8;
}

bool isRGB(AVPixelFormat format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor && (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL));
}

bool hasAlpha(AVPixelFormat format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor && (descriptor->flags & AV_PIX_FMT_FLAG_ALPHA);
}

AVPixelFormat choosePixels(const VideoFormatRequest& request) {
    const auto source = static_cast<AVPixelFormat>(request.frame.format);
    if (!request.settings.pixelFormat) {
        if (hasAlpha(source) && request.codec.alphaPixelFormat != AV_PIX_FMT_NONE) {
            return request.codec.alphaPixelFormat;
        }
        return request.codec.pixelFormats[depth(source) > 8 ? 1 : 0];
    }
    const AVPixelFormat asked = *request.settings.pixelFormat;
    for (const char* name : request.codec.encoders) {
        const AVCodec* encoder = name ? avcodec_find_encoder_by_name(name) : nullptr;
        for (const auto* one = encoder ? encoder->pix_fmts : nullptr; one && *one != AV_PIX_FMT_NONE; ++one) {
            if (*one == asked) {
                return asked;
            }
        }
    }
    throw Failure({.cause = FailureCause::SettingDoesNotApply,
                   .subject = fmt::format("pixelFormat={}", av_get_pix_fmt_name(asked)),
                   .detail = request.codec.displayName});
}

int aligned(double side, int log2) {
    const int unit = 1 << log2;
    return std::clamp(static_cast<int>(std::lround(side)) & ~(unit - 1), unit, 16384);
}

/// A requested width or height is that of the upright frame. If only one is given, the frame keeps its shape. If both
/// are given, the pixel aspect ratio changes, so that the video is not distorted. Where pixels are square, it is
/// letterboxed instead.
void chooseSize(VideoFormat& format, const VideoFormatRequest& request, bool sideways) {
    AVRational aspect = request.stream.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) {
        aspect = request.frame.sample_aspect_ratio;
    }
    // Viewers ignore the pixel aspect ratio of a GIF.
    const bool square = request.codec.id == AV_CODEC_ID_GIF;
    const double width = request.frame.width * (square && aspect.num > 0 && aspect.den > 0 ? av_q2d(aspect) : 1);
    const double height = request.frame.height;
    auto askedWidth = request.settings.width;
    auto askedHeight = request.settings.height;
    if (sideways) {
        std::swap(askedWidth, askedHeight);
    }
    double newWidth = askedWidth ? *askedWidth : width;
    double newHeight = askedHeight ? *askedHeight : height;
    if (askedWidth && !askedHeight) {
        newHeight = height * newWidth / width;
    }
    if (askedHeight && !askedWidth) {
        newWidth = width * newHeight / height;
    }

    const AVPixFmtDescriptor* pixels = av_pix_fmt_desc_get(format.pixels);
    format.width = aligned(newWidth, pixels->log2_chroma_w);
    format.height = aligned(newHeight, pixels->log2_chroma_h);
    if (square) {
        format.sampleAspect = {1, 1};
        format.fitted = true;
        return;
    }
    if (aspect.num <= 0 || aspect.den <= 0) {
        aspect = AVRational{askedWidth && askedHeight ? 1 : 0, 1};
    }
    if (askedWidth && askedHeight && aspect.num > 0) {
        const std::int64_t across = static_cast<std::int64_t>(aspect.num) * request.frame.width * format.height;
        const std::int64_t down = static_cast<std::int64_t>(aspect.den) * request.frame.height * format.width;
        av_reduce(&aspect.num, &aspect.den, across, down, 65535);
    }
    format.sampleAspect = aspect;
}

template <typename T>
T firstKnown(T first, T second, T unknown) {
    return first != unknown ? first : second;
}

void chooseColour(VideoFormat& format, const VideoFormatRequest& request) {
    const AVFrame& frame = request.frame;
    const AVCodecParameters& codec = *request.stream.codecpar;
    format.primaries = firstKnown(frame.color_primaries, codec.color_primaries, AVCOL_PRI_UNSPECIFIED);
    format.transfer = firstKnown(frame.color_trc, codec.color_trc, AVCOL_TRC_UNSPECIFIED);
    format.space = firstKnown(frame.colorspace, codec.color_space, AVCOL_SPC_UNSPECIFIED);
    format.range = firstKnown(frame.color_range, codec.color_range, AVCOL_RANGE_UNSPECIFIED);
    format.chroma = firstKnown(frame.chroma_location, codec.chroma_location, AVCHROMA_LOC_UNSPECIFIED);
    const auto source = static_cast<AVPixelFormat>(frame.format);
    if (isRGB(source) && !isRGB(format.pixels)) {
        format.space = assumedMatrix(frame.width, frame.height);
        format.range = AVCOL_RANGE_MPEG;
        format.chroma = AVCHROMA_LOC_UNSPECIFIED;
    } else if (!isRGB(source) && isRGB(format.pixels)) {
        format.space = AVCOL_SPC_RGB;
        format.range = AVCOL_RANGE_JPEG;
    }
    if (format.pixels == AV_PIX_FMT_YUVJ420P || format.pixels == AV_PIX_FMT_YUVJ422P ||
        format.pixels == AV_PIX_FMT_YUVJ444P) {
        format.range = AVCOL_RANGE_JPEG;
    }
    format.toneMapped = isHDR(format.transfer) && depth(format.pixels) <= 8;
    if (format.toneMapped) {
        format.peakLuminance = HDRMetadata(request.stream, frame).peakLuminance();
        format.primaries = AVCOL_PRI_BT709;
        format.transfer = AVCOL_TRC_BT709;
        format.space = AVCOL_SPC_BT709;
        format.range = AVCOL_RANGE_MPEG;
    }
}

/// Video stays interlaced if the codec stays the same, and for production codecs. Otherwise it is deinterlaced, because
/// players of the new codec expect progressive video.
void chooseInterlacing(VideoFormat& format, const VideoFormatRequest& request) {
    const char* name = request.codec.encoders.front();
    const bool staysSame = request.stream.codecpar->codec_id == request.codec.id;
    const bool production = request.codec.id == AV_CODEC_ID_PRORES;
    const bool resized = format.height != request.frame.height || format.quarterTurns != 0;
    format.interlaced = request.frame.interlaced_frame && (staysSame || production) && !resized && !format.toneMapped &&
                        encoderNamed(name).keepsInterlacing;
    format.topFieldFirst = request.frame.top_field_first != 0;
}

}  // namespace

bool displayedSideways(const AVStream& stream) {
    const std::int32_t* matrix = displayMatrix(stream);
    return matrix && clockwiseQuarterTurns(matrix) % 2 == 1;
}

void rotateUpright(VideoFormat& format, const AVStream& stream) {
    const std::int32_t* matrix = displayMatrix(stream);
    format.quarterTurns = matrix ? clockwiseQuarterTurns(matrix) : 0;
    format.mirrored = matrix && mirrors(matrix);
}

VideoFormat adapted(VideoFormat format, const AVStream& stream, const AVFrame& frame) {
    rotateUpright(format, stream);
    format.toneMapped = isHDR(frame.color_trc) && !isHDR(format.transfer);
    if (format.toneMapped) {
        format.peakLuminance = HDRMetadata(stream, frame).peakLuminance();
    }
    return format;
}

FrameLayout layoutOf(const VideoFormat& format, const VideoFormatRequest& request) {
    const bool turned = format.quarterTurns % 2 != 0;
    FrameLayout layout;
    layout.width = format.width;
    layout.height = format.height;
    layout.sourceWidth = turned ? request.frame.height : request.frame.width;
    layout.sourceHeight = turned ? request.frame.width : request.frame.height;
    layout.pixelShape = format.sampleAspect;
    if (request.container.displayMatrix) {
        VideoFormat shown;
        rotateUpright(shown, request.stream);
        layout.quarterTurns = shown.quarterTurns;
        layout.mirrored = shown.mirrored;
    }
    layout.pixels = format.pixels;
    layout.space =
        format.space != AVCOL_SPC_UNSPECIFIED ? format.space : assumedMatrix(request.frame.width, request.frame.height);
    layout.range = format.range;
    layout.transfer = format.transfer;
    return layout;
}

void describe(const VideoFormat& format, AVCodecContext& encoder) {
    encoder.width = format.width;
    encoder.height = format.height;
    encoder.pix_fmt = encoder.codec_id == AV_CODEC_ID_GIF ? AV_PIX_FMT_PAL8 : format.pixels;
    encoder.sample_aspect_ratio = format.sampleAspect;
    encoder.color_range = format.range;
    encoder.color_primaries = format.primaries;
    encoder.color_trc = format.transfer;
    encoder.colorspace = format.space;
    encoder.chroma_sample_location = format.chroma;
    encoder.field_order = AV_FIELD_PROGRESSIVE;
    if (format.interlaced) {
        encoder.flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
        encoder.field_order = format.topFieldFirst ? AV_FIELD_TT : AV_FIELD_BB;
    }
}

VideoFormat chooseVideoFormat(const VideoFormatRequest& request) {
    VideoFormat format;
    format.pixels = choosePixels(request);
    const std::int32_t* matrix = displayMatrix(request.stream);
    chooseSize(format, request, matrix && clockwiseQuarterTurns(matrix) % 2 == 1);
    if (matrix && !request.container.displayMatrix) {
        rotateUpright(format, request.stream);
        if (format.quarterTurns % 2 == 1) {
            std::swap(format.width, format.height);
            if (format.sampleAspect.num > 0) {
                std::swap(format.sampleAspect.num, format.sampleAspect.den);
            }
        }
    }
    chooseColour(format, request);
    chooseInterlacing(format, request);
    return format;
}

}  // namespace krv::media

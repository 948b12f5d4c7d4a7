#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include <MediaServer/Media/Video/VideoFilter.h>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

/// Shapes that differ by less than this are the same; rounding to even sides changes them as much.
constexpr double kSameShape = 0.02;

const char* rangeName(AVColorRange range) {
    return range == AVCOL_RANGE_JPEG ? "pc" : "tv";
}

AVColorSpace matrixOf(AVColorSpace said, int width, int height) {
    return said != AVCOL_SPC_UNSPECIFIED ? said : assumedMatrix(width, height);
}

AVColorSpace matrixOf(const AVFrame& frame) {
    return matrixOf(frame.colorspace, frame.width, frame.height);
}

const char* matrixName(AVColorSpace space) {
    switch (space) {
    case AVCOL_SPC_BT709:
        return "bt709";
    case AVCOL_SPC_FCC:
        return "fcc";
    case AVCOL_SPC_SMPTE240M:
        return "smpte240m";
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
        return "bt2020";
    default:
        return "bt601";
    }
}

/// Reference white of an HDR movie, in candela per square metre. Tone-mapping makes it the white of an SDR movie.
constexpr double kReferenceWhite = 203;

/// Up to this part of white, tone-mapping changes nothing. Only what is brighter is compressed, so that faces and
/// scenery look as in the SDR version of a movie. A curve that bends the whole range darkens the movie.
constexpr double kUntouched = 0.8;

/// Returns the filters that tone-map HDR to SDR: via linear light to the smaller gamut, with compressed highlights.
std::string toneMapping(const AVFrame& frame, const VideoFormat& target) {
    const bool unknownPrimaries = frame.color_primaries == AVCOL_PRI_UNSPECIFIED;
    const bool unknownSpace = frame.colorspace == AVCOL_SPC_UNSPECIFIED;
    std::string input;
    if (unknownPrimaries) {
        input += ":pin=bt2020";
    }
    if (unknownSpace) {
        input += ":min=bt2020nc";
    }
    if (frame.color_range == AVCOL_RANGE_UNSPECIFIED) {
        input += ":rin=tv";
    }
    if (frame.color_trc == AVCOL_TRC_UNSPECIFIED) {
        input += ":tin=smpte2084";
    }
    return fmt::format("zscale=w={}:h={}:t=linear:npl={}{},format=gbrpf32le,zscale=p=bt709,"
                       "tonemap=tonemap=mobius:param={}:desat=0:peak={:.3f},zscale=t=bt709:m=bt709:r=tv",
                       target.width, target.height, kReferenceWhite, input, kUntouched,
                       std::max(target.peakLuminance / kReferenceWhite, 1.01));
}

/// Returns the filters that convert SDR, or the other kind of HDR, to the HDR of the target.
std::string conversionToHDR(const AVFrame& frame, const VideoFormat& target) {
    std::string input;
    if (frame.color_primaries == AVCOL_PRI_UNSPECIFIED) {
        input += ":pin=bt709";
    }
    if (frame.colorspace == AVCOL_SPC_UNSPECIFIED) {
        input += ":min=bt709";
    }
    if (frame.color_trc == AVCOL_TRC_UNSPECIFIED) {
        input += ":tin=bt709";
    }
    if (frame.color_range == AVCOL_RANGE_UNSPECIFIED) {
        input += ":rin=tv";
    }
    // White in SDR becomes the reference white of HDR.
    return fmt::format("zscale=w={}:h={}:t={}:p=bt2020:m=bt2020nc:r=tv:npl={}{}", target.width, target.height,
                       target.transfer == AVCOL_TRC_ARIB_STD_B67 ? "arib-std-b67" : "smpte2084", kReferenceWhite,
                       input);
}

double pixelShape(AVRational aspect) {
    return aspect.num > 0 && aspect.den > 0 ? av_q2d(aspect) : 1;
}

/// Returns the scaler options for the colour matrices of the frame and of the target.
std::string matrices(const AVFrame& frame, const VideoFormat& target) {
    const AVPixFmtDescriptor* source = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    const AVPixFmtDescriptor* wanted = av_pix_fmt_desc_get(target.pixels);
    std::string options;
    if (!source || !(source->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL))) {
        options +=
            fmt::format(":in_range={}:in_color_matrix={}", rangeName(frame.color_range), matrixName(matrixOf(frame)));
    }
    if (!wanted || !(wanted->flags & AV_PIX_FMT_FLAG_RGB)) {
        options += fmt::format(":out_color_matrix={}", matrixName(matrixOf(target.space, target.width, target.height)));
    }
    return options;
}

/// Returns the name that the filter "colorspace" has for a colour matrix.
std::string_view matrixOfFilter(AVColorSpace space) {
    const std::string_view name = matrixName(space);
    return name == "bt601" ? "smpte170m" : name == "bt2020" ? "bt2020ncl" : name;
}

/// Returns whether the filter "colorspace" can convert one pixel format of YUV to another: 8 bits per component on both
/// sides, and the same subsampling, by which the sides must be divisible.
bool sharesSamples(const AVPixFmtDescriptor& from, const AVPixFmtDescriptor& to, int width, int height) {
    const auto isPlain = [](const AVPixFmtDescriptor& format) {
        return format.nb_components == 3 && format.comp[0].depth == 8 && format.comp[1].step == 1 &&
               (format.flags & ~static_cast<std::uint64_t>(AV_PIX_FMT_FLAG_PLANAR)) == 0;
    };
    return isPlain(from) && isPlain(to) && from.log2_chroma_w == to.log2_chroma_w &&
           from.log2_chroma_h == to.log2_chroma_h && to.log2_chroma_w <= 1 && to.log2_chroma_h <= to.log2_chroma_w &&
           width % (1 << to.log2_chroma_w) == 0 && height % (1 << to.log2_chroma_h) == 0;
}

/// Returns the range of a frame. The names of some pixel formats contain it.
AVColorRange rangeOf(const AVFrame& frame) {
    const bool named = frame.format == AV_PIX_FMT_YUVJ420P || frame.format == AV_PIX_FMT_YUVJ422P ||
                       frame.format == AV_PIX_FMT_YUVJ444P;
    return named ? AVCOL_RANGE_JPEG : frame.color_range;
}

/// Returns filters that do what conversion() says, or nothing if the formats need others.
std::optional<std::string> directConversion(const AVFrame& frame, const VideoFormat& target, int width, int height) {
    const AVPixFmtDescriptor* const from = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    const AVPixFmtDescriptor* const to = av_pix_fmt_desc_get(target.pixels);
    if (!from || !to || !sharesSamples(*from, *to, width, height)) {
        return std::nullopt;
    }
    const char* const range = rangeName(rangeOf(frame));
    std::string chain;
    if (frame.width != width || frame.height != height) {
        chain += fmt::format("scale=w={}:h={}:flags=bicubic+accurate_rnd:in_range={}:out_range={},", width, height,
                             range, range);
    }
    const std::string_view matrix = matrixOfFilter(matrixOf(frame));
    const std::string_view wanted = matrixOfFilter(matrixOf(target.space, target.width, target.height));
    // Otherwise there is nothing to convert. The filter fails then if the formats have different names.
    if (matrix != wanted || std::string_view(range) != rangeName(target.range)) {
        // Primaries and transfer stay what they are, so their names mean nothing.
        chain += fmt::format(
            "colorspace=ispace={}:irange={}:space={}:range={}:iprimaries=bt709:primaries=bt709:itrc=bt709:trc=bt709:"
            "format=yuv{},",
            matrix, range, wanted, rangeName(target.range),
            to->log2_chroma_h > 0   ? "420p"
            : to->log2_chroma_w > 0 ? "422p"
                                    : "444p");
    }
    // For a pixel format whose name contains the range.
    return chain + fmt::format("scale=in_range={0}:out_range={0}", rangeName(target.range));
}

/// Returns filters that scale a frame to this size and convert its colours to those of the target. The scaler can do both,
/// but it converts between matrices by way of RGB, which takes thirty times as long.
std::string conversion(const AVFrame& frame, const VideoFormat& target, int width, int height) {
    if (const auto direct = directConversion(frame, target, width, height)) {
        return *direct;
    }
    return fmt::format("scale=w={}:h={}:flags=bicubic+accurate_rnd:out_range={}{}", width, height,
                       rangeName(target.range), matrices(frame, target));
}

std::string rotation(const VideoFormat& target) {
    constexpr const char* kTurns[] = {"", "transpose=clock,", "hflip,vflip,", "transpose=cclock,"};
    const char* mirror = !target.mirrored ? "" : target.quarterTurns % 2 == 0 ? "vflip," : "hflip,";
    return std::string(kTurns[target.quarterTurns]) + mirror;
}

}  // namespace

VideoFilter::VideoFilter(const VideoFormat& target, AVRational timeBase, int threads)
    : target_(target)
    , timeBase_(timeBase)
    , threads_(threads) {}

void VideoFilter::push(FramePtr frame, const Sink& sink) {
    if (frame->interlaced_frame && !target_.interlaced && !deinterlaces_) {
        finish(sink);
        deinterlaces_ = true;  // for the rest of the movie: many recordings mix film and video
    }
    if (!graph_ || !sameFormat(*frame)) {
        finish(sink);
        build(*frame);
    }
    const int result = av_buffersrc_add_frame_flags(in_, frame.get(), 0);
    if (result < 0) {
        fail(FailureCause::InternalError, result, "filtering a frame");
    }
    drain(sink);
}

void VideoFilter::finish(const Sink& sink) {
    if (!graph_) {
        return;
    }
    const int result = av_buffersrc_add_frame_flags(in_, nullptr, 0);
    if (result < 0) {
        fail(FailureCause::InternalError, result, "filtering a frame");
    }
    drain(sink);
    graph_.reset();
}

void VideoFilter::drain(const Sink& sink) {
    for (;;) {
        FramePtr frame = newFrame();
        const int result = av_buffersink_get_frame(out_, frame.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        if (result < 0) {
            fail(FailureCause::InternalError, result, "filtering a frame");
        }
        const AVRational unit = av_buffersink_get_time_base(out_);
        if (frame->pts != AV_NOPTS_VALUE) {
            frame->pts = av_rescale_q(frame->pts, unit, timeBase_);
        }
        sink(std::move(frame));
    }
}

bool VideoFilter::sameFormat(const AVFrame& frame) const {
    return builtFor_->width == frame.width && builtFor_->height == frame.height && builtFor_->format == frame.format &&
           builtFor_->color_range == frame.color_range && builtFor_->colorspace == frame.colorspace &&
           builtFor_->color_primaries == frame.color_primaries && builtFor_->color_trc == frame.color_trc;
}

void VideoFilter::build(const AVFrame& frame) {
    builtFor_ = newFrame();
    builtFor_->width = frame.width;
    builtFor_->height = frame.height;
    builtFor_->format = frame.format;
    builtFor_->color_range = frame.color_range;
    builtFor_->colorspace = frame.colorspace;
    builtFor_->color_primaries = frame.color_primaries;
    builtFor_->color_trc = frame.color_trc;
    if (shape_ == 0) {
        shape_ = static_cast<double>(frame.width) / frame.height;
    }

    graph_.reset(notNull(avfilter_graph_alloc()));
    graph_->nb_threads = threads_;
    av_opt_set(graph_.get(), "scale_sws_opts", "flags=bicubic", 0);
    const std::string input =
        fmt::format("video_size={}x{}:pix_fmt={}:time_base={}/{}:pixel_aspect={}/{}", frame.width, frame.height,
                    frame.format, timeBase_.num, timeBase_.den, std::max(frame.sample_aspect_ratio.num, 0),
                    std::max(frame.sample_aspect_ratio.den, 1));
    int result =
        avfilter_graph_create_filter(&in_, avfilter_get_by_name("buffer"), "in", input.c_str(), nullptr, graph_.get());
    if (result >= 0) {
        result = avfilter_graph_create_filter(&out_, avfilter_get_by_name("buffersink"), "out", nullptr, nullptr,
                                              graph_.get());
    }
    AVFilterInOut* outputs = avfilter_inout_alloc();
    AVFilterInOut* inputs = avfilter_inout_alloc();
    if (result >= 0 && outputs && inputs) {
        *outputs = {av_strdup("in"), in_, 0, nullptr};
        *inputs = {av_strdup("out"), out_, 0, nullptr};
        result = avfilter_graph_parse_ptr(graph_.get(), chainFor(frame).c_str(), &inputs, &outputs, nullptr);
        if (result >= 0) {
            result = avfilter_graph_config(graph_.get(), nullptr);
        }
    }
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (result < 0) {
        fail(FailureCause::InternalError, result, "building the video filter");
    }
}

// Scales a frame to the largest size of its own shape that fits, and letterboxes it.
std::string VideoFilter::fittingChain(const AVFrame& frame, int width, int height) const {
    const bool sideways = target_.quarterTurns % 2 == 1;
    const double targetPixel = pixelShape(target_.sampleAspect);
    const double shape = pixelShape(frame.sample_aspect_ratio) * frame.width / frame.height;
    const double room = (sideways ? 1 / targetPixel : targetPixel) * width / height;
    int innerWidth = width, innerHeight = height;
    if (shape > room * (1 + kSameShape)) {
        innerHeight = std::max(2, static_cast<int>(std::lround(height * room / shape / 2)) * 2);
    } else if (shape < room * (1 - kSameShape)) {
        innerWidth = std::max(2, static_cast<int>(std::lround(width * shape / room / 2)) * 2);
    }

    VideoFormat inner = target_;
    inner.width = innerWidth;
    inner.height = innerHeight;
    std::string chain;
    if (target_.toneMapped && isHDR(frame.color_trc)) {
        chain = toneMapping(frame, inner);
    } else if (isHDR(target_.transfer) && frame.color_trc != target_.transfer) {
        chain = conversionToHDR(frame, inner);
    } else {
        chain = conversion(frame, target_, innerWidth, innerHeight);
    }
    // The bars are added in the pixel format of the target, so that they are black there.
    chain += fmt::format(",format=pix_fmts={},", av_get_pix_fmt_name(target_.pixels));
    if (innerWidth != width || innerHeight != height) {
        chain += fmt::format("pad=w={}:h={}:x=(ow-iw)/2:y=(oh-ih)/2,", width, height);
    }
    return chain;
}

std::string VideoFilter::chainFor(const AVFrame& frame) const {
    const bool sideways = target_.quarterTurns % 2 == 1;
    const int width = sideways ? target_.height : target_.width;
    const int height = sideways ? target_.width : target_.height;
    std::string chain;
    if (deinterlaces_) {
        chain += "bwdif=mode=send_frame:deint=interlaced,";
    }

    const double shape = static_cast<double>(frame.width) / frame.height;
    const bool sameShape = std::abs(shape - shape_) < kSameShape * shape_;
    const int cutX = frame.width - width, cutY = frame.height - height;
    const bool onlyOdd = cutX >= 0 && cutX <= 1 && cutY >= 0 && cutY <= 1;
    if (onlyOdd && cutX + cutY > 0) {
        chain += fmt::format("crop=w={}:h={}:x=0:y=0:exact=1,", width, height);
    }

    const AVPixFmtDescriptor* source = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    const bool fromRGB = source && (source->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL));
    if (target_.fitted) {
        chain += fittingChain(frame, width, height);
    } else if (target_.toneMapped && isHDR(frame.color_trc)) {
        VideoFormat upright = target_;
        upright.width = width;
        upright.height = height;
        chain += toneMapping(frame, upright) + ",";
        if (target_.convertsColours) {
            chain += fmt::format("format=pix_fmts=yuv444p16,scale=in_range=tv:out_range={}:in_color_matrix=bt709:"
                                 "out_color_matrix={},",
                                 rangeName(target_.range), matrixName(target_.space));
        }
    } else if (sameShape && target_.convertsColours) {
        chain += conversion(frame, target_, width, height) + ",";
    } else if (sameShape) {
        chain += fmt::format("scale=w={}:h={}:flags=bicubic+accurate_rnd:out_range={}", width, height,
                             rangeName(target_.range));
        if (!fromRGB) {
            chain += fmt::format(":in_range={}", rangeName(frame.color_range));
        } else {
            chain += fmt::format(":out_color_matrix={}", target_.space == AVCOL_SPC_BT709 ? "bt709" : "smpte170m");
        }
        chain += ",";
    } else {
        chain += fmt::format("scale=w={0}:h={1}:force_original_aspect_ratio=decrease:flags=bicubic,"
                             "pad=w={0}:h={1}:x=(ow-iw)/2:y=(oh-ih)/2,",
                             width, height);
    }
    chain += rotation(target_);
    chain += fmt::format("format=pix_fmts={},setsar=sar={}/{}", av_get_pix_fmt_name(target_.pixels),
                         target_.sampleAspect.num, target_.sampleAspect.den);
    return chain;
}

}  // namespace krv::media

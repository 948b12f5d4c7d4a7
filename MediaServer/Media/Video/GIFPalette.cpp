#include <algorithm>
#include <optional>
#include <string>

#include <fmt/format.h>

#include <MediaServer/Media/Video/GIFPalette.h>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Container/PartReader.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Video/VideoFilter.h>

namespace krv::media {
namespace {

/// The sides of a palette frame.
constexpr int kPaletteSide = 16;

/// Colours are counted in frames that are scaled down to this, which changes the palette little.
constexpr int kCountedSide = 320;

/// Up to this length, all frames are decoded twice.
constexpr std::int64_t kShort = std::int64_t{60} * AV_TIME_BASE;

void check(int result, const char* attempt) {
    if (result < 0) {
        fail(FailureCause::InternalError, result, attempt);
    }
}

AVFilterContext* addFilter(AVFilterGraph& graph, const char* filter, const char* name, const std::string& options) {
    AVFilterContext* context = nullptr;
    check(avfilter_graph_create_filter(&context, avfilter_get_by_name(filter), name, options.c_str(), nullptr, &graph),
          "building the palette filter");
    return context;
}

AVFilterContext* addInput(AVFilterGraph& graph, const char* name, int width, int height, AVRational timeBase) {
    return addFilter(graph, "buffer", name,
                     fmt::format("video_size={}x{}:pix_fmt={}:time_base={}/{}:pixel_aspect=1/1", width, height,
                                 static_cast<int>(AV_PIX_FMT_RGB32), timeBase.num, timeBase.den));
}

void connect(AVFilterContext* from, AVFilterContext* to, unsigned input = 0) {
    check(avfilter_link(from, 0, to, input), "building the palette filter");
}

void addFrame(AVFilterContext* input, AVFrame* frame) {
    check(av_buffersrc_add_frame_flags(input, frame, 0), "filtering a frame");
}

VideoFormat scaledDown(VideoFormat format) {
    const int longer = std::max(format.width, format.height);
    if (longer > kCountedSide) {
        format.width = std::max(1, format.width * kCountedSide / longer);
        format.height = std::max(1, format.height * kCountedSide / longer);
    }
    return format;
}

}  // namespace

PaletteChooser::PaletteChooser(const Settings& settings, const Container& container)
    : settings_(settings)
    , container_(container) {}

VideoFormatRequest PaletteChooser::requestFor(const AVStream& stream, const AVFrame& first) const {
    return {stream, first, codecForFourCC(fourCC("gif "), AVMEDIA_TYPE_VIDEO), settings_, container_};
}

void PaletteChooser::begin(const AVStream& stream, const AVFrame& first) {
    format_ = scaledDown(chooseVideoFormat(requestFor(stream, first)));
    graph_.reset(notNull(avfilter_graph_alloc()));
    in_ = addInput(*graph_, "in", format_.width, format_.height, kMicroseconds);
    AVFilterContext* const choose = addFilter(*graph_, "palettegen", "choose", "stats_mode=full");
    out_ = addFilter(*graph_, "buffersink", "out", "");
    connect(in_, choose);
    connect(choose, out_);
    check(avfilter_graph_config(graph_.get(), nullptr), "building the palette filter");
}

void PaletteChooser::read(Source& source, std::size_t index, const BurnIn::Maker& burnIn) {
    const AVStream& stream = source.stream(index);
    std::optional<VideoFilter> filter;
    std::unique_ptr<BurnIn> subtitles;
    const auto count = [&](FramePtr frame) {
        if (subtitles && frame->pts != AV_NOPTS_VALUE) {
            subtitles->draw(*frame, av_rescale_q(frame->pts, stream.time_base, kMicroseconds));
        }
        add(std::move(frame));
    };
    const auto take = [&](FramePtr frame) {
        if (!graph_) {
            begin(stream, *frame);
        }
        if (!filter) {
            if (burnIn) {
                subtitles = burnIn(layoutOf(format_, requestFor(stream, *frame)));
            }
            filter.emplace(adapted(format_, stream, *frame), stream.time_base);
        }
        filter->push(std::move(frame), count);
    };
    Decoder decoder(stream);
    if (source.duration() == 0 || source.duration() > kShort) {
        decoder.context().skip_frame = AVDISCARD_NONKEY;
    }
    PartReader reader(source, {index});
    const PacketPtr packet = newPacket();
    while (reader.read(*packet)) {
        decoder.push(*packet, take);
    }
    decoder.finish(take);
    if (filter) {
        filter->finish(count);
    }
}

void PaletteChooser::add(FramePtr frame) {
    frame->pts = count_++;
    addFrame(in_, frame.get());
}

FramePtr PaletteChooser::palette() {
    FramePtr palette = newFrame();
    if (count_ > 0) {
        addFrame(in_, nullptr);
    }
    if (count_ == 0 || av_buffersink_get_frame(out_, palette.get()) < 0) {
        fail(FailureCause::Damaged, AVERROR_INVALIDDATA, "decoding video");
    }
    return palette;
}

PaletteMapper::PaletteMapper(const AVFrame& palette, const VideoFormat& format, AVRational timeBase)
    : graph_(notNull(avfilter_graph_alloc())) {
    graph_->nb_threads = coreCount();
    in_ = addInput(*graph_, "in", format.width, format.height, timeBase);
    AVFilterContext* const colours = addInput(*graph_, "colours", kPaletteSide, kPaletteSide, timeBase);
    // Only the part of a frame that changes is dithered again, so that the rest is still and takes no bytes.
    AVFilterContext* const map = addFilter(*graph_, "paletteuse", "map", "dither=sierra2_4a:diff_mode=rectangle");
    out_ = addFilter(*graph_, "buffersink", "out", "");
    connect(in_, map);
    connect(colours, map, 1);
    connect(map, out_);
    check(avfilter_graph_config(graph_.get(), nullptr), "building the palette filter");
    const FramePtr only = reference(palette);
    only->pts = 0;
    addFrame(colours, only.get());
    addFrame(colours, nullptr);
}

void PaletteMapper::push(FramePtr frame, const Sink& sink) {
    addFrame(in_, frame.get());
    drain(sink);
}

void PaletteMapper::finish(const Sink& sink) {
    addFrame(in_, nullptr);
    drain(sink);
}

void PaletteMapper::drain(const Sink& sink) {
    for (;;) {
        FramePtr frame = newFrame();
        const int result = av_buffersink_get_frame(out_, frame.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
            return;
        }
        check(result, "filtering a frame");
        sink(std::move(frame));
    }
}

}  // namespace krv::media

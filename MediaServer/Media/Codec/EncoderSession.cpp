#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include <MediaServer/Media/Codec/EncoderSession.h>

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncodeFrame.h>
#include <MediaServer/Media/Codec/EncoderThread.h>
#include <MediaServer/Media/Codec/HDRMetadata.h>
#include <MediaServer/Media/Codec/SegmentedEncoder.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

using Kind = QualityScale::Kind;

/// An upper limit for the time between decoding and showing a frame.
constexpr std::chrono::seconds kLongestReordering = std::chrono::hours(1);

/// Silences encoders that bypass FFmpeg's log and print to standard error.
void silence(AVCodecContext& context, const std::string& encoder) {
    if (encoder == "libx265") {
        addToListOption(context.priv_data, "x265-params", "log-level", "none");
    }
    if (encoder == "libsvtav1") {
        setenv("SVT_LOG", "0", 0);
    }
}

/// Chooses the encoder's number of threads. x264 and x265 choose it themselves: more than there are cores, because their
/// threads wait for one another.
///
/// For two cores, x264 takes three, and while they wait, a core is idle: for 8 % of the time when 15 s of 1080p are
/// converted. With four it is 5 %. A shorter queue in front of the thread that looks ahead saves as many frames as the
/// fourth thread needs.
void chooseThreads(AVCodecContext& context, std::string_view encoder) {
    context.thread_count = encoder.starts_with("libx26") ? 0 : coreCount();
    if (encoder == "libx264" && coreCount() == 2) {
        context.thread_count = 4;
        addToListOption(context.priv_data, "x264-params", "sync-lookahead", "1");
    }
}

void applyTableOptions(AVCodecContext& context, const char* options) {
    AVDict dict;
    av_dict_parse_string(dict.address(), options, "=", ":", 0);
    const int result = av_opt_set_dict2(&context, dict.address(), AV_OPT_SEARCH_CHILDREN);
    if (result < 0 || av_dict_count(dict.get()) != 0) {
        fail(FailureCause::InternalError, result, fmt::format("setting the encoder options {}", options));
    }
}

void applyQuality(AVCodecContext& context, const QualityScale& scale, float quality) {
    const double value = scaledQuality(scale, static_cast<double>(quality));
    switch (scale.kind) {
    case Kind::Lossless:
        return;
    case Kind::Option:
        if (av_opt_set_double(context.priv_data, scale.option, std::round(value * 10) / 10, 0) < 0) {
            av_opt_set_int(context.priv_data, scale.option, std::lround(value), 0);
        }
        return;
    case Kind::Quantiser:
        if (value > 0) {
            context.flags |= AV_CODEC_FLAG_QSCALE;
            context.global_quality = static_cast<int>(std::lround(value * FF_QP2LAMBDA));
        }
        return;
    case Kind::BitsPerChannel:
        context.bit_rate = std::llround(value) * context.ch_layout.nb_channels;
        return;
    }
}

/// Returns whether the request's options already choose a rate control mode.
bool choosesRateControl(const Settings& settings) {
    constexpr std::array<std::string_view, 6> keys{"b", "crf", "qp", "global_quality", "qscale", "rc"};
    return std::any_of(settings.options.begin(), settings.options.end(), [&](const auto& option) {
        return std::find(keys.begin(), keys.end(), option.first) != keys.end();
    });
}

void applyBitRate(AVCodecContext& context, const Encoder& encoder, const Codec& codec, std::int64_t bitRate) {
    if (!encoder.hasBitRate) {
        throw Failure({.cause = FailureCause::SettingDoesNotApply, .subject = "bitrate", .detail = codec.displayName});
    }
    context.bit_rate = bitRate;
    if (context.codec_type == AVMEDIA_TYPE_VIDEO) {
        context.bit_rate_tolerance = static_cast<int>(std::min<std::int64_t>(bitRate, 1'000'000'000));
    }
}

/// Sets an option of the request: a private one of the encoder, or one of FFmpeg's generic encoding options for its
/// media type.
void applyOption(AVCodecContext& context, const std::string& key, const std::string& value) {
    const int kind = context.codec_type == AVMEDIA_TYPE_VIDEO ? AV_OPT_FLAG_VIDEO_PARAM : AV_OPT_FLAG_AUDIO_PARAM;
    void* target = nullptr;
    if (context.codec->priv_class && av_opt_find(context.priv_data, key.c_str(), nullptr, 0, 0)) {
        target = context.priv_data;
    } else if (const AVOption* option = av_opt_find(&context, key.c_str(), nullptr, AV_OPT_FLAG_ENCODING_PARAM, 0);
               option && (option->flags & kind)) {
        target = &context;
    }
    if (!target) {
        throw Failure({.cause = FailureCause::SettingDoesNotApply, .subject = key, .detail = context.codec->name});
    }
    // Options that are lists already contain entries of ours, so the request's entry is added.
    const AVOption* option = av_opt_find(target, key.c_str(), nullptr, 0, 0);
    int result = 0;
    if (const auto equals = value.find('='); option->type == AV_OPT_TYPE_DICT && equals != std::string::npos) {
        result = addToListOption(target, key.c_str(), value.substr(0, equals).c_str(), value.c_str() + equals + 1);
    } else {
        result = av_opt_set(target, key.c_str(), value.c_str(), 0);
    }
    if (result < 0) {
        throw Failure({.cause = FailureCause::SettingDoesNotApply,
                       .subject = fmt::format("{}={}", key, value),
                       .detail = context.codec->name});
    }
}

CodecContextPtr openEncoder(const char* name, const EncoderSession::Request& request, const OutputFile& output,
                            const EncoderSession::Prepare& prepare, int& result) {
    const Encoder& row = encoderNamed(name);
    const AVCodec* codec = avcodec_find_encoder_by_name(name);
    if (!codec) {
        result = AVERROR_ENCODER_NOT_FOUND;
        return nullptr;
    }
    CodecContextPtr context(notNull(avcodec_alloc_context3(codec)));
    if (output.wantsGlobalHeaders()) {
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    chooseThreads(*context, name);
    silence(*context, name);
    applyTableOptions(*context, row.options);
    applyTableOptions(*context, request.codec.options);
    if (output.container().times == Times::Counted) {
        context->max_b_frames = 0;
    }
    prepare(*context);
    if (request.settings.bitRate) {
        applyBitRate(*context, row, request.codec, *request.settings.bitRate);
    } else if (!choosesRateControl(request.settings)) {
        applyQuality(*context, row.quality, request.quality);
    }
    for (const auto& [key, value] : request.settings.options) {
        applyOption(*context, key, value);
    }
    result = avcodec_open2(context.get(), codec, nullptr);
    return result < 0 ? nullptr : std::move(context);
}

std::uint32_t muxerTag(std::uint32_t fourCC) {
    return MKTAG(fourCC >> 24 & 0xff, fourCC >> 16 & 0xff, fourCC >> 8 & 0xff, fourCC & 0xff);
}

/// Returns FFmpeg's encoder for PCM, which is one codec in requests but many in FFmpeg. Returns other names unchanged.
const char* exactName(const char* name, bool highResolution) {
    if (name && std::string_view(name) == "pcm") {
        return highResolution ? "pcm_s24le" : "pcm_s16le";
    }
    return name;
}

}  // namespace

EncoderSession::EncoderSession(const Request& request, OutputFile& output, const Prepare& prepare)
    : output_(output) {
    int result = 0;
    for (const char* name : request.codec.encoders) {
        if (name && !context_) {
            context_ = openEncoder(exactName(name, request.highResolution), request, output, prepare, result);
        }
    }
    if (!context_) {
        fail(FailureCause::EncoderRefuses, result, "opening the encoder", request.codec.displayName);
    }
    stream_ = &output.addStream();
    if (avcodec_parameters_from_context(stream_->codecpar, context_.get()) < 0) {
        throw std::bad_alloc();
    }
    stream_->time_base = context_->time_base;
    stream_->avg_frame_rate = context_->framerate;
    stream_->sample_aspect_ratio = context_->sample_aspect_ratio;
    if (output.container().indexInFront && request.codec.quickTimeTag != 0) {
        stream_->codecpar->codec_tag = muxerTag(request.codec.quickTimeTag);
    } else if (!output.container().indexInFront) {
        stream_->codecpar->codec_tag = 0;
    }
    if (request.inBackground) {
        background_ = makeBackground(request, prepare);
    }
}

std::unique_ptr<BackgroundEncoder> EncoderSession::makeBackground(const Request& request, const Prepare& prepare) {
    if (!SegmentedEncoder::suits(*context_)) {
        return std::make_unique<EncoderThread>(*context_);
    }
    const char* const name = context_->codec->name;
    auto openAnother = [this, name, prepare, request, settings = request.settings] {
        int result = 0;
        const Request another{request.codec, request.quality, settings, request.highResolution, true};
        CodecContextPtr context = openEncoder(name, another, output_, prepare, result);
        if (!context) {
            fail(FailureCause::EncoderRefuses, result, "opening the encoder", request.codec.displayName);
        }
        return context;
    };
    return std::make_unique<SegmentedEncoder>(*context_, std::move(openAnother));
}

void EncoderSession::encode(AVFrame& frame) {
    if (context_->codec_type == AVMEDIA_TYPE_VIDEO) {
        durations_[frame.pts] = frame.pkt_duration;
    }
    ++frames_;
    frame.quality = context_->global_quality;  // where some encoders read the fixed quantiser
    if (background_) {
        background_->push(reference(frame), [this](AVPacket& packet) { write(packet); });
    } else {
        send(&frame);
    }
}

double EncoderSession::done() const noexcept {
    return frames_ > 0 ? std::min(static_cast<double>(packets_) / static_cast<double>(frames_), 1.0) : 1;
}

void EncoderSession::finish() {
    if (background_) {
        background_->finish([this](AVPacket& packet) { write(packet); });
    } else {
        send(nullptr);
    }
}

void EncoderSession::send(const AVFrame* frame) {
    const int result = encodeFrame(*context_, frame, [this](AVPacket& packet) { write(packet); });
    if (result < 0) {
        fail(FailureCause::InternalError, result, "encoding");
    }
}

void EncoderSession::write(AVPacket& packet) {
    if (const auto known = durations_.find(packet.pts); known != durations_.end()) {
        packet.duration = known->second;
        durations_.erase(known);
    }
    makeTimesValid(packet);
    ++packets_;
    output_.write(*stream_, packet, context_->time_base);
}

// libx265 leaves decoding times uninitialised if a movie has fewer frames than its lookahead.
void EncoderSession::makeTimesValid(AVPacket& packet) {
    const std::int64_t earliest =
        packet.pts - av_rescale_q(kLongestReordering.count(), AVRational{1, 1}, context_->time_base);
    const std::int64_t next = lastDts_ ? *lastDts_ + 1 : packet.pts;
    if (packet.dts == AV_NOPTS_VALUE || packet.dts > packet.pts || packet.dts < earliest ||
        (lastDts_ && packet.dts < next)) {
        packet.dts = std::min(packet.pts, next);
    }
    if (lastDts_ && packet.dts < next) {
        packet.pts = packet.dts = next;
    }
    lastDts_ = packet.dts;
}

}  // namespace krv::media

#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <MediaServer/Media/Audio/AudioFormat.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

int chooseRate(const AVCodecContext& context, int source, const Settings& settings, const Codec& codec) {
    const int wanted = settings.sampleRate.value_or(source);
    const int* rates = context.codec->supported_samplerates;
    if (!rates) {
        return wanted;
    }
    int above = 0, highest = 0;
    for (; *rates != 0; ++rates) {
        if (*rates == wanted) {
            return wanted;
        }
        if (*rates > wanted && (above == 0 || *rates < above)) {
            above = *rates;
        }
        highest = std::max(highest, *rates);
    }
    if (settings.sampleRate) {
        throw Failure({.cause = FailureCause::SettingDoesNotApply,
                       .subject = fmt::format("sampleRate={}", wanted),
                       .detail = codec.displayName});
    }
    return above != 0 ? above : highest;
}

/// Returns the layouts that the codec table or FFmpeg's encoder lists. Empty if neither has a list.
std::vector<AVChannelLayout> knownLayouts(const AVCodec& encoder, const Codec& codec) {
    std::vector<AVChannelLayout> layouts;  // standard layouts, which own no memory
    for (const std::uint64_t mask : codec.layouts) {
        av_channel_layout_from_mask(&layouts.emplace_back(), mask);
    }
    for (const auto* one = encoder.ch_layouts; one && one->nb_channels > 0 && codec.layouts.empty(); ++one) {
        layouts.push_back(*one);
    }
    return layouts;
}

/// Chooses the wanted channels if possible, else a layout of the same number of channels, else the largest layout with
/// fewer channels.
void chooseLayout(AVCodecContext& context, const AVChannelLayout& source, const Settings& settings,
                  const Codec& codec) {
    ChannelLayout wanted;
    if (settings.channels && *settings.channels != source.nb_channels) {
        wanted.assignDefault(*settings.channels);
    } else if (source.order == AV_CHANNEL_ORDER_UNSPEC) {
        wanted.assignDefault(source.nb_channels);
    } else {
        wanted.assign(source);
    }

    const auto layouts = knownLayouts(*context.codec, codec);
    const AVChannelLayout* best = layouts.empty() ? &wanted.get() : nullptr;
    for (const AVChannelLayout& one : layouts) {
        const bool same = av_channel_layout_compare(&one, &wanted.get()) == 0;
        if (one.nb_channels <= wanted.get().nb_channels && (!best || one.nb_channels > best->nb_channels || same)) {
            best = &one;
        }
        if (same) {
            break;
        }
    }
    if (settings.channels && best && best->nb_channels != *settings.channels) {
        best = codec.id == AV_CODEC_ID_AAC ? &wanted.get() : nullptr;
    }
    if (!best || best->order == AV_CHANNEL_ORDER_UNSPEC) {
        throw Failure({.cause = FailureCause::UnsupportedChannels,
                       .subject = std::to_string(wanted.get().nb_channels),
                       .detail = codec.displayName});
    }
    if (av_channel_layout_copy(&context.ch_layout, best) < 0) {
        throw std::bad_alloc();
    }
}

AVSampleFormat chooseSamples(const AVCodecContext& context, bool highResolution) {
    constexpr std::array kLossy{AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S16};
    constexpr std::array kFine{AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_FLTP};
    constexpr std::array kCoarse{AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_S32P};
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(context.codec_id);
    const bool lossless = descriptor && (descriptor->props & AV_CODEC_PROP_LOSSLESS) != 0;
    const std::span<const AVSampleFormat> order = !lossless ? kLossy : highResolution ? kFine : kCoarse;
    for (const AVSampleFormat wanted : order) {
        for (const auto* one = context.codec->sample_fmts; one && *one != AV_SAMPLE_FMT_NONE; ++one) {
            if (*one == wanted) {
                return wanted;
            }
        }
    }
    return context.codec->sample_fmts ? context.codec->sample_fmts[0] : AV_SAMPLE_FMT_S16;
}

}  // namespace

void ChannelLayout::assign(const AVChannelLayout& other) {
    if (av_channel_layout_copy(&layout_, &other) < 0) {
        throw std::bad_alloc();
    }
}

void ChannelLayout::assignDefault(int channels) {
    av_channel_layout_uninit(&layout_);
    av_channel_layout_default(&layout_, channels);
}

bool hasHighResolution(const AVStream& stream) {
    const AVCodecParameters& codec = *stream.codecpar;
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(codec.codec_id);
    if (!descriptor || !(descriptor->props & AV_CODEC_PROP_LOSSLESS)) {
        return false;  // 16 bits hold everything that a lossy codec keeps
    }
    const int exact = av_get_exact_bits_per_sample(codec.codec_id);
    return std::max(codec.bits_per_raw_sample, exact) > 16;
}

int channelsKept(const AVStream& from, const Codec& codec) {
    const int channels = from.codecpar->ch_layout.nb_channels;
    const AVCodec* const encoder = avcodec_find_encoder_by_name(codec.encoders[0]);
    if (!encoder) {
        return channels;  // PCM, which has many encoders
    }
    const auto layouts = knownLayouts(*encoder, codec);
    int kept = layouts.empty() ? channels : 0;
    for (const AVChannelLayout& one : layouts) {
        if (one.nb_channels <= channels) {
            kept = std::max(kept, one.nb_channels);
        }
    }
    return kept;
}

void chooseAudioFormat(AVCodecContext& context, const AVStream& from, const Settings& settings, const Codec& codec) {
    const AVCodecParameters& source = *from.codecpar;
    context.sample_rate = chooseRate(context, source.sample_rate, settings, codec);
    chooseLayout(context, source.ch_layout, settings, codec);
    context.sample_fmt = chooseSamples(context, hasHighResolution(from));
    if (context.sample_fmt == AV_SAMPLE_FMT_S32 || context.sample_fmt == AV_SAMPLE_FMT_S32P) {
        context.bits_per_raw_sample = 24;
    }
    context.time_base = {1, context.sample_rate};
}

}  // namespace krv::media

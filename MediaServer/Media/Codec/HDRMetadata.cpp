#include <cmath>
#include <cstring>
#include <string_view>

#include <fmt/format.h>

#include <MediaServer/Media/Codec/HDRMetadata.h>

extern "C" {
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/opt.h>
}

namespace krv::media {
namespace {

constexpr double kUsualPeak = 1000;

long scaled(AVRational value, int unit) {
    return std::lround(av_q2d(value) * unit);
}

}  // namespace

HDRMetadata::SideData HDRMetadata::find(const AVStream& stream, const AVFrame& frame, AVPacketSideDataType inStream,
                                        AVFrameSideDataType inFrame) {
    SideData found;
    found.data = av_stream_get_side_data(&stream, inStream, &found.size);
    if (found.data) {
        return found;
    }
    const AVFrameSideData* const side = av_frame_get_side_data(&frame, inFrame);
    return side ? SideData{side->data, side->size} : SideData{};
}

void HDRMetadata::store(AVStream& stream, AVPacketSideDataType type, const SideData& side) {
    if (side.data) {
        std::memcpy(notNull(av_stream_new_side_data(&stream, type, side.size)), side.data, side.size);
    }
}

HDRMetadata::HDRMetadata(const AVStream& stream, const AVFrame& frame)
    : mastering_(find(stream, frame, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA))
    , light_(find(stream, frame, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL)) {}

double HDRMetadata::peakLuminance() const {
    const auto* light = static_cast<const AVContentLightMetadata*>(light_.data);
    if (light && light->MaxCLL > 0) {
        return light->MaxCLL;
    }
    const auto* mastering = static_cast<const AVMasteringDisplayMetadata*>(mastering_.data);
    if (mastering && mastering->has_luminance && mastering->max_luminance.num > 0 && mastering->max_luminance.den > 0) {
        return av_q2d(mastering->max_luminance);
    }
    return kUsualPeak;
}

void HDRMetadata::describeTo(AVCodecContext& encoder) const {
    if (std::string_view(encoder.codec->name) != "libx265") {
        return;
    }
    const auto add = [&](const char* key, const std::string& value) {
        addToListOption(encoder.priv_data, "x265-params", key, value.c_str());
    };
    if (mastering_.data) {
        const auto& m = *static_cast<const AVMasteringDisplayMetadata*>(mastering_.data);
        constexpr int kPoint = 50000;      // units of the coded message: 0.00002 of a coordinate
        constexpr int kLuminance = 10000;  // and 0.0001 cd/m²
        const auto& p = m.display_primaries;
        if (m.has_primaries && m.has_luminance) {
            add("master-display",
                fmt::format("G({},{})B({},{})R({},{})WP({},{})L({},{})", scaled(p[1][0], kPoint),
                            scaled(p[1][1], kPoint), scaled(p[2][0], kPoint), scaled(p[2][1], kPoint),
                            scaled(p[0][0], kPoint), scaled(p[0][1], kPoint), scaled(m.white_point[0], kPoint),
                            scaled(m.white_point[1], kPoint), scaled(m.max_luminance, kLuminance),
                            scaled(m.min_luminance, kLuminance)));
        }
    }
    if (light_.data) {
        const auto& level = *static_cast<const AVContentLightMetadata*>(light_.data);
        add("max-cll", fmt::format("{},{}", level.MaxCLL, level.MaxFALL));
    }
}

void HDRMetadata::describeTo(AVStream& stream) const {
    store(stream, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, mastering_);
    store(stream, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, light_);
}

int addToListOption(void* object, const char* option, const char* key, const char* value) {
    AVDict entries;
    int result = av_opt_get_dict_val(object, option, 0, entries.address());
    if (result < 0) {
        return result;
    }
    entries.set(key, value);
    return av_opt_set_dict_val(object, option, entries.get(), 0);
}

}  // namespace krv::media

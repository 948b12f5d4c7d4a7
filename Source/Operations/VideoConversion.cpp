#include <KRVQTProcessClient/Operations/VideoConversion.h>

namespace krv {

const std::array<VideoConversion::TypeInfo, 8>& VideoConversion::types() noexcept {
    static constexpr std::array<TypeInfo, 8> kTypes{{
        {Original, "Original", "every track copied where the container allows, else its default codec"},
        {H264, "H.264", "H.264 video and AAC audio"},
        {HEVC, "HEVC", "HEVC video (tagged hvc1) and AAC audio"},
        {Custom, "Custom", "as the video and audio settings say; the container's default without them"},
        {ProRes422, "ProRes 422", "ProRes video and PCM audio"},
        {VP9, "VP9", "VP9 video and Opus audio"},
        {AV1, "AV1", "AV1 video and Opus audio"},
        {AudioOnly, "Audio Only", "no video; AAC audio, or the container's codec"},
    }};
    return kTypes;
}

std::string_view VideoConversion::nameForType(std::int32_t type) noexcept {
    for (const TypeInfo& each : types()) {
        if (each.type == type) {
            return each.name;
        }
    }
    return "Unknown";
}

}  // namespace krv

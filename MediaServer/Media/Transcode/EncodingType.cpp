#include <algorithm>
#include <array>
#include <string>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Transcode/EncodingType.h>

namespace krv::media {
namespace {

using Codec = EncodingType::Codec;

// clang-format off
constexpr std::array<EncodingType, 8> kTypes{{
    {0, "Original",   Codec::Copy,     0,              Codec::Copy,      0},
    {1, "H.264",      Codec::Fixed,    fourCC("avc1"), Codec::Fixed,     fourCC("mp4a")},
    {2, "HEVC",       Codec::Fixed,    fourCC("hvc1"), Codec::Fixed,     fourCC("mp4a")},
    {3, "Custom",     Codec::Settings, 0,              Codec::Settings,  0},
    {4, "ProRes 422", Codec::Fixed,    fourCC("apcn"), Codec::Fixed,     fourCC("lpcm")},
    {5, "VP9",        Codec::Fixed,    fourCC("vp09"), Codec::Fixed,     fourCC("Opus")},
    {6, "AV1",        Codec::Fixed,    fourCC("av01"), Codec::Fixed,     fourCC("Opus")},
    {7, "Audio Only", Codec::None,     0,              Codec::Preferred, fourCC("mp4a")},
}};
// clang-format on

}  // namespace

std::span<const EncodingType> encodingTypes() noexcept {
    return kTypes;
}

const EncodingType& encodingTypeNumbered(std::int32_t number) {
    const auto found =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const EncodingType& t) { return t.number == number; });
    if (found == kTypes.end()) {
        throw Failure({.cause = FailureCause::UnsupportedEncodingType, .subject = std::to_string(number)});
    }
    return *found;
}

}  // namespace krv::media

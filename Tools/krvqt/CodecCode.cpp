#include "CodecCode.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {
namespace {

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

}  // namespace

std::optional<std::uint32_t> codecCode(std::string_view text) {
    constexpr std::size_t kLength = 4;
    if (text.empty() || text.size() > kLength) {
        return std::nullopt;
    }
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < kLength; ++i) {
        code = code << 8 | static_cast<unsigned char>(i < text.size() ? text[i] : ' ');
    }
    return code;
}

std::optional<std::int32_t> encodingType(std::string_view nameOrNumber) {
    std::int32_t number = 0;
    const char* const end = nameOrNumber.data() + nameOrNumber.size();
    if (const auto [rest, failure] = std::from_chars(nameOrNumber.data(), end, number);
        failure == std::errc() && rest == end) {
        return number;
    }
    for (const auto& type : krv::VideoConversion::types()) {
        if (lowerCase(type.name) == lowerCase(nameOrNumber)) {
            return type.type;
        }
    }
    return std::nullopt;
}

std::optional<TypeCodecs> codecsOfType(std::int32_t type) {
    const auto codecs = [](std::string_view video, std::string_view audio) {
        return TypeCodecs{codecCode(video).value_or(0), codecCode(audio).value_or(0)};
    };
    switch (type) {
    case krv::VideoConversion::H264:
        return codecs("avc1", "mp4a");
    case krv::VideoConversion::HEVC:
        return codecs("hvc1", "mp4a");
    case krv::VideoConversion::ProRes422:
        return codecs("apcn", "lpcm");
    case krv::VideoConversion::VP9:
        return codecs("vp09", "Opus");
    case krv::VideoConversion::AV1:
        return codecs("av01", "Opus");
    case krv::VideoConversion::Custom:
    case krv::VideoConversion::AudioOnly:
        return TypeCodecs{0, 0};
    default:
        return std::nullopt;
    }
}

bool holdsAudioOnly(std::string_view destination) {
    constexpr std::array<std::string_view, 6> kAudioOnly{".m4a", ".mka", ".wav", ".mp3", ".flac", ".ogg"};
    const std::string extension = lowerCase(std::filesystem::path(destination).extension().string());
    return std::find(kAudioOnly.begin(), kAudioOnly.end(), extension) != kAudioOnly.end();
}

std::int32_t defaultEncodingType(std::string_view destination) {
    const std::string extension = lowerCase(std::filesystem::path(destination).extension().string());
    if (extension == ".webm") {
        return krv::VideoConversion::VP9;
    }
    if (extension == ".avi" || extension == ".gif") {
        return krv::VideoConversion::Custom;  // the container's default codecs
    }
    return holdsAudioOnly(destination) ? krv::VideoConversion::AudioOnly : krv::VideoConversion::H264;
}

}  // namespace krvqt

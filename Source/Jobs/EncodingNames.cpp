#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <string>
#include <utility>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>

namespace krv {
namespace {

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

std::optional<std::uint32_t> fourCharacterCode(std::string_view text) {
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

using Alias = std::pair<std::string_view, std::string_view>;
constexpr std::array<Alias, 11> kCodecs{{{"h264", "avc1"},
                                         {"hevc", "hvc1"},
                                         {"h265", "hvc1"},
                                         {"av1", "av01"},
                                         {"vp9", "vp09"},
                                         {"prores", "apcn"},
                                         {"aac", "mp4a"},
                                         {"opus", "Opus"},
                                         {"flac", "fLaC"},
                                         {"mp3", ".mp3"},
                                         {"pcm", "lpcm"}}};

using TypeAlias = std::pair<std::string_view, VideoConversion::Type>;
constexpr std::array<TypeAlias, 5> kTypes{{{"h264", VideoConversion::H264},
                                           {"x264", VideoConversion::H264},
                                           {"h265", VideoConversion::HEVC},
                                           {"prores", VideoConversion::ProRes422},
                                           {"audio", VideoConversion::AudioOnly}}};

/// Returns what stands beside a name in a table, nothing if it is not there.
template <typename Table>
auto lookUp(const Table& table, std::string_view name) {
    const auto row = std::find_if(table.begin(), table.end(), [name](const auto& each) { return each.first == name; });
    return row == table.end() ? std::nullopt : std::optional(row->second);
}

}  // namespace

std::optional<std::uint32_t> codecFromName(std::string_view name) {
    return fourCharacterCode(lookUp(kCodecs, lowerCase(name)).value_or(name));
}

std::optional<VideoConversion::Type> encodingTypeFromName(std::string_view nameOrNumber) {
    const std::string wanted = lowerCase(nameOrNumber);
    int number = -1;
    const char* const end = wanted.data() + wanted.size();
    const auto [rest, failure] = std::from_chars(wanted.data(), end, number);
    const bool isNumber = failure == std::errc() && rest == end;
    for (const auto& type : VideoConversion::types()) {
        if (isNumber ? type.type == number : lowerCase(type.name) == wanted) {
            return type.type;
        }
    }
    return lookUp(kTypes, wanted);
}

std::optional<TypeCodecs> codecsOfType(VideoConversion::Type type) {
    const auto codecs = [](std::string_view video, std::string_view audio) {
        return TypeCodecs{fourCharacterCode(video).value_or(0), fourCharacterCode(audio).value_or(0)};
    };
    switch (type) {
    case VideoConversion::H264:
        return codecs("avc1", "mp4a");
    case VideoConversion::HEVC:
        return codecs("hvc1", "mp4a");
    case VideoConversion::ProRes422:
        return codecs("apcn", "lpcm");
    case VideoConversion::VP9:
        return codecs("vp09", "Opus");
    case VideoConversion::AV1:
        return codecs("av01", "Opus");
    case VideoConversion::Custom:
    case VideoConversion::AudioOnly:
        return TypeCodecs{0, 0};
    case VideoConversion::Original:
        break;
    }
    return std::nullopt;
}

bool holdsAudioOnly(std::string_view destination) {
    constexpr std::array<std::string_view, 6> kAudioOnly{".m4a", ".mka", ".wav", ".mp3", ".flac", ".ogg"};
    const std::string extension = lowerCase(std::filesystem::path(destination).extension().string());
    return std::find(kAudioOnly.begin(), kAudioOnly.end(), extension) != kAudioOnly.end();
}

VideoConversion::Type defaultEncodingType(std::string_view destination) {
    const std::string extension = lowerCase(std::filesystem::path(destination).extension().string());
    if (extension == ".webm") {
        return VideoConversion::VP9;
    }
    if (extension == ".avi" || extension == ".gif") {
        return VideoConversion::Custom;  // the container's default codecs
    }
    return holdsAudioOnly(destination) ? VideoConversion::AudioOnly : VideoConversion::H264;
}

}  // namespace krv

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

constexpr std::array<CodecName, 17> kCodecs{{{"avc1", "h264", "H.264", true},
                                             {"hvc1", "hevc", "HEVC", true},
                                             {"av01", "av1", "AV1", true},
                                             {"vp09", "vp9", "VP9", true},
                                             {"apcn", "prores", "ProRes 422", true},
                                             {"apch", "apch", "ProRes 422 HQ", true},
                                             {"ap4h", "ap4h", "ProRes 4444", true},
                                             {"jpeg", "mjpeg", "Motion JPEG", true},
                                             {"mp4v", "mpeg4", "MPEG-4", true},
                                             {"gif", "gif", "GIF", true},
                                             {"mp4a", "aac", "AAC", false},
                                             {"alac", "alac", "ALAC", false},
                                             {"lpcm", "pcm", "PCM", false},
                                             {"ac-3", "ac3", "AC-3", false},
                                             {"Opus", "opus", "Opus", false},
                                             {"fLaC", "flac", "FLAC", false},
                                             {".mp3", "mp3", "MP3", false}}};

constexpr std::array<ContainerName, 14> kContainers{{{"mov", "avc1", "mp4a"},
                                                     {"mp4", "avc1", "mp4a"},
                                                     {"m4v", "avc1", "mp4a"},
                                                     {"m4a", "", "mp4a"},
                                                     {"mkv", "avc1", "mp4a"},
                                                     {"webm", "vp09", "Opus"},
                                                     {"mka", "", "mp4a"},
                                                     {"wav", "", "lpcm"},
                                                     {"mp3", "", ".mp3"},
                                                     {"flac", "", "fLaC"},
                                                     {"ogg", "", "Opus"},
                                                     {"avi", "mp4v", ".mp3"},
                                                     {"ts", "avc1", "mp4a"},
                                                     {"gif", "gif", ""}}};

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

std::span<const CodecName> codecNames() noexcept {
    return kCodecs;
}

std::span<const ContainerName> containerNames() noexcept {
    return kContainers;
}

std::optional<std::uint32_t> codecFromName(std::string_view name) {
    const std::string wanted = lowerCase(name);
    const std::string_view common = wanted == "h265" ? "hevc" : std::string_view(wanted);
    const auto* const row =
        std::find_if(kCodecs.begin(), kCodecs.end(), [common](const CodecName& each) { return each.name == common; });
    return fourCharacterCode(row == kCodecs.end() ? name : row->code);
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

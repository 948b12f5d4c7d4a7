#pragma once

#include <array>
#include <filesystem>
#include <set>
#include <string>

#include <KRVQTProcessClient/Operations/VideoConversion.h>

/// An encoding type that the user can choose, and the extension of its files.
struct Choice {
    krv::VideoConversion::Type type;
    const char* extension;
};

inline constexpr std::array<Choice, 7> kChoices{{
    {krv::VideoConversion::H264, ".mp4"},
    {krv::VideoConversion::HEVC, ".mp4"},
    {krv::VideoConversion::ProRes422, ".mov"},
    {krv::VideoConversion::VP9, ".webm"},
    {krv::VideoConversion::AV1, ".webm"},
    {krv::VideoConversion::AudioOnly, ".m4a"},
    {krv::VideoConversion::Original, ".mkv"},  // which can hold the tracks of all the others
}};

/// Returns a path beside the source that no file has and that is not taken: "holiday.mp4", else "holiday 2.mp4" and so
/// on.
inline std::filesystem::path freeDestination(const std::filesystem::path& source, const char* extension,
                                             const std::set<std::filesystem::path>& taken) {
    std::filesystem::path path = source;
    path.replace_extension(extension);
    std::error_code ignored;
    for (int number = 2; taken.contains(path) || exists(symlink_status(path, ignored)); ++number) {
        path = source.parent_path() / (source.stem().string() + ' ' + std::to_string(number) + extension);
    }
    return path;
}

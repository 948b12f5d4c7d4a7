#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include <MediaServer/Media/Container/Boxes.h>
#include <MediaServer/Media/Container/QuickTimeTags.h>

namespace krv::media {
namespace {

constexpr const char* kCoverKey = "com.apple.quicktime.artwork";

/// Tags that FFmpeg's muxer writes in the classic list of mov, and those that it stores elsewhere.
constexpr std::array<std::string_view, 16> kClassicTags{
    "artist", "title", "author", "album",    "date",     "comment",       "genre",   "copyright",
    "make",   "model", "xmp",    "keywords", "location", "creation_time", "encoder", "timecode"};

/// The kinds of data in a tag.
constexpr std::uint32_t kJPEG = 13;
constexpr std::uint32_t kPNG = 14;

/// A text that no movie contains by chance, as long as the picture.
std::string placeholder(std::size_t size) {
    std::string text = "A cover of " + std::to_string(size) + " bytes follows: ";
    text.resize(size, '.');
    return text;
}

}  // namespace

bool needsKeyedTags(const Container& container, const AVDictionary* tags) {
    if (!container.edits) {
        return false;  // it is not of the mov family
    }
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(tags, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        const std::string_view key = entry->key;
        if (key.starts_with("com.apple.quicktime.")) {
            return true;
        }
        // In mp4, other programs expect the list of iTunes, which has the tags of music.
        if (container.extension == "mov" &&
            std::find(kClassicTags.begin(), kClassicTags.end(), key) == kClassicTags.end()) {
            return true;
        }
    }
    return false;
}

void reserveCover(AVDictionary** tags, const AVPacket& picture) {
    av_dict_set(tags, kCoverKey, placeholder(static_cast<std::size_t>(picture.size)).c_str(), 0);
}

bool fillCover(int file, const AVPacket& picture, bool isPNG) {
    struct stat status {};
    if (::fstat(file, &status) != 0) {
        return false;
    }
    const ReadAt readAt = [file](std::int64_t offset, std::span<std::byte> part) {
        return readAll(file, part, offset);
    };
    const auto box = findTopLevelBox("moov", readAt, 0, status.st_size);
    if (!box) {
        errno = EIO;
        return false;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(box->size));
    if (!readAt(box->offset, std::as_writable_bytes(std::span(bytes)))) {
        return false;
    }
    const std::string text = placeholder(static_cast<std::size_t>(picture.size));
    const auto found = std::search(bytes.begin(), bytes.end(), text.begin(), text.end());
    constexpr std::int64_t kHeader = 8;  // the kind of data and its language, 4 bytes each
    if (found == bytes.end() || found - bytes.begin() < kHeader) {
        errno = EIO;
        return false;
    }
    const auto place = std::span(bytes).subspan(static_cast<std::size_t>(found - bytes.begin() - kHeader),
                                                static_cast<std::size_t>(kHeader + picture.size));
    place[3] = static_cast<std::uint8_t>(isPNG ? kPNG : kJPEG);
    std::copy_n(picture.data, picture.size, place.begin() + kHeader);
    return writeAll(file, std::as_bytes(place), box->offset + (found - bytes.begin()) - kHeader);
}

}  // namespace krv::media

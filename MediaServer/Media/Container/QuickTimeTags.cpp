#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

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

bool transfer(int file, std::span<std::uint8_t> bytes, std::int64_t at, bool writes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const auto position = static_cast<off_t>(at) + static_cast<off_t>(done);
        const ssize_t now = writes ? ::pwrite(file, bytes.data() + done, bytes.size() - done, position)
                                   : ::pread(file, bytes.data() + done, bytes.size() - done, position);
        if (now < 0 && errno == EINTR) {
            continue;
        }
        if (now <= 0) {
            errno = now == 0 ? EIO : errno;
            return false;
        }
        done += static_cast<std::size_t>(now);
    }
    return true;
}

std::uint64_t bigEndian(std::span<const std::uint8_t> bytes) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

/// Where the outermost "moov" box is. Empty if there is none.
struct Box {
    std::int64_t at = 0;
    std::int64_t size = 0;
};
Box movieBox(int file) {
    std::array<std::uint8_t, 16> header{};
    for (std::int64_t at = 0; transfer(file, header, at, false);) {
        std::uint64_t size = bigEndian(std::span(header).first<4>());
        if (size == 1) {
            size = bigEndian(std::span(header).last<8>());
        }
        if (size < 8 || size > INT64_MAX / 2) {
            break;
        }
        if (std::equal(header.begin() + 4, header.begin() + 8, "moov")) {
            return {at, static_cast<std::int64_t>(size)};
        }
        at += static_cast<std::int64_t>(size);
    }
    return {};
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
    const Box box = movieBox(file);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(box.size));
    if (box.size == 0 || !transfer(file, bytes, box.at, false)) {
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
    return transfer(file, place, box.at + (found - bytes.begin()) - kHeader, true);
}

}  // namespace krv::media

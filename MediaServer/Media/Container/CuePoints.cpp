// FFmpeg's muxer does not write chapters. Other programs expect a chunk "cue " with positions and a list "adtl" with a
// label for each, which may follow the samples.
#include <array>
#include <limits>
#include <span>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

#include <MediaServer/Media/Container/CuePoints.h>
#include <MediaServer/Media/Container/ReadAt.h>

namespace krv::media {
namespace {

/// Where a header has the size of the rest of the file, in four bytes, or in eight if it is that of a long file.
constexpr off_t kSizeAt = 4, kLongSizeAt = 20;
constexpr std::uint64_t kHeader = 8;

std::string littleEndian(std::uint64_t value, int bytes = 4) {
    std::string result;
    for (int i = 0; i < bytes; ++i) {
        result += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return result;
}

std::string chunk(std::string_view name, const std::string& content) {
    std::string result = std::string(name) + littleEndian(content.size()) + content;
    return content.size() % 2 == 0 ? result : result + '\0';
}

bool write(int file, std::string_view text, off_t at) {
    return writeAll(file, std::as_bytes(std::span(text)), at);
}

}  // namespace

std::string cueChunks(std::span<const AVChapter* const> chapters, int rate) {
    std::string points, labels;
    std::uint32_t count = 0;
    for (const AVChapter* const chapter : chapters) {
        const std::int64_t sample = av_rescale_q(chapter->start, chapter->time_base, AVRational{1, rate});
        if (sample < 0 || sample > std::numeric_limits<std::uint32_t>::max()) {
            continue;
        }
        const std::string number = littleEndian(++count), position = littleEndian(static_cast<std::uint64_t>(sample));
        points += number + position + "data" + littleEndian(0) + littleEndian(0) + position;
        const AVDictionaryEntry* const title = av_dict_get(chapter->metadata, "title", nullptr, 0);
        labels += chunk("labl", number + (title ? title->value : "") + '\0');
    }
    return count == 0 ? "" : chunk("cue ", littleEndian(count) + points) + chunk("LIST", "adtl" + labels);
}

bool appendChunks(int file, std::string chunks) {
    struct stat status {};
    std::array<char, 4> name{};
    if (::fstat(file, &status) != 0 ||
        ::pread(file, name.data(), name.size(), 0) != static_cast<ssize_t>(name.size())) {
        return false;
    }
    if (status.st_size % 2 != 0) {
        chunks.insert(0, 1, '\0');  // chunks begin at even places
    }
    const std::uint64_t size = static_cast<std::uint64_t>(status.st_size) + chunks.size() - kHeader;
    const bool isLong = std::string_view(name.data(), name.size()) == "RF64";
    if (!isLong && size > std::numeric_limits<std::uint32_t>::max()) {
        return true;
    }
    return write(file, chunks, status.st_size) &&
           write(file, littleEndian(size, isLong ? 8 : 4), isLong ? kLongSizeAt : kSizeAt);
}

}  // namespace krv::media

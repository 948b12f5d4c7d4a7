// Feeds arbitrary bytes to the media library's own parsers. The first byte selects one:
//
//   'e'  a movie file, for its edit lists
//   'i'  the index of a movie file, to move it
//   'o'  the index of a movie file, for the offsets of its samples
//   'v'  the settings text of a video request
//   'a'  the settings text of an audio request
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/CompositionOffsets.h>
#include <MediaServer/Media/Container/EditList.h>
#include <MediaServer/Media/Container/MovieIndex.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace {

using krv::media::MovieEdits;

void require(bool promise) {
    if (!promise) {
        std::abort();
    }
}

void checkEdits(const MovieEdits& edits) {
    for (const MovieEdits::Track& track : edits.tracks) {
        require(std::is_sorted(track.starts.begin(), track.starts.end()));
        require(track.starts.empty() || track.starts.front() == 0);
    }
}

void attackEdits(std::span<const std::byte> file) {
    checkEdits(krv::media::parseMovieEdits(file));
    const auto size = static_cast<std::int64_t>(file.size());
    const krv::media::ReadAt readAt = [&](std::int64_t offset, std::span<std::byte> bytes) {
        const auto wanted = static_cast<std::int64_t>(bytes.size());
        require(offset >= 0 && wanted <= size);
        if (offset > size - wanted) {
            return false;
        }
        std::copy_n(file.begin() + offset, bytes.size(), bytes.begin());
        return true;
    };
    checkEdits(krv::media::readMovieEdits(readAt, size));
    const std::array tracks{1, 2};
    const std::int64_t index = krv::media::indexSize(readAt, size, tracks);
    require(index >= 0 && index <= size);
}

void attackIndex(std::span<const std::byte> box) {
    constexpr std::int64_t kDistance = 70'000;
    std::vector<std::byte> moved(box.begin(), box.end());
    if (krv::media::moveChunks(moved, kDistance)) {
        require(krv::media::moveChunks(moved, -kDistance));
        require(std::equal(moved.begin(), moved.end(), box.begin(), box.end()));
    }
}

void attackOffsets(std::span<const std::byte> box) {
    const std::array<std::size_t, 4> samples{0, 1, 7, 19};
    for (const std::size_t count : {std::size_t{20}, std::size_t{1} << 32}) {
        const auto offsets = krv::media::compositionOffsets(box, 1, samples, count);
        require(!offsets || offsets->size() == samples.size());
    }
}

void attackSettings(std::string_view text, AVMediaType type) {
    try {
        const auto settings = krv::media::parseSettings(text, type);
        require(settings.width.value_or(1) > 0 && settings.height.value_or(1) > 0);
        require(settings.channels.value_or(1) > 0 && settings.sampleRate.value_or(1) > 0);
        for (const auto& [key, value] : settings.options) {
            require(!key.empty() && key.find('\0') == std::string::npos && value.find('\0') == std::string::npos);
        }
    } catch (const krv::media::Failure& failure) {
        require(!failure.detail.empty());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::span rest(reinterpret_cast<const std::byte*>(data) + 1, size - 1);
    const std::string_view text(reinterpret_cast<const char*>(rest.data()), rest.size());
    switch (data[0]) {
    case 'e':
        attackEdits(rest);
        break;
    case 'i':
        attackIndex(rest);
        break;
    case 'o':
        attackOffsets(rest);
        break;
    case 'v':
        attackSettings(text, AVMEDIA_TYPE_VIDEO);
        break;
    case 'a':
        attackSettings(text, AVMEDIA_TYPE_AUDIO);
        break;
    default:
        break;
    }
    return 0;
}

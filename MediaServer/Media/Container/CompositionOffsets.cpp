#include <algorithm>

#include <MediaServer/Media/Container/CompositionOffsets.h>

namespace krv::media {
namespace {

/// FFmpeg takes larger offsets for damage and ignores the table then.
constexpr std::int64_t kLargestOffset = std::int64_t{1} << 28;

std::optional<Bytes> sampleTablesOf(Bytes movieBox, std::uint32_t trackID) {
    while (const auto box = takeBox(movieBox)) {
        if (box->type == "trak" && fieldAfterDates(findBox(box->contents, "tkhd")) == trackID) {
            return findSampleTables(box->contents);
        }
    }
    return std::nullopt;
}

/// Returns the number of samples of a track. The table of their sizes contains it, in one of two forms.
std::optional<std::uint64_t> sampleCountOf(Bytes tables) {
    auto sizes = findBox(tables, "stsz");
    if (!sizes) {
        sizes = findBox(tables, "stz2");
    }
    return sizes && sizes->size() >= 12 ? std::optional(numberIn(*sizes, 8, 4)) : std::nullopt;
}

/// The table of offsets: a list of numbers of samples in a row, with their offset.
class OffsetTable {
public:
    /// box: contents of a box "ctts".
    explicit OffsetTable(Bytes box)
        : rest_(box.size() < 8 ? Bytes{} : box.subspan(8)) {
        if (!rest_.empty()) {
            rest_ = rest_.first(std::min<std::size_t>(rest_.size() / kEntry, numberIn(box, 4, 4)) * kEntry);
        }
    }

    /// Returns the offset of a sample, which must not precede that of the last call.
    std::optional<std::int64_t> offsetOf(std::size_t sample) {
        while (sample >= end_) {
            if (rest_.empty()) {
                return std::nullopt;
            }
            end_ += numberIn(rest_, 0, 4);
            offset_ = static_cast<std::int32_t>(numberIn(rest_, 4, 4));
            rest_ = rest_.subspan(kEntry);
        }
        return offset_ < kLargestOffset && offset_ > -kLargestOffset ? std::optional(offset_) : std::nullopt;
    }

private:
    static constexpr std::size_t kEntry = 8;

    Bytes rest_;
    std::uint64_t end_ = 0;
    std::int64_t offset_ = 0;
};

}  // namespace

std::optional<std::vector<std::int64_t>> compositionOffsets(Bytes movieBox, std::uint32_t trackID,
                                                            std::span<const std::size_t> samples,
                                                            std::size_t sampleCount) {
    const auto tables = sampleTablesOf(movieBox, trackID);
    if (!tables || sampleCountOf(*tables) != sampleCount) {
        return std::nullopt;
    }
    const auto box = findBox(*tables, "ctts");
    std::vector<std::int64_t> offsets(box ? 0 : samples.size());
    if (!box) {
        return offsets;
    }
    OffsetTable table(*box);
    for (const std::size_t sample : samples) {
        const auto offset = table.offsetOf(sample);
        if (!offset) {
            return std::nullopt;
        }
        offsets.push_back(*offset);
    }
    return offsets;
}

}  // namespace krv::media

#include <MediaServer/Media/Codec/AACWindow.h>

namespace krv::media {
namespace {

// Types of syntactic elements.
constexpr unsigned kSingleChannel = 0;
constexpr unsigned kChannelPair = 1;

/// As many bytes as both kinds of elements need up to the window.
constexpr int kHeaderBytes = 3;

}  // namespace

std::optional<AACWindow> aacWindow(const AVPacket& packet) noexcept {
    if (packet.size < kHeaderBytes) {
        return std::nullopt;
    }
    const unsigned header = unsigned{packet.data[0]} << 16 | unsigned{packet.data[1]} << 8 | packet.data[2];
    const auto bits = [header](unsigned position, unsigned count) {
        return header >> (8 * kHeaderBytes - position - count) & ((1U << count) - 1);
    };
    const unsigned element = bits(0, 3);
    // The element's type and tag take seven bits. A single channel's gain takes another eight, a pair says in one bit
    // whether its channels share their window. Before the window there is a reserved bit.
    unsigned position = 0;
    if (element == kSingleChannel) {
        position = 7 + 8 + 1;
    } else if (element == kChannelPair && bits(7, 1) == 1) {
        position = 7 + 1 + 1;
    } else {
        return std::nullopt;
    }
    return AACWindow{static_cast<int>(bits(position, 2)), static_cast<int>(bits(position + 2, 1))};
}

}  // namespace krv::media

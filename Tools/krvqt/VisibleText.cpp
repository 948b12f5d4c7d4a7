#include "VisibleText.h"

#include <cstddef>

#include <fmt/format.h>

namespace krvqt {
namespace {

unsigned char byteAt(std::string_view text, std::size_t index) {
    return static_cast<unsigned char>(text[index]);
}

/// Returns the length of the UTF-8 sequence at the start of a text, 0 if it is malformed.
std::size_t sequenceLength(std::string_view text) {
    const unsigned char first = byteAt(text, 0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(text, i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool isControl(std::string_view sequence) {
    const unsigned char first = byteAt(sequence, 0);
    if (sequence.size() == 1) {
        return (first < 0x20 && first != '\n' && first != '\t') || first == 0x7f;
    }
    return first == 0xc2 && byteAt(sequence, 1) < 0xa0;  // U+0080 to U+009F
}

}  // namespace

std::string visible(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length != 0 && !isControl(sequence)) {
            shown += sequence;
        } else {
            for (std::size_t i = 0; i < sequence.size(); ++i) {
                shown += fmt::format("\\x{:02x}", byteAt(sequence, i));
            }
        }
        text.remove_prefix(sequence.size());
    }
    return shown;
}

}  // namespace krvqt

#include <KRVQTProcessClient/Discovery/Hexval.h>

namespace krv {

std::string hexval(std::span<const std::byte> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 0xFU];
    }
    return text;
}

}  // namespace krv

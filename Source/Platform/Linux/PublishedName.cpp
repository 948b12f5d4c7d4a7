#include "PublishedName.h"

#include <algorithm>

namespace krv {

std::string publishedName(std::string_view name) {
    constexpr std::string_view kSeparator = " #";
    const std::size_t place = name.rfind(kSeparator);
    if (place == std::string_view::npos || place == 0) {
        return std::string(name);
    }
    const std::string_view number = name.substr(place + kSeparator.size());
    const bool digits = !number.empty() && number.front() != '0' &&
                        std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
    return std::string(digits ? name.substr(0, place) : name);
}

}  // namespace krv

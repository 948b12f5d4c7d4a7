#include "ArgumentFilter.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace krvqt {
namespace {

constexpr std::array<std::string_view, 7> kKeys{
    "-krv_loggingEnabled",    "-qtClientLogLevel",  "-applicationLogLevel", "-additionalApplicationLogLevel",
    "-quicktimeLoggingLevel", "-minimumPortNumber", "-maximumPortNumber"};

}  // namespace

std::vector<std::string> withoutUserDefaults(std::vector<std::string> arguments) {
    std::vector<std::string> kept;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--") {
            kept.insert(kept.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i), arguments.end());
            break;
        }
        if (std::find(kKeys.begin(), kKeys.end(), arguments[i]) != kKeys.end()) {
            ++i;
        } else {
            kept.push_back(arguments[i]);
        }
    }
    return kept;
}

}  // namespace krvqt

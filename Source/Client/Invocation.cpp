#include <algorithm>
#include <array>

#include <KRVQTProcessClient/Client/Invocation.h>

namespace krv {

bool isBaseObjectSelector(Selector selector) noexcept {
    static constexpr std::array<std::string_view, 14> kBaseObjectSelectors{"class",          "conformsToProtocol:",
                                                                           "dealloc",        "debugDescription",
                                                                           "description",    "hash",
                                                                           "init",           "isEqual:",
                                                                           "isKindOfClass:", "isMemberOfClass:",
                                                                           "isProxy",        "respondsToSelector:",
                                                                           "self",           "superclass"};
    return std::find(kBaseObjectSelectors.begin(), kBaseObjectSelectors.end(), selector.name()) !=
           kBaseObjectSelectors.end();
}

}  // namespace krv

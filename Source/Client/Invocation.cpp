#include <algorithm>
#include <array>

#include <KRVQTProcessClient/Client/Invocation.h>

namespace krv {

bool isBaseObjectSelector(Selector selector) noexcept {
    static constexpr auto kBaseObjectSelectors = std::to_array<std::string_view>({
        "allowsWeakReference",
        "autorelease",
        "class",
        "conformsToProtocol:",
        "copy",
        "dealloc",
        "debugDescription",
        "description",
        "doesNotRecognizeSelector:",
        "finalize",
        "forwardInvocation:",
        "forwardingTargetForSelector:",
        "hash",
        "init",
        "isEqual:",
        "isKindOfClass:",
        "isMemberOfClass:",
        "isProxy",
        "methodForSelector:",
        "methodSignatureForSelector:",
        "mutableCopy",
        "performSelector:",
        "performSelector:withObject:",
        "performSelector:withObject:withObject:",
        "release",
        "respondsToSelector:",
        "retain",
        "retainCount",
        "retainWeakReference",
        "self",
        "superclass",
        "zone",
    });
    return std::find(kBaseObjectSelectors.begin(), kBaseObjectSelectors.end(), selector.name()) !=
           kBaseObjectSelectors.end();
}

}  // namespace krv

#include <charconv>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

namespace krv {

std::string_view buildVersion() noexcept {
    return KRV_VERSION;
}

int majorVersion(std::string_view version) noexcept {
    int number = -1;
    const char* const end = version.data() + version.size();
    const auto [next, failure] = std::from_chars(version.data(), end, number);
    return failure == std::errc() && number >= 0 && (next == end || *next == '.') ? number : -1;
}

bool isCompatibleVersion(std::string_view version) noexcept {
    return majorVersion(version) == majorVersion(buildVersion());
}

bool isCompatibleServer(std::string_view header) noexcept {
    if (!header.starts_with(kMediaServerName)) {
        return false;
    }
    header.remove_prefix(kMediaServerName.size());
    return header.starts_with('/') && isCompatibleVersion(header.substr(1));
}

std::string serverFileName(std::string_view suffix) {
    std::string name(kMediaServerName);
    if (const int version = majorVersion(buildVersion()); version > 0) {
        name += fmt::format("-{}", version);
    }
    if (const auto pids = pidNamespace(); pids != kFirstPidNamespace) {
        name += fmt::format("-pid{}", pids);
    }
    name += suffix;
    return name;
}

}  // namespace krv

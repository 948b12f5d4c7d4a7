#include "Paths.h"

#include <filesystem>

#include <fmt/format.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {
namespace {

bool canBeSent(const std::string& path) {
    try {
        (void)krv::KRVOperationBase::provideMetadataFor(path)->convertToData();
        return true;
    } catch (const krv::Exception&) {
        return false;
    }
}

}  // namespace

ExitStatus usage(std::string_view text) {
    fmt::print(stderr, "krvqt: {}\n", text);
    return kUsage;
}

ExitStatus makeAbsolute(std::initializer_list<std::string*> paths) {
    for (std::string* const path : paths) {
        if (path->empty()) {
            return usage("a file name is empty");
        }
        if (!canBeSent(*path)) {
            return usage(fmt::format("{}: a file name that is not UTF-8 cannot be sent to the media server; rename the "
                                     "file",
                                     shown(*path)));
        }
        *path = std::filesystem::absolute(*path).string();
        if (!canBeSent(*path)) {
            return usage("the name of the working folder is not UTF-8 and cannot be sent to the media server");
        }
    }
    return kDone;
}

ExitStatus checkDestination(const std::string& destination, bool force) {
    std::error_code failure;
    if (!force && std::filesystem::exists(std::filesystem::symlink_status(destination, failure))) {
        return usage(fmt::format("{} exists; use --force to replace it", destination));
    }
    return kDone;
}

std::string shown(std::string_view path) {
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        text += byte < 0x20 || byte >= 0x7f ? fmt::format("\\x{:02x}", byte) : std::string(1, c);
    }
    return text;
}

}  // namespace krvqt

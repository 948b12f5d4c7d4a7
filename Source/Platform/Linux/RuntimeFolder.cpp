#include <cstdlib>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/RuntimeFolder.h>
#include <KRVQTProcessClient/Platform/StateFolder.h>

namespace krv {
namespace {

/// Returns whether the path is a folder, not a link, of this user that others cannot write to.
bool isOurs(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::getuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

std::string runtimeFolder(std::string_view name) {
    const char* const given = std::getenv("XDG_RUNTIME_DIR");
    if (given && given[0] == '/' && isOurs(given)) {
        return given;
    }
    if (const std::string usual = fmt::format("/run/user/{}", ::getuid()); isOurs(usual)) {
        return usual;
    }
    const std::string own = fmt::format("/tmp/{}-{}", name, ::getuid());
    ::mkdir(own.c_str(), S_IRWXU);
    if (isOurs(own)) {
        return own;
    }
    // Another user has taken the name.
    const std::string state = stateFolder(name);
    if (state.empty()) {
        return {};
    }
    const std::string lasting = state + "/runtime";
    ::mkdir(lasting.c_str(), S_IRWXU);
    return isOurs(lasting) ? lasting : std::string();
}

}  // namespace krv

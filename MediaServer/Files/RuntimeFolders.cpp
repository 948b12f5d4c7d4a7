#include <cstdlib>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Operations/MediaServerName.h>

#include <MediaServer/Files/RuntimeFolders.h>

namespace krv::server {
namespace {

/// Returns whether the path is a folder, not a link, of this user that others cannot write to.
bool isOurs(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::getuid() &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

std::filesystem::path runtimeFolder() {
    const char* const given = std::getenv("XDG_RUNTIME_DIR");
    if (given && given[0] == '/' && isOurs(given)) {
        return given;
    }
    const std::string user = std::to_string(::getuid());
    if (const std::string usual = "/run/user/" + user; isOurs(usual)) {
        return usual;
    }
    const std::string own = fmt::format("/tmp/{}-{}", kMediaServerName, user);
    ::mkdir(own.c_str(), S_IRWXU);
    return isOurs(own) ? own : std::string();
}

}  // namespace krv::server

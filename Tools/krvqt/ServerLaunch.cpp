#include "ServerLaunch.h"

#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace krvqt {
namespace {

constexpr const char* kIdentifier = "krvqt";
constexpr const char* kExecutable = "KRVQuicktimeProcess.app/Contents/MacOS/KRVQuicktimeProcess";

}  // namespace

ServerLaunch launchServer() {
    std::error_code failure;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", failure);
    const std::string executable = (self.parent_path() / kExecutable).string();
    if (::access(executable.c_str(), X_OK) != 0) {
        return {false, fmt::format("no media server to start: {} ({})", executable, std::strerror(errno))};
    }

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK);

    const char* const arguments[] = {executable.c_str(), "-KRVLoggingDomain", kIdentifier, nullptr};
    pid_t pid = 0;
    const int result =
        ::posix_spawn(&pid, executable.c_str(), &files, &attributes, const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        return {false, fmt::format("{} could not be started ({})", executable, std::strerror(result))};
    }
    return {true, executable};
}

}  // namespace krvqt

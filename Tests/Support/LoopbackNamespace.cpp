#include "LoopbackNamespace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace krv::test {
namespace {

bool writeFile(const char* path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    out.close();
    return !out.fail();
}

}  // namespace

std::string enterLoopbackNamespace() {
    const uid_t user = ::getuid();
    const gid_t group = ::getgid();
    const bool root = user == 0;  // who needs no user namespace, and can go on to act for other users
    if (::unshare(root ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return fmt::format("unshare: {}", std::strerror(errno));
    }
    if (!root &&
        (!writeFile("/proc/self/setgroups", "deny") || !writeFile("/proc/self/uid_map", fmt::format("0 {} 1", user)) ||
         !writeFile("/proc/self/gid_map", fmt::format("0 {} 1", group)))) {
        return "the user map cannot be written";
    }
    return runShell("ip link set lo up") == 0 ? std::string() : "the loopback interface cannot be brought up";
}

int runShell(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace krv::test

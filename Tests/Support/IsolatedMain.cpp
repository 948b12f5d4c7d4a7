// main() for test programs with their own network and processes. What they start cannot interfere with other tests that
// run at the same time, and no process outlives them, however they end.
//
// The tests run in new network, process and mount namespaces. The first process there is a small init that reaps
// orphans. When it exits, the kernel kills all others.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Shell.h"

namespace {

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "cannot isolate the tests: %s: %s\n", what, std::strerror(errno));
    std::_Exit(1);
}

void write(const char* path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    out.close();
    if (out.fail()) {
        giveUp(path);
    }
}

void enterNamespaces() {
    const uid_t user = ::getuid();
    const gid_t group = ::getgid();
    const bool root = user == 0;
    const int flags = CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWNS | (root ? 0 : CLONE_NEWUSER);
    if (::unshare(flags) != 0) {
        giveUp("unshare");
    }
    if (!root) {
        write("/proc/self/setgroups", "deny");
        write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
}

int exitStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int waitFor(pid_t child) {
    int status = 0;
    for (;;) {
        const pid_t ended = ::waitpid(-1, &status, 0);
        if (ended == child || (ended < 0 && errno != EINTR)) {
            return exitStatus(status);
        }
    }
}

/// Returns in the process that runs the tests. The other processes exit in this function.
void isolate() {
    enterNamespaces();
    const pid_t init = ::fork();
    if (init < 0) {
        giveUp("fork");
    }
    if (init > 0) {
        std::_Exit(waitFor(init));
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        giveUp("mount");
    }
    if (krv::test::runShell("ip link set lo up") != 0) {
        giveUp("ip link set lo up");
    }
    const pid_t tests = ::fork();
    if (tests < 0) {
        giveUp("fork");
    }
    if (tests > 0) {
        std::_Exit(waitFor(tests));
    }
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        isolate();
    }
    return RUN_ALL_TESTS();
}

// main() for test programs whose network and whose processes are their own: nothing they start meets what other tests
// start at the same time, and everything is gone when they end, however they end.
//
// The tests run in new network, process and mount namespaces. The first process in there is a small init that reaps
// orphans; when it ends, the kernel ends all the others.
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
    std::fprintf(stderr, "no isolation: %s: %s\n", what, std::strerror(errno));
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

void leaveNamespaces() {
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

/// Returns in the process that is to run the tests; the others end in here.
void isolate() {
    leaveNamespaces();
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
        giveUp("the loopback interface");
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

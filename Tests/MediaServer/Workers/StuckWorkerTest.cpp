// Workers that cannot be killed, because the drive that they read does not respond.
#include <csignal>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DeadMount.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {
namespace {

/// Starts a process that opens a file on the mount, and never gets further.
pid_t startReader(test::DeadMount& mount) {
    const pid_t process = ::fork();
    if (process == 0) {
        mount.respond();  // only this process's descriptor: it must not keep its own mount alive
        ::_exit(::open(mount.file("movie.mov").c_str(), O_RDONLY | O_CLOEXEC) < 0 ? 0 : 1);
    }
    return process;
}

pid_t startOther() {
    const pid_t process = ::fork();
    if (process == 0) {
        ::_exit(0);
    }
    return process;
}

TEST(StuckWorker, IsLeftToItselfAndReapedLater) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "only root can mount";
    }
    const test::TemporaryFolder folder;
    test::DeadMount mount(folder.path() / "dead");
    if (!mount.isMounted()) {
        GTEST_SKIP() << "only root can mount /dev/fuse";
    }
    const pid_t process = startReader(mount);
    mount.takeRequest();
    const int status = Worker(process, WorkerChannel(Descriptor())).end();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_EQ(::kill(process, 0), 0);
    mount.respond();
    test::waitUntil([&] {
        (void)Worker(startOther(), WorkerChannel(Descriptor())).end();
        return ::kill(process, 0) != 0;
    });
}

}  // namespace
}  // namespace krv::server

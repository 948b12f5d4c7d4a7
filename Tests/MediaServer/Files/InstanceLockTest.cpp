// The lock that admits one server per user and pid namespace.
#include <csignal>

#include <sched.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include "OutputFixture.h"
#include <MediaServer/Files/InstanceLock.h>

namespace krv::server {
namespace {

using Result = InstanceLock::Result;

class Lock : public testing::Test {
protected:
    Lock() {
        fs::create_directory(runtime);
        fs::create_directory(state);
    }
    Result acquire(InstanceLock& lock) const { return lock.acquire(runtime, state); }
    fs::path lockFile() const { return runtime / serverFileName(".lock"); }

    test::TemporaryFolder folder;
    const fs::path runtime = folder.path() / "runtime";
    const fs::path state = folder.path() / "state";
};

TEST_F(Lock, AdmitsOneServerUntilItEnds) {
    InstanceLock second;
    {
        InstanceLock first;
        EXPECT_EQ(acquire(first), Result::Held);
        EXPECT_TRUE(fs::exists(lockFile()));
        EXPECT_EQ(acquire(second), Result::TakenByAnother);
    }
    EXPECT_EQ(acquire(second), Result::Held);
}

TEST_F(Lock, SurvivesTheEndOfTheSession) {
    InstanceLock first;
    EXPECT_EQ(acquire(first), Result::Held);
    fs::remove_all(runtime);
    fs::create_directory(runtime);
    InstanceLock second;
    EXPECT_EQ(acquire(second), Result::TakenByAnother);
    // Nothing stays locked by the one that was refused.
    InstanceLock inRuntimeFolder;
    EXPECT_EQ(inRuntimeFolder.acquire(runtime, {}), Result::Held);
}

TEST_F(Lock, NeedsNoStateFolder) {
    InstanceLock lock;
    EXPECT_EQ(lock.acquire(runtime, {}), Result::Held);
    InstanceLock other;
    std::ofstream(folder.path() / "file") << "in the way";
    EXPECT_EQ(other.acquire(state, folder.path() / "file"), Result::Held);
}

TEST_F(Lock, OnSomethingElseThanAFileFailsAtOnceAndNamesIt) {
    ASSERT_EQ(::mkfifo(lockFile().c_str(), 0600), 0);
    InstanceLock lock;
    EXPECT_EQ(acquire(lock), Result::Failed);
    EXPECT_EQ(lock.failure(), fmt::format("Cannot lock {}: it is not a regular file.", lockFile().string()));
    fs::remove(lockFile());
    fs::create_directory(lockFile());
    EXPECT_EQ(acquire(lock), Result::Failed);
    EXPECT_THAT(lock.failure(), testing::HasSubstr(lockFile().string()));
    fs::remove(lockFile());
    fs::create_symlink(folder.path() / "elsewhere", lockFile());
    EXPECT_EQ(acquire(lock), Result::Failed);
    EXPECT_EQ(lock.failure(), fmt::format("Cannot lock {}: it is a symbolic link.", lockFile().string()));
    EXPECT_FALSE(fs::exists(folder.path() / "elsewhere"));
    EXPECT_EQ(lock.acquire({}, state), Result::Failed);
    EXPECT_THAT(lock.failure(), testing::HasSubstr("$XDG_RUNTIME_DIR"));
}

TEST_F(Lock, OfAnotherPidNamespaceIsAnotherLock) {
    InstanceLock first;
    EXPECT_EQ(acquire(first), Result::Held);
    const fs::path outside = lockFile();
    const pid_t outer = ::fork();
    if (outer == 0) {
        if (::unshare(CLONE_NEWPID) != 0) {
            ::_exit(2);
        }
        const pid_t inner = ::fork();
        if (inner == 0) {
            InstanceLock lock;
            InstanceLock second;
            const bool own = acquire(lock) == Result::Held && acquire(second) == Result::TakenByAnother;
            ::_exit(own && fs::exists(lockFile()) && lockFile() != outside ? 0 : 1);
        }
        int status = 0;
        ::waitpid(inner, &status, 0);
        ::_exit(WEXITSTATUS(status));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(outer, &status, 0), outer);
    if (WEXITSTATUS(status) == 2) {
        GTEST_SKIP() << "only root can make a pid namespace";
    }
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace krv::server

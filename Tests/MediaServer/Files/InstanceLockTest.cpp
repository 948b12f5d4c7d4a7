// The lock that admits one server per user and pid namespace.
#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <set>
#include <utility>
#include <vector>

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
    static std::set<std::string> files(const fs::path& place) {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(place)) {
            names.insert(entry.path().filename());
        }
        return names;
    }
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

/// A process that has taken the lock and died, though its lock is still held: by another process that has inherited it,
/// as it is held by a thread that is blocked in the kernel.
class DeadHolder {
public:
    explicit DeadHolder(const std::function<Result(InstanceLock&)>& acquire) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        writing_.reset(ends[1]);
        const Descriptor reading(ends[0]);
        pid_ = ::fork();
        if (pid_ == 0) {
            InstanceLock lock;
            const bool held = acquire(lock) == Result::Held;
            if (::fork() == 0) {
                writing_.reset();
                char none = 0;
                [[maybe_unused]] const auto count = ::read(reading.get(), &none, 1);
                ::_exit(0);
            }
            ::_exit(held ? 0 : 1);
        }
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
        EXPECT_EQ(info.si_status, 0);
    }
    ~DeadHolder() { reap(); }
    DeadHolder(const DeadHolder&) = delete;
    DeadHolder& operator=(const DeadHolder&) = delete;
    void reap() {
        if (pid_ > 0) {
            ::waitpid(std::exchange(pid_, -1), nullptr, 0);
        }
    }

private:
    /// Released by the destructor.
    Descriptor writing_;
    pid_t pid_ = -1;
};

TEST_F(Lock, IsTakenFromAHolderThatHasDied) {
    for (const bool zombie : {true, false}) {
        DeadHolder dead([this](InstanceLock& lock) { return acquire(lock); });
        if (!zombie) {
            dead.reap();
        }
        InstanceLock second;
        EXPECT_EQ(acquire(second), Result::Held);
        InstanceLock third;
        EXPECT_EQ(acquire(third), Result::TakenByAnother);
        EXPECT_EQ(files(runtime),
                  (std::set<std::string>{lockFile().filename(), lockFile().filename().string() + ".gate"}));
    }
}

TEST_F(Lock, IsLeftAloneIfItsHolderIsNotKnown) {
    const DeadHolder dead([this](InstanceLock& lock) { return acquire(lock); });
    for (const char* const text : {"", "4711", "x", "0 0", "-1 1", "99999999999999999999 1"}) {
        std::ofstream(lockFile(), std::ios::trunc) << text;
        InstanceLock second;
        EXPECT_EQ(acquire(second), Result::TakenByAnother) << text;
    }
}

TEST_F(Lock, OfADeadHolderIsTakenByOneServerOnly) {
    constexpr int kServers = 8;
    for (int round = 0; round < 10; ++round) {
        const DeadHolder dead([this](InstanceLock& lock) { return acquire(lock); });
        std::array<int, 2> go{};
        std::array<int, 2> results{};
        std::array<int, 2> stop{};
        ASSERT_TRUE(::pipe(go.data()) == 0 && ::pipe(results.data()) == 0 && ::pipe(stop.data()) == 0);
        std::vector<pid_t> servers;
        for (int i = 0; i < kServers; ++i) {
            servers.push_back(::fork());
            if (servers.back() == 0) {
                ::close(go[1]);
                ::close(stop[1]);
                char byte = 0;
                [[maybe_unused]] auto count = ::read(go[0], &byte, 1);
                InstanceLock lock;
                byte = acquire(lock) == Result::Held ? 'h' : 't';
                count = ::write(results[1], &byte, 1);
                count = ::read(stop[0], &byte, 1);
                ::_exit(0);
            }
        }
        ::close(go[1]);
        std::string all;
        while (all.size() < kServers) {
            char byte = 0;
            ASSERT_EQ(::read(results[0], &byte, 1), 1);
            all += byte;
        }
        EXPECT_EQ(std::count(all.begin(), all.end(), 'h'), 1) << all;
        ::close(stop[1]);
        for (const pid_t server : servers) {
            ::waitpid(server, nullptr, 0);
        }
        for (const int fd : {go[0], results[0], results[1], stop[0]}) {
            ::close(fd);
        }
    }
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

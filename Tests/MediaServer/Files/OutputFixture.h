#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <grp.h>
#include <gtest/gtest.h>
#include <seccomp.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/AtomicOutput.h>

namespace krv::server {

namespace fs = std::filesystem;

inline std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

constexpr uid_t kOtherUser = 54321;

/// Makes the call in a child process as another user, and as the first process of a mount namespace of its own if asked
/// to. Returns whether it returns true. Needs root.
enum class As { OtherUser, Root };
inline bool inChild(As user, const std::function<bool()>& call) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool changed =
            user == As::Root || (::setgroups(0, nullptr) == 0 && ::setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 &&
                                 ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0);
        ::_exit(changed && call() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

/// A system call that fails with an error number if one argument has all bits of a mask. Without a mask it always
/// fails.
struct MissingCall {
    int number;
    int errorNumber;
    unsigned argument = 0;
    std::uint64_t mask = 0;
};

/// Makes the call on a thread for which the kernel lacks some system calls.
inline void withoutCalls(const std::vector<MissingCall>& missing, const std::function<void()>& call) {
    std::thread thread([&] {
        const scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
        for (const MissingCall& each : missing) {
            const scmp_arg_cmp condition{each.argument, SCMP_CMP_MASKED_EQ, each.mask, each.mask};
            ASSERT_EQ(::seccomp_rule_add_array(filter, SCMP_ACT_ERRNO(static_cast<std::uint16_t>(each.errorNumber)),
                                               each.number, each.mask == 0 ? 0 : 1, &condition),
                      0);
        }
        ASSERT_EQ(::seccomp_load(filter), 0);
        ::seccomp_release(filter);
        call();
    });
    thread.join();
}

/// Makes the call on a thread for which the kernel has no unnamed files (O_TMPFILE), as on many file systems.
inline void withoutUnnamedFiles(const std::function<void()>& call) {
    withoutCalls({{SCMP_SYS(openat), EOPNOTSUPP, 2, O_TMPFILE}}, call);
}

/// Makes the call on a thread for which the kernel can neither link nor exchange files, as on a FAT file system.
inline void withoutLinks(const std::function<void()>& call) {
    withoutCalls({{SCMP_SYS(openat), EOPNOTSUPP, 2, O_TMPFILE},
                  {SCMP_SYS(linkat), EPERM},
                  {SCMP_SYS(renameat2), EINVAL, 4, RENAME_EXCHANGE},
                  {SCMP_SYS(renameat2), EINVAL, 4, RENAME_NOREPLACE}},
                 call);
}

/// Outputs in a folder "out" of a temporary folder that other users can enter, with a state folder beside it.
/// Puts the output under its name for good. Returns the failure, if any.
inline std::optional<Failure> commit(AtomicOutput& output) {
    auto failure = output.place();
    if (!failure) {
        output.keep();
    }
    return failure;
}

class Output : public testing::Test {
protected:
    Output() {
        fs::permissions(folder.path(), fs::perms(0755));
        fs::create_directory(out);
        ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
    }
    std::unique_ptr<AtomicOutput> open(const fs::path& path) { return AtomicOutput::open(path.string(), failure); }
    static void write(const AtomicOutput& output, const std::string& text) {
        ASSERT_EQ(::write(output.descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::size_t filesInFolder() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(out), {}));
    }
    std::size_t notes() const {
        std::error_code absent;
        const auto place = folder.path() / "state/KRVQuicktimeProcess/unfinished";
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(place, absent), {}));
    }

    /// Gives the folder of the outputs to the other user.
    void giveAway() const { ASSERT_EQ(::chown(out.c_str(), kOtherUser, kOtherUser), 0); }
    static bool isRoot() { return ::geteuid() == 0; }

    test::TemporaryFolder folder;
    const fs::path out = folder.path() / "out";
    const fs::path destination = out / "movie.mp4";
    std::optional<Failure> failure;
};

}  // namespace krv::server

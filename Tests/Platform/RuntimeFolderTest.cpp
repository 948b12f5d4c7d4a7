#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/RuntimeFolder.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

class RuntimeFolder : public testing::Test {
protected:
    RuntimeFolder() {
        if (const char* const text = std::getenv("XDG_RUNTIME_DIR")) {
            before_ = text;
        }
    }
    ~RuntimeFolder() override {
        if (before_) {
            ::setenv("XDG_RUNTIME_DIR", before_->c_str(), 1);
        } else {
            ::unsetenv("XDG_RUNTIME_DIR");
        }
    }

    const test::TemporaryFolder folder_;

private:
    std::optional<std::string> before_;
};

TEST_F(RuntimeFolder, IsTheSessionsOwn) {
    ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
    EXPECT_EQ(runtimeFolder("Name"), folder_.path().string());
}

TEST_F(RuntimeFolder, IsNotAFolderThatOthersCanWriteTo) {
    const fs::path shared = fs::path(folder_.path()) / "shared";
    fs::create_directory(shared);
    ASSERT_EQ(::chmod(shared.c_str(), 0777), 0);
    const fs::path link = fs::path(folder_.path()) / "link";
    fs::create_directory_symlink(folder_.path(), link);
    for (const std::string& given :
         {shared.string(), link.string(), std::string("relative"), std::string("/missing")}) {
        ::setenv("XDG_RUNTIME_DIR", given.c_str(), 1);
        EXPECT_NE(runtimeFolder("Name"), given);
    }
}

/// Who comes first can take the name in /tmp away from another user.
TEST_F(RuntimeFolder, IsInTheStateFolderIfAnotherUserHasTakenItsName) {
    constexpr uid_t kOtherUser = 54321;
    const std::string name = "KRVTest" + folder_.path().filename().string();
    const fs::path taken = "/tmp/" + name + "-" + std::to_string(kOtherUser);
    fs::create_directory(taken);
    const fs::path state = fs::path(folder_.path()) / "state";
    fs::create_directory(state);
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    const pid_t child = ::chown(state.c_str(), kOtherUser, kOtherUser) == 0 ? ::fork() : -1;
    if (child == 0) {
        ::unsetenv("XDG_RUNTIME_DIR");
        ::setenv("XDG_STATE_HOME", state.c_str(), 1);
        ::umask(002);
        const bool changed = ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
        const fs::path found = runtimeFolder(name);
        struct stat status {};
        const bool own = found == state / name / "runtime" && ::stat(found.c_str(), &status) == 0 &&
                         status.st_uid == kOtherUser && (status.st_mode & 07777) == 0700;
        ::_exit(changed && own && runtimeFolder(name) == found ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    fs::remove(taken);
    if (child < 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace krv

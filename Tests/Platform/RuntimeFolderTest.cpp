#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <sys/stat.h>
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

}  // namespace
}  // namespace krv

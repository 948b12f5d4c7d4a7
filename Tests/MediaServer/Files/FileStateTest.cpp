#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/FileState.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

struct stat oldFile() {
    struct stat status {};
    status.st_dev = 1;
    status.st_ino = 2;
    status.st_size = 3;
    status.st_mtim.tv_sec = 1000;
    status.st_ctim.tv_sec = 2000;
    return status;
}

TEST(FileStateTest, IsEqualWhileTheFileIsUnchanged) {
    test::TemporaryFolder folder;
    const Descriptor file(::open(folder.write("a", "contents").c_str(), O_RDONLY | O_CLOEXEC));
    const auto first = FileState::of(file.get());
    ASSERT_TRUE(first);
    EXPECT_TRUE(FileState::of(file.get()) == first);
}

TEST(FileStateTest, DiffersInWhateverShowsAChange) {
    const FileState state(oldFile());
    const auto changed = [](void (*change)(struct stat&)) {
        struct stat status = oldFile();
        change(status);
        return FileState(status);
    };
    EXPECT_FALSE(state == changed([](struct stat& status) { ++status.st_dev; }));
    EXPECT_FALSE(state == changed([](struct stat& status) { ++status.st_ino; }));
    EXPECT_FALSE(state == changed([](struct stat& status) { ++status.st_size; }));
    EXPECT_FALSE(state == changed([](struct stat& status) { ++status.st_mtim.tv_nsec; }));
    EXPECT_FALSE(state == changed([](struct stat& status) { ++status.st_ctim.tv_nsec; }));
}

TEST(FileStateTest, IsFreshForTwoSecondsAfterEitherTime) {
    const std::time_t now = std::time(nullptr);
    struct stat status = oldFile();
    EXPECT_FALSE(FileState(status).isFresh());
    status.st_mtim.tv_sec = now;
    EXPECT_TRUE(FileState(status).isFresh());
    status.st_mtim.tv_sec = now - 1'000'000;
    EXPECT_FALSE(FileState(status).isFresh());
    status.st_ctim.tv_sec = now;
    EXPECT_TRUE(FileState(status).isFresh());
    status.st_ctim.tv_sec = now + 1'000'000;
    EXPECT_TRUE(FileState(status).isFresh());
}

TEST(FileStateTest, IsEmptyForADescriptorThatIsNotOpen) {
    EXPECT_FALSE(FileState::of(-1));
}

}  // namespace
}  // namespace krv::server

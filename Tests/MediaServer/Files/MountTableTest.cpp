#include <vector>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include "OutputFixture.h"
#include <MediaServer/Files/MountTable.h>

namespace krv::server {
namespace {

constexpr const char* kMounts = "20 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                                "21 20 0:5 / /proc rw - proc proc rw\n"
                                "22 20 0:41 / /mnt/my\\040share rw - fuse share rw\n"
                                "23 20 0:42 / /mnt/twice rw - autofs auto rw\n"
                                "24 23 0:43 / /mnt/twice rw - nfs4 host:/ rw\n";

TEST(MountTable, FindsTheDriveOfAPath) {
    const MountTable mounts(kMounts);
    EXPECT_EQ(mounts.driveOf("/"), makedev(8, 1));
    EXPECT_EQ(mounts.driveOf("/mnt"), makedev(8, 1));
    EXPECT_EQ(mounts.driveOf("/procession"), makedev(8, 1));
    EXPECT_EQ(mounts.driveOf("/proc/self"), makedev(0, 5));
    EXPECT_EQ(mounts.driveOf("/mnt/my share"), makedev(0, 41));
    EXPECT_EQ(mounts.driveOf("/mnt/my share/a/b"), makedev(0, 41));
    EXPECT_EQ(mounts.driveOf("/mnt/my"), makedev(8, 1));
}

TEST(MountTable, TheLatestMountOnAPlaceCounts) {
    EXPECT_EQ(MountTable(kMounts).driveOf("/mnt/twice/movie.mov"), makedev(0, 43));
}

TEST(MountTable, IgnoresWhatItCannotParse) {
    const MountTable mounts(
        "\n\n1 2 3\n4 5 six:7 / /a\n4 5 6:7x / /b\n4 5 : / /c\n8 9 1:2 / /d\\04\n8 9 1:3 / /e\\08x");
    for (const char* const path : {"/a", "/b", "/c", "/"}) {
        EXPECT_EQ(mounts.driveOf(path), MountTable::kUnknownDrive) << path;
    }
    EXPECT_EQ(mounts.driveOf("/d\\04"), makedev(1, 2));
    EXPECT_EQ(mounts.driveOf("/e\\08x"), makedev(1, 3));
    EXPECT_EQ(mounts.driveOf("relative"), MountTable::kUnknownDrive);
    EXPECT_EQ(mounts.driveOf(""), MountTable::kUnknownDrive);
}

TEST(MountTable, KnowsTheMountsOfThisProcess) {
    struct stat status {};
    ASSERT_EQ(::stat("/proc", &status), 0);
    EXPECT_EQ(MountTable::current().driveOf("/proc/self"), status.st_dev);
}

/// A folder in which mounts are only claimed.
class Following : public testing::Test {
protected:
    /// Returns which drives are entered on the way.
    std::vector<dev_t> way(const fs::path& path) const {
        std::vector<dev_t> drives;
        EXPECT_TRUE(mounts.follow(path.string(), [&](dev_t drive) {
            drives.push_back(drive);
            return true;
        }));
        return drives;
    }

    const dev_t root = makedev(8, 1);
    const dev_t share = makedev(0, 2);
    const test::TemporaryFolder folder;
    const MountTable mounts{"1 0 8:1 / / rw\n2 1 0:2 / " + (folder.path() / "share").string() + " rw\n"};
};

TEST_F(Following, EntersEachDriveOnTheWay) {
    using Way = std::vector<dev_t>;
    EXPECT_EQ(way("/"), Way{root});
    EXPECT_EQ(way(folder.path() / "movie.mov"), Way{root});
    EXPECT_EQ(way(folder.path() / "share"), (Way{root, share}));
    EXPECT_EQ(way(folder.path() / "share/new/movie.mov"), (Way{root, share}));
    EXPECT_EQ(way(folder.path() / "share/.././movie.mov"), (Way{root, share, root}));
}

TEST_F(Following, FollowsLinks) {
    using Way = std::vector<dev_t>;
    fs::create_directories(folder.path() / "far/away");
    fs::create_symlink("../../share", folder.path() / "far/away/relative");
    fs::create_symlink(folder.path() / "far/away", folder.path() / "absolute");
    fs::create_symlink("share/movie.mov", folder.path() / "movie.mov");
    EXPECT_EQ(way(folder.path() / "absolute/relative/movie.mov"), (Way{root, share}));
    EXPECT_EQ(way(folder.path() / "absolute/movie.mov"), Way{root});
    EXPECT_EQ(way(folder.path() / "movie.mov"), (Way{root, share}));
    fs::create_symlink("loop", folder.path() / "loop");
    EXPECT_EQ(way(folder.path() / "loop/movie.mov"), Way{root});
}

TEST_F(Following, LooksUpNothingOnADriveThatMayNotBeEntered) {
    // On the way back from the share, it would find this link.
    fs::create_directory(folder.path() / "share");
    fs::create_symlink("/", folder.path() / "share/link");
    std::vector<dev_t> drives;
    EXPECT_FALSE(mounts.follow((folder.path() / "share/link").string(), [&](dev_t drive) {
        drives.push_back(drive);
        return drive != share;
    }));
    EXPECT_EQ(drives, (std::vector<dev_t>{root, share}));
}

}  // namespace
}  // namespace krv::server

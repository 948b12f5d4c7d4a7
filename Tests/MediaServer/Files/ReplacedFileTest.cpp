// The attributes that an output keeps of the file it replaces.
#include <array>
#include <cstdint>

#include <sys/xattr.h>

#include <endian.h>

#include "OutputFixture.h"

namespace krv::server {
namespace {

/// An access control list in the form of the extended attribute that holds it.
struct ListEntry {
    std::uint16_t tag;
    std::uint16_t permissions;
    std::uint32_t id;
};
struct List {
    std::uint32_t version = htole32(2);
    std::array<ListEntry, 5> entries;
};
constexpr std::uint16_t kOwner = 1;
constexpr std::uint16_t kUser = 2;
constexpr std::uint16_t kOwnersGroup = 4;
constexpr std::uint16_t kMask = 16;
constexpr std::uint16_t kOthers = 32;
constexpr std::uint32_t kNobodySpecial = 0xFFFFFFFF;

/// Owner and the other user may read and write, nobody else may do anything.
List sharedWithTheOtherUser() {
    return {.entries = {{{kOwner, 6, kNobodySpecial},
                         {kUser, 6, kOtherUser},
                         {kOwnersGroup, 0, kNobodySpecial},
                         {kMask, 6, kNobodySpecial},
                         {kOthers, 0, kNobodySpecial}}}};
}

class Replaced : public Output {
protected:
    void replace() {
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_FALSE(commit(*output));
        EXPECT_EQ(contents(destination), "new");
    }
    bool setList(const char* attribute, const fs::path& path) const {
        const List list = sharedWithTheOtherUser();
        return ::setxattr(path.c_str(), attribute, &list, sizeof list, 0) == 0;
    }
    std::string attribute(const char* name) const {
        std::array<char, 256> value{};
        const ssize_t size = ::getxattr(destination.c_str(), name, value.data(), value.size());
        return size < 0 ? "none" : std::string(value.data(), static_cast<std::size_t>(size));
    }
    struct stat status() const {
        struct stat result {};
        EXPECT_EQ(::stat(destination.c_str(), &result), 0);
        return result;
    }
};

TEST_F(Replaced, FileLeavesItsExtendedAttributes) {
    std::ofstream(destination) << "old";
    if (::setxattr(destination.c_str(), "user.krv.test", "value", 5, 0) != 0) {
        GTEST_SKIP() << "the file system has no extended attributes";
    }
    replace();
    EXPECT_EQ(attribute("user.krv.test"), "value");
}

TEST_F(Replaced, FileLeavesItsAccessControlList) {
    std::ofstream(destination) << "old";
    fs::permissions(destination, fs::perms(0600));
    if (!setList("system.posix_acl_access", destination)) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    replace();
    const List list = sharedWithTheOtherUser();
    EXPECT_EQ(attribute("system.posix_acl_access"), std::string(reinterpret_cast<const char*>(&list), sizeof list));
    EXPECT_EQ(modeOf(destination), 0660U);  // the group's bits are the list's mask
}

TEST_F(Replaced, FileWithoutAnAccessControlListLeavesNone) {
    std::ofstream(destination) << "old";
    fs::permissions(destination, fs::perms(0660));
    if (!setList("system.posix_acl_default", out)) {
        GTEST_SKIP() << "the file system has no access control lists";
    }
    replace();
    EXPECT_EQ(attribute("system.posix_acl_access"), "none");
    EXPECT_EQ(modeOf(destination), 0660U);
}

TEST_F(Replaced, FileLeavesItsGroupWhereTheUserMaySetIt) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can give a file to any group";
    }
    std::ofstream(destination) << "old";
    ASSERT_EQ(::chown(destination.c_str(), kOtherUser, kOtherUser), 0);
    replace();
    EXPECT_EQ(status().st_gid, kOtherUser);
    EXPECT_EQ(status().st_uid, 0U);  // the owner is who wrote it
}

TEST_F(Replaced, FileWithAnotherNameKeepsItsContentsThere) {
    std::ofstream(destination) << "old";
    fs::create_hard_link(destination, out / "other.mp4");
    replace();
    EXPECT_EQ(contents(out / "other.mp4"), "old");
}

TEST_F(Replaced, FileLeavesItsPermissionsWithoutUnnamedFilesToo) {
    withoutUnnamedFiles([this] {
        std::ofstream(destination) << "old";
        ::chmod(destination.c_str(), 04640);
        replace();
        EXPECT_EQ(modeOf(destination), 0640U);
    });
}

}  // namespace
}  // namespace krv::server

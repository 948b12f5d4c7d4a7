// Where outputs land, and which destinations are refused before any work.
#include <cerrno>
#include <functional>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <gmock/gmock.h>

#include "OutputFixture.h"

namespace krv::server {
namespace {

/// The folders that were flushed to the disk in this process.
std::vector<fs::path>& flushedFolders() {
    static std::vector<fs::path> folders;
    return folders;
}

/// Called during the next flush of a file, in place of another program.
std::function<void()>& duringNextFlush() {
    static std::function<void()> act;
    return act;
}

}  // namespace
}  // namespace krv::server

/// Takes the place of the system library's in this program, and records the folders.
extern "C" int fsync(int file) {
    struct stat status {};
    if (const auto act = std::exchange(krv::server::duringNextFlush(), {})) {
        act();
    }
    if (::fstat(file, &status) == 0 && S_ISDIR(status.st_mode)) {
        krv::server::flushedFolders().push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
    }
    return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace krv::server {
namespace {

class Destinations : public Output {
protected:
    /// Writes an output and returns whether it is at this place then.
    bool landsAt(const fs::path& given, const fs::path& place) {
        const auto output = open(given);
        if (!output) {
            return false;
        }
        write(*output, "new");
        return !commit(*output) && contents(place) == "new";
    }
    /// Returns the error number for which the destination is refused; 0 if it is not.
    int refusal(const fs::path& given) {
        failure.reset();
        const auto output = open(given);
        return output ? 0 : failure->errorNumber;
    }
};

TEST_F(Destinations, ThroughADanglingLinkAreMadeWhereItPoints) {
    fs::create_directory(folder.path() / "disk");
    const auto target = folder.path() / "disk/target.mp4";
    fs::create_symlink(target, destination);
    EXPECT_TRUE(landsAt(destination, target));
    EXPECT_TRUE(fs::is_symlink(destination));
}

TEST_F(Destinations, ThroughAChainOfRelativeLinksAreMadeAtItsEnd) {
    fs::create_directories(folder.path() / "disk/inner");
    fs::create_symlink("../disk/second.mp4", destination);
    fs::create_symlink("inner/../third.mp4", folder.path() / "disk/second.mp4");
    fs::create_symlink("target.mp4", folder.path() / "disk/third.mp4");
    EXPECT_TRUE(landsAt(destination, folder.path() / "disk/target.mp4"));
    EXPECT_TRUE(fs::is_symlink(destination));
    EXPECT_TRUE(fs::is_symlink(folder.path() / "disk/second.mp4"));
    EXPECT_TRUE(fs::is_symlink(folder.path() / "disk/third.mp4"));
}

TEST_F(Destinations, ThatAreALoopOfLinksAreRefused) {
    fs::create_symlink("second.mp4", destination);
    fs::create_symlink("movie.mp4", out / "second.mp4");
    EXPECT_EQ(refusal(destination), ELOOP);
    EXPECT_TRUE(fs::is_symlink(destination));
    EXPECT_TRUE(fs::is_symlink(out / "second.mp4"));
}

TEST_F(Destinations, ThroughALinkIntoNoFolderAreRefused) {
    fs::create_symlink(folder.path() / "missing/target.mp4", destination);
    EXPECT_EQ(refusal(destination), ENOENT);
    fs::remove(destination);
    fs::create_symlink(folder.path() / "target.mp4/", destination);
    EXPECT_EQ(refusal(destination), ENOENT);
    fs::remove(destination);
    fs::create_symlink(".", destination);
    EXPECT_EQ(refusal(destination), EISDIR);
}

TEST_F(Destinations, WhoseNameIsTooLongAreRefused) {
    EXPECT_EQ(refusal(out / (std::string(252, 'x') + ".mp4")), ENAMETOOLONG);
    EXPECT_EQ(refusal(out / (std::string(251, 'x') + ".mp4")), 0);
}

TEST_F(Destinations, ThatAreNotRegularFilesAreRefused) {
    ASSERT_EQ(::mkfifo(destination.c_str(), 0600), 0);
    EXPECT_FALSE(open(destination));
    EXPECT_EQ(failure->cause, FailureCause::DestinationIsNotAFile);
    fs::remove(destination);

    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    destination.string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(socket);
    EXPECT_FALSE(open(destination));
    EXPECT_EQ(failure->cause, FailureCause::DestinationIsNotAFile);
    fs::remove(destination);

    fs::create_symlink("/dev/null", destination);
    EXPECT_FALSE(open(destination));
    EXPECT_EQ(failure->cause, FailureCause::DestinationIsNotAFile);
    EXPECT_EQ(failure->path, destination.string());
}

TEST_F(Destinations, OfAnotherUserThatMayNotBeWrittenAreRefused) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    giveAway();
    std::ofstream(destination) << "root's";
    EXPECT_TRUE(inChild(As::OtherUser, [&] { return refusal(destination) == EACCES; }));
}

TEST_F(Destinations, InAStickyFolderThatBelongToAnotherUserAreRefused) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    fs::permissions(out, fs::perms(01777));
    std::ofstream(destination) << "root's";
    fs::permissions(destination, fs::perms(0666));
    EXPECT_TRUE(inChild(
        As::OtherUser, [&] { return !open(destination) && failure->cause == FailureCause::DestinationOfAnotherUser; }));
    EXPECT_EQ(contents(destination), "root's");
    EXPECT_TRUE(inChild(As::OtherUser, [&] { return landsAt(out / "own.mp4", out / "own.mp4"); }));
    EXPECT_TRUE(inChild(As::OtherUser, [&] { return landsAt(out / "own.mp4", out / "own.mp4"); }));
    EXPECT_EQ(refusal(out / "own.mp4"), 0);  // root may replace it
}

TEST_F(Destinations, ThroughALinkThatAnotherUserLeftInAStickyFolderAreRefused) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    fs::permissions(out, fs::perms(01777));
    fs::create_directory(folder.path() / "private");
    const auto target = folder.path() / "private/target.mp4";
    ASSERT_TRUE(inChild(As::OtherUser, [&] { return ::symlink(target.c_str(), destination.c_str()) == 0; }));
    EXPECT_EQ(refusal(destination), EACCES);
    ASSERT_EQ(::lchown(destination.c_str(), 0, 0), 0);
    EXPECT_TRUE(landsAt(destination, target));
}

TEST_F(Destinations, StayInTheirFolderWhenItIsRenamed) {
    for (const bool replaces : {false, true}) {
        if (replaces) {
            std::ofstream(destination) << "old";
        }
        const auto output = open(destination);
        write(*output, "new");
        fs::rename(out, folder.path() / "renamed");
        EXPECT_FALSE(commit(*output));
        EXPECT_EQ(contents(folder.path() / "renamed/movie.mp4"), "new");
        EXPECT_FALSE(fs::exists(out));
        fs::rename(folder.path() / "renamed", out);
        EXPECT_EQ(filesInFolder(), 1U);
        fs::remove(destination);
    }
}

TEST_F(Destinations, StayInTheirFolderWhenALinkTakesItsPlace) {
    fs::create_directory(folder.path() / "elsewhere");
    const auto output = open(destination);
    write(*output, "new");
    fs::rename(out, folder.path() / "renamed");
    fs::create_directory_symlink(folder.path() / "elsewhere", out);
    EXPECT_FALSE(commit(*output));
    EXPECT_EQ(contents(folder.path() / "renamed/movie.mp4"), "new");
    EXPECT_EQ(filesInFolder(), 0U);
}

TEST_F(Destinations, InAFolderThatCannotBeListedAreWritten) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    giveAway();
    fs::permissions(out, fs::perms(0300));
    EXPECT_TRUE(inChild(As::OtherUser, [&] { return landsAt(destination, destination); }));
}

TEST_F(Destinations, HaveTheirFolderFlushedOnceTheyAreInPlace) {
    for (const char* const old : {"", "old"}) {
        if (*old) {
            std::ofstream(destination) << old;
        }
        const auto output = open(destination);
        write(*output, "new");
        flushedFolders().clear();
        EXPECT_FALSE(commit(*output));
        EXPECT_THAT(flushedFolders(), testing::Contains(fs::canonical(out)));
    }
}

TEST_F(Destinations, ThatBecomeSomethingElseAtTheLastMomentAreLeftAlone) {
    const auto insteadOf = [&](const std::function<void()>& make) {
        fs::remove_all(destination);
        std::ofstream(destination) << "old";
        const auto output = open(destination);
        write(*output, "new");
        duringNextFlush() = [&] {
            fs::remove(destination);
            make();
        };
        return commit(*output);
    };
    const auto folderRefused = insteadOf([&] {
        fs::create_directory(destination);
        std::ofstream(destination / "kept") << "kept";
    });
    ASSERT_TRUE(folderRefused);
    EXPECT_EQ(folderRefused->errorNumber, EISDIR);
    EXPECT_EQ(contents(destination / "kept"), "kept");
    EXPECT_EQ(filesInFolder(), 1U);

    const auto linkRefused = insteadOf([&] { fs::create_symlink("elsewhere", destination); });
    ASSERT_TRUE(linkRefused);
    EXPECT_EQ(linkRefused->cause, FailureCause::DestinationIsNotAFile);
    EXPECT_EQ(fs::read_symlink(destination), "elsewhere");
    EXPECT_EQ(filesInFolder(), 1U);
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Destinations, ThatBecameReadOnlyAreNotReplaced) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    giveAway();
    std::ofstream(destination) << "old";
    ASSERT_EQ(::chown(destination.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_TRUE(inChild(As::OtherUser, [&] {
        const auto output = open(destination);
        write(*output, "new");
        fs::permissions(destination, fs::perms(0444));
        const auto refused = commit(*output);
        return refused && refused->errorNumber == EACCES;
    }));
    EXPECT_EQ(contents(destination), "old");
    EXPECT_EQ(filesInFolder(), 1U);
}

}  // namespace
}  // namespace krv::server

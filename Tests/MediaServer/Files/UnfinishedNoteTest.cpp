// The notes of hidden files: what the next start of the server removes, and what it leaves alone.
#include <algorithm>

#include <sched.h>
#include <sys/mount.h>

#include "OutputFixture.h"
#include <MediaServer/Files/OperationFiles.h>

namespace krv::server {
namespace {

class Notes : public Output {
protected:
    Notes() { fs::create_directories(place); }

    /// Replaces an existing file and returns whether it worked.
    bool replaces() {
        std::ofstream(destination) << "old";
        const auto output = open(destination);
        return output && ::write(output->descriptor(), "new", 3) == 3 && !commit(*output) &&
               contents(destination) == "new" && filesInFolder() == 1;
    }
    fs::path hiddenFile() const {
        for (const auto& entry : fs::directory_iterator(out)) {
            if (entry.path().filename().string().starts_with('.')) {
                return entry.path();
            }
        }
        return {};
    }

    const fs::path place = folder.path() / "state/KRVQuicktimeProcess/unfinished";
};

TEST_F(Notes, RemoveHiddenFilesThatAKilledServerLeft) {
    const auto hidden = out / ".krv-0123.part";
    const auto precious = out / "precious.mp4";
    std::ofstream(hidden) << "half";
    std::ofstream(precious) << "whole";
    std::ofstream(place / "a") << hidden.string();
    std::ofstream(place / "b") << precious.string();
    std::ofstream(place / "c") << "";
    OperationFiles::sweep();
    EXPECT_FALSE(fs::exists(hidden));
    EXPECT_TRUE(fs::exists(precious));
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Notes, OfALivingServerAreLeftAlone) {
    withoutUnnamedFiles([this] {
        for (const bool replaces : {false, true}) {
            const auto output = open(destination);
            write(*output, replaces ? "second" : "first");
            OperationFiles::sweep();
            EXPECT_EQ(notes(), 1U);
            EXPECT_FALSE(commit(*output));
            EXPECT_EQ(contents(destination), replaces ? "second" : "first");
            EXPECT_EQ(filesInFolder(), 1U);
            EXPECT_EQ(notes(), 0U);
        }
    });
}

TEST_F(Notes, OfAServerThatWasKilledAreUsed) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t server = ::fork();
    if (server == 0) {
        withoutUnnamedFiles([&] {
            const auto output = open(destination);
            write(*output, "half");
            [[maybe_unused]] const auto told = ::write(ready[1], "", 1);
            ::pause();
        });
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    OperationFiles::sweep();
    EXPECT_EQ(contents(hiddenFile()), "half");
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    OperationFiles::sweep();
    EXPECT_EQ(filesInFolder(), 0U);
    EXPECT_EQ(notes(), 0U);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(Notes, ThatAreNotFilesNeverBlockTheStart) {
    ASSERT_EQ(::mkfifo((place / "fifo").c_str(), 0600), 0);
    fs::create_directory(place / "folder");
    fs::create_symlink(place / "fifo", place / "link");
    fs::create_symlink(destination, place / "output");
    std::ofstream(destination) << "movie";
    const auto hidden = out / ".krv-0123.part";
    std::ofstream(hidden) << "half";
    std::ofstream(place / "note") << hidden.string();
    OperationFiles::sweep();
    EXPECT_FALSE(fs::exists(hidden));
    EXPECT_EQ(contents(destination), "movie");
}

TEST_F(Notes, ThatCannotBeWrittenFailNothing) {
    EXPECT_TRUE(replaces());
    fs::remove_all(folder.path() / "state");
    std::ofstream(folder.path() / "state") << "a file in the way";
    EXPECT_TRUE(replaces());
}

TEST_F(Notes, InAFolderOfRootFailNothing) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can become another user";
    }
    giveAway();
    EXPECT_TRUE(inChild(As::OtherUser, [this] { return replaces(); }));
    EXPECT_EQ(contents(destination), "new");
}

TEST_F(Notes, OnAFullDiskFailNothing) {
    if (!isRoot()) {
        GTEST_SKIP() << "only root can mount a small disk";
    }
    EXPECT_TRUE(inChild(As::Root, [this] {
        // A disk with as many files as it can have.
        return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("tmpfs", place.c_str(), "tmpfs", 0, "nr_inodes=1") == 0 && replaces();
    }));
    EXPECT_TRUE(inChild(As::Root, [this] {
        // A disk with space for names, and for nothing in the files.
        const bool mounted = ::unshare(CLONE_NEWNS) == 0 &&
                             ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                             ::mount("tmpfs", place.c_str(), "tmpfs", 0, "size=4096") == 0;
        std::ofstream(place / "filler") << std::string(4096, 'x');
        return mounted && fs::space(place).available == 0 && replaces();
    }));
}

TEST_F(Notes, NameFilesThatOnlyTheirUserCanRead) {
    withoutUnnamedFiles([this] {
        std::ofstream(destination) << "old";
        fs::permissions(destination, fs::perms(0600));
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_EQ(modeOf(hiddenFile()), 0600U);
        EXPECT_FALSE(commit(*output));
        EXPECT_EQ(modeOf(destination), 0600U);
    });
}

TEST_F(Notes, NameFilesThatGetTheirModeAtTheEnd) {
    const mode_t mask = ::umask(027);
    withoutUnnamedFiles([this] {
        const auto output = open(destination);
        EXPECT_EQ(modeOf(hiddenFile()), 0600U);
        EXPECT_FALSE(commit(*output));
        EXPECT_EQ(modeOf(destination), 0640U);
    });
    ::umask(mask);
}

}  // namespace
}  // namespace krv::server

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/AtomicOutput.h>

namespace krv::server {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class Output : public testing::Test {
protected:
    Output() {
        fs::create_directory(folder.path() / "out");
        ::setenv("XDG_STATE_HOME", (folder.path() / "state").c_str(), 1);
    }
    std::unique_ptr<AtomicOutput> open(const fs::path& path) { return AtomicOutput::open(path.string(), failure); }
    static void write(const AtomicOutput& output, const std::string& text) {
        ASSERT_EQ(::write(output.descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::size_t filesInFolder() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder.path() / "out"), {}));
    }
    std::size_t notes() const {
        std::error_code absent;
        const auto place = folder.path() / "state/KRVQuicktimeProcess/unfinished";
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(place, absent), {}));
    }

    test::TemporaryFolder folder;
    const fs::path destination = folder.path() / "out/movie.mp4";
    std::optional<Failure> failure;
};

TEST_F(Output, AppearsUnderItsNameOnlyWhenCommitted) {
    const auto output = open(destination);
    ASSERT_TRUE(output);
    write(*output, "movie");
    EXPECT_EQ(filesInFolder(), 0U);
    EXPECT_FALSE(output->commit());
    EXPECT_EQ(contents(destination), "movie");
    EXPECT_EQ(filesInFolder(), 1U);
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Output, LeavesNothingBehindWithoutCommit) {
    std::ofstream(destination) << "old";
    { write(*open(destination), "half"); }
    EXPECT_EQ(contents(destination), "old");
    EXPECT_EQ(filesInFolder(), 1U);
}

TEST_F(Output, ReplacesAnExistingFileAndKeepsItsMode) {
    std::ofstream(destination) << "old";
    ::chmod(destination.c_str(), 0640);
    const auto output = open(destination);
    write(*output, "new");
    EXPECT_EQ(contents(destination), "old");
    EXPECT_FALSE(output->commit());
    EXPECT_EQ(contents(destination), "new");
    struct stat status {};
    ASSERT_EQ(::stat(destination.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(filesInFolder(), 1U);
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Output, ReplacesAFileThatAppearedSinceItWasOpened) {
    const auto output = open(destination);
    write(*output, "new");
    std::ofstream(destination) << "meanwhile";
    EXPECT_FALSE(output->commit());
    EXPECT_EQ(contents(destination), "new");
}

mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST_F(Output, HasOurModeWhateverTheWorkerSets) {
    const mode_t mask = ::umask(022);
    for (const bool replaces : {false, true}) {
        fs::remove(destination);
        if (replaces) {
            std::ofstream(destination) << "old";
            ::chmod(destination.c_str(), 04640);
        }
        const auto output = open(destination);
        write(*output, "movie");
        ASSERT_EQ(::fchmod(output->descriptor(), 06755), 0);
        EXPECT_FALSE(output->commit());
        EXPECT_EQ(modeOf(destination), replaces ? 0640U : 0644U);
    }
    ::umask(mask);
}

TEST_F(Output, FollowsASymbolicLinkWhichStaysALink) {
    const auto target = folder.path() / "out/target.mp4";
    std::ofstream(target) << "old";
    fs::create_symlink(target, destination);
    const auto output = open(destination);
    write(*output, "new");
    EXPECT_FALSE(output->commit());
    EXPECT_TRUE(fs::is_symlink(destination));
    EXPECT_EQ(contents(target), "new");
}

TEST_F(Output, CannotBeOpenedWithoutItsFolder) {
    EXPECT_FALSE(open(folder.path() / "missing/movie.mp4"));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnwritableDestination);
    EXPECT_EQ(failure->errorNumber, ENOENT);
    EXPECT_EQ(failure->path, (folder.path() / "missing/movie.mp4").string());
}

TEST_F(Output, CannotBeAFolderOrInsideAFile) {
    EXPECT_FALSE(open(folder.path() / "out"));
    EXPECT_EQ(failure->cause, FailureCause::UnwritableDestination);
    std::ofstream(destination) << "file";
    EXPECT_FALSE(open(destination / "movie.mp4"));
    EXPECT_EQ(failure->cause, FailureCause::UnwritableDestination);
}

TEST_F(Output, LeavesNothingBehindWhenItsCommitFails) {
    const auto output = open(destination);
    write(*output, "new");
    fs::create_directory(destination);
    const auto failure = output->commit();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnwritableDestination);
    fs::remove(destination);
    EXPECT_EQ(notes(), 1U);  // gone with the object
}

TEST_F(Output, ThatIsPlacedButNotKeptIsTakenBack) {
    {
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_FALSE(output->place());
        EXPECT_EQ(contents(destination), "new");
    }
    EXPECT_EQ(filesInFolder(), 0U);
    std::ofstream(destination) << "old";
    {
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_FALSE(output->place());
        EXPECT_EQ(contents(destination), "new");
    }
    EXPECT_EQ(contents(destination), "old");
    EXPECT_EQ(filesInFolder(), 1U);
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Output, ThatIsPlacedAndKeptStays) {
    std::ofstream(destination) << "old";
    {
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_FALSE(output->place());
        output->keep();
    }
    EXPECT_EQ(contents(destination), "new");
    EXPECT_EQ(filesInFolder(), 1U);
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Output, IsNotTakenBackIfAnotherProgramHasReplacedIt) {
    {
        const auto output = open(destination);
        write(*output, "new");
        EXPECT_FALSE(output->place());
        fs::remove(destination);
        std::ofstream(destination) << "somebody else's";
    }
    EXPECT_EQ(contents(destination), "somebody else's");
}

TEST_F(Output, RemovesHiddenFilesThatAKilledServerLeft) {
    const auto hidden = folder.path() / "out/.krv-0123.part";
    const auto precious = folder.path() / "out/precious.mp4";
    std::ofstream(hidden) << "half";
    std::ofstream(precious) << "whole";
    const auto place = folder.path() / "state/KRVQuicktimeProcess/unfinished";
    fs::create_directories(place);
    std::ofstream(place / "a") << hidden.string();
    std::ofstream(place / "b") << precious.string();
    std::ofstream(place / "c") << "";
    AtomicOutput::sweep();
    EXPECT_FALSE(fs::exists(hidden));
    EXPECT_TRUE(fs::exists(precious));
    EXPECT_EQ(notes(), 0U);
}

}  // namespace
}  // namespace krv::server

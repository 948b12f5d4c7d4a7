#include "OutputFixture.h"

namespace krv::server {
namespace {

TEST_F(Output, AppearsUnderItsNameOnlyWhenCommitted) {
    const auto output = open(destination);
    ASSERT_TRUE(output);
    write(*output, "movie");
    EXPECT_EQ(filesInFolder(), 0U);
    EXPECT_FALSE(commit(*output));
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
    EXPECT_FALSE(commit(*output));
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
    EXPECT_FALSE(commit(*output));
    EXPECT_EQ(contents(destination), "new");
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
        EXPECT_FALSE(commit(*output));
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
    EXPECT_FALSE(commit(*output));
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
    const auto failure = commit(*output);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnwritableDestination);
    fs::remove(destination);
    EXPECT_EQ(filesInFolder(), 0U);
    EXPECT_EQ(notes(), 0U);
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

}  // namespace
}  // namespace krv::server

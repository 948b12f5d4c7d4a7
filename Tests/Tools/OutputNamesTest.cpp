#include "OutputNames.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include "Usage.h"

namespace krvqt {
namespace {

using testing::ElementsAre;

class OutputNames : public testing::Test {
protected:
    std::string path(const std::string& name) const { return (folder.path() / name).string(); }
    std::string make(const std::string& name) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name)) << name;
        return path(name);
    }
    template <typename Call>
    static std::string complaint(const Call& call) {
        try {
            (void)call();
        } catch (const UsageError& problem) {
            return problem.what();
        }
        return "";
    }
    std::string complaintAbout(const Naming& naming) const {
        return complaint([&] { return naming.oneFile(); });
    }

    krv::test::TemporaryFolder folder;
};

TEST_F(OutputNames, TheLastNameIsTheDestination) {
    const FileToWrite file = Naming{.names = {path("a"), path("b"), path("c")}}.oneFile();
    EXPECT_THAT(file.sources, ElementsAre(path("a"), path("b")));
    EXPECT_EQ(file.destination, path("c"));
}

TEST_F(OutputNames, WithOutputAllNamesAreSources) {
    const FileToWrite file = Naming{.names = {path("a"), path("b")}, .output = path("c")}.oneFile();
    EXPECT_THAT(file.sources, ElementsAre(path("a"), path("b")));
    EXPECT_EQ(file.destination, path("c"));
}

TEST_F(OutputNames, ReplacesAFileOnlyIfForced) {
    make("b");
    EXPECT_EQ(complaintAbout({.names = {path("a"), path("b")}}), path("b") + " exists; use --force to replace it");
    EXPECT_EQ(complaintAbout({.names = {path("a")}, .output = path("b"), .takesMany = true}),
              path("b") + " exists; use --force to replace it");
    EXPECT_EQ(complaintAbout({.names = {path("a"), path("b")}, .force = true}), "");
}

TEST_F(OutputNames, ADestinationThatMayBeASourceIsNotOfferedForReplacement) {
    make("b");
    EXPECT_EQ(complaintAbout({.names = {path("a"), path("b")}, .takesMany = true}),
              path("b") + " exists; is the last name the file to write? Name that file with -o FILE");
}

TEST_F(OutputNames, ASourceIsNeverReplaced) {
    make("a");
    std::filesystem::create_symlink(path("a"), path("link"));
    std::filesystem::create_hard_link(path("a"), path("hard"));
    for (const std::string& same : {path("a"), path("x/../a"), path("link"), path("hard")}) {
        const std::string reason = " is to be read and written; give another name for the file to write";
        EXPECT_EQ(complaintAbout({.names = {path("a"), same}, .force = true}), same + reason);
        EXPECT_EQ(complaintAbout({.names = {path("b"), path("a")}, .output = same, .force = true}), same + reason);
    }
    make("to/a.mp4");
    EXPECT_EQ(complaint([&] {
                  return filesInFolder({path("b.mov"), path("to/a.mp4")}, path("to"), "mp4", true);
              }),
              path("to/a.mp4") + " is to be read and written; give another name for the file to write");
    make("to/b.mov");
    std::filesystem::create_symlink(path("to/b.mov"), path("to/c.mp4"));
    EXPECT_EQ(complaint([&] {
                  return filesInFolder({path("c.mov"), path("to/b.mov")}, path("to"), "mp4", true);
              }),
              path("to/c.mp4") + " is to be read and written; choose another folder or container");
}

TEST_F(OutputNames, AFolderIsNoDestination) {
    std::filesystem::create_directory(path("b"));
    EXPECT_EQ(complaintAbout({.names = {path("a"), path("b")}, .force = true}),
              path("b") + " is a folder; give the name of a file in it");
}

TEST_F(OutputNames, FilesInAFolderAreNamedAfterTheirSources) {
    const auto files = filesInFolder({path("a.b.mov"), path("x/c"), path("..d")}, path("to"), "mp4", false);
    ASSERT_EQ(files.size(), 3U);
    EXPECT_EQ(files[0].destination, path("to/a.b.mp4"));
    EXPECT_THAT(files[0].sources, ElementsAre(path("a.b.mov")));
    EXPECT_EQ(files[1].destination, path("to/c.mp4"));
    EXPECT_EQ(filesInFolder({path("a.b.mov")}, path("to"), "", false).front().destination, path("to/a.b.mov"));
}

TEST_F(OutputNames, TwoSourcesNeverHaveTheSameFile) {
    EXPECT_EQ(complaint([&] {
                  return filesInFolder({path("a.mov"), path("x/a.mkv")}, path("to"), "mp4", true);
              }),
              path("a.mov") + " and " + path("x/a.mkv") + " would both become " + path("to/a.mp4"));
}

TEST_F(OutputNames, TheFolderMustNotBeAFile) {
    make("to");
    EXPECT_EQ(complaint([&] { return filesInFolder({path("a.mov")}, path("to"), "mp4", true); }),
              path("to") + " is not a folder");
}

TEST_F(OutputNames, AFileInAFolderIsReplacedOnlyIfForced) {
    make("to/b.mp4");
    const std::vector<std::string> sources{path("a.mov"), path("b.mov")};
    EXPECT_EQ(complaint([&] { return filesInFolder(sources, path("to"), "mp4", false); }),
              path("to/b.mp4") + " exists; use --force to replace it");
    EXPECT_EQ(filesInFolder(sources, path("to"), "mp4", true).size(), 2U);
}

}  // namespace
}  // namespace krvqt

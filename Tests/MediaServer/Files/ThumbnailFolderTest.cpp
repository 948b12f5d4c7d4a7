#include <fstream>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Value picture(std::int64_t offset, std::int64_t length, double time = 0) {
    return std::make_shared<Dictionary>(
        Dictionary{{kThumbnailOffset, offset}, {kThumbnailLength, length}, {kResultThumbnailTime, time}});
}

class Thumbnails : public testing::Test {
protected:
    Thumbnails() { ::setenv("XDG_STATE_HOME", (temporary.path() / "state").c_str(), 1); }

    std::string folder() const { return (temporary.path() / "pictures").string(); }
    fs::path file(int number) const { return fs::path(folder()) / fmt::format("thumbnail-{:04}.jpg", number); }
    std::unique_ptr<ThumbnailFolder> open(std::string_view pictures = "onetwothree") {
        auto opened = ThumbnailFolder::open(folder(), error);
        if (opened) {
            EXPECT_EQ(::write(opened->descriptor(), pictures.data(), pictures.size()),
                      static_cast<ssize_t>(pictures.size()));
        }
        return opened;
    }
    std::int64_t commit(ThumbnailFolder& opened, Array list) {
        record.setResult(std::make_shared<Dictionary>(Dictionary{{kResultThumbnails, std::move(list)}}));
        error = opened.commit(record);
        return error ? static_cast<std::int64_t>(codeOf(error->cause)) : 0;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        std::error_code failure;
        for (const auto& entry : fs::directory_iterator(folder(), failure)) {
            found.push_back(entry.path().filename().string());
        }
        return found;
    }

    test::TemporaryFolder temporary;
    KRVOperationBase record;
    std::optional<Failure> error;
};

TEST_F(Thumbnails, BecomeFilesInANewFolder) {
    const auto opened = open();
    ASSERT_TRUE(opened);
    ASSERT_EQ(commit(*opened, {picture(0, 3, 0.5), picture(3, 3, 1.5), picture(6, 5, 2.5)}), 0);
    EXPECT_THAT(names(),
                testing::UnorderedElementsAre("thumbnail-0001.jpg", "thumbnail-0002.jpg", "thumbnail-0003.jpg"));
    EXPECT_EQ(contents(file(1)), "one");
    EXPECT_EQ(contents(file(2)), "two");
    EXPECT_EQ(contents(file(3)), "three");
    const auto list = (*record.result())[kResultThumbnails].array();
    ASSERT_EQ(list->size(), 3U);
    const auto second = (*list)[1].dictionary();
    EXPECT_EQ(*second, (Dictionary{{kResultThumbnailPath, file(2).string()}, {kResultThumbnailTime, 1.5}}));
}

TEST_F(Thumbnails, LeaveNothingBehindWithoutCommit) {
    { const auto opened = open(); }
    EXPECT_FALSE(fs::exists(folder()));
}

TEST_F(Thumbnails, KeepAnExistingFolder) {
    fs::create_directory(folder());
    { const auto opened = open(); }
    EXPECT_TRUE(fs::exists(folder()));
    EXPECT_THAT(names(), testing::IsEmpty());
}

TEST_F(Thumbnails, ReplaceEarlierThumbnails) {
    fs::create_directory(folder());
    std::ofstream(file(1)) << "old";
    const auto opened = open();
    ASSERT_EQ(commit(*opened, {picture(0, 3), picture(3, 3)}), 0);
    EXPECT_EQ(contents(file(1)), "one");
    EXPECT_THAT(names(), testing::UnorderedElementsAre("thumbnail-0001.jpg", "thumbnail-0002.jpg"));
}

TEST_F(Thumbnails, AppearAllOrNone) {
    fs::create_directory(folder());
    std::ofstream(file(1)) << "old";
    fs::create_directory(file(3));  // in the way of the last one
    const auto opened = open();
    EXPECT_EQ(commit(*opened, {picture(0, 3), picture(3, 3), picture(6, 5)}), 5);
    EXPECT_EQ(contents(file(1)), "old");
    EXPECT_THAT(names(), testing::UnorderedElementsAre("thumbnail-0001.jpg", "thumbnail-0003.jpg"));
}

TEST_F(Thumbnails, AreRefusedIfTheWorkersListIsInconsistent) {
    for (const Array& list :
         {Array{}, Array{picture(0, 0)}, Array{picture(-1, 2)}, Array{picture(0, 12)}, Array{picture(INT64_MAX, 1)},
          Array{picture(11, 1)}, Array{Value("one")}, Array{picture(0, 3), picture(8, INT64_MAX)}}) {
        const auto opened = open();
        EXPECT_EQ(commit(*opened, list), 8);
    }
    const auto opened = open();
    record.setResult(nullptr);
    EXPECT_EQ(opened->commit(record)->cause, FailureCause::InternalError);
    EXPECT_THAT(names(), testing::IsEmpty());
}

TEST_F(Thumbnails, NeedAFolderThatCanBeWrittenTo) {
    EXPECT_FALSE(ThumbnailFolder::open((temporary.path() / "no" / "pictures").string(), error));
    EXPECT_EQ(error->cause, FailureCause::UnwritableDestination);
    std::ofstream(folder()) << "a file";
    EXPECT_FALSE(ThumbnailFolder::open(folder(), error));
    EXPECT_EQ(error->cause, FailureCause::UnwritableDestination);
}

}  // namespace
}  // namespace krv::server

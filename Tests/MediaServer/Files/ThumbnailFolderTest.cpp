#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "OutputFixture.h"
#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

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
    /// Returns the error code; 0 if all files are in place, -1 if onProgress ended the work.
    std::int64_t commit(
        ThumbnailFolder& opened, Array list, const std::function<bool()>& onProgress = [] { return true; }) {
        record.setResult(std::make_shared<Dictionary>(Dictionary{{kResultThumbnails, std::move(list)}}));
        error.reset();
        if (opened.commit(record, {onProgress, onProgress}, error)) {
            return 0;
        }
        return error ? static_cast<std::int64_t>(codeOf(error->cause)) : -1;
    }
    static Array threePictures() { return {picture(0, 3), picture(3, 3), picture(6, 5)}; }
    /// The names in the folder with what is in the files.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> found;
        for (const std::string& name : names()) {
            found[name] = contents(fs::path(folder()) / name);
        }
        return found;
    }
    std::size_t notes() const {
        std::error_code absent;
        const auto place = temporary.path() / "state/KRVQuicktimeProcess/unfinished";
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(place, absent), {}));
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
    EXPECT_FALSE(opened->commit(record, {[] { return true; }, [] { return true; }}, error));
    EXPECT_EQ(error->cause, FailureCause::InternalError);
    EXPECT_THAT(names(), testing::IsEmpty());
}

TEST_F(Thumbnails, NeedAFolderThatCanBeWrittenTo) {
    EXPECT_FALSE(ThumbnailFolder::open((temporary.path() / "no" / "pictures").string(), error));
    EXPECT_EQ(error->cause, FailureCause::UnwritableDestination);
    std::ofstream(folder()) << "a file";
    EXPECT_FALSE(ThumbnailFolder::open(folder(), error));
    EXPECT_EQ(error->cause, FailureCause::UnwritableDestination);
}

TEST_F(Thumbnails, AreMadeByTheThousandWithFewDescriptors) {
    constexpr int kMost = 9999;
    fs::create_directory(folder());
    std::ofstream(file(kMost)) << "old";
    const auto opened = open();
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{64, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    Array list;
    for (int i = 0; i < kMost; ++i) {
        list.push_back(picture(i % 3 * 3, 3));
    }
    int signs = 0;
    const auto result = commit(*opened, std::move(list), [&] {
        ++signs;
        return true;
    });
    ::setrlimit(RLIMIT_NOFILE, &before);
    ASSERT_EQ(result, 0) << error->path << ": " << std::strerror(error->errorNumber);
    EXPECT_GE(signs, 3 * kMost);  // while they are written, flushed and put in place
    EXPECT_EQ(names().size(), std::size_t{kMost});
    EXPECT_EQ(contents(file(1)), "one");
    EXPECT_EQ(contents(file(kMost)), "thr");
    EXPECT_EQ(notes(), 0U);
}

TEST_F(Thumbnails, CanBeCancelledAtEachFile) {
    fs::create_directory(folder());
    std::ofstream(file(2)) << "old";
    for (const auto& surroundings :
         {std::function(withoutLinks), std::function([](const std::function<void()>& call) { call(); })}) {
        surroundings([this] {
            int allowed = 0;
            std::int64_t result = -1;
            while (result == -1) {
                auto opened = open();
                result = commit(*opened, threePictures(), [left = allowed]() mutable { return left-- > 0; });
                opened.reset();
                if (result == -1) {
                    EXPECT_EQ(files(), (std::map<std::string, std::string>{{"thumbnail-0002.jpg", "old"}})) << allowed;
                    EXPECT_EQ(notes(), 0U);
                    ++allowed;
                }
            }
            EXPECT_EQ(result, 0);
            EXPECT_GE(allowed, 10);  // each is written, flushed and put in place, and all are kept
            EXPECT_EQ(files(), (std::map<std::string, std::string>{{"thumbnail-0001.jpg", "one"},
                                                                   {"thumbnail-0002.jpg", "two"},
                                                                   {"thumbnail-0003.jpg", "three"}}));
            fs::remove(file(1));
            fs::remove(file(3));
            std::ofstream(file(2)) << "old";
        });
    }
}

TEST_F(Thumbnails, OfAServerThatIsKilledAppearAllOrNone) {
    fs::create_directory(folder());
    std::ofstream(file(2)) << "old";
    const std::map<std::string, std::string> none{{"thumbnail-0002.jpg", "old"}};
    const std::map<std::string, std::string> all{
        {"thumbnail-0001.jpg", "one"}, {"thumbnail-0002.jpg", "two"}, {"thumbnail-0003.jpg", "three"}};
    bool killed = true;
    int seenNone = 0;
    for (int allowed = 0; killed; ++allowed) {
        const pid_t server = ::fork();
        if (server == 0) {
            const auto opened = open();
            const auto result = commit(*opened, threePictures(), [left = allowed]() mutable {
                if (left-- == 0) {
                    ::raise(SIGKILL);
                }
                return true;
            });
            ::_exit(static_cast<int>(result));
        }
        int status = 0;
        ASSERT_EQ(::waitpid(server, &status, 0), server);
        killed = WIFSIGNALED(status);
        OperationFiles::sweep();
        const auto found = files();
        seenNone += found == none ? 1 : 0;
        EXPECT_TRUE(found == none || found == all) << allowed;
        EXPECT_TRUE(killed || found == all);
        EXPECT_EQ(notes(), 0U);
        if (found == all) {
            fs::remove(file(1));
            fs::remove(file(3));
            std::ofstream(file(2)) << "old";
        }
    }
    EXPECT_GE(seenNone, 10);
}

TEST_F(Thumbnails, ThatAnotherProgramHasReplacedAreNotTakenBack) {
    const auto opened = open();
    int signs = 0;
    EXPECT_EQ(commit(*opened, threePictures(),
                     [&] {
                         if (++signs == 8) {
                             fs::remove(file(1));
                             std::ofstream(file(1)) << "somebody else's";
                         }
                         return signs < 8;
                     }),
              -1);
    EXPECT_EQ(files(), (std::map<std::string, std::string>{{"thumbnail-0001.jpg", "somebody else's"}}));
}

TEST_F(Thumbnails, InheritThePermissionsOfTheFilesTheyReplace) {
    fs::create_directory(folder());
    std::ofstream(file(1)) << "old";
    fs::permissions(file(1), fs::perms(0640));
    const auto opened = open();
    const mode_t mask = ::umask(022);
    ASSERT_EQ(commit(*opened, threePictures()), 0);
    ::umask(mask);
    EXPECT_EQ(modeOf(file(1)), 0640U);
    EXPECT_EQ(modeOf(file(2)), 0644U);
}

TEST_F(Thumbnails, LandInTheirFolderWhenItIsRenamed) {
    fs::create_directory(folder());
    const auto opened = open();
    fs::rename(folder(), temporary.path() / "renamed");
    ASSERT_EQ(commit(*opened, threePictures()), 0);
    EXPECT_EQ(contents(temporary.path() / "renamed/thumbnail-0003.jpg"), "three");
    EXPECT_FALSE(fs::exists(folder()));
}

}  // namespace
}  // namespace krv::server

// Thumbnails, descriptions and interesting times with the real server and the client.
#include <gmock/gmock.h>

#include "ObservedWork.h"
#include "ServerFixture.h"
#include <MediaServer/Files/FileState.h>

namespace krv::server {
namespace {

class Inspection : public Server {
protected:
    std::string pictures() const { return out("pictures"); }
    std::vector<std::string> namesIn(const std::string& place) const {
        std::vector<std::string> names;
        std::error_code failure;
        for (const auto& entry : fs::directory_iterator(place, failure)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    /// Runs a record and returns the finished one, which may have an error.
    R::Ref run(const R::Ref& request) const {
        std::shared_ptr<const Error> error;
        (void)TransportInvocation::invocationWith(request)->invokeOverTransportGetProgressWaitToComplete(transport,
                                                                                                         &error, 60);
        EXPECT_FALSE(error);
        return ask(R::returnResultForOperation(request->uniqueID()));
    }
    std::string notAMovie() const {
        const std::string path = (folder.path() / "no.mov").string();
        std::ofstream(path) << "this is not a movie, only some text that is long enough";
        return path;
    }
};

TEST_F(Inspection, ThumbnailsAppearInTheirFolderAndInTheResult) {
    start();
    const auto request = R::createThumbnailsForVideo(movie(), pictures(), {100, 0});
    request->arguments()->set("thumbnailCount", 3);
    const auto finished = run(request);
    ASSERT_FALSE(finished->error());
    EXPECT_TRUE(finished->completed());
    EXPECT_EQ(finished->progress(), 1.0F);
    const auto list = (*finished->result())["thumbnails"].array();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 3U);
    EXPECT_THAT(namesIn(pictures()),
                testing::ElementsAre("thumbnail-0001.jpg", "thumbnail-0002.jpg", "thumbnail-0003.jpg"));
    double last = 0;
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto picture = (*list)[i].dictionary();
        EXPECT_EQ((*picture)["path"].stringValue(), fmt::format("{}/thumbnail-000{}.jpg", pictures(), i + 1));
        EXPECT_GT((*picture)["time"].doubleValue(), last);
        last = (*picture)["time"].doubleValue();
    }
    EXPECT_LT(last, 2.1);
}

TEST_F(Inspection, EveryResultSaysWhereATruncatedSourceEnds) {
    start();
    const std::string whole = out("whole.mov");
    ASSERT_EQ(convert(movie(), whole, 0), nullptr);
    const std::string cut = out("cut.mov");
    fs::copy_file(whole, cut);
    fs::resize_file(cut, fs::file_size(cut) * 2 / 3);
    const auto thumbnails = R::createThumbnailsForVideo(cut, pictures(), {100, 0});
    thumbnails->arguments()->set("thumbnailCount", 2);
    for (const R::Ref& request :
         {R::encodeVideoOperation(cut, out("new.mp4")), thumbnails, R::provideMetadataFor(cut),
          R::muxAudioTo2chOperation(cut, out("new.mov")), R::getInterestingTimesOperation(cut, false, 0)}) {
        const auto finished = run(request);
        ASSERT_FALSE(finished->error()) << finished->error()->description();
        ASSERT_TRUE(finished->result()) << request->nameFromType();
        const double end = (*finished->result())[kResultSourceTruncatedAt].doubleValue();
        EXPECT_GT(end, 0.5) << request->nameFromType();
        EXPECT_LT(end, 1.9) << request->nameFromType();
    }
    const auto merged = run(R::mergeSourcesOperation(Value(Array{whole, cut}), out("merged.mov"), false));
    ASSERT_FALSE(merged->error());
    ASSERT_TRUE(merged->result());
    const auto list = (*merged->result())[kResultSourcesTruncatedAt].array();
    ASSERT_TRUE(list && list->size() == 2);
    EXPECT_TRUE((*list)[0].isNull());
    EXPECT_GT((*list)[1].doubleValue(), 0.5);
    const auto complete = run(R::provideMetadataFor(whole));
    EXPECT_TRUE(!complete->result() || !complete->result()->find(kResultSourceTruncatedAt));
}

TEST_F(Inspection, TheClientMakesTwelveThumbnails) {
    start();
    stopUntilObserved(*observer, [this] { return workers(); });
    std::shared_ptr<const Error> error;
    EXPECT_TRUE(client->createThumbnailsFor(movie(), pictures(), {}, observer, &error));
    EXPECT_FALSE(error);
    EXPECT_THAT(namesIn(pictures()), testing::SizeIs(12));
    EXPECT_FALSE(observer->seen.empty());
    EXPECT_TRUE(std::is_sorted(observer->seen.begin(), observer->seen.end()));
}

TEST_F(Inspection, ThumbnailsThatFailLeaveNoFolder) {
    start();
    const auto finished = run(R::createThumbnailsForVideo(notAMovie(), pictures(), {}));
    ASSERT_TRUE(finished->error());
    EXPECT_EQ(finished->error()->code(), 4);
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Inspection, ThumbnailsThatAreCancelledLeaveNoFolder) {
    start();
    const auto request = R::createThumbnailsForVideo(std::string(KRV_TEST_MEDIA) + "/longer.mov", pictures(), {});
    request->arguments()->set("thumbnailCount", 2000);
    request->setProgressDelegate(observer);
    observer->onProgress = [](const R&, float) { return false; };
    std::shared_ptr<const Error> error;
    (void)TransportInvocation::invocationWith(request)->invokeOverTransportGetProgressWaitToComplete(transport, &error,
                                                                                                     60);
    EXPECT_TRUE(request->cancelled());
    waitUntil([this] { return status()["running"] == 0; });
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Inspection, AMovieIsDescribed) {
    start();
    std::shared_ptr<const Error> error;
    const auto info = client->getMetadataFor(movie(), &error);
    ASSERT_TRUE(info);
    EXPECT_FALSE(error);
    EXPECT_EQ((*info)[kMediaMetadataCodec].stringValue(), "H.264, AAC");
    EXPECT_EQ((*info)[kMediaMetadataAudio].stringValue(), "AAC, 48000 Hz, mono");
    EXPECT_EQ((*info)[kMediaMetadataDuration].kind(), Value::Kind::Float64);
    EXPECT_NEAR((*info)[kMediaMetadataDuration].doubleValue(), 2.0, 0.05);
    EXPECT_EQ((*info)[kMediaMetadataDimensions].sizeValue(), (Size{320, 240}));
    EXPECT_EQ((*info)[kMediaMetadataSize].integerValue(), static_cast<std::int64_t>(fs::file_size(movie())));
    EXPECT_EQ((*info)[kMediaMetadataPath].stringValue(), movie());
    EXPECT_EQ((*info)[kMediaMetadataFrameRate].doubleValue(), 25.0);
    ASSERT_TRUE((*info)[kMediaMetadataModified].date());
    struct stat file {};
    ::stat(movie().c_str(), &file);
    EXPECT_NEAR((*info)[kMediaMetadataModified].date()->secondsSinceReference + 978307200,
                static_cast<double>(file.st_mtim.tv_sec), 1.0);
    EXPECT_TRUE((*info)[kMediaMetadataCreation].date());
    const auto poster = (*info)[kMediaMetadataPoster].data();
    ASSERT_TRUE(poster);
    EXPECT_EQ((*poster)[0], std::byte{0xff});
    EXPECT_EQ((*poster)[1], std::byte{0xd8});
}

/// Expects the tracks, tags and chapters of "everything.mkv".
void expectEverything(const R::Ref& finished) {
    ASSERT_FALSE(finished->error());
    ASSERT_TRUE(finished->result());
    const Dictionary& result = *finished->result();
    const auto dictionary = [](Dictionary entries) { return Value(std::make_shared<Dictionary>(std::move(entries))); };
    EXPECT_EQ(result[kResultMovieTags],
              dictionary({{"artist", "Nobody"}, {"comment", "Made for a test"}, {"title", "A plain movie"}}));
    EXPECT_EQ(
        result[kResultMovieChapters],
        Value(Array{
            dictionary(
                {{kResultMovieChapterStart, 0.0}, {kResultMovieChapterEnd, 1.0}, {kResultMovieChapterTitle, "One"}}),
            dictionary(
                {{kResultMovieChapterStart, 1.0}, {kResultMovieChapterEnd, 2.0}, {kResultMovieChapterTitle, "Two"}})}));
    EXPECT_EQ(result[kResultMovieTracks], Value(Array{dictionary({{kResultMovieTrackIndex, 0},
                                                                  {kResultMovieTrackKind, "video"},
                                                                  {kResultMovieTrackCodec, "H.264"},
                                                                  {kResultMovieTrackLanguage, ""},
                                                                  {kResultMovieTrackDefault, true},
                                                                  {kResultMovieTrackDimensions, Size{320, 240}},
                                                                  {kResultMovieTrackFrameRate, 25.0}}),
                                                      dictionary({{kResultMovieTrackIndex, 1},
                                                                  {kResultMovieTrackKind, "audio"},
                                                                  {kResultMovieTrackCodec, "AAC"},
                                                                  {kResultMovieTrackLanguage, "deu"},
                                                                  {kResultMovieTrackTitle, "The sound"},
                                                                  {kResultMovieTrackDefault, true},
                                                                  {kResultMovieTrackChannels, 6},
                                                                  {kResultMovieTrackSampleRate, 48000}}),
                                                      dictionary({{kResultMovieTrackIndex, 2},
                                                                  {kResultMovieTrackKind, "subtitle"},
                                                                  {kResultMovieTrackCodec, "subrip"},
                                                                  {kResultMovieTrackLanguage, "fra"},
                                                                  {kResultMovieTrackDefault, false}})}));
}

TEST_F(Inspection, ADescriptionListsTracksTagsAndChaptersAlsoFromMemory) {
    start();
    const std::string all = std::string(KRV_TEST_MEDIA) + "/everything.mkv";
    expectEverything(run(R::provideMetadataFor(all)));
    for (const pid_t worker : workers()) {
        ::kill(worker, SIGSTOP);  // so that no description can be made
    }
    expectEverything(run(R::provideMetadataFor(all)));
    for (const pid_t worker : workers()) {
        ::kill(worker, SIGCONT);
    }
}

/// Waits until a file is old enough for its description to be remembered.
void waitUntilSettled(const std::string& path) {
    waitUntil([&] {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 && !FileState(status).isFresh();
    });
}

TEST_F(Inspection, AMovieThatIsReplacedIsDescribedAgain) {
    start();
    const std::string copy = out("movie.mov");
    const auto codecs = [&] {
        std::shared_ptr<const Error> error;
        const auto info = client->getMetadataFor(copy, &error);
        return info ? (*info)[kMediaMetadataCodec].stringValue() : error->localizedDescription();
    };
    fs::copy_file(movie(), copy);
    waitUntilSettled(copy);
    EXPECT_EQ(codecs(), "H.264, AAC");
    fs::copy_file(std::string(KRV_TEST_MEDIA) + "/long.mov", copy, fs::copy_options::overwrite_existing);
    EXPECT_EQ(codecs(), "MPEG-4, PCM");
}

TEST_F(Inspection, AMovieThatMayNoLongerBeReadIsNotDescribedFromMemory) {
    startHeldByPermissions();
    const std::string copy = out("movie.mov");
    fs::copy_file(movie(), copy);
    waitUntilSettled(copy);
    std::shared_ptr<const Error> error;
    EXPECT_TRUE(client->getMetadataFor(copy, &error));
    fs::permissions(fs::path(copy).parent_path(), fs::perms::none);
    EXPECT_FALSE(client->getMetadataFor(copy, &error));
    fs::permissions(fs::path(copy).parent_path(), fs::perms::owner_all);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(OperationErrorCode::UnreadableSource));
}

TEST_F(Inspection, AMovieIsDescribedTheSameFromMemory) {
    start();
    std::shared_ptr<const Error> error;
    const auto first = client->getMetadataFor(movie(), &error);
    ASSERT_TRUE(first);
    for (const pid_t worker : workers()) {
        ::kill(worker, SIGSTOP);  // so that no description can be made
    }
    const auto second = client->getMetadataFor(movie(), &error);
    for (const pid_t worker : workers()) {
        ::kill(worker, SIGCONT);
    }
    ASSERT_TRUE(second);
    EXPECT_TRUE(*first == *second);
}

TEST_F(Inspection, AMovieIsDescribedWhileAllConversionThreadsAreBusy) {
    start();
    // More than can run at the same time, so that some wait.
    const int conversions = static_cast<int>(status()["workers"]) + 2;
    std::vector<R::Ref> requests;
    for (int i = 0; i < conversions; ++i) {
        const auto request =
            R::encodeVideoOperation(std::string(KRV_TEST_MEDIA) + "/longer.mov", out(fmt::format("{}.mp4", i).c_str()));
        request->arguments()->set(kArgumentEncodingType, 2);  // takes much longer than a description
        requests.push_back(ask(request));
    }
    std::shared_ptr<const Error> error;
    EXPECT_TRUE(client->getMetadataFor(movie(), &error));
    EXPECT_FALSE(client->getInterestingTimesForMovie(movie(), false, 0, &error).isNull());
    // None of them has ended, so the queries did not wait for them.
    const auto now = status();
    EXPECT_EQ(now["running"].get<int>() + now["queued"].get<int>(), conversions) << now;
    EXPECT_GE(now["queued"].get<int>(), 2);
    (void)ask(R::cancelAllOperationsOperation());
    waitUntil([this] { return status()["running"] == 0; });
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Inspection, AMissingPropertyIsLeftOutOfTheDescription) {
    start();
    std::shared_ptr<const Error> error;
    const auto info = client->getMetadataFor(std::string(KRV_TEST_MEDIA) + "/sound.wav", &error);
    ASSERT_TRUE(info);
    for (const std::string_view key : {kMediaMetadataDimensions, kMediaMetadataFrameRate, kMediaMetadataPoster}) {
        EXPECT_FALSE(info->find(key)) << key;
    }
    EXPECT_EQ((*info)[kMediaMetadataCodec].stringValue(), "PCM");
}

TEST_F(Inspection, InterestingTimesAreAscendingIntegersWithTheirScale) {
    start();
    std::shared_ptr<const Error> error;
    const Value answer =
        client->getInterestingTimesForMovie(std::string(KRV_TEST_MEDIA) + "/chapters.mp4", false, 0, &error);
    EXPECT_FALSE(error);
    const auto times = answer.dictionary();
    ASSERT_TRUE(times);
    const auto scale = (*times)[kResultInterestingTimeTimescale];
    EXPECT_EQ(scale.kind(), Value::Kind::Integer);
    std::vector<double> seconds;
    for (const Value& value : *(*times)[kResultInterestingTimeValues].array()) {
        EXPECT_EQ(value.kind(), Value::Kind::Integer);
        seconds.push_back(static_cast<double>(value.integerValue()) / scale.doubleValue());
    }
    EXPECT_THAT(seconds, testing::ElementsAre(0.0, 1.0));
}

TEST_F(Inspection, ATrackThatDoesNotExistIsErrorNine) {
    start();
    std::shared_ptr<const Error> error;
    EXPECT_TRUE(client->getInterestingTimesForMovie(movie(), true, 99, &error).isNull());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 9);
}

TEST_F(Inspection, AFileThatIsNotAMovieHasNeitherDescriptionNorTimes) {
    start();
    for (const R::Ref& request :
         {R::provideMetadataFor(notAMovie()), R::getInterestingTimesOperation(notAMovie(), false, 0)}) {
        const auto finished = run(request);
        ASSERT_TRUE(finished->error());
        EXPECT_EQ(finished->error()->code(), 4);
        EXPECT_THAT(finished->error()->localizedDescription(), testing::HasSubstr("no.mov"));
    }
    const auto missing = run(R::provideMetadataFor("/does/not/exist.mov"));
    ASSERT_TRUE(missing->error());
    EXPECT_EQ(missing->error()->code(), 3);
}

}  // namespace
}  // namespace krv::server

#include <chrono>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/FinishedResult.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>

namespace krv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <typename T>
T as(const std::shared_ptr<const void>& result) {
    return *std::static_pointer_cast<const T>(result);
}

/// Gives a request room for a result, as replies have it.
KRVOperationBase::Ref finished(KRVOperationBase::Ref record) {
    record->setResult(std::make_shared<Dictionary>());
    return record;
}

KRVOperationBase::Ref conversion() {
    return finished(KRVOperationBase::encodeVideoOperation("/in.mov", "/out.mp4"));
}

TEST(FinishedResult, AConversionHasItsPathAndWhatWasDropped) {
    const auto record = conversion();
    record->result()->set(kResultDroppedTracks, Array{Dictionary{{kResultDroppedTrackIndex, 3},
                                                                 {kResultDroppedTrackKind, "subtitle"},
                                                                 {kResultDroppedTrackCodec, "PGS"},
                                                                 {kResultDroppedTrackLanguage, "de"},
                                                                 {kResultDroppedTrackReason, "no room"}}});
    record->result()->set(kResultSourceTruncatedAt, 12.5);
    const auto result = as<Converted>(converted(record));
    EXPECT_EQ(result.path, "/out.mp4");
    EXPECT_THAT(
        result.droppedTracks,
        ElementsAre(DroppedTrack{
            .source = 0, .index = 3, .kind = "subtitle", .codec = "PGS", .language = "de", .reason = "no room"}));
    EXPECT_EQ(result.sourceTruncatedAt, Seconds(12.5));
    EXPECT_EQ(result.record, record);
}

TEST(FinishedResult, AMergeSaysWhichSourceIsTruncated) {
    const auto record = finished(KRVOperationBase::mergeSourcesOperation(Array{"/a.mov", "/b.mov"}, "/out.mp4", false));
    record->result()->set(kResultSourcesTruncatedAt, Array{Value(), 3.0});
    record->result()->set(kResultDroppedTracks, Array{Dictionary{{kResultDroppedTrackSource, 1}}});
    const auto result = as<Merged>(merged(record));
    EXPECT_THAT(result.sourcesTruncatedAt, ElementsAre(std::nullopt, Seconds(3)));
    ASSERT_EQ(result.droppedTracks.size(), 1U);
    EXPECT_EQ(result.droppedTracks.front().source, 1U);
}

TEST(FinishedResult, ThumbnailsHavePathsAndTimes) {
    const auto record = finished(KRVOperationBase::createThumbnailsForVideo("/in.mov", "/folder", {}));
    record->result()->set(kResultThumbnails, Array{Dictionary{{kResultThumbnailPath, "/folder/thumbnail-0001.jpg"},
                                                              {kResultThumbnailTime, 0.5}}});
    const auto result = as<Thumbnails>(thumbnails(record));
    ASSERT_EQ(result.thumbnails.size(), 1U);
    EXPECT_EQ(result.thumbnails.front().path, "/folder/thumbnail-0001.jpg");
    EXPECT_EQ(result.thumbnails.front().time, Seconds(0.5));
}

TEST(FinishedResult, AMovieIsDescribed) {
    const auto record = finished(KRVOperationBase::provideMetadataFor("/in.mov"));
    record->setMetadata(std::make_shared<const Dictionary>(Dictionary{
        {kMediaMetadataPath, "/in.mov"},
        {kMediaMetadataCodec, "H.264, AAC"},
        {kMediaMetadataAudio, "AAC, 48000 Hz, stereo"},
        {kMediaMetadataDuration, 2.0},
        {kMediaMetadataDimensions, Size{640, 360}},
        {kMediaMetadataFrameRate, 25.0},
        {kMediaMetadataSize, 12345},
        {kMediaMetadataCreation, Date{-978307200.0}},
        {kMediaMetadataPoster, Data{std::byte{0xff}, std::byte{0xd8}}},
    }));
    record->result()->set(kResultMovieTracks, Array{Dictionary{{kResultMovieTrackIndex, 1},
                                                               {kResultMovieTrackKind, "audio"},
                                                               {kResultMovieTrackCodec, "AAC"},
                                                               {kResultMovieTrackLanguage, "de"},
                                                               {kResultMovieTrackDefault, true},
                                                               {kResultMovieTrackChannels, 2},
                                                               {kResultMovieTrackSampleRate, 48000}}});
    record->result()->set(kResultMovieTags, Dictionary{{"title", "A Film"}});
    record->result()->set(kResultMovieChapters, Array{Dictionary{{kResultMovieChapterStart, 0.5},
                                                                 {kResultMovieChapterEnd, 1.5},
                                                                 {kResultMovieChapterTitle, "Beginning"}}});
    const auto info = as<MovieInfo>(movieInfo(record));
    ASSERT_EQ(info.tracks.size(), 1U);
    EXPECT_EQ(info.tracks.front().index, 1);
    EXPECT_EQ(info.tracks.front().kind, "audio");
    EXPECT_EQ(info.tracks.front().codec, "AAC");
    EXPECT_EQ(info.tracks.front().language, "de");
    EXPECT_TRUE(info.tracks.front().isDefault);
    EXPECT_EQ(info.tracks.front().channels, 2);
    EXPECT_EQ(info.tracks.front().sampleRate, 48000);
    EXPECT_THAT(info.tags, ElementsAre(testing::Pair("title", "A Film")));
    ASSERT_EQ(info.chapters.size(), 1U);
    EXPECT_EQ(info.chapters.front().start, Seconds(0.5));
    EXPECT_EQ(info.chapters.front().end, Seconds(1.5));
    EXPECT_EQ(info.chapters.front().title, "Beginning");
    EXPECT_EQ(info.path, "/in.mov");
    EXPECT_EQ(info.codecs, "H.264, AAC");
    EXPECT_EQ(info.audio, "AAC, 48000 Hz, stereo");
    EXPECT_EQ(info.duration, Seconds(2));
    EXPECT_EQ(info.width, 640);
    EXPECT_EQ(info.height, 360);
    EXPECT_EQ(info.frameRate, 25);
    EXPECT_EQ(info.size, 12345);
    EXPECT_EQ(info.created, std::chrono::system_clock::time_point()) << "dates count from the start of 2001";
    EXPECT_EQ(info.modified, std::nullopt);
    ASSERT_TRUE(info.poster);
    EXPECT_EQ(info.poster->size(), 2U);
}

TEST(FinishedResult, TimesAreExactAndInSeconds) {
    const auto record = finished(KRVOperationBase::getInterestingTimesOperation("/in.mov", false, 0));
    record->result()->set(kResultInterestingTimes, Dictionary{{kResultInterestingTimeValues, Array{0, 300, 900}},
                                                              {kResultInterestingTimeTimescale, 600}});
    const auto result = as<InterestingTimes>(interestingTimes(record));
    EXPECT_THAT(result.values, ElementsAre(0, 300, 900));
    EXPECT_EQ(result.timescale, 600);
    EXPECT_THAT(result.seconds(), ElementsAre(Seconds(0), Seconds(0.5), Seconds(1.5)));
}

TEST(FinishedResult, ValuesOfOtherKindsDoNoHarm) {
    const auto record = conversion();
    record->result()->set(kResultDroppedTracks, Array{1, "two", Dictionary{{kResultDroppedTrackSource, -7}}});
    record->result()->set(kResultSourceTruncatedAt, "soon");
    record->result()->set(kResultThumbnails, Dictionary());
    record->result()->set(kResultInterestingTimes, Dictionary{{kResultInterestingTimeTimescale, 0}});
    record->setMetadata(std::make_shared<const Dictionary>(
        Dictionary{{kMediaMetadataCreation, Date{1e300}}, {kMediaMetadataModified, Date{std::nan("")}}}));
    EXPECT_EQ(as<Converted>(converted(record)).droppedTracks.size(), 3U);
    EXPECT_EQ(as<Converted>(converted(record)).droppedTracks.back().source, 0U);
    EXPECT_EQ(as<Converted>(converted(record)).sourceTruncatedAt, std::nullopt);
    EXPECT_THAT(as<Thumbnails>(thumbnails(record)).thumbnails, IsEmpty());
    EXPECT_EQ(as<InterestingTimes>(interestingTimes(record)).timescale, 1);
    EXPECT_EQ(as<MovieInfo>(movieInfo(record)).created, std::nullopt);
    EXPECT_EQ(as<MovieInfo>(movieInfo(record)).modified, std::nullopt);
}

TEST(FinishedResult, ARecordWithoutDictionariesGivesAnEmptyResult) {
    const auto record = conversion();
    record->setResult(nullptr);
    record->setArguments(nullptr);
    EXPECT_EQ(as<Converted>(converted(record)).path, "");
    EXPECT_EQ(as<MovieInfo>(movieInfo(record)).path, "");
    EXPECT_THAT(as<InterestingTimes>(interestingTimes(record)).values, IsEmpty());
}

}  // namespace
}  // namespace krv

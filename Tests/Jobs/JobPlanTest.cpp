#include <filesystem>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/EncodingNames.h>
#include <KRVQTProcessClient/Jobs/JobPlan.h>

namespace krv {
namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

template <typename Options>
KRVOperationBase::Ref recordOf(const Options& options) {
    const auto plan = planOf(options);
    EXPECT_TRUE(plan.has_value()) << (plan ? "" : plan.error().cause());
    return plan ? plan->makeRecord() : nullptr;
}

template <typename Options>
Failure refusal(const Options& options) {
    const auto plan = planOf(options);
    EXPECT_FALSE(plan.has_value());
    return plan ? Failure(Failure::Kind::Internal, {}) : plan.error();
}

std::string settingsOf(const EncodingParameters& parameters) {
    const auto blob = parameters.settingsBlob();
    return blob ? std::string(reinterpret_cast<const char*>(blob->data()), blob->size()) : std::string();
}

TEST(JobPlan, AConversionWithoutOptionsIsOneByType) {
    const auto record = recordOf(ConvertOptions{.source = "/in.mov", .destination = "/out.mp4"});
    EXPECT_EQ(record->operationType(), OpEncodeVideo);
    EXPECT_EQ(record->encodingSourceFilename(), "/in.mov");
    EXPECT_EQ(record->encodingDestinationFilename(), "/out.mp4");
    EXPECT_EQ(record->encodingType(), VideoConversion::H264);
    EXPECT_FALSE(record->encodingFlattenOnly());
    EXPECT_FALSE(record->encodingVideoParameters());
    EXPECT_FALSE(record->encodingAudioParameters());
}

TEST(JobPlan, EachAttemptHasARecordOfItsOwn) {
    const auto plan = planOf(ConvertOptions{.source = "/in.mov", .destination = "/out.mp4"});
    ASSERT_TRUE(plan);
    EXPECT_NE(plan->makeRecord(), plan->makeRecord());
    EXPECT_EQ(plan->activity, "Converting in.mov");
    EXPECT_FALSE(plan->isShort);
}

TEST(JobPlan, RelativePathsCountFromTheWorkingFolder) {
    const auto record = recordOf(ConvertOptions{.source = "in.mov", .destination = "sub/out.mp4"});
    EXPECT_EQ(record->encodingSourceFilename(), (fs::current_path() / "in.mov").string());
    EXPECT_EQ(record->encodingDestinationFilename(), (fs::current_path() / "sub/out.mp4").string());
}

TEST(JobPlan, TheDestinationDecidesTheDefaultType) {
    EXPECT_EQ(recordOf(ConvertOptions{.source = "/a.mov", .destination = "/b.webm"})->encodingType(),
              VideoConversion::VP9);
}

TEST(JobPlan, OptionsOfTheVideoReplaceTheType) {
    const auto record = recordOf(ConvertOptions{.source = "/in.mov",
                                                .destination = "/out.mp4",
                                                .video = {.codec = "hevc", .quality = 0.5, .settings = "width=640"}});
    EXPECT_EQ(record->encodingType(), VideoConversion::Custom);
    const auto video = record->encodingVideoParameters();
    ASSERT_TRUE(video);
    EXPECT_EQ(video->codec(), codecFromName("hvc1"));
    EXPECT_EQ(video->quality(), 0.5F);
    EXPECT_EQ(settingsOf(*video), "width=640");
    EXPECT_FALSE(record->encodingAudioParameters());
}

TEST(JobPlan, ATypeWithAQualityKeepsTheCodecsOfTheType) {
    const auto record = recordOf(ConvertOptions{
        .source = "/in.mov", .destination = "/out.webm", .type = VideoConversion::AV1, .video = {.quality = 0.5}});
    EXPECT_EQ(record->encodingVideoParameters()->codec(), codecFromName("av01"));
    EXPECT_EQ(record->encodingAudioParameters()->codec(), codecFromName("Opus"));
}

TEST(JobPlan, PartsAndTracksAreSettingsBesideTheType) {
    const auto record = recordOf(ConvertOptions{.source = "/in.mov",
                                                .destination = "/out.mp4",
                                                .type = VideoConversion::HEVC,
                                                .start = Seconds(1.5),
                                                .end = Seconds(90),
                                                .audioTracks = "en,2",
                                                .subtitleTracks = "de",
                                                .burnInSubtitleTrack = "3",
                                                .strict = true});
    EXPECT_EQ(record->encodingType(), VideoConversion::HEVC);
    EXPECT_EQ(settingsOf(*record->encodingVideoParameters()),
              "trimStart=1.500000:trimEnd=90.000000:subtitleTracks=de:burnInSubtitleTrack=3:strict=1");
    EXPECT_EQ(settingsOf(*record->encodingAudioParameters()), "audioTracks=en,2");
}

TEST(JobPlan, FlatteningCopiesWhateverTheTypeWouldBe) {
    const auto record = recordOf(FlattenOptions{.source = "/in.mov", .destination = "/out.mp4", .strict = true});
    EXPECT_TRUE(record->encodingFlattenOnly());
    EXPECT_EQ(settingsOf(*record->encodingVideoParameters()), "strict=1");
}

TEST(JobPlan, AMergeHasItsSourcesInOrderAndOnlyTheOptionsThatWereGiven) {
    const auto record = recordOf(MergeOptions{
        .sources = {"/a.mov", "/b.mov"}, .destination = "/c.mp4", .useShortestTrack = true, .fps = 25, .width = 640});
    const auto sources = (*record->arguments())[kArgumentMergeSources].array();
    ASSERT_TRUE(sources);
    EXPECT_EQ(*sources, (Array{"/a.mov", "/b.mov"}));
    EXPECT_TRUE((*record->arguments())[kArgumentMergeSourcesUseShortest].boolValue());
    EXPECT_EQ((*record->arguments())[kArgumentMergeFrameRate], Value(25.0));
    EXPECT_EQ((*record->arguments())[kArgumentMergeSize], Value(Size{640, 0}));
    const auto plain = recordOf(MergeOptions{.sources = {"/a.mov"}, .destination = "/c.mp4"});
    EXPECT_FALSE(plain->arguments()->find(kArgumentMergeFrameRate));
    EXPECT_FALSE(plain->arguments()->find(kArgumentMergeSize));
}

TEST(JobPlan, ThumbnailsHaveACountAndASize) {
    const auto record = recordOf(ThumbnailOptions{.source = "/a.mov", .folder = "/out", .count = 20, .height = 200});
    EXPECT_EQ((*record->arguments())[kArgumentThumbnailCount], Value(20));
    EXPECT_EQ(record->thumbnailInfoSize(), (Size{0, 200}));
}

TEST(JobPlan, QuestionsAreShortWork) {
    EXPECT_TRUE(planOf(InfoOptions{.source = "/a.mov"})->isShort);
    const auto plan = planOf(InterestingTimesOptions{.source = "/a.mov", .track = 2});
    EXPECT_TRUE(plan->isShort);
    EXPECT_EQ((*plan->makeRecord()->arguments())[kArgumentTrackIndex], Value(2));
}

TEST(JobPlan, ImpossibleOptionsAreRefusedWithAReason) {
    const ConvertOptions good{.source = "/a.mov", .destination = "/b.mp4"};
    const auto cause = [&good](const auto& change) {
        ConvertOptions options = good;
        change(options);
        const Failure failure = refusal(options);
        EXPECT_EQ(failure.kind(), Failure::Kind::BadArgument);
        return failure.cause();
    };
    EXPECT_EQ(cause([](auto& o) { o.source = ""; }), "no source is given");
    EXPECT_EQ(cause([](auto& o) { o.destination = ""; }), "no destination is given");
    EXPECT_EQ(cause([](auto& o) { o.source = "/\xff.mov"; }), "the name of the source is not UTF-8");
    EXPECT_EQ(cause([](auto& o) { o.video.codec = "cinepak"; }), "\"cinepak\" is not a codec");
    EXPECT_EQ(cause([](auto& o) { o.start = Seconds(-1); }), "trimStart is not a time within a movie");
    EXPECT_EQ(cause([](auto& o) { o.end = Seconds(std::numeric_limits<double>::quiet_NaN()); }),
              "trimEnd is not a time within a movie");
    EXPECT_EQ(cause([](auto& o) { o.subtitleTracks = "a:strict=0"; }), "subtitleTracks contains a colon");
    EXPECT_THAT(cause([](auto& o) {
                    o.type = VideoConversion::Original;
                    o.video.quality = 0.5;
                }),
                HasSubstr("\"Original\" takes no video or audio options"));
    EXPECT_THAT(cause([](auto& o) {
                    o.type = VideoConversion::AudioOnly;
                    o.audio.quality = 0.5;
                }),
                HasSubstr("a destination such as .m4a"));
    EXPECT_EQ(refusal(ConvertOptions{.source = "a.mov", .destination = ""}).message(),
              "Converting a.mov is not possible.");
    EXPECT_EQ(refusal(ConvertOptions{.source = "\xff.mov", .destination = "/b.mp4"}).message(),
              "Converting \\xff.mov is not possible.");
    EXPECT_EQ(refusal(MergeOptions{.destination = "/b.mp4"}).cause(), "no source is given");
    EXPECT_THAT(refusal(ThumbnailOptions{.source = "/a.mov", .folder = "/b", .width = -1}).cause(),
                HasSubstr("negative"));
}

}  // namespace
}  // namespace krv

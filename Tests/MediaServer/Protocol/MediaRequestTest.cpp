#include <cmath>
#include <limits>

#include <gmock/gmock.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;

std::int64_t codeOf(const R::Ref& request) {
    const auto error = checkMediaRequest(*request);
    return error ? makeError(*request, *error)->code() : 0;
}

R::Ref with(const R::Ref& request, std::string_view key, Value value) {
    request->arguments()->set(key, std::move(value));
    return request;
}
R::Ref without(const R::Ref& request, std::string_view key) {
    request->arguments()->remove(key);
    return request;
}

R::Ref encode() {
    return R::encodeVideoOperation("/a.mov", "/b.mp4");
}
R::Ref thumbnails() {
    return R::createThumbnailsForVideo("/a.mov", "/folder", {320, 0});
}
R::Ref merge(Array sources = {"/a.mov", "/b.mov"}) {
    return R::mergeSourcesOperation(Value(std::move(sources)), "/c.mov", false);
}
R::Ref times() {
    return R::getInterestingTimesOperation("/a.mov", true, 0);
}

TEST(MediaRequest, OfEveryKindIsValidWhenItIsComplete) {
    for (const R::Ref& request : {encode(), thumbnails(), R::provideMetadataFor("/a.mov"),
                                  R::muxAudioTo2chOperation("/a.mov", "/b.mov"), merge(), times()}) {
        EXPECT_EQ(codeOf(request), 0) << request->nameFromType();
    }
}

TEST(MediaRequest, NamesTheArgumentThatIsMissingOrOfTheWrongKind) {
    struct Case {
        R::Ref request;
        std::string_view named;
    };
    const std::vector<Case> cases{
        {without(encode(), kArgumentEncodingSourceFilename), kArgumentEncodingSourceFilename},
        {without(encode(), kArgumentEncodingDestinationFilename), kArgumentEncodingDestinationFilename},
        {with(encode(), kArgumentEncodingSourceFilename, 7), kArgumentEncodingSourceFilename},
        {with(encode(), kArgumentEncodingSourceFilename, "a.mov"), kArgumentEncodingSourceFilename},
        {with(encode(), kArgumentEncodingSourceFilename, ""), kArgumentEncodingSourceFilename},
        {with(encode(), kArgumentEncodingSourceFilename, std::string("/a\0.mov", 7)), kArgumentEncodingSourceFilename},
        {with(encode(), kArgumentEncodingType, "1"), kArgumentEncodingType},
        {with(encode(), kArgumentEncodingFlattenOnly, 1), kArgumentEncodingFlattenOnly},
        {with(encode(), kArgumentEncodingVideoParameters, "x"), kArgumentEncodingVideoParameters},
        {with(encode(), kArgumentEncodingAudioParameters, 1), kArgumentEncodingAudioParameters},
        {without(thumbnails(), kArgumentEncodingDestinationFilename), kArgumentEncodingDestinationFilename},
        {with(thumbnails(), kArgumentThumbnailInfoSize, 320), kArgumentThumbnailInfoSize},
        {with(thumbnails(), kArgumentThumbnailInfoSize, Size{-1, 0}), kArgumentThumbnailInfoSize},
        {with(thumbnails(), kArgumentThumbnailInfoSize, Size{0, std::nan("")}), kArgumentThumbnailInfoSize},
        {with(thumbnails(), kArgumentThumbnailInfoSize, Size{std::numeric_limits<double>::infinity(), 0}),
         kArgumentThumbnailInfoSize},
        {with(thumbnails(), kArgumentThumbnailCount, 0), kArgumentThumbnailCount},
        {with(thumbnails(), kArgumentThumbnailCount, -5), kArgumentThumbnailCount},
        {with(thumbnails(), kArgumentThumbnailCount, kMostThumbnails + 1), kArgumentThumbnailCount},
        {with(thumbnails(), kArgumentThumbnailCount, "12"), kArgumentThumbnailCount},
        {without(R::provideMetadataFor("/a.mov"), kArgumentEncodingSourceFilename), kArgumentEncodingSourceFilename},
        {without(R::muxAudioTo2chOperation("/a", "/b"), kArgumentEncodingDestinationFilename),
         kArgumentEncodingDestinationFilename},
        {without(merge(), kArgumentMergeSources), kArgumentMergeSources},
        {with(merge(), kArgumentMergeSources, "/a.mov"), kArgumentMergeSources},
        {merge({}), kArgumentMergeSources},
        {merge({"/a.mov", 7}), kArgumentMergeSources},
        {merge({"/a.mov", "b.mov"}), kArgumentMergeSources},
        {merge(Array(kMostMergeSources + 1, Value("/a.mov"))), kArgumentMergeSources},
        {with(merge(), kArgumentMergeSourcesUseShortest, "yes"), kArgumentMergeSourcesUseShortest},
        {with(merge(), kArgumentMergeFrameRate, "25"), kArgumentMergeFrameRate},
        {with(merge(), kArgumentMergeSize, "320x240"), kArgumentMergeSize},
        {without(merge(), kArgumentEncodingDestinationFilename), kArgumentEncodingDestinationFilename},
        {with(times(), kArgumentTrackIndex, "0"), kArgumentTrackIndex},
    };
    for (const Case& each : cases) {
        const auto failure = checkMediaRequest(*each.request);
        ASSERT_TRUE(failure) << each.named;
        const auto error = makeError(*each.request, *failure);
        EXPECT_EQ(error->code(), 9) << each.named;
        EXPECT_THAT(error->localizedFailureReason(), testing::HasSubstr(std::string(each.named)));
    }
}

TEST(MediaRequest, WithAnEncodingTypeThatDoesNotExistIsUnsupported) {
    EXPECT_EQ(codeOf(with(encode(), kArgumentEncodingType, 8)), 6);
    EXPECT_EQ(codeOf(with(encode(), kArgumentEncodingType, -1)), 6);
}

TEST(MediaRequest, OfAnotherTypeIsRefused) {
    EXPECT_EQ(codeOf(R::amIRegisteredOperation()), 9);
}

TEST(MediaRequest, HasSources) {
    EXPECT_THAT(sourcesOf(*encode()), testing::ElementsAre("/a.mov"));
    EXPECT_THAT(sourcesOf(*merge()), testing::ElementsAre("/a.mov", "/b.mov"));
    EXPECT_THAT(sourcesOf(*without(encode(), kArgumentEncodingSourceFilename)), testing::IsEmpty());
    EXPECT_THAT(sourcesOf(*merge({"/a.mov", 7})), testing::ElementsAre("/a.mov"));
}

TEST(MediaRequest, AsksForTwelveThumbnailsByDefault) {
    EXPECT_EQ(thumbnailCountOf(*thumbnails()), 12);
    EXPECT_EQ(thumbnailCountOf(*with(thumbnails(), kArgumentThumbnailCount, 3)), 3);
}

TEST(MediaRequest, EveryArgumentThatIsReadIsKept) {
    const auto video = std::make_shared<VideoEncodingParameters>(nullptr);
    const auto audio = std::make_shared<AudioEncodingParameters>(nullptr);
    for (const R::Ref& request :
         {R::encodeVideoOperation("/a.mov", "/b.mp4", audio, video), with(thumbnails(), kArgumentThumbnailCount, 5),
          R::provideMetadataFor("/a.mov"), R::muxAudioTo2chOperation("/a.mov", "/b.mov"), merge(), times()}) {
        request->setRegInfoPID(std::int64_t{7});
        const Dictionary before = request->arguments()->mutableCopy();
        request->arguments()->set("unknown", "x");
        const R::Ref kept = withKnownArguments(*request);
        EXPECT_EQ(kept->operationType(), request->operationType());
        EXPECT_EQ(*kept->arguments(), before) << request->nameFromType();
    }
}

TEST(MediaRequest, APathLongerThanAnyIsInvalid) {
    EXPECT_EQ(codeOf(R::provideMetadataFor("/" + std::string(4094, 'a'))), 0);
    EXPECT_EQ(codeOf(R::provideMetadataFor("/" + std::string(4095, 'a'))), 9);
}

}  // namespace
}  // namespace krv::server

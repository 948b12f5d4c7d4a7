#include <set>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/OperationErrors.h>
#include <KRVQTProcessClient/Operations/OperationKeys.h>

namespace krv {
namespace {

const std::vector<std::string_view> kArguments{kArgumentEncodingSourceFilename,
                                               kArgumentEncodingDestinationFilename,
                                               kArgumentEncodingVideoParameters,
                                               kArgumentEncodingAudioParameters,
                                               kArgumentEncodingFlattenOnly,
                                               kArgumentEncodingType,
                                               kArgumentPIDRegInfo,
                                               kArgumentNumOpsNumberOnServer,
                                               kArgumentNumOpsNames,
                                               kArgumentThumbnailInfoSize,
                                               kArgumentThumbnailCount,
                                               kArgumentMovieInfoMetadata,
                                               kArgumentMergeSources,
                                               kArgumentMergeSourcesUseShortest,
                                               kArgumentMergeFrameRate,
                                               kArgumentMergeSize,
                                               kArgumentTrackIndex,
                                               kArgumentQueuePosition};
const std::vector<std::string_view> kResults{
    kResultInterestingTimes, kResultInterestingTimeValues, kResultInterestingTimeTimescale,
    kResultThumbnails,       kResultThumbnailPath,         kResultThumbnailTime};
const std::vector<std::string_view> kDroppedTracks{
    kResultDroppedTracks,     kResultDroppedTrackSource,   kResultDroppedTrackIndex, kResultDroppedTrackKind,
    kResultDroppedTrackCodec, kResultDroppedTrackLanguage, kResultDroppedTrackReason};
const std::vector<std::string_view> kMovieTracks{
    kResultMovieTracks,         kResultMovieTrackIndex,    kResultMovieTrackKind,      kResultMovieTrackCodec,
    kResultMovieTrackLanguage,  kResultMovieTrackTitle,    kResultMovieTrackDefault,   kResultMovieTrackDimensions,
    kResultMovieTrackFrameRate, kResultMovieTrackChannels, kResultMovieTrackSampleRate};
const std::vector<std::string_view> kMovieChapters{kResultMovieTags, kResultMovieChapters, kResultMovieChapterStart,
                                                   kResultMovieChapterEnd, kResultMovieChapterTitle};
const std::vector<std::string_view> kMetadata{kMediaMetadataCodec,    kMediaMetadataDuration, kMediaMetadataDimensions,
                                              kMediaMetadataAudio,    kMediaMetadataSize,     kMediaMetadataPath,
                                              kMediaMetadataCreation, kMediaMetadataModified, kMediaMetadataFrameRate,
                                              kMediaMetadataPoster};

TEST(OperationKeys, HaveTheTextsOfTheWireForm) {
    EXPECT_EQ(kArguments, (std::vector<std::string_view>{
                              "encodingSourceFilename", "encodingDestinationFilename", "encodingVideoParams",
                              "encodingAudioParams", "encodingFlattenOnly", "encodingType", "pidRegInfoPID",
                              "numOpsNumberOnServer", "numOpsNames", "thumbnailInfoSize", "thumbnailCount",
                              "movieInfoMetadata", "videoMergeSources", "videoMergeSourcesUseShortest",
                              "videoMergeFrameRate", "videoMergeSize", "trackIndex", "queuePosition"}));
    EXPECT_EQ(kResults,
              (std::vector<std::string_view>{"interestingTimes", "values", "timescale", "thumbnails", "path", "time"}));
    EXPECT_EQ(kDroppedTracks, (std::vector<std::string_view>{"droppedTracks", "source", "index", "kind", "codec",
                                                             "language", "reason"}));
    EXPECT_EQ(kMovieTracks,
              (std::vector<std::string_view>{"movieTracks", "index", "kind", "codec", "language", "title", "default",
                                             "dimensions", "frameRate", "channels", "sampleRate"}));
    EXPECT_EQ(kMovieChapters, (std::vector<std::string_view>{"movieTags", "movieChapters", "start", "end", "title"}));
    EXPECT_EQ(kMetadata,
              (std::vector<std::string_view>{"metadataCodec", "metadataDuration", "metadataDimensions", "metadataAudio",
                                             "metadataSize", "metadataPath", "metadataCreation", "metadataModified",
                                             "metadataFrameRate", "metadataPoster"}));
}

TEST(OperationErrors, HaveTheServersDomainAndTheirKeys) {
    EXPECT_EQ(kMediaServerErrorDomain, "KRVQuicktimeProcess");
    EXPECT_EQ(kErrorFilePath, "KRVFilePath");
    EXPECT_EQ(kErrorNumber, "KRVErrorNumber");
}

TEST(OperationKeys, AreDistinct) {
    std::set<std::string_view> all;
    for (const auto* group : {&kArguments, &kResults, &kDroppedTracks, &kMetadata}) {
        all.insert(group->begin(), group->end());
    }
    EXPECT_EQ(all.size(), kArguments.size() + kResults.size() + kDroppedTracks.size() + kMetadata.size());
    for (const auto* group : {&kMovieTracks, &kMovieChapters}) {
        EXPECT_EQ(std::set<std::string_view>(group->begin(), group->end()).size(), group->size());
    }
}

}  // namespace
}  // namespace krv

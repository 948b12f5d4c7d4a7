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
    EXPECT_EQ(kMetadata,
              (std::vector<std::string_view>{"metadataCodec", "metadataDuration", "metadataDimensions", "metadataAudio",
                                             "metadataSize", "metadataPath", "metadataCreation", "metadataModified",
                                             "metadataFrameRate", "metadataPoster"}));
}

TEST(OperationErrors, HaveTheServersDomainAndTheirKey) {
    EXPECT_EQ(kMediaServerErrorDomain, "KRVQuicktimeProcess");
    EXPECT_EQ(kErrorFilePath, "KRVFilePath");
}

TEST(OperationKeys, AreDistinct) {
    std::set<std::string_view> all;
    for (const auto* group : {&kArguments, &kResults, &kDroppedTracks, &kMetadata}) {
        all.insert(group->begin(), group->end());
    }
    EXPECT_EQ(all.size(), kArguments.size() + kResults.size() + kDroppedTracks.size() + kMetadata.size());
}

}  // namespace
}  // namespace krv

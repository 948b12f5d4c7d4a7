// Checks the keys, types and codes of Documentation/media-server.md against the program.
#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <MediaServer/Protocol/MediaOperation.h>

namespace krv::server {
namespace {

std::string page() {
    std::ifstream in(KRV_DOCUMENTATION "/media-server.md");
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(Documentation, NamesEveryKey) {
    for (const std::string_view key : {kArgumentThumbnailInfoSize,
                                       kArgumentThumbnailCount,
                                       kArgumentMovieInfoMetadata,
                                       kArgumentMergeSources,
                                       kArgumentMergeSourcesUseShortest,
                                       kArgumentMergeFrameRate,
                                       kArgumentMergeSize,
                                       kArgumentTrackIndex,
                                       kResultInterestingTimes,
                                       kResultInterestingTimeValues,
                                       kResultInterestingTimeTimescale,
                                       kResultThumbnails,
                                       kResultThumbnailPath,
                                       kResultThumbnailTime,
                                       kResultMovieTracks,
                                       kResultMovieTrackIndex,
                                       kResultMovieTrackKind,
                                       kResultMovieTrackCodec,
                                       kResultMovieTrackLanguage,
                                       kResultMovieTrackTitle,
                                       kResultMovieTrackDefault,
                                       kResultMovieTrackDimensions,
                                       kResultMovieTrackFrameRate,
                                       kResultMovieTrackChannels,
                                       kResultMovieTrackSampleRate,
                                       kResultMovieTags,
                                       kResultMovieChapters,
                                       kResultMovieChapterStart,
                                       kResultMovieChapterEnd,
                                       kResultMovieChapterTitle,
                                       kMediaMetadataCodec,
                                       kMediaMetadataDuration,
                                       kMediaMetadataDimensions,
                                       kMediaMetadataAudio,
                                       kMediaMetadataSize,
                                       kMediaMetadataPath,
                                       kMediaMetadataCreation,
                                       kMediaMetadataModified,
                                       kMediaMetadataFrameRate,
                                       kMediaMetadataPoster,
                                       kErrorFilePath,
                                       kErrorNumber,
                                       kMediaServerErrorDomain}) {
        EXPECT_THAT(page(), testing::HasSubstr(fmt::format("\"{}\"", key)));
    }
}

TEST(Documentation, ListsEveryErrorCode) {
    for (std::int64_t code = static_cast<std::int64_t>(OperationErrorCode::CannotAcceptWork);
         code <= static_cast<std::int64_t>(OperationErrorCode::SameFile); ++code) {
        EXPECT_THAT(page(), testing::HasSubstr(fmt::format("\n| {} | ", code)));
    }
}

TEST(Documentation, ListsEveryMediaOperation) {
    for (const OperationTypeInfo& info : operationTypes()) {
        const bool listed = page().find(fmt::format("\n| {} | `", static_cast<int>(info.type))) != std::string::npos;
        EXPECT_EQ(listed, mediaOperation(info.type) != nullptr) << info.name;
    }
}

}  // namespace
}  // namespace krv::server

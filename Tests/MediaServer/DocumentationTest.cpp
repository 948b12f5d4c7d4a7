// Holds the keys, types and codes of Documentation/media-server.md against the program.
#include <fstream>
#include <iterator>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <MediaServer/Files/ThumbnailFolder.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/ServerError.h>

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
                                       kArgumentTrackIndex,
                                       kResultInterestingTimes,
                                       kResultInterestingTimeValues,
                                       kResultInterestingTimeTimescale,
                                       kResultThumbnails,
                                       kResultThumbnailPath,
                                       kResultThumbnailTime,
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

TEST(Documentation, ListsEveryTypeOfMediaWork) {
    for (const OperationTypeInfo& info : operationTypes()) {
        KRVOperationBase request;
        request.setOperationType(info.type);
        const auto error = checkMediaRequest(request);
        const bool isMediaWork = error && error->localizedFailureReason().find("no media work") == std::string::npos;
        const bool listed = page().find(fmt::format("\n| {} | `", static_cast<int>(info.type))) != std::string::npos;
        EXPECT_EQ(listed, isMediaWork) << request.nameFromType();
    }
}

}  // namespace
}  // namespace krv::server

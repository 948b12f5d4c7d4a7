#include <KRVQTProcessClient/Operations/OperationKeys.h>

namespace krv {

constinit const std::string_view kArgumentEncodingSourceFilename = "encodingSourceFilename";
constinit const std::string_view kArgumentEncodingDestinationFilename = "encodingDestinationFilename";
constinit const std::string_view kArgumentEncodingVideoParameters = "encodingVideoParams";
constinit const std::string_view kArgumentEncodingAudioParameters = "encodingAudioParams";
constinit const std::string_view kArgumentEncodingFlattenOnly = "encodingFlattenOnly";
constinit const std::string_view kArgumentEncodingType = "encodingType";
constinit const std::string_view kArgumentPIDRegInfo = "pidRegInfoPID";
constinit const std::string_view kArgumentNumOpsNumberOnServer = "numOpsNumberOnServer";
constinit const std::string_view kArgumentNumOpsNames = "numOpsNames";
constinit const std::string_view kArgumentThumbnailInfoSize = "thumbnailInfoSize";
constinit const std::string_view kArgumentThumbnailCount = "thumbnailCount";
constinit const std::string_view kArgumentMovieInfoMetadata = "movieInfoMetadata";
constinit const std::string_view kArgumentMergeSources = "videoMergeSources";
constinit const std::string_view kArgumentMergeSourcesUseShortest = "videoMergeSourcesUseShortest";
constinit const std::string_view kArgumentMergeFrameRate = "videoMergeFrameRate";
constinit const std::string_view kArgumentMergeSize = "videoMergeSize";
constinit const std::string_view kArgumentTrackIndex = "trackIndex";
constinit const std::string_view kArgumentQueuePosition = "queuePosition";

constinit const std::string_view kResultSourceTruncatedAt = "sourceTruncatedAt";
constinit const std::string_view kResultSourcesTruncatedAt = "sourcesTruncatedAt";

constinit const std::string_view kResultDroppedTracks = "droppedTracks";
constinit const std::string_view kResultDroppedTrackSource = "source";
constinit const std::string_view kResultDroppedTrackIndex = "index";
constinit const std::string_view kResultDroppedTrackKind = "kind";
constinit const std::string_view kResultDroppedTrackCodec = "codec";
constinit const std::string_view kResultDroppedTrackLanguage = "language";
constinit const std::string_view kResultDroppedTrackReason = "reason";

constinit const std::string_view kResultMovieTracks = "movieTracks";
constinit const std::string_view kResultMovieTrackIndex = "index";
constinit const std::string_view kResultMovieTrackKind = "kind";
constinit const std::string_view kResultMovieTrackCodec = "codec";
constinit const std::string_view kResultMovieTrackLanguage = "language";
constinit const std::string_view kResultMovieTrackTitle = "title";
constinit const std::string_view kResultMovieTrackDefault = "default";
constinit const std::string_view kResultMovieTrackDimensions = "dimensions";
constinit const std::string_view kResultMovieTrackFrameRate = "frameRate";
constinit const std::string_view kResultMovieTrackChannels = "channels";
constinit const std::string_view kResultMovieTrackSampleRate = "sampleRate";
constinit const std::string_view kResultMovieTags = "movieTags";
constinit const std::string_view kResultMovieChapters = "movieChapters";
constinit const std::string_view kResultMovieChapterStart = "start";
constinit const std::string_view kResultMovieChapterEnd = "end";
constinit const std::string_view kResultMovieChapterTitle = "title";

constinit const std::string_view kResultInterestingTimes = "interestingTimes";
constinit const std::string_view kResultInterestingTimeValues = "values";
constinit const std::string_view kResultInterestingTimeTimescale = "timescale";

constinit const std::string_view kResultThumbnails = "thumbnails";
constinit const std::string_view kResultThumbnailPath = "path";
constinit const std::string_view kResultThumbnailTime = "time";

constinit const std::string_view kMediaMetadataCodec = "metadataCodec";
constinit const std::string_view kMediaMetadataDuration = "metadataDuration";
constinit const std::string_view kMediaMetadataDimensions = "metadataDimensions";
constinit const std::string_view kMediaMetadataAudio = "metadataAudio";
constinit const std::string_view kMediaMetadataSize = "metadataSize";
constinit const std::string_view kMediaMetadataPath = "metadataPath";
constinit const std::string_view kMediaMetadataCreation = "metadataCreation";
constinit const std::string_view kMediaMetadataModified = "metadataModified";
constinit const std::string_view kMediaMetadataFrameRate = "metadataFrameRate";
constinit const std::string_view kMediaMetadataPoster = "metadataPoster";

}  // namespace krv

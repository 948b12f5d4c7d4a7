// The sentences that a person reads: one for each operation and cause.
#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaOperation.h>

namespace krv::server {
namespace {

using R = KRVOperationBase;
using testing::HasSubstr;

/// A failure with every field filled in that its cause may use.
Failure example(FailureCause cause) {
    Failure failure{.cause = cause};
    switch (cause) {
    case FailureCause::UnknownOperation:
        failure.subject = "0A1B";
        break;
    case FailureCause::UnreadableSource:
        failure.errorNumber = EIO;
        break;
    case FailureCause::UnwritableDestination:
        failure.errorNumber = ENOSPC;
        break;
    case FailureCause::UnsupportedFormat:
        failure.subject = "animated WebP";
        break;
    case FailureCause::RefersToOtherFiles:
        failure.subject = "hls";
        break;
    case FailureCause::Damaged:
        failure.reason = "The header cannot be read: moov atom not found";
        break;
    case FailureCause::UnknownCodec:
    case FailureCause::UndecodableCodec:
        failure.subject = "indeo5";
        break;
    case FailureCause::UnsupportedContainer:
    case FailureCause::ContainerRefusesTracks:
        failure.subject = "xyz";
        break;
    case FailureCause::ContainerCannotHold:
        failure.subject = "webm";
        failure.detail = "H.264";
        break;
    case FailureCause::UnsupportedCodec:
        failure.subject = "'abcd'";
        break;
    case FailureCause::WrongKindOfCodec:
        failure.subject = "'mp4a'";
        failure.detail = "a video codec";
        break;
    case FailureCause::UnsupportedEncodingType:
    case FailureCause::UnknownOperationType:
        failure.subject = "99";
        break;
    case FailureCause::UnsupportedSetting:
        failure.subject = "bitrate";
        failure.detail = "is not a number";
        break;
    case FailureCause::SettingDoesNotApply:
        failure.subject = "sampleRate=7";
        failure.detail = "Opus";
        break;
    case FailureCause::ValueOutOfRange:
        failure.subject = "quality 1.5";
        failure.detail = "between 0 and 1";
        break;
    case FailureCause::UnsupportedChannels:
        failure.subject = "9";
        failure.detail = "AAC";
        break;
    case FailureCause::EncoderRefuses:
        failure.subject = "H.264";
        break;
    case FailureCause::UnconvertibleSubtitles:
        failure.subject = "dvb_subtitle";
        break;
    case FailureCause::WouldDropTrack:
        failure.subject = "subtitle of track 3";
        failure.detail = "mp4 files cannot hold bitmap subtitles";
        break;
    case FailureCause::OutOfTime:
        failure.subject = "900 seconds";
        break;
    case FailureCause::InvalidArgument:
        failure.subject = "thumbnailCount";
        failure.detail = "is not an integer";
        break;
    case FailureCause::NoSuchTrack:
        failure.subject = "7";
        failure.detail = "2";
        break;
    case FailureCause::NotAProcess:
        failure.subject = "(null)";
        break;
    default:
        break;
    }
    return failure;
}

/// A valid request of each media operation, in the order of the table.
std::vector<R::Ref> requests() {
    return {R::encodeVideoOperation("/movies/good.mov", "/movies/out.mp4"),
            R::createThumbnailsForVideo("/movies/good.mov", "/movies/pictures", {320, 0}),
            R::provideMetadataFor("/movies/good.mov"),
            R::muxAudioTo2chOperation("/movies/good.mov", "/movies/out.mp4"),
            R::mergeSourcesOperation(Value(Array{"/movies/good.mov", "/movies/bad.mov"}), "/movies/out.mp4", false),
            R::getInterestingTimesOperation("/movies/good.mov", false, 0)};
}

std::string sentence(const R::Ref& request, const Failure& failure) {
    return makeError(*request, failure)->localizedDescription();
}

TEST(FailureSentence, NamesOperationFileAndProblem) {
    const auto toMP3 = R::encodeVideoOperation("/movies/good.mov", "/movies/out.mp3");
    const auto error = makeError(*toMP3, {.cause = FailureCause::NoAudioTrack});
    EXPECT_EQ(error->localizedDescription(), "Cannot extract audio from good.mov: it has no audio track.");
    EXPECT_EQ(error->localizedFailureReason(), "it has no audio track");
    EXPECT_EQ(error->domain(), "KRVQuicktimeProcess");
    EXPECT_EQ(error->code(), 4);
    EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value("/movies/good.mov"));
}

TEST(FailureSentence, ConversionToTheTypeAudioOnlyExtractsAudio) {
    const auto request = R::encodeVideoOperation("/good.mov", "/out.mp4");
    request->arguments()->set(kArgumentEncodingType, VideoConversion::AudioOnly);
    EXPECT_THAT(sentence(request, {.cause = FailureCause::NoAudioTrack}), HasSubstr("Cannot extract audio from"));
    request->arguments()->set(kArgumentEncodingType, VideoConversion::H264);
    EXPECT_THAT(sentence(request, {.cause = FailureCause::NoAudioTrack}), HasSubstr("Cannot convert good.mov"));
    request->arguments()->set(kArgumentEncodingFlattenOnly, true);
    EXPECT_THAT(sentence(request, {.cause = FailureCause::NoAudioTrack}), HasSubstr("Cannot flatten good.mov"));
}

TEST(FailureSentence, TranslatesFFmpegsPhrasesAndKeepsThemInTheReason) {
    const auto error =
        makeError(*R::provideMetadataFor("/a.mov"), {.cause = FailureCause::Damaged, .reason = "moov atom not found"});
    EXPECT_EQ(error->localizedDescription(),
              "Cannot describe a.mov: its index is missing, so it is incomplete or not a movie.");
    EXPECT_EQ(error->localizedFailureReason(), "moov atom not found");
    // Phrases that are not known say nothing to a person either.
    const auto other = makeError(
        *R::provideMetadataFor("/a.mov"),
        {.cause = FailureCause::Damaged, .reason = "Invalid data found when processing input. Try -analyzeduration"});
    EXPECT_EQ(other->localizedDescription(), "Cannot describe a.mov: it is too damaged to use.");
}

TEST(FailureSentence, SaysInWordsWhatTheSystemReports) {
    const auto request = R::encodeVideoOperation("/movies/good.mov", "/movies/out.mp4");
    EXPECT_EQ(sentence(request, {.cause = FailureCause::UnreadableSource, .errorNumber = ENOENT}),
              "Cannot convert good.mov: the file does not exist.");
    EXPECT_EQ(sentence(request, {.cause = FailureCause::UnreadableSource, .errorNumber = EACCES}),
              "Cannot convert good.mov: it cannot be read because permission is denied.");
    EXPECT_EQ(sentence(request, {.cause = FailureCause::UnwritableDestination, .errorNumber = ENOENT}),
              "Cannot convert good.mov: the folder of out.mp4 does not exist.");
    const auto full = makeError(*request, {.cause = FailureCause::UnwritableDestination, .errorNumber = ENOSPC});
    EXPECT_EQ(full->localizedDescription(),
              "Cannot convert good.mov: out.mp4 cannot be written because the disk is full.");
    EXPECT_EQ(full->localizedFailureReason(), "No space left on device");
    EXPECT_EQ((*full->userInfo())[kErrorFilePath], Value("/movies/out.mp4"));
}

TEST(FailureSentence, ComesWithTheNumberOfTheSystemsError) {
    const auto request = R::encodeVideoOperation("/movies/good.mov", "/movies/out.mp4");
    for (const int number : {ENOENT, EACCES, ENOSPC, EROFS, 4095}) {
        for (const FailureCause cause : {FailureCause::UnreadableSource, FailureCause::UnwritableDestination}) {
            const auto error = makeError(*request, {.cause = cause, .errorNumber = number});
            EXPECT_EQ((*error->userInfo())[kErrorNumber], Value(number));
            EXPECT_EQ(error->userInfo()->size(), 4U);
        }
    }
}

TEST(FailureSentence, ComesWithoutANumberIfNoSystemCallHasFailed) {
    const auto request = requests()[0];
    for (const FailureCause cause : failureCauses()) {
        const Failure failure = example(cause);
        const auto error = makeError(*request, failure);
        EXPECT_EQ(error->userInfo()->find(kErrorNumber) != nullptr, failure.errorNumber != 0)
            << error->localizedDescription();
    }
    for (const int number : {0, -1, 4096}) {  // no errors of the system
        const auto error = makeError(*request, {.cause = FailureCause::UnreadableSource, .errorNumber = number});
        EXPECT_EQ(error->userInfo()->find(kErrorNumber), nullptr) << number;
    }
}

TEST(FailureSentence, NamesTheSourceOfAMergeThatIsToBlame) {
    const auto merge = requests()[4];
    const auto error = makeError(*merge, {.cause = FailureCause::NoVideoOrAudioTrack, .source = 1});
    EXPECT_EQ(error->localizedDescription(), "Cannot merge bad.mov: it has neither a video nor an audio track.");
    EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value("/movies/bad.mov"));
    EXPECT_EQ(sentence(merge, {.cause = FailureCause::UnsupportedContainer, .subject = "xyz"}),
              "Cannot merge 2 movies into out.mp4: the container \"xyz\" is not supported.");
}

TEST(FailureSentence, NamesAnotherFileWhereOneIsMeant) {
    const auto thumbnails = requests()[1];
    const auto error = makeError(*thumbnails, {.cause = FailureCause::UnwritableDestination,
                                               .errorNumber = EROFS,
                                               .path = "/movies/pictures/thumbnail-0003.jpg"});
    EXPECT_EQ(error->localizedDescription(),
              "Cannot make thumbnails of good.mov: thumbnail-0003.jpg cannot be written because the file system is "
              "read-only.");
    EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value("/movies/pictures/thumbnail-0003.jpg"));
}

TEST(FailureSentence, NamesAFolderWhosePathEndsWithASlash) {
    const auto sentence = [](const std::string& source, const std::string& folder) {
        const auto request = KRVOperationBase::createThumbnailsForVideo(source, folder, {});
        return makeError(*request, {.cause = FailureCause::UnwritableDestination, .errorNumber = EROFS})
            ->localizedDescription();
    };
    EXPECT_EQ(sentence("/movies/good.mov/", "/movies/pictures//"),
              "Cannot make thumbnails of good.mov: pictures cannot be written because the file system is read-only.");
    EXPECT_EQ(sentence("/", "//"),
              "Cannot make thumbnails of /: / cannot be written because the file system is read-only.");
}

TEST(FailureSentence, ExistsForRequestsWithoutArguments) {
    for (const OperationTypeInfo& info : operationTypes()) {
        R request;
        request.setOperationType(info.type);
        for (const FailureCause cause : failureCauses()) {
            const auto error = makeError(request, example(cause));
            EXPECT_THAT(error->localizedDescription(), testing::StartsWith("Cannot ")) << info.name;
        }
    }
}

TEST(FailureSentence, HasCodesFromOneToTen) {
    std::set<OperationErrorCode> codes;
    for (const FailureCause cause : failureCauses()) {
        codes.insert(codeOf(cause));
    }
    EXPECT_EQ(codes.size(), 10U);
    EXPECT_EQ(*codes.begin(), OperationErrorCode::CannotAcceptWork);
    EXPECT_EQ(*codes.rbegin(), OperationErrorCode::SameFile);
}

/// Run with --gtest_filter=*PrintsTheWholeTable* to read all sentences in one go.
TEST(FailureSentence, PrintsTheWholeTable) {
    std::set<std::string> sentences;
    for (const R::Ref& request : requests()) {
        fmt::print("\n{}\n", request->nameFromType());
        for (const FailureCause cause : failureCauses()) {
            const auto error = makeError(*request, example(cause));
            const std::string text = error->localizedDescription();
            fmt::print("  {:>2}  {}\n        {}\n", error->code(), text, error->localizedFailureReason());
            EXPECT_EQ(text.find('{'), std::string::npos) << text;
            EXPECT_EQ(text.find("  "), std::string::npos) << text;
            EXPECT_EQ(text.find("\"\""), std::string::npos) << text;
            EXPECT_TRUE(text.ends_with('.') && !text.ends_with("..")) << text;
            EXPECT_FALSE(error->localizedFailureReason().empty()) << text;
            sentences.insert(text);
        }
    }
    // Two causes share a sentence: a codec that nothing decodes has another code in a merge.
    EXPECT_EQ(sentences.size(), requests().size() * (failureCauses().size() - 1));
}

std::string documentation() {
    std::ifstream in(KRV_DOCUMENTATION "/media-server.md");
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(FailureSentence, IsShownInTheDocumentationForEveryCause) {
    const std::string page = documentation();
    const auto request = requests()[0];
    for (const FailureCause cause : failureCauses()) {
        const auto error = makeError(*request, example(cause));
        EXPECT_THAT(page, HasSubstr(fmt::format("| {} | {} |", error->code(), error->localizedDescription())));
    }
}

}  // namespace
}  // namespace krv::server

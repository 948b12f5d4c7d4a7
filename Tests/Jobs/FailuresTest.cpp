#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using Kind = Failure::Kind;

Failure reported(OperationErrorCode code, const std::string& file = "/nosuch/in.mov", int number = 0) {
    Dictionary userInfo{{NSLocalizedDescriptionKey, "Cannot convert in.mov."},
                        {NSLocalizedFailureReasonErrorKey, "the cause"},
                        {kErrorFilePath, file}};
    if (number != 0) {
        userInfo.set(kErrorNumber, number);
    }
    return failureFrom(
        *Error::make(std::string(kMediaServerErrorDomain), static_cast<std::int64_t>(code), std::move(userInfo)));
}

TEST(Failures, AReportedErrorKeepsItsSentenceCauseFileAndCode) {
    const Failure failure = reported(OperationErrorCode::UnusableSource);
    EXPECT_EQ(failure.kind(), Kind::NotMedia);
    EXPECT_EQ(failure.message(), "Cannot convert in.mov.");
    EXPECT_EQ(failure.cause(), "the cause");
    EXPECT_EQ(failure.file(), "/nosuch/in.mov");
    EXPECT_EQ(failure.code(), 4);
}

TEST(Failures, EachCodeHasAKind) {
    EXPECT_EQ(reported(OperationErrorCode::CannotAcceptWork).kind(), Kind::Unreachable);
    EXPECT_EQ(reported(OperationErrorCode::UnknownOperation).kind(), Kind::ServerLost);
    EXPECT_EQ(reported(OperationErrorCode::UnreadableSource).kind(), Kind::SourceMissing);
    EXPECT_EQ(reported(OperationErrorCode::UnwritableDestination).kind(), Kind::Destination);
    EXPECT_EQ(reported(OperationErrorCode::Unsupported).kind(), Kind::Unsupported);
    EXPECT_EQ(reported(OperationErrorCode::WorkerFailed).kind(), Kind::WorkerDied);
    EXPECT_EQ(reported(OperationErrorCode::Internal).kind(), Kind::Internal);
    EXPECT_EQ(reported(OperationErrorCode::InvalidArgument).kind(), Kind::BadArgument);
    EXPECT_EQ(reported(OperationErrorCode::SameFile).kind(), Kind::Destination);
    EXPECT_EQ(reported(static_cast<OperationErrorCode>(99)).kind(), Kind::Internal);
}

TEST(Failures, TheErrorNumberTellsDeniedAndFullFromOtherCauses) {
    EXPECT_EQ(reported(OperationErrorCode::UnreadableSource, "/in.mov", EACCES).kind(), Kind::Denied);
    EXPECT_EQ(reported(OperationErrorCode::UnreadableSource, "/in.mov", EIO).kind(), Kind::SourceMissing);
    EXPECT_EQ(reported(OperationErrorCode::UnwritableDestination, "/out.mp4", ENOSPC).kind(), Kind::NoSpace);
    EXPECT_EQ(reported(OperationErrorCode::UnwritableDestination, "/out.mp4", EDQUOT).kind(), Kind::NoSpace);
    EXPECT_EQ(reported(OperationErrorCode::UnwritableDestination, "/out.mp4", EROFS).kind(), Kind::Denied);
    EXPECT_EQ(reported(OperationErrorCode::UnwritableDestination, "/out.mp4", ENOENT).kind(), Kind::Destination);
}

TEST(Failures, TheSuggestionFitsTheFile) {
    const test::TemporaryFolder folder;
    const std::string here = (folder.path() / "out.mp4").string();
    EXPECT_EQ(reported(OperationErrorCode::UnreadableSource).suggestion(), "Check the path.");
    EXPECT_THAT(reported(OperationErrorCode::UnreadableSource, folder.path(), EIO).suggestion(), IsEmpty());
    EXPECT_THAT(reported(OperationErrorCode::UnwritableDestination).suggestion(), HasSubstr("folder /nosuch"));
    EXPECT_THAT(reported(OperationErrorCode::UnwritableDestination, here, ENOSPC).suggestion(), HasSubstr("space"));
    EXPECT_THAT(reported(OperationErrorCode::UnwritableDestination, here, EACCES).suggestion(),
                HasSubstr("you may write"));
}

TEST(Failures, AnErrorOfAnotherDomainIsInternal) {
    const Failure failure = failureFrom(*Error::make("Elsewhere", 4, {{NSLocalizedDescriptionKey, "It broke."}}));
    EXPECT_EQ(failure.kind(), Kind::Internal);
    EXPECT_EQ(failure.code(), 0);
    EXPECT_EQ(failure.message(), "It broke.");
}

TEST(Failures, TemporaryOnesAreThoseOfTheServer) {
    EXPECT_TRUE(noServer().isTemporary());
    EXPECT_TRUE(serverLost("Converting in.mov", "/in.mov", "gone").isTemporary());
    EXPECT_FALSE(cancelled("Converting in.mov", "/in.mov").isTemporary());
}

TEST(Failures, SentencesNameWhatWasDone) {
    EXPECT_EQ(cancelled("Converting in.mov", "/in.mov").message(), "Converting in.mov was cancelled.");
    EXPECT_THAT(stalled("Converting in.mov", "/in.mov", std::chrono::seconds(60)).cause(), HasSubstr("60 s"));
    EXPECT_THAT(noResponse(std::chrono::seconds(20), "found on port 8000").message(), HasSubstr("within 20 s"));
}

}  // namespace
}  // namespace krv

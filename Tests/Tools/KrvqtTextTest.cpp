#include <gtest/gtest.h>

#include "ArgumentFilter.h"
#include "CodecCode.h"
#include "DroppedTracks.h"
#include "FailureText.h"
#include "ProgressDisplay.h"
#include "TemporaryFolder.h"
#include "TextValues.h"

namespace krvqt {
namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

TEST(ArgumentFilter, RemovesUserDefaults) {
    EXPECT_EQ(withoutUserDefaults({"-qtClientLogLevel", "15", "convert", "a", "-minimumPortNumber", "9000", "b"}),
              (Words{"convert", "a", "b"}));
    EXPECT_EQ(withoutUserDefaults({"convert", "--force", "a", "b"}), (Words{"convert", "--force", "a", "b"}));
    EXPECT_EQ(withoutUserDefaults({"-qtClientLogLevel"}), Words{});
}

TEST(ArgumentFilter, KeepsWhatFollowsTheDoubleDash) {
    EXPECT_EQ(withoutUserDefaults({"convert", "--", "-qtClientLogLevel", "15"}),
              (Words{"convert", "--", "-qtClientLogLevel", "15"}));
}

TEST(CodecCode, HasItsFirstCharacterInTheHighestByte) {
    EXPECT_EQ(codecCode("avc1"), 0x61766331U);
    EXPECT_EQ(codecCode(".mp3"), 0x2E6D7033U);
    EXPECT_EQ(codecCode("abc"), 0x61626320U);
    EXPECT_EQ(codecCode(""), std::nullopt);
    EXPECT_EQ(codecCode("toolong"), std::nullopt);
}

TEST(EncodingType, IsANameInAnyCaseOrANumber) {
    EXPECT_EQ(encodingType("h.264"), 1);
    EXPECT_EQ(encodingType("PRORES 422"), 4);
    EXPECT_EQ(encodingType("6"), 6);
    EXPECT_EQ(encodingType("99"), 99);
    EXPECT_EQ(encodingType("6x"), std::nullopt);
    EXPECT_EQ(encodingType(""), std::nullopt);
}

TEST(EncodingType, FollowsFromTheDestinationByDefault) {
    EXPECT_EQ(defaultEncodingType("/a/b.mp4"), 1);
    EXPECT_EQ(defaultEncodingType("/a/b.WEBM"), 5);
    EXPECT_EQ(defaultEncodingType("/a/b.flac"), 7);
    EXPECT_EQ(defaultEncodingType("/a/b.gif"), 3);
    EXPECT_EQ(defaultEncodingType("/a/b.avi"), 3);
    EXPECT_EQ(defaultEncodingType("/a/b.ts"), 1);
    EXPECT_EQ(defaultEncodingType("/a.flac/b"), 1);
}

TEST(EncodingType, StandsForCodecs) {
    EXPECT_EQ(codecsOfType(1)->video, codecCode("avc1"));
    EXPECT_EQ(codecsOfType(1)->audio, codecCode("mp4a"));
    EXPECT_EQ(codecsOfType(4)->video, codecCode("apcn"));
    EXPECT_EQ(codecsOfType(4)->audio, codecCode("lpcm"));
    EXPECT_EQ(codecsOfType(3)->video, 0U);
    EXPECT_FALSE(codecsOfType(0));
    EXPECT_FALSE(codecsOfType(99));
}

TEST(TextValues, TimesAreSecondsOrClockTimes) {
    EXPECT_EQ(secondsFrom("90"), 90);
    EXPECT_EQ(secondsFrom("90.5"), 90.5);
    EXPECT_EQ(secondsFrom("1:30.5"), 90.5);
    EXPECT_EQ(secondsFrom("2:01:30.25"), 7290.25);
    for (const char* const text : {"", "-1", "x", "1:", ":1", "1:60", "1.5:00", "1:2:3:4", "nan", "inf", "1e3", "1 "}) {
        EXPECT_EQ(secondsFrom(text), std::nullopt) << text;
    }
}

TEST(DroppedText, NamesTheTrackOrItsProperty) {
    const auto track = [](int index, const char* kind, const char* codec, const char* language, int source = 0) {
        return krv::Dictionary{{krv::kResultDroppedTrackIndex, index},       {krv::kResultDroppedTrackKind, kind},
                               {krv::kResultDroppedTrackCodec, codec},       {krv::kResultDroppedTrackSource, source},
                               {krv::kResultDroppedTrackLanguage, language}, {krv::kResultDroppedTrackReason, "why"}};
    };
    const std::vector<std::string> one{"/a/b.mov"};
    EXPECT_EQ(droppedText(track(3, "subtitle", "dvd_subtitle", "deu"), one),
              "subtitle track 3 (dvd_subtitle, deu): why");
    EXPECT_EQ(droppedText(track(1, "flag", "aac", ""), one), "flag of track 1 (aac): why");
    EXPECT_EQ(droppedText(track(2, "data", "", ""), one), "data track 2: why");
    EXPECT_EQ(droppedText(track(-1, "chapters", "", ""), one), "chapters: why");
    EXPECT_EQ(droppedText(track(2, "cover", "png", "", 1), {"/a/b.mov", "/a/c.mov"}),
              "c.mov: cover track 2 (png): why");
}

TEST(ProgressLine, ShowsBarPercentAndTimes) {
    EXPECT_EQ(progressLine(0.0, 0s, 40), "[.................]   0 %  0:00 elapsed");
    EXPECT_EQ(progressLine(0.5, 30s, 60), "[#############.............]  50 %  0:30 elapsed, 0:30 left");
    EXPECT_EQ(progressLine(2.0, 10s, 60).find("100 %"), 29U);
}

TEST(ProgressLine, FitsTheTerminal) {
    for (int columns = 1; columns < 200; ++columns) {
        EXPECT_LT(progressLine(0.42, 3700s, columns).size(), static_cast<std::size_t>(std::max(columns, 1)));
    }
}

TEST(ProgressLine, FormatsTimesLikeAClock) {
    EXPECT_EQ(clockText(7s), "0:07");
    EXPECT_EQ(clockText(760s), "12:40");
    EXPECT_EQ(clockText(3723s), "1:02:03");
}

TEST(ProgressDisplay, ShowsThatAnOperationWaits) {
    const auto operation = krv::KRVOperationBase::encodeVideoOperation("/s", "/d");
    std::vector<std::optional<std::int64_t>> positions{2, 2, 1, std::nullopt};
    std::size_t asked = 0;
    ProgressDisplay display(false, [&](const krv::KRVOperationBase&) { return positions.at(asked++); });
    testing::internal::CaptureStderr();
    for (const float progress : {0.0F, 1e-6F, 2e-6F, 3e-6F, 0.15F}) {
        EXPECT_TRUE(display.operation(operation, progress));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "waiting, 2 before it\nwaiting, 1 before it\n0 %  0:00\n10 %  0:00\n");
    EXPECT_EQ(asked, positions.size()) << "an operation that has started does not wait again";
}

std::shared_ptr<const krv::Error> serverError(krv::OperationErrorCode code, const std::string& description,
                                              const std::string& reason, const std::string& path) {
    return krv::Error::make(std::string(krv::kMediaServerErrorDomain), static_cast<std::int64_t>(code),
                            {{krv::NSLocalizedDescriptionKey, description},
                             {krv::NSLocalizedFailureReasonErrorKey, reason},
                             {krv::kErrorFilePath, path}});
}

TEST(FailureText, NamesTheFileTheCauseAndWhatToTry) {
    const auto error =
        serverError(krv::OperationErrorCode::UnreadableSource, "Cannot convert a.mov: it cannot be read.",
                    "No such file or directory", "/no/movies/a.mov");
    EXPECT_EQ(failureText(*error), "Cannot convert a.mov: it cannot be read.\n"
                                   "  file:  /no/movies/a.mov\n"
                                   "  cause: No such file or directory\n"
                                   "  try:   check the path");
    EXPECT_EQ(failureJSON(*error)["code"], 3);
    EXPECT_EQ(failureJSON(*error)["path"], "/no/movies/a.mov");
}

TEST(FailureText, DoesNotRepeatWhatTheSentenceSays) {
    const auto error =
        serverError(krv::OperationErrorCode::UnusableSource, "Cannot extract audio from /a.mov: it has no audio track.",
                    "it has no audio track", "/a.mov");
    EXPECT_EQ(failureText(*error), "Cannot extract audio from /a.mov: it has no audio track.");
}

TEST(FailureText, GivesAdviceThatFitsTheCause) {
    const auto adviceFor = [](krv::OperationErrorCode code, const std::string& path) {
        const std::string text = failureText(*serverError(code, "Cannot convert it.", "", path));
        const std::size_t at = text.find("  try:   ");
        return at == std::string::npos ? std::string() : text.substr(at + std::string_view("  try:   ").size());
    };
    using Code = krv::OperationErrorCode;
    const krv::test::TemporaryFolder folder;
    const std::string readable = folder.write("readable.mov", "");
    EXPECT_EQ(adviceFor(Code::UnreadableSource, folder.path() / "missing.mov"), "check the path");
    EXPECT_EQ(adviceFor(Code::UnreadableSource, readable), "");
    EXPECT_EQ(adviceFor(Code::UnwritableDestination, folder.path() / "missing" / "out.mov"),
              "create the folder " + (folder.path() / "missing").string());
    EXPECT_EQ(adviceFor(Code::UnwritableDestination, folder.path() / "out.mov"),
              "choose another destination, or make space for it");
    EXPECT_EQ(adviceFor(Code::UnusableSource, readable), "");
    EXPECT_EQ(adviceFor(Code::InvalidArgument, readable), "");
    EXPECT_EQ(adviceFor(Code::Internal, readable), "");
    EXPECT_EQ(adviceFor(Code::SameFile, readable), "choose another destination");
    EXPECT_NE(adviceFor(Code::Unsupported, readable), "");
    EXPECT_NE(adviceFor(Code::WorkerFailed, readable), "");
    EXPECT_NE(adviceFor(Code::CannotAcceptWork, readable), "");
}

TEST(FailureText, IsShortIfNothingElseIsKnown) {
    const krv::Error error("Other", 1);
    EXPECT_EQ(failureText(error), "The operation couldn't be completed. (Other error 1.)");
}

TEST(ProgressDisplay, PrintsALineAtEveryTenthAwayFromATerminal) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(false);
    for (const float progress : {0.0F, 0.04F, 0.11F, 0.12F, 0.35F}) {
        EXPECT_TRUE(display.operation(nullptr, progress));
    }
    display.finish(true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "0 %  0:00\n10 %  0:00\n30 %  0:00\n100 %  0:00\n");
}

TEST(ProgressDisplay, SaysWhenTheWorkStartsOver) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(false);
    display.operation(nullptr, 0.35F);
    display.startOver();
    for (const float progress : {0.05F, 0.12F}) {
        display.operation(nullptr, progress);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "30 %  0:00\nkrvqt: the media server was lost; another one starts over\n0 %  0:00\n10 %  0:00\n");
}

TEST(ProgressDisplay, PrintsNothingIfQuiet) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(true);
    display.operation(nullptr, 0.5F);
    display.operation(nullptr, 0.1F);
    display.finish(true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace krvqt

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>

#include "ArgumentFilter.h"
#include "CombinedProgress.h"
#include "DroppedTracks.h"
#include "FailureText.h"
#include "ProgressDisplay.h"
#include "TextValues.h"
#include "VisibleText.h"

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

TEST(TextValues, TimesAreSecondsOrClockTimes) {
    EXPECT_EQ(secondsFrom("90"), 90);
    EXPECT_EQ(secondsFrom("90.5"), 90.5);
    EXPECT_EQ(secondsFrom("1:30.5"), 90.5);
    EXPECT_EQ(secondsFrom("2:01:30.25"), 7290.25);
    for (const char* const text : {"", "-1", "x", "1:", ":1", "1:60", "1.5:00", "1:2:3:4", "nan", "inf", "1e3", "1 "}) {
        EXPECT_EQ(secondsFrom(text), std::nullopt) << text;
    }
}

TEST(TextValues, SizesAreForPeople) {
    EXPECT_EQ(bytesText(0), "0 bytes");
    EXPECT_EQ(bytesText(1), "1 byte");
    EXPECT_EQ(bytesText(999), "999 bytes");
    EXPECT_EQ(bytesText(38'500), "38 kB");
    EXPECT_EQ(bytesText(999'999), "999 kB");
    EXPECT_EQ(bytesText(1'250'000), "1.2 MB");
    EXPECT_EQ(bytesText(3'210'000'000), "3.21 GB");
}

TEST(TextValues, RatesMayHaveSuffixes) {
    EXPECT_EQ(settingsFrom("bitrate=192k"), "bitrate=192000");
    EXPECT_EQ(settingsFrom("preset=slow:bitrate=1.5M:width=640"), "preset=slow:bitrate=1500000:width=640");
    EXPECT_EQ(settingsFrom("sampleRate=44.1K"), "sampleRate=44100");
    for (const char* const text :
         {"", "bitrate=192000", "bitrate=k", "bitrate=x2k", "maxrate=2M", "preset=k", ":", "bitrate=-1k", "bitrate"}) {
        EXPECT_EQ(settingsFrom(text), text);
    }
}

krv::Progress progressOf(krv::Progress::State state, double fraction = 0) {
    krv::Progress progress;
    progress.state = state;
    progress.fraction = fraction;
    return progress;
}

TEST(CombinedProgress, IsTheMeanOfAllJobs) {
    using State = krv::Progress::State;
    const auto all = combinedProgress({progressOf(State::Finishing, 1), progressOf(State::Running, 0.5),
                                       progressOf(State::Queued), progressOf(State::WaitingForServer)},
                                      30s);
    EXPECT_EQ(all.state, State::Running);
    EXPECT_DOUBLE_EQ(all.fraction, 0.375);
    EXPECT_EQ(all.elapsed, 30s);
    EXPECT_DOUBLE_EQ(all.remaining.value().count(), 50);
}

TEST(CombinedProgress, WaitsAsLongAsAllJobsWait) {
    using State = krv::Progress::State;
    krv::Progress waiting = progressOf(State::WaitingForServer);
    waiting.waitingFor = "why";
    EXPECT_EQ(combinedProgress({waiting, waiting}, 0s).waitingFor, "why");
    krv::Progress queued = progressOf(State::Queued);
    queued.position = 3;
    krv::Progress sooner = queued;
    sooner.position = 2;
    const auto all = combinedProgress({waiting, queued, sooner}, 0s);
    EXPECT_EQ(all.state, State::Queued);
    EXPECT_EQ(all.position, 2);
    EXPECT_EQ(all.waitingFor, "");
    EXPECT_EQ(all.remaining, std::nullopt);
}

TEST(DroppedText, NamesTheTrackOrItsProperty) {
    const auto track = [](int index, const char* kind, const char* codec, const char* language,
                          std::size_t source = 0) {
        return krv::DroppedTrack{
            .source = source, .index = index, .kind = kind, .codec = codec, .language = language, .reason = "why"};
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

TEST(DroppedText, JSONNamesTheSourceIfThereAreSeveral) {
    const std::vector<krv::DroppedTrack> tracks{{.source = 1, .index = 3, .kind = "subtitle"}};
    EXPECT_FALSE(droppedJSON(tracks, {"/a.mov"}).front().contains("source"));
    EXPECT_EQ(droppedJSON(tracks, {"/a.mov", "/b.mov"}).front()["source"], 1);
    EXPECT_EQ(droppedJSON(tracks, {"/a.mov"}).front()["index"], 3);
}

TEST(VisibleText, ShowsControlCharacters) {
    EXPECT_EQ(visible("a\033[2Jb\rc\x7f\x01.mov\n\tx"), "a\\x1b[2Jb\\x0dc\\x7f\\x01.mov\n\tx");
    EXPECT_EQ(visible("\xc2\x9b"
                      "2J"),
              "\\xc2\\x9b"
              "2J")
        << "an escape sequence may also begin with U+009B";
}

TEST(VisibleText, KeepsUTF8AndShowsOtherBytes) {
    EXPECT_EQ(visible("Bj\xc3\xb6rk \xe2\x82\xac \xf0\x9f\x8e\xac\xc2\xa0"),
              "Bj\xc3\xb6rk \xe2\x82\xac \xf0\x9f\x8e\xac\xc2\xa0");
    EXPECT_EQ(visible("\xff.mov \xe2\x82"), "\\xff.mov \\xe2\\x82");
    EXPECT_EQ(visible(""), "");
}

TEST(ProgressLine, ShowsBarPercentAndTimes) {
    EXPECT_EQ(progressLine(0.0, 0s, {}, 40), "[.................]   0 %  0:00 elapsed");
    EXPECT_EQ(progressLine(0.5, 30s, 30s, 60), "[#############.............]  50 %  0:30 elapsed, 0:30 left");
    EXPECT_EQ(progressLine(2.0, 10s, 0s, 60), "[##########################] 100 %  0:10 elapsed, 0:00 left");
}

TEST(ProgressLine, FitsTheTerminal) {
    for (int columns = 1; columns < 200; ++columns) {
        EXPECT_LT(progressLine(0.42, 3700s, 5000s, columns).size(), static_cast<std::size_t>(std::max(columns, 1)));
    }
}

TEST(ProgressLine, FormatsTimesLikeAClock) {
    EXPECT_EQ(clockText(7s), "0:07");
    EXPECT_EQ(clockText(760s), "12:40");
    EXPECT_EQ(clockText(3723s), "1:02:03");
}

krv::Progress queued(std::int64_t position) {
    krv::Progress progress;
    progress.state = krv::Progress::State::Queued;
    progress.position = position;
    return progress;
}

krv::Progress running(double fraction, int attempt = 1) {
    krv::Progress progress;
    progress.state = krv::Progress::State::Running;
    progress.fraction = fraction;
    progress.attempt = attempt;
    return progress;
}

TEST(ProgressDisplay, ShowsThatAJobWaits) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(false);
    for (const auto& progress : {queued(2), queued(2), queued(1), running(0), running(0.15)}) {
        display.show(progress);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "waiting, 2 before it\nwaiting, 1 before it\n0 %  0:00\n10 %  0:00\n");
}

TEST(ProgressDisplay, PrintsALineAtEveryTenthAwayFromATerminal) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(false);
    for (const double fraction : {0.0, 0.04, 0.11, 0.12, 0.35}) {
        display.show(running(fraction));
    }
    display.finish(true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "0 %  0:00\n10 %  0:00\n30 %  0:00\n100 %  0:00\n");
}

TEST(ProgressDisplay, SaysWhenTheWorkStartsOver) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(false);
    for (const auto& progress : {running(0.35), running(0.05, 2), running(0.12, 2)}) {
        display.show(progress);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "30 %  0:00\nkrvqt: the media server was lost; another one starts over\n0 %  0:00\n10 %  0:00\n");
}

TEST(ProgressDisplay, SaysWhatItWaitsForAfterAWhile) {
    krv::FakeClock clock;
    testing::internal::CaptureStderr();
    ProgressDisplay display(false, clock);
    krv::Progress waiting;
    waiting.waitingFor = "none is running yet";
    display.show(waiting);
    clock.advanceBy(2s);
    display.show(waiting);
    clock.advanceBy(1s);
    display.show(waiting);
    display.show(waiting);
    waiting.waitingFor = "it does not respond";
    display.show(waiting);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "krvqt: waiting for the media server: none is running yet\n"
                                                      "krvqt: waiting for the media server: it does not respond\n");
}

TEST(ProgressDisplay, PrintsNothingIfQuiet) {
    testing::internal::CaptureStderr();
    ProgressDisplay display(true);
    display.show(running(0.5));
    display.show(queued(3));
    display.finish(true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(FailureText, NamesTheFileTheCauseAndWhatToTry) {
    const krv::Failure failure(krv::Failure::Kind::SourceMissing,
                               {.message = "Cannot convert a.mov: it cannot be read.",
                                .cause = "No such file or directory",
                                .suggestion = "Check the path.",
                                .file = "/no/movies/a.mov",
                                .code = 3});
    EXPECT_EQ(failureText(failure), "Cannot convert a.mov: it cannot be read.\n"
                                    "  file:  /no/movies/a.mov\n"
                                    "  cause: No such file or directory\n"
                                    "  try:   Check the path.");
    EXPECT_EQ(failureJSON(failure)["code"], 3);
    EXPECT_EQ(failureJSON(failure)["kind"], "SourceMissing");
    EXPECT_EQ(failureJSON(failure)["path"], "/no/movies/a.mov");
    EXPECT_EQ(failureJSON(failure)["suggestion"], "Check the path.");
}

TEST(FailureText, DoesNotRepeatWhatTheSentenceSays) {
    const krv::Failure failure(krv::Failure::Kind::NotMedia,
                               {.message = "Cannot extract audio from /a.mov: it has no audio track.",
                                .cause = "it has no audio track",
                                .file = "/a.mov"});
    EXPECT_EQ(failureText(failure), "Cannot extract audio from /a.mov: it has no audio track.");
}

TEST(FailureText, TheExitStatusTellsWhoIsToBlame) {
    const auto status = [](krv::Failure::Kind kind, std::int64_t code = 0) {
        return statusOf(krv::Failure(kind, {.code = code}));
    };
    using Kind = krv::Failure::Kind;
    EXPECT_EQ(status(Kind::Cancelled), 130);
    EXPECT_EQ(status(Kind::Unreachable), 3);
    EXPECT_EQ(status(Kind::ServerLost), 3);
    EXPECT_EQ(status(Kind::BadArgument), 2);
    EXPECT_EQ(status(Kind::BadArgument, 9), 1) << "the server has found it";
    EXPECT_EQ(status(Kind::NotMedia, 4), 1);
}

}  // namespace
}  // namespace krvqt

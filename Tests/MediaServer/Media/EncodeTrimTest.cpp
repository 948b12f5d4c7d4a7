// Converts parts of movies, and some of their tracks.
#include <algorithm>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"

namespace krv::media::test {
namespace {

using testing::HasSubstr;

constexpr double kFrame = 0.04;

Conversion trimmed(const std::string& source, const std::string& times, std::int32_t type = 1,
                   const std::string& extension = "mp4") {
    return {.source = source, .extension = extension, .type = type, .video = VideoRequest{0, 0, 0, times}};
}

struct Route {
    const char* source;
    const char* extension;
    std::int32_t type;
    int first = 35;  // the frame that is shown at 1.4 s
    int last = 104;
};
void PrintTo(const Route& one, std::ostream* out) {
    *out << one.source << " as type " << one.type << " to " << one.extension;
}

class Trim : public testing::TestWithParam<Route> {};

TEST_P(Trim, KeepsTheFramesOfThePartInSync) {
    const Route& route = GetParam();
    const auto output =
        convert(trimmed(corpus(route.source), "trimStart=1.4:trimEnd=4.2", route.type, route.extension));
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(route.first, route.last));
    EXPECT_NEAR(Probe(output).duration(), 2.8, kFrame + 0.001);
    EXPECT_NEAR(flashTime(output.path()), (50 - route.first) * kFrame, kFrame);
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, 0.03);
}

// Some movies begin with silence that primes the decoder, so that their frames are shown a little later.
INSTANTIATE_TEST_SUITE_P(Encode, Trim,
                         testing::Values(Route{"h264.mp4", "mp4", 1}, Route{"h264.mp4", "mkv", 0},
                                         Route{"h264.mkv", "mkv", 1, 34}, Route{"prores.mov", "mov", 0},
                                         Route{"prores.mov", "mkv", 0}, Route{"vp9.webm", "webm", 0, 34},
                                         Route{"camera.avi", "mov", 0}, Route{"fragmented.mp4", "mp4", 1, 33, 102},
                                         Route{"mono.mp4", "avi", 1}, Route{"h264.mov", "ts", 0}));

class CopiedTrim : public testing::TestWithParam<Route> {};

TEST_P(CopiedTrim, BeginsExactlyAndEndsWithTheFramesThatTheLastOnesDependOn) {
    const Route& route = GetParam();
    const auto output = convert(trimmed(corpus(route.source), "trimStart=1.4:trimEnd=4.2", 0, route.extension));
    auto numbers = frameNumbers(output.path());
    const auto expected = numbersFrom(route.first, route.last);
    ASSERT_GE(numbers.size(), expected.size());
    EXPECT_LE(numbers.size(), expected.size() + 1);
    numbers.resize(expected.size());
    EXPECT_EQ(numbers, expected);
    EXPECT_NEAR(Probe(output).duration(), 2.8, kFrame + 0.001);
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, 0.03);
}

INSTANTIATE_TEST_SUITE_P(Encode, CopiedTrim,
                         testing::Values(Route{"h264.mp4", "mp4", 0}, Route{"h264.mov", "mov", 0},
                                         Route{"h264.mkv", "mov", 0}));

TEST(Trimming, EndsAtTheEndWithoutAnEnd) {
    const auto output = convert(trimmed(corpus("h264.mp4"), "trimStart=5"));
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(125, 149));
    EXPECT_EQ(frameNumbers(convert(trimmed(corpus("h264.mp4"), "trimStart=5:trimEnd=99")).path()),
              numbersFrom(125, 149));
}

TEST(Trimming, BeginsAtTheBeginningWithoutAStart) {
    const auto output = convert(trimmed(corpus("h264.mp4"), "trimEnd=1"));
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(0, 24));
    EXPECT_NEAR(Probe(output).duration(), 1, 0.03);
    EXPECT_NEAR(audioLength(output.path()), 1, 0.03);
}

TEST(Trimming, CopiesVideoWhereItCanBeCut) {
    const auto output = convert(trimmed(corpus("h264.mov"), "trimStart=2.5:trimEnd=4", 0, "mov"));
    const auto all = packetHashes(corpus("h264.mov"), "v:0");
    for (const std::string& hash : packetHashes(output.path(), "v:0")) {
        EXPECT_THAT(all, testing::Contains(hash));
    }
}

TEST(Trimming, ShowsAFrameThatBeganBefore) {
    // A frame is held from 2.36 to 4.92 s.
    const auto output = convert(trimmed(corpus("held.mp4"), "trimStart=3:trimEnd=5"));
    const auto times = frameTimes(output.path());
    EXPECT_EQ(frameNumbers(output.path()), (std::vector<int>{59, 123, 124}));
    ASSERT_EQ(times.size(), 3U);
    EXPECT_NEAR(times[0], 0, 0.001);
    EXPECT_NEAR(times[1], 1.92, 0.001);
    const auto within = convert(trimmed(corpus("held.mp4"), "trimStart=3:trimEnd=4"));
    EXPECT_EQ(frameNumbers(within.path()), std::vector<int>{59});
    EXPECT_NEAR(Probe(within).duration(), 1, 0.001);
}

TEST(Trimming, MovesChaptersAndDropsThoseOutside) {
    const Probe probe(convert(trimmed(corpus("chapters.mp4"), "trimStart=1:trimEnd=4")));
    ASSERT_EQ(probe.all().at("chapters").size(), 2U);
    EXPECT_NEAR(number(probe.all().at("chapters")[0], "start_time"), 0, 0.001);
    EXPECT_NEAR(number(probe.all().at("chapters")[1], "start_time"), 1.5, 0.001);
    EXPECT_NEAR(number(probe.all().at("chapters")[1], "end_time"), 3, 0.001);
    EXPECT_EQ(Probe(convert(trimmed(corpus("chapters.mp4"), "trimStart=3"))).all().at("chapters").size(), 1U);
}

TEST(Trimming, MovesSubtitlesAndShortensThoseAtTheEnds) {
    // Lines from 0.2 to 0.9 s and from 1.0 to 1.7 s.
    for (const char* const extension : {"mkv", "mp4"}) {
        const auto output = convert(trimmed(testMedia("subtitles.mkv"), "trimStart=0.5:trimEnd=1.5", 1, extension));
        const std::string lines =
            run({KRV_FFMPEG, "-v", "quiet", "-i", output.path(), "-map", "0:s:0", "-f", "srt", "-"});
        EXPECT_THAT(lines, HasSubstr("00:00:00,000 --> 00:00:00,400\nFirst line")) << extension;
        EXPECT_THAT(lines, HasSubstr("00:00:00,500 --> 00:00:01,000\nSecond line")) << extension;
    }
}

TEST(Trimming, MovesTheTimeCode) {
    const auto output = convert(trimmed(testMedia("plain.mov"), "trimStart=1.2", 1, "mov"));
    EXPECT_EQ(tagOf(Probe(output).video(), "timecode"), "01:00:01:05");
}

TEST(Trimming, CutsSongs) {
    for (const char* const song : {"song.m4a", "song.mp3", "song.flac", "song.wav", "song.ogg"}) {
        const std::string extension = std::string(song).substr(5);
        for (const std::int32_t type : {0, 7}) {
            const auto output = convert({.source = corpus(song),
                                         .extension = extension,
                                         .type = type,
                                         .audio = AudioRequest{0, 0, "trimStart=1.5:trimEnd=4"}});
            EXPECT_NEAR(audioLength(output.path()), 2.5, 0.06) << song << type;
            EXPECT_NEAR(beepTime(output.path()), 0.5, 0.06) << song << type;
        }
    }
}

TEST(Trimming, ProgressIsThatOfThePart) {
    RecordingSink sink;
    (void)convert(trimmed(corpus("h264.mp4"), "trimStart=1:trimEnd=3"), sink);
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
    EXPECT_THAT(sink.fractions, testing::Contains(testing::AllOf(testing::Gt(0.3), testing::Lt(0.7))));
}

TEST(Trimming, TimesThatCannotBeAreRefused) {
    const auto causes = [](const Conversion& conversion, const std::string& key) {
        const auto failure = failureOf(conversion);
        ASSERT_TRUE(failure) << conversion.video->settings;
        EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting) << conversion.video->settings;
        EXPECT_EQ(failure->subject, key) << conversion.video->settings;
    };
    const std::string source = corpus("h264.mp4");
    causes(trimmed(source, "trimStart=3:trimEnd=3"), "trimEnd");
    causes(trimmed(source, "trimStart=3:trimEnd=2"), "trimEnd");
    causes(trimmed(source, "trimEnd=0"), "trimEnd");
    causes(trimmed(source, "trimStart=-1"), "trimStart");
    causes(trimmed(source, "trimStart=nan"), "trimStart");
    causes(trimmed(source, "trimStart=inf"), "trimStart");
    causes(trimmed(source, "trimStart=1e99"), "trimStart");
    causes(trimmed(source, "trimEnd=x"), "trimEnd");
    causes(trimmed(source, "trimStart=6.5"), "trimStart");
    Conversion differing = trimmed(source, "trimStart=1");
    differing.audio = AudioRequest{0, 0, "trimStart=2"};
    causes(differing, "trimStart");
    differing.audio = AudioRequest{0, 0, "trimStart=1.0"};
    EXPECT_FALSE(failureOf(differing));
}

std::vector<std::string> languages(const std::vector<nlohmann::json>& streams) {
    std::vector<std::string> found;
    for (const auto& stream : streams) {
        found.push_back(tagOf(stream, "language"));
    }
    return found;
}

Conversion choosing(const std::string& video, const std::string& audio, std::int32_t type = 0) {
    return {.source = corpus("many.mkv"),
            .extension = "mkv",
            .type = type,
            .video = VideoRequest{0, 0, 0, video},
            .audio = AudioRequest{0, 0, audio}};
}

TEST(TrackChoice, KeepsTheNamedAudioTracks) {
    using testing::ElementsAre;
    const auto kept = [](const std::string& audio, std::int32_t type = 0) {
        return languages(Probe(convert(choosing("", audio, type))).streams("audio"));
    };
    // Tracks 1, 2 and 3 are English, German and French.
    EXPECT_THAT(kept("audioTracks=2"), ElementsAre("deu"));
    EXPECT_THAT(kept("audioTracks=2", 1), ElementsAre("deu"));
    EXPECT_THAT(kept("audioTracks=fra,eng"), ElementsAre("eng", "fra"));
    EXPECT_THAT(kept("audioTracks=1,fra"), ElementsAre("eng", "fra"));
    EXPECT_THAT(kept("audioTracks=GER"), ElementsAre("deu"));
    EXPECT_THAT(kept("audioTracks=fr"), ElementsAre("fra"));
    EXPECT_THAT(kept(""), ElementsAre("eng", "deu", "fra"));
}

TEST(TrackChoice, KeepsTheNamedSubtitleTracks) {
    const auto kept = [](const std::string& video) {
        return Probe(convert(choosing(video, ""))).streams("subtitle").size();
    };
    EXPECT_EQ(kept("subtitleTracks=4"), 1U);
    EXPECT_EQ(kept("subtitleTracks=4,5"), 2U);
    EXPECT_EQ(kept(""), 2U);
}

TEST(TrackChoice, TracksThatTheSourceDoesNotHaveAreRefused) {
    const auto refused = [](const Conversion& conversion, const std::string& key) {
        const auto failure = failureOf(conversion);
        ASSERT_TRUE(failure) << conversion.video->settings << conversion.audio->settings;
        EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting);
        EXPECT_EQ(failure->subject, key);
    };
    refused(choosing("", "audioTracks=7"), "audioTracks");
    refused(choosing("", "audioTracks=0"), "audioTracks");
    refused(choosing("", "audioTracks=4"), "audioTracks");
    refused(choosing("", "audioTracks=jpn"), "audioTracks");
    refused(choosing("", "audioTracks=eng,jpn"), "audioTracks");
    refused(choosing("", "audioTracks=1,"), "audioTracks");
    refused(choosing("", "audioTracks="), "audioTracks");
    refused(choosing("subtitleTracks=1", ""), "subtitleTracks");
}

}  // namespace
}  // namespace krv::media::test

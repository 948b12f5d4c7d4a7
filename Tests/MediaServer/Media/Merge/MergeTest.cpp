#include <algorithm>
#include <set>

#include <gmock/gmock.h>

#include "MergeTestKit.h"

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;
constexpr double kInSync = 0.02;
constexpr double kTone = 440;

double lengthOf(const OutputPath& output, const char* type) {
    return number(Probe(output).streams(type).at(0), "duration");
}

TEST(Merge, CopiesIdenticalFormatsBitForBit) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = join({"flash.mov", "flash.mov", "flash.mov"}, extension);
        EXPECT_EQ(packetHashes(output.path(), "v:0"), repeated(packetHashes(testMedia("flash.mov"), "v:0"), 3));
        const auto original = packetHashes(testMedia("flash.mov"), "a:0");
        const std::set<std::string> known(original.begin(), original.end());
        const auto audio = packetHashes(output.path(), "a:0");
        EXPECT_TRUE(std::all_of(audio.begin(), audio.end(), [&](const auto& hash) { return known.contains(hash); }));
        EXPECT_NEAR(static_cast<double>(audio.size()), 6 * 48000 / 1024.0, 2.5);
        EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 150);
        EXPECT_NEAR(Probe(output).duration(), 6.0, kFrame) << extension;
        const auto times = frameTimes(output.path());
        for (std::size_t i = 1; i < times.size(); ++i) {
            ASSERT_NEAR(times[i] - times[i - 1], kFrame, 0.0015) << i;
        }
    }
}

TEST(Merge, CopiesStayInSync) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = join(std::vector<std::string>(4, "flash.mov"), extension);
        for (int i = 0; i < 4; ++i) {
            const double flash = flashTime(output.path(), 2 * i + 0.5);
            EXPECT_NEAR(flash, 2 * i + 1, kFrame);
            EXPECT_NEAR(beepTime(output.path(), 2 * i + 0.5) - flash, 0, kInSync) << extension << i;
        }
    }
}

struct Case {
    std::vector<std::string> sources;
    const char* extension;
    double last;  // when the last source begins
    int frames;
};

void PrintTo(const Case& one, std::ostream* out) {
    for (const auto& source : one.sources) {
        *out << source << " ";
    }
    *out << one.extension;
}

class MergeSync : public testing::TestWithParam<Case> {};

TEST_P(MergeSync, TheLastBeepStaysInSyncWithTheLastFlash) {
    const auto& [sources, extension, last, frames] = GetParam();
    const auto output = join(sources, extension);
    const double flash = flashTime(output.path(), last + 0.5);
    EXPECT_NEAR(flash, last + 1, kFrame);
    EXPECT_NEAR(beepTime(output.path(), last + 0.5) - flash, 0, kInSync);
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), frames);
    EXPECT_EQ(frameTimes(output.path()).size(), static_cast<std::size_t>(frames));
}

INSTANTIATE_TEST_SUITE_P(
    Merge, MergeSync,
    testing::Values(Case{{"flash.mov", "wide.mp4"}, "mov", 2, 100}, Case{{"wide.mp4", "flash.mov"}, "mp4", 2, 120},
                    Case{{"wide.mp4", "flash.mov"}, "mkv", 2, 120}, Case{{"tall.mp4", "flash.mov"}, "mov", 2, 100},
                    Case{{"mute.mp4", "flash.mov"}, "mov", 2, 100},
                    Case{{"mute.mp4", "mute.mp4", "wide.mp4"}, "mp4", 4, 150},
                    Case{{"sound.wav", "flash.mov"}, "mov", 2, 100},
                    Case{{"flash.mov", "fast.mkv", "flash.mov"}, "mp4", 3.4, 135},
                    Case{{"flash.webm", "flash.prores.mov", "flash.mov"}, "mp4", 4, 150},
                    Case{{"flash.prores.mov", "flash.webm", "flash.mov"}, "mov", 4, 150},
                    Case{{"flash.mov", "flash.webm"}, "webm", 2, 100}, Case{{"late.mkv", "late.mkv"}, "mkv", 2, 100},
                    Case{{"flash-surround.mov", "flash.mov"}, "mov", 2, 100}));

TEST(Merge, ManyShortClipsDoNotDriftApart) {
    std::vector<std::string> sources;
    for (int i = 0; i < 6; ++i) {
        sources.insert(sources.end(), {"film.mov", "fast.mkv"});
    }
    sources.emplace_back("flash.mov");
    const auto output = join(sources, "mp4");
    const Probe film(testMedia("film.mov")), fast(testMedia("fast.mkv"));
    const double begin = 6 * (film.duration() + fast.duration());
    const double flash = flashTime(output.path(), begin + 0.5);
    EXPECT_NEAR(flash, begin + 1, 2 * kFrame);
    EXPECT_NEAR(beepTime(output.path(), begin + 0.5) - flash, 0, kInSync);
    EXPECT_NEAR(Probe(output).duration(), begin + 2, 0.1);
}

TEST(Merge, ManyCopiesOfAnOddLengthDoNotDriftApart) {
    for (const char* extension : {"mov", "mkv"}) {
        const auto output = join(std::vector<std::string>(12, "film.mov"), extension);
        EXPECT_EQ(packetHashes(output.path(), "v:0"), repeated(packetHashes(testMedia("film.mov"), "v:0"), 12));
        const auto times = frameTimes(output.path());
        const double each = times.at(times.size() / 12) - times[0];
        const double begin = times[0] + 11 * each;
        const double flash = flashTime(output.path(), begin + 0.5);
        const double before = beepTime(testMedia("film.mov")) - flashTime(testMedia("film.mov"));
        EXPECT_NEAR(flash - begin, flashTime(testMedia("film.mov")), 0.002) << extension;
        EXPECT_NEAR(beepTime(output.path(), begin + 0.5) - flash, before, kInSync) << extension;
    }
}

TEST(Merge, ASlowFirstSourceDoesNotMakeASlideShowOfTheOthers) {
    const OutputPath slow("mp4");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-r", "5", "-frames:v", "10", "-an",
         slow.path()});
    const auto output = join({slow.path(), testMedia("plain.mov")});
    EXPECT_NEAR(Probe(output).duration(), 4.0, 0.25);
    EXPECT_NEAR(number(Probe(output).video(), "nb_read_frames"), 100, 5);
    // An ordinary rate of the first source stays.
    const OutputPath film("mp4");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-r", "20", "-frames:v", "40", "-an",
         film.path()});
    EXPECT_NEAR(number(Probe(join({film.path(), testMedia("plain.mov")})).video(), "nb_read_frames"), 80, 4);
}

TEST(Merge, HoldsTheLastFrameAndAddsSilence) {
    for (const char* extension : {"mov", "mkv"}) {
        const auto output = join({"longsound.mov", "longvideo.mov", "longsound.mov"}, extension);
        EXPECT_NEAR(Probe(output).duration(), 6.0, kFrame) << extension;
        const DecodedAudio audio = decodedAudio(output.path());
        EXPECT_GT(audio.level(0, kTone, 0.2, 1.9), -30);
        EXPECT_GT(audio.level(0, kTone, 2.1, 2.9), -30);
        EXPECT_LT(audio.peak(3.1, 3.9), 0.002);
        EXPECT_GT(audio.level(0, kTone, 4.1, 5.9), -30);
        // The last frame remains while only audio continues. Then the other movie follows.
        EXPECT_LT(difference(frameAt(output.path(), 0.99).values, frameAt(output.path(), 1.9).values), 2);
        EXPECT_GT(difference(frameAt(output.path(), 1.9).values, frameAt(output.path(), 2.1).values), 5);
    }
}

TEST(Merge, EndsEachSourceWithItsShortestTrackIfRequested) {
    for (const char* extension : {"mov", "mkv"}) {
        const auto output = join({"longsound.mov", "longvideo.mov", "longsound.mov"}, extension, true);
        EXPECT_NEAR(Probe(output).duration(), 3.0, kFrame) << extension;
        EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 75);
        EXPECT_NEAR(audioLength(output.path()), 3.0, kFrame);
        EXPECT_GT(decodedAudio(output.path()).level(0, kTone, 0.2, 2.8), -30);
    }
}

TEST(Merge, CopiesVideoWhoseFramesCanBeCutOff) {
    // Every ProRes frame is a key frame, so any of them can be the last.
    const auto output = join({"longvideo.prores.mov", "longvideo.prores.mov"}, "mov", true);
    auto expected = packetHashes(testMedia("longvideo.prores.mov"), "v:0");
    expected.resize(25);
    EXPECT_EQ(packetHashes(output.path(), "v:0"), repeated(expected, 2));
    EXPECT_NEAR(lengthOf(output, "video"), 2.0, kFrame);
    EXPECT_NEAR(lengthOf(output, "audio"), 2.0, kFrame);
}

TEST(Merge, EncodesOnlyTheAudioIfOnlyThatDiffers) {
    const auto output = join({"flash.mov", "mute.mp4"}, "mov");
    const auto same = join({"centre.mov", "mono.mov"}, "mov");
    EXPECT_EQ(packetHashes(same.path(), "v:0"), repeated(packetHashes(testMedia("centre.mov"), "v:0"), 2));
    EXPECT_EQ(text(Probe(same).audio(), "channel_layout"),
              text(Probe(testMedia("centre.mov")).audio(), "channel_layout"));
    EXPECT_EQ(number(Probe(output).audio(), "channels"), 1);
}

TEST(Merge, EncodesOnlyTheVideoIfOnlyThatDiffers) {
    const auto output = join({"plain.mov", "flash.mov"}, "mov");
    const auto first = packetHashes(testMedia("plain.mov"), "a:0");
    const auto joined = packetHashes(output.path(), "a:0");
    ASSERT_GT(joined.size(), first.size());
    EXPECT_TRUE(std::equal(first.begin(), first.end() - 3, joined.begin()));
}

TEST(Merge, MakesEverySourceAChapter) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = join({"flash.mov", "plain.mov", "mute.mp4"}, extension);
        const Probe probe(output);
        const auto& chapters = probe.all().at("chapters");
        ASSERT_EQ(chapters.size(), 3U) << extension;
        EXPECT_EQ(tagOf(chapters[0], "title"), "flash");
        EXPECT_EQ(tagOf(chapters[1], "title"), "A plain movie");
        EXPECT_EQ(tagOf(chapters[2], "title"), "mute");
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(number(chapters[static_cast<std::size_t>(i)], "start_time"), 2 * i, 0.03);
        }
    }
}

TEST(Merge, KeepsTheChaptersOfTheSources) {
    const Probe source(testMedia("chapters.mp4"));
    const auto& own = source.all().at("chapters");
    ASSERT_GT(own.size(), 1U);
    ASSERT_EQ(number(own[0], "start_time"), 0);
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const Probe probe(join({"flash.mov", "chapters.mp4", "chapters.mp4"}, extension));
        const auto& chapters = probe.all().at("chapters");
        ASSERT_EQ(chapters.size(), 1 + 2 * own.size()) << extension;
        EXPECT_EQ(tagOf(chapters[0], "title"), "flash");
        EXPECT_THAT(tagOf(chapters[1], "title"), testing::EndsWith(": " + tagOf(own[0], "title")));
        const double length = (probe.duration() - 2) / 2;
        for (std::size_t i = 0; i < 2 * own.size(); ++i) {
            const double start = number(own[i % own.size()], "start_time");
            const double begin = 2 + (i < own.size() ? 0 : length);
            EXPECT_NEAR(number(chapters[i + 1], "start_time"), begin + start, 0.05) << extension << i;
            if (start > 0) {
                EXPECT_EQ(tagOf(chapters[i + 1], "title"), tagOf(own[i % own.size()], "title"));
            }
        }
    }
}

TEST(Merge, KeepsTheFirstCover) {
    const auto hashes = packetHashes(testMedia("cover.m4a"), "v:0");
    for (const char* extension : {"m4a", "mp4", "mov", "mka"}) {
        const auto output = join({"sound.wav", "cover.m4a", "cover.m4a"}, extension);
        EXPECT_EQ(Probe(output).covers().size(), 1U) << extension;
        EXPECT_EQ(packetHashes(output.path(), "v:0"), hashes) << extension;
    }
}

TEST(Merge, KeepsTheTagsThatAllShare) {
    EXPECT_EQ(Probe(join({"plain.mov", "plain.mov"})).tag("artist"), "Nobody");
    EXPECT_EQ(Probe(join({"plain.mov", "flash.mov"})).tag("artist"), "");
}

TEST(Merge, ASingleSourceIsCopied) {
    const auto output = join({"flash.mov"}, "mp4");
    EXPECT_EQ(packetHashes(output.path(), "v:0"), packetHashes(testMedia("flash.mov"), "v:0"));
    EXPECT_EQ(packetHashes(output.path(), "a:0"), packetHashes(testMedia("flash.mov"), "a:0"));
    EXPECT_NEAR(Probe(output).duration(), 2.0, kFrame);
}

TEST(Merge, ABadSourceFailsTheMergeAndIsNamed) {
    using Cause = FailureCause;
    for (const auto& [bad, cause] :
         {std::pair("text.mp4", Cause::Damaged), std::pair("empty.mov", Cause::SourceIsEmpty),
          std::pair("headless.mp4", Cause::Damaged)}) {
        try {
            (void)join({"flash.mov", bad, "flash.mov"});
            FAIL() << bad;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, cause) << bad;
            EXPECT_EQ(failure.source, 1U) << bad;
        }
    }
}

TEST(Merge, AnUnknownContainerIsRefused) {
    try {
        (void)join({"flash.mov"}, "xyz");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::UnsupportedContainer);
        EXPECT_EQ(failure.subject, "xyz");
        EXPECT_FALSE(failure.source);
    }
}

TEST(Merge, AnEmptyListOfSourcesIsInvalid) {
    try {
        (void)join({});
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::InvalidArgument);
        EXPECT_EQ(failure.subject, "sources");
    }
}

TEST(Merge, ProgressRisesEvenlyToOne) {
    for (const char* last : {"flash.mov", "wide.mp4"}) {
        RecordingSink sink;
        (void)join({"flash.mov", "flash.mov", last}, "mov", false, sink);
        ASSERT_GT(sink.fractions.size(), 5U);
        EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
        EXPECT_EQ(std::count(sink.fractions.begin(), sink.fractions.end(), 1.0), 1);
        EXPECT_EQ(sink.fractions.back(), 1);
    }
}

}  // namespace
}  // namespace krv::media::test

// Converts every common kind of movie. The tests check the output: which frames it has, when they are shown, and
// whether the audio is in sync.
#include <algorithm>
#include <cmath>
#include <map>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

struct Movie {
    const char* name;
    bool audio = true;
    double flash = 2;  // when the first bright frame is shown
};
void PrintTo(const Movie& movie, std::ostream* out) {
    *out << movie.name;
}

class Corpus : public testing::TestWithParam<Movie> {
protected:
    static std::string source() { return corpus(GetParam().name); }

    /// The output has the frames of the source in their order, each at its time.
    static void expectSameFrames(const std::string& output) {
        const auto expected = frameNumbers(source());
        EXPECT_THAT(frameNumbers(output), testing::ElementsAreArray(expected));
        const auto was = frameTimes(source());
        const auto is = frameTimes(output);
        ASSERT_EQ(was.size(), is.size());
        for (std::size_t i = 0; i < was.size(); ++i) {
            ASSERT_NEAR(is[i] - is.front(), was[i] - was.front(), 0.0021) << i;
        }
    }
    static void expectSameLength(const std::string& output) {
        const double length = Probe(source()).duration();
        EXPECT_NEAR(Probe(output).duration(), length, kFrame + 0.025) << "the last audio packet may be padded";
    }
    static void expectInSync(const std::string& output) {
        if (!GetParam().audio) {
            return;
        }
        // Compare with how the source was made, because a tool may play it worse than that.
        EXPECT_NEAR(beepTime(output) - flashTime(output), 2 - GetParam().flash, 0.02);
    }
};

TEST_P(Corpus, BecomesH264WithEveryFrameAtItsTime) {
    RecordingSink sink;
    const auto output = convert({.source = source(), .extension = "mp4", .type = 1}, sink);
    EXPECT_EQ(text(Probe(output).video(), "codec_name"), "h264");
    expectSameFrames(output.path());
    expectSameLength(output.path());
    expectInSync(output.path());
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
}

class CorpusKept : public Corpus {};

TEST_P(CorpusKept, ByOriginalWithEveryFrameAtItsTime) {
    const auto output = convert({.source = source(), .extension = "mkv", .type = 0});
    expectSameFrames(output.path());
    expectSameLength(output.path());
    expectInSync(output.path());
}

INSTANTIATE_TEST_SUITE_P(Every, Corpus,
                         testing::Values(Movie{"h264.mp4"}, Movie{"h264.mov"}, Movie{"h264.ts"}, Movie{"h264.mkv"},
                                         Movie{"fragmented.mp4"}, Movie{"vp9.webm"}, Movie{"av1.mp4"},
                                         Movie{"prores.mov"}, Movie{"dv.dv"}, Movie{"camera.avi"},
                                         Movie{"anamorphic.mp4"}, Movie{"variable.mkv", true, 2.04},
                                         Movie{"held.mp4", false}, Movie{"late-sound.mkv"}, Movie{"mono.mp4"},
                                         Movie{"video-only.mp4", false}, Movie{"movie-with-cover.mp4"},
                                         Movie{"chapters.mkv"}, Movie{"subtitles.mkv"}, Movie{"edited.mov"},
                                         Movie{"one-picture.mp4", false}));

// The audio of fragmented.mp4 has a gap that the measuring tool does not fill.
INSTANTIATE_TEST_SUITE_P(Every, CorpusKept,
                         testing::Values(Movie{"h264.mp4"}, Movie{"h264.ts"}, Movie{"fragmented.mp4", false},
                                         Movie{"vp9.webm"}, Movie{"dv.dv"}, Movie{"variable.mkv", true, 2.04},
                                         Movie{"late-sound.mkv"}, Movie{"edited.mov"}));

struct Rotated {
    const char* name;
    const char* backwards;  // the filter that turns the upright frame back into the stored one
};
void PrintTo(const Rotated& rotated, std::ostream* out) {
    *out << rotated.name;
}
class Portrait : public testing::TestWithParam<Rotated> {};

TEST_P(Portrait, IsShownUprightInEveryContainer) {
    const std::string source = corpus(GetParam().name);
    const auto numbers = numbersFrom(0, 149);
    const auto mp4 = convert({.source = source, .extension = "mp4", .type = 1});
    EXPECT_EQ(frameNumbers(mp4.path()), numbers);  // as stored
    EXPECT_LT(difference(shownFrame(mp4.path()), shownFrame(source)), 4);
    // A container without a display matrix has the pixels rotated.
    const auto mkv = convert({.source = source, .extension = "mkv", .type = 1});
    EXPECT_EQ(frameNumbers(mkv.path(), GetParam().backwards), numbers);
    EXPECT_LT(difference(shownFrame(mkv.path()), shownFrame(source)), 4);
}

INSTANTIATE_TEST_SUITE_P(Every, Portrait,
                         testing::Values(Rotated{"phone-90.mp4", "transpose=clock"},
                                         Rotated{"phone-180.mp4", "hflip,vflip"},
                                         Rotated{"phone-270.mp4", "transpose=cclock"}));

TEST(Interlaced, IsDeinterlacedToTheTimesOfTheFirstFields) {
    const auto output = convert({.source = corpus("mpeg2.mpg"), .extension = "mp4", .type = 1});
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(0, 298, 2));
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, 0.02);
}

TEST(HighDynamicRange, LooksLikeTheSDRMovieInH264) {
    const auto output = convert({.source = corpus("hevc-hdr.mp4"), .extension = "mp4", .type = 1});
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(0, 149));
    for (const int frame : {10, 75, 140}) {
        const auto found =
            colourDifference(shownColours(output.path(), frame), shownColours(corpus("h264.mov"), frame));
        std::cout << "[ measured ] mean colour difference " << found.mean << '\n';
        EXPECT_LT(found.mean, 4);
    }
}

TEST(HighDynamicRange, StaysHDRInHEVC) {
    const auto output = convert({.source = corpus("hevc-hdr.mp4"), .extension = "mp4", .type = 2});
    const auto video = Probe(output).video();
    EXPECT_EQ(text(video, "pix_fmt"), "yuv420p10le");
    EXPECT_EQ(text(video, "color_transfer"), "smpte2084");
    EXPECT_EQ(frameNumbers(output.path()).size(), 150U);
}

/// Returns the frequency of each channel's tone in Hz, by counting zero crossings.
std::vector<int> tones(const std::string& path) {
    const auto audio = Probe(path).audio();
    const int channels = static_cast<int>(number(audio, "channels"));
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-ss", "1", "-i", path, "-map", "0:a:0", "-t", "2", "-ar",
                                   "48000", "-f", "s16le", "-"});
    std::vector<int> found;
    for (int channel = 0; channel < channels; ++channel) {
        int crossings = 0;
        int before = 0;
        for (std::size_t i = static_cast<std::size_t>(channel) * 2; i + 1 < bytes.size();
             i += static_cast<std::size_t>(channels) * 2) {
            const auto sample = static_cast<std::int16_t>(static_cast<unsigned char>(bytes[i]) |
                                                          static_cast<unsigned char>(bytes[i + 1]) << 8);
            // The threshold keeps the noise of encoders from counting.
            if (before < 0 && sample > 1000) {
                ++crossings;
            }
            if (std::abs(sample) > 1000) {
                before = sample;
            }
        }
        found.push_back(crossings / 2);
    }
    return found;
}

TEST(Channels, EachKeepsItsOwnTone) {
    using testing::ElementsAre;
    const auto around = [](int tone) { return testing::AllOf(testing::Ge(tone - 3), testing::Le(tone + 3)); };
    for (const char* movie : {"surround-ac3.mkv", "surround-aac.mp4"}) {
        for (const char* extension : {"mp4", "mkv", "mov"}) {
            const auto output = convert({.source = corpus(movie), .extension = extension, .type = 1});
            EXPECT_THAT(tones(output.path()),
                        ElementsAre(around(300), around(500), around(700), around(60), around(1100), around(1300)))
                << movie << extension;
        }
    }
}

TEST(Channels, EightStayEight) {
    using testing::ElementsAre;
    const auto around = [](int tone) { return testing::AllOf(testing::Ge(tone - 3), testing::Le(tone + 3)); };
    for (const char* extension : {"mp4", "mkv", "mov", "m4a", "ts"}) {
        const auto output = convert({.source = corpus("eight.mkv"), .extension = extension, .type = 7});
        EXPECT_EQ(text(Probe(output).audio(), "codec_name"), "aac");
        EXPECT_EQ(text(Probe(output).audio(), "channel_layout"), "7.1");
        EXPECT_THAT(tones(output.path()), ElementsAre(around(300), around(500), around(700), around(60), around(900),
                                                      around(1500), around(1100), around(1300)))
            << extension;
    }
}

TEST(CoverArt, IsNeverTakenForVideo) {
    for (const char* album : {"album.m4a", "album.mp3"}) {
        const auto output = convert({.source = corpus(album), .extension = "mp4", .type = 1});
        EXPECT_TRUE(Probe(output).streams("video").empty());
        EXPECT_EQ(Probe(output).covers().size(), 1U);
    }
}

TEST(Songs, AreConvertedToEveryAudioContainer) {
    for (const char* from : {"song.m4a", "song.mp3", "song.flac", "song.ogg", "song.wav"}) {
        for (const char* to : {"m4a", "mp3", "flac", "ogg", "wav", "mka"}) {
            const auto output = convert({.source = corpus(from), .extension = to, .type = 7});
            EXPECT_NEAR(audioLength(output.path()), 6, 0.06) << from << to;
            EXPECT_NEAR(beepTime(output.path()), 2, 0.04) << from << to;
        }
    }
}

TEST(BrokenMovies, AreConvertedAsFarAsPossible) {
    for (const char* movie : {"damaged.mkv", "truncated.mkv"}) {
        const auto output = convert({.source = corpus(movie), .extension = "mp4", .type = 1});
        const auto numbers = frameNumbers(output.path());
        EXPECT_GT(numbers.size(), 20U) << movie;
        EXPECT_EQ(numbers.front(), 0);
    }
    EXPECT_EQ(failureOf({.source = corpus("truncated.mp4")})->cause, FailureCause::Damaged);
    EXPECT_EQ(failureOf({.source = corpus("text.mp4")})->cause, FailureCause::NoVideoOrAudioTrack);
    EXPECT_EQ(failureOf({.source = corpus("empty.mp4")})->cause, FailureCause::SourceIsEmpty);
}

TEST(AnimatedPictures, AreRefusedByTheNameOfTheirFormatIfTheyCannotBeRead) {
    const auto failure = failureOf({.source = corpus("animated.webp")});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnsupportedFormat);
    EXPECT_EQ(failure->subject, "animated WebP");
}

TEST(ManyStreams, AreAllConverted) {
    const auto output = convert({.source = corpus("many.mkv"), .extension = "mp4", .type = 1});
    const Probe probe(output);
    EXPECT_EQ(probe.streams("video").size(), 1U);
    ASSERT_EQ(probe.streams("audio").size(), 3U);
    EXPECT_EQ(probe.streams("subtitle").size(), 2U);
    const std::array languages{"eng", "deu", "fra"};
    for (std::size_t i = 0; i < languages.size(); ++i) {
        EXPECT_EQ(tagOf(probe.streams("audio")[i], "language"), languages[i]);
    }
    EXPECT_EQ(number(probe.streams("audio")[1], "channels"), 6);
}

}  // namespace
}  // namespace krv::media::test

// Mixes every kind of movie to stereo, joins each to another movie, and measures the output.
#include <algorithm>
#include <cmath>

#include <fcntl.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "MergeTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/StereoMix.h>

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;
constexpr double kInSync = 0.02;

struct Movie {
    const char* name;
    bool beeps = true;
    double flash = 2;  // when the first bright frame is shown
};
void PrintTo(const Movie& movie, std::ostream* out) {
    *out << movie.name;
}

class JoinedCorpus : public testing::TestWithParam<Movie> {};

TEST_P(JoinedCorpus, FollowsAnotherMovieInSync) {
    RecordingSink sink;
    const auto output = join({corpus("h264.mp4"), corpus(GetParam().name)}, "mp4", false, sink);
    const double length = Probe(corpus(GetParam().name)).duration();
    const Probe probe(output);
    EXPECT_NEAR(probe.duration(), 6 + length, 2 * kFrame);
    EXPECT_NEAR(number(probe.video(), "nb_read_frames"), (6 + length) * 25, 2);
    EXPECT_NEAR(flashTime(output.path()), 2, kFrame / 2);
    EXPECT_NEAR(beepTime(output.path()), 2, kInSync);
    if (GetParam().beeps) {
        const double flash = flashTime(output.path(), 5);
        EXPECT_NEAR(beepTime(output.path(), 5) - flash, 2 - GetParam().flash, kInSync);
        EXPECT_NEAR(flash, 6 + GetParam().flash, 2 * kFrame);
    }
    ASSERT_EQ(probe.all().at("chapters").size(), 2U);
    EXPECT_NEAR(number(probe.all().at("chapters")[1], "start_time"), 6, kFrame);
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
}

INSTANTIATE_TEST_SUITE_P(Every, JoinedCorpus,
                         testing::Values(Movie{"h264.mp4"}, Movie{"h264.mov"}, Movie{"h264.ts"}, Movie{"h264.mkv"},
                                         Movie{"hevc-hdr.mp4"}, Movie{"vp9.webm"}, Movie{"av1.mp4"},
                                         Movie{"prores.mov"}, Movie{"mpeg2.mpg"}, Movie{"dv.dv"}, Movie{"camera.avi"},
                                         Movie{"phone-90.mp4"}, Movie{"anamorphic.mp4"}, Movie{"mono.mp4"},
                                         Movie{"late-sound.mkv"}, Movie{"video-only.mp4", false},
                                         Movie{"movie-with-cover.mp4"}, Movie{"surround-ac3.mkv", false}));

struct Mixed {
    const char* name;
    const char* extension;
    bool beeps = true;
};
void PrintTo(const Mixed& mixed, std::ostream* out) {
    *out << mixed.name;
}

class MixedCorpus : public testing::TestWithParam<Mixed> {};

TEST_P(MixedCorpus, KeepsEveryFrameAndTheAudioInSync) {
    const std::string source = corpus(GetParam().name);
    OutputPath output(GetParam().extension);
    RecordingSink sink;
    {
        const Descriptor from = openToRead(source);
        const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
        mixToStereo({from.number(), to.number(), source, output.path()}, sink);
    }
    const Probe probe(output);
    ASSERT_EQ(probe.streams("audio").size(), 1U);
    EXPECT_EQ(number(probe.audio(), "channels"), 2);
    EXPECT_EQ(frameNumbers(output.path()), frameNumbers(source));
    EXPECT_NEAR(probe.duration(), Probe(source).duration(), kFrame + 0.025);
    if (GetParam().beeps) {
        EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, kInSync);
    }
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
}

INSTANTIATE_TEST_SUITE_P(Every, MixedCorpus,
                         testing::Values(Mixed{"h264.mp4", "mp4"}, Mixed{"h264.ts", "mkv"}, Mixed{"mono.mp4", "mp4"},
                                         Mixed{"many.mkv", "mkv", false}, Mixed{"vp9.webm", "webm"},
                                         Mixed{"prores.mov", "mov"}, Mixed{"camera.avi", "mov"},
                                         Mixed{"late-sound.mkv", "mp4"}, Mixed{"surround-ac3.mkv", "mp4", false},
                                         Mixed{"surround-aac.mp4", "mp4", false}, Mixed{"phone-90.mp4", "mp4"},
                                         Mixed{"movie-with-cover.mp4", "mp4"}));

}  // namespace
}  // namespace krv::media::test

#include <sys/stat.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/Video/Poster.h>

namespace krv::media::test {
namespace {

MovieInfo infoOf(const std::string& movie) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    MovieInfo info = movieInfo({.source = source.number(), .sourcePath = movie}, sink);
    EXPECT_EQ(sink.fractions.back(), 1);
    return info;
}

OutputPath posterOf(const MovieInfo& info) {
    OutputPath file("jpg");
    writeFile(file.path(), std::string(info.poster.begin(), info.poster.end()));
    return file;
}

/// Returns the mean red, green and blue of a picture.
std::vector<int> meanColour(const std::string& path) {
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-frames:v", "1", "-vf",
                                   "format=rgb24,scale=1:1:flags=area", "-f", "rawvideo", "-"});
    std::vector<int> values;
    for (const char byte : bytes) {
        values.push_back(static_cast<unsigned char>(byte));
    }
    return values;
}

struct Known {
    const char* movie;
    const char* codecs;
    const char* audio;
    Extent dimensions;
    double rate;
    double duration = 6;
};
void PrintTo(const Known& known, std::ostream* out) {
    *out << known.movie;
}
class MovieInfoOf : public testing::TestWithParam<Known> {};

TEST_P(MovieInfoOf, IsCorrect) {
    const Known& known = GetParam();
    const MovieInfo info = infoOf(corpus(known.movie));
    EXPECT_EQ(info.codecs, known.codecs);
    EXPECT_EQ(info.audio, known.audio);
    EXPECT_EQ(info.dimensions.has_value(), known.dimensions.width > 0);
    EXPECT_EQ(info.dimensions.value_or(Extent{}), known.dimensions);
    EXPECT_EQ(info.frameRate.has_value(), known.rate > 0);
    EXPECT_NEAR(info.frameRate.value_or(0), known.rate, 0.01);
    ASSERT_TRUE(info.duration);
    EXPECT_NEAR(*info.duration, known.duration, 0.11);
}

constexpr const char* kStereoAAC = "AAC, 48000 Hz, stereo";

INSTANTIATE_TEST_SUITE_P(
    Every, MovieInfoOf,
    testing::Values(Known{"h264.mp4", "H.264, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"h264.ts", "H.264, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"hevc-hdr.mp4", "HEVC, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"vp9.webm", "VP9, Opus", "Opus, 48000 Hz, stereo", {320, 240}, 25},
                    Known{"av1.mp4", "AV1, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"prores.mov", "ProRes, PCM", "PCM, 48000 Hz, stereo", {320, 240}, 25},
                    Known{"mpeg2.mpg", "MPEG-2, MP2", "MP2, 48000 Hz, stereo", {320, 240}, 25},
                    Known{"dv.dv", "DV, PCM", "PCM, 48000 Hz, stereo", {768, 576}, 25},
                    Known{"camera.avi", "Motion JPEG, PCM", "PCM, 8000 Hz, mono", {320, 240}, 25},
                    Known{"phone-90.mp4", "H.264, AAC", kStereoAAC, {240, 320}, 25},
                    Known{"phone-180.mp4", "H.264, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"anamorphic.mp4", "H.264, AAC", kStereoAAC, {427, 240}, 25},
                    Known{"surround-ac3.mkv", "H.264, AC-3", "AC-3, 48000 Hz, 5.1(side)", {320, 240}, 25},
                    Known{"mono.mp4", "H.264, AAC", "AAC, 48000 Hz, mono", {320, 240}, 25},
                    Known{"video-only.mp4", "H.264", "", {320, 240}, 25},
                    Known{"song.mp3", "MP3", "MP3, 48000 Hz, stereo", {}, 0},
                    Known{"song.flac", "FLAC", "FLAC, 48000 Hz, stereo", {}, 0},
                    Known{"song.ogg", "Vorbis", "Vorbis, 48000 Hz, stereo", {}, 0},
                    Known{"song.wav", "PCM", "PCM, 48000 Hz, stereo", {}, 0},
                    Known{"album.m4a", "AAC", kStereoAAC, {}, 0},
                    Known{"movie-with-cover.mp4", "H.264, AAC", kStereoAAC, {320, 240}, 25},
                    Known{"one-picture.mp4", "H.264", "", {320, 240}, 25, 0.04}));

TEST(MovieInfo, HasTheMoviesOwnTimeOfCreation) {
    OutputPath movie("mp4");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-i", corpus("h264.mp4"), "-c", "copy", "-metadata",
               "creation_time=2021-03-04T05:06:07Z", movie.path()});
    EXPECT_EQ(infoOf(movie.path()).created, 1614834367);
    EXPECT_FALSE(infoOf(corpus("h264.mp4")).created);
}

TEST(MovieInfo, FailsForFilesThatAreNotMovies) {
    using Cause = FailureCause;
    for (const auto& [name, cause] :
         {std::pair("text.mp4", Cause::NoVideoOrAudioTrack), std::pair("truncated.mp4", Cause::Damaged),
          std::pair("empty.mp4", Cause::SourceIsEmpty)}) {
        try {
            (void)infoOf(corpus(name));
            ADD_FAILURE() << name;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, cause) << name;
        }
    }
}

TEST(Poster, IsTheCoverIfThereIsOne) {
    for (const char* name : {"album.m4a", "album.mp3", "movie-with-cover.mp4"}) {
        const MovieInfo info = infoOf(corpus(name));
        EXPECT_EQ(std::string(info.poster.begin(), info.poster.end()), readFile(corpus("cover.jpg"))) << name;
    }
}

TEST(Poster, IsTheCoverEncodedAgainIfThatIsTooLarge) {
    const OutputPath large("jpg");
    const OutputPath album("m4a");
    // Decoders ignore bytes after the end of a JPEG file. They are part of the cover.
    writeFile(large.path(), readFile(corpus("cover.jpg")) + std::string(kLargestCover, '\0'));
    (void)run({KRV_FFMPEG, "-v", "error", "-y", "-i", corpus("album.m4a"), "-i", large.path(), "-map", "0:a", "-map",
               "1:v", "-c", "copy", "-disposition:v", "attached_pic", album.path()});
    const MovieInfo info = infoOf(album.path());
    EXPECT_GT(info.poster.size(), 100U);
    EXPECT_LT(info.poster.size(), readFile(corpus("cover.jpg")).size() * 4);
    const auto original = Probe(corpus("cover.jpg")).video();
    const auto poster = Probe(posterOf(info).path()).video();
    EXPECT_EQ(number(poster, "width"), number(original, "width"));
    EXPECT_EQ(number(poster, "height"), number(original, "height"));
}

TEST(Poster, IsTheFirstFrameWorthShowing) {
    EXPECT_EQ(frameNumbers(posterOf(infoOf(corpus("h264.mp4"))).path()).at(0), 0);
}

TEST(Poster, IsUprightAndInSquarePixels) {
    const auto picture = Probe(posterOf(infoOf(corpus("phone-90.mp4")))).video();
    EXPECT_EQ(number(picture, "width"), 240);
    EXPECT_EQ(number(picture, "height"), 320);
    EXPECT_EQ(number(Probe(posterOf(infoOf(corpus("anamorphic.mp4")))).video(), "width"), 427);
}

TEST(Poster, IsNotBlackIfAnyFrameIsNot) {
    const MovieInfo info = infoOf(corpus("nearly-black.mp4"));
    const auto colour = meanColour(posterOf(info).path());
    EXPECT_GT(colour[0] + colour[1] + colour[2], 150);
}

TEST(Poster, IsNotUniformIfAnyFrameIsNot) {
    // After the first second the movie is red, later red and white side by side.
    const auto colour = meanColour(posterOf(infoOf(corpus("cuts.mp4"))).path());
    EXPECT_GT(colour[1], 60);
}

TEST(Poster, IsBlackIfTheWholeMovieIs) {
    const MovieInfo info = infoOf(corpus("black.mp4"));
    ASSERT_FALSE(info.poster.empty());
    const auto colour = meanColour(posterOf(info).path());
    EXPECT_LT(colour[0] + colour[1] + colour[2], 20);
}

TEST(Poster, IsEmptyForAudioFiles) {
    EXPECT_TRUE(infoOf(corpus("song.m4a")).poster.empty());
}

}  // namespace
}  // namespace krv::media::test

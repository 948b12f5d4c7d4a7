#include <algorithm>
#include <cmath>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/Thumbnails.h>
#include <MediaServer/Media/Video/StillPicture.h>

namespace krv::media::test {
namespace {

struct Wanted {
    std::string movie;
    int count = 12;
    double width = 0;
    double height = 0;
};

class Thumbnails : public testing::Test {
protected:
    /// Makes thumbnails of a movie and splits them into files.
    void make(const Wanted& wanted) {
        const Descriptor source = openToRead(wanted.movie);
        const Descriptor destination(open(all.path().c_str(), O_RDWR | O_CLOEXEC));
        ThumbnailRequest request;
        request.source = source.number();
        request.sourcePath = wanted.movie;
        request.destination = destination.number();
        request.count = wanted.count;
        request.width = wanted.width;
        request.height = wanted.height;
        made = makeThumbnails(request, sink).pictures;
        const std::string bytes = readFile(all.path());
        std::string inOrder;
        files.clear();
        for (const Thumbnail& one : made) {
            files.emplace_back("jpg");
            const auto picture =
                bytes.substr(static_cast<std::size_t>(one.offset), static_cast<std::size_t>(one.length));
            writeFile(files.back().path(), picture);
            inOrder += picture;
        }
        writeFile(all.path(), inOrder);
    }
    std::optional<Failure> failureWith(const Wanted& wanted) {
        try {
            make(wanted);
        } catch (const Failure& failure) {
            return failure;
        }
        return std::nullopt;
    }

    std::vector<int> numbers(const std::string& filter = "null") const { return frameNumbers(all.path(), filter); }
    std::pair<int, int> size(std::size_t i = 0) const {
        const auto picture = Probe(files.at(i)).video();
        return {static_cast<int>(number(picture, "width")), static_cast<int>(number(picture, "height"))};
    }

    RecordingSink sink;
    OutputPath all{"mjpeg"};  // a sequence of JPEGs is a movie, too
    std::vector<Thumbnail> made;
    std::vector<OutputPath> files;
};

/// Returns the times of all frames on the movie's own time, according to ffprobe. They start at 0 in formats whose
/// clock starts anywhere.
std::vector<double> movieTimes(const std::string& path) {
    std::vector<double> times = frameTimes(path);
    const Probe probe(path);
    const std::string format = text(probe.all().at("format"), "format_name");
    const bool anywhere = format == "mpegts" || format == "mpeg";
    const double start = anywhere ? 0 : std::max(0.0, number(probe.all().at("format"), "start_time"));
    for (double& time : times) {
        time += start;
    }
    return times;
}

/// A movie of six seconds, and the ffmpeg filter that makes the number in its thumbnails readable.
struct Kind {
    const char* movie;
    const char* filter = "null";
    int step = 1;  // between the numbers of consecutive frames
};
void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.movie;
}

class ThumbnailsOf : public Thumbnails, public testing::WithParamInterface<Kind> {};

TEST_P(ThumbnailsOf, ShowTheFramesAtTheirTimes) {
    const std::string movie = corpus(GetParam().movie);
    make({.movie = movie});
    ASSERT_EQ(made.size(), 12U);
    // The frame that is shown at a time is the last one that begins no later, according to ffprobe.
    const auto times = movieTimes(movie);
    std::vector<int> expected;
    for (const Thumbnail& one : made) {
        const auto later = std::upper_bound(times.begin(), times.end(), one.time + 1e-4);
        expected.push_back(static_cast<int>(later - times.begin() - 1) * GetParam().step);
    }
    EXPECT_THAT(numbers(GetParam().filter), testing::ElementsAreArray(expected));
    const double start = times.front();
    const double length = times.back() - start;
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_NEAR(made[i].time, start + length * (static_cast<double>(i) + 0.5) / 12, 0.1);
    }
}

INSTANTIATE_TEST_SUITE_P(Every, ThumbnailsOf,
                         testing::Values(Kind{"h264.mp4"}, Kind{"h264.mov"}, Kind{"h264.ts"}, Kind{"h264.mkv"},
                                         Kind{"fragmented.mp4"}, Kind{"hevc-hdr.mp4"}, Kind{"vp9.webm"},
                                         Kind{"av1.mp4"}, Kind{"prores.mov"}, Kind{"dv.dv"}, Kind{"camera.avi"},
                                         Kind{"phone-90.mp4", "transpose=clock"}, Kind{"phone-180.mp4", "hflip,vflip"},
                                         Kind{"phone-270.mp4", "transpose=cclock"}, Kind{"anamorphic.mp4"},
                                         Kind{"movie-with-cover.mp4"}, Kind{"many.mkv"}, Kind{"video-only.mp4"},
                                         Kind{"mpeg2.mpg", "null", 2}));

TEST_F(Thumbnails, ShowAFrameThatLastsForSecondsThroughout) {
    // No frame begins between 2.4 s and 4.92 s.
    make({.movie = corpus("held.mp4"), .count = 24});
    const auto seen = numbers();
    for (std::size_t i = 0; i < made.size(); ++i) {
        const double time = made[i].time;
        const int inStep = static_cast<int>(std::floor(time * 25 + 1e-6));
        EXPECT_EQ(seen[i], time > 2.4 && time < 4.92 ? 59 : inStep) << time;
    }
}

TEST_F(Thumbnails, ShowAFrameThatLastsLongerThanItsPacketSays) {
    // Matroska stores the usual length of frames only. The frame that is held from 2.36 s to 4.92 s is one to which no
    // other refers, so it is left out unless it is the one that is shown.
    OutputPath held("mkv");
    (void)run({KRV_FFMPEG,
               "-v",
               "quiet",
               "-y",
               "-i",
               corpus("h264.mp4"),
               "-an",
               "-vf",
               "select='not(between(n,60,122))'",
               "-vsync",
               "vfr",
               "-c:v",
               "libx264",
               "-bf",
               "2",
               "-g",
               "250",
               "-x264-params",
               "b-adapt=0:b-pyramid=none:scenecut=0",
               held.path()});
    make({.movie = held.path(), .count = 24});
    const auto seen = numbers();
    for (std::size_t i = 0; i < made.size(); ++i) {
        const double time = made[i].time;
        const int inStep = static_cast<int>(std::floor(time * 25 + 1e-2));
        EXPECT_EQ(seen[i], time > 2.4 && time < 4.92 ? 59 : inStep) << time;
    }
}

TEST_F(Thumbnails, SkipWhatAnEditHides) {
    make({.movie = corpus("edited.mov"), .count = 5});
    const auto seen = numbers();
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_EQ(seen[i], static_cast<int>(std::floor(25 + made[i].time * 25 + 1e-6))) << made[i].time;
    }
}

TEST_F(Thumbnails, AreUprightAndInSquarePixels) {
    make({.movie = corpus("phone-90.mp4"), .count = 1});
    EXPECT_EQ(size(), std::pair(240, 320));
    make({.movie = corpus("anamorphic.mp4"), .count = 1});
    EXPECT_EQ(size(), std::pair(427, 240));
    make({.movie = corpus("dv.dv"), .count = 1});
    EXPECT_EQ(size(), std::pair(768, 576));
}

TEST_F(Thumbnails, FitIntoTheirBoxAndAreNeverEnlarged) {
    make({.movie = corpus("h264.mp4"), .count = 1, .width = 100, .height = 100});
    EXPECT_EQ(size(), std::pair(100, 75));
    make({.movie = corpus("h264.mp4"), .count = 1, .width = 0, .height = 60});
    EXPECT_EQ(size(), std::pair(80, 60));
    make({.movie = corpus("h264.mp4"), .count = 1, .width = 160, .height = 0});
    EXPECT_EQ(size(), std::pair(160, 120));
    make({.movie = corpus("h264.mp4"), .count = 1, .width = 4000, .height = 3000});
    EXPECT_EQ(size(), std::pair(320, 240));
    make({.movie = corpus("phone-90.mp4"), .count = 1, .width = 100, .height = 100});
    EXPECT_EQ(size(), std::pair(75, 100));
    make({.movie = corpus("h264.mp4"), .count = 1, .width = 1, .height = 1});
    EXPECT_EQ(size(), std::pair(1, 1));
}

TEST_F(Thumbnails, HaveTheColoursOfTheMovie) {
    make({.movie = corpus("h264.mov"), .count = 1});
    const auto found =
        colourDifference(shownColours(files[0].path()), shownColours(corpus("h264.mov"), numbers().at(0)));
    EXPECT_LT(found.mean, 2) << numbers().at(0) << " " << found.largest;
}

struct Colours {
    const char* pixels;
    const char* matrix;
    const char* range;
    int width = 320;
    const char* codec = "ffv1";
};
void PrintTo(const Colours& colours, std::ostream* out) {
    *out << colours.pixels << ' ' << colours.matrix << ' ' << colours.range << ' ' << colours.width;
}

class ThumbnailsInColours : public Thumbnails, public testing::WithParamInterface<Colours> {};

TEST_P(ThumbnailsInColours, ShowTheColoursThatTheMovieMeans) {
    const auto& [pixels, matrix, range, width, codec] = GetParam();
    const std::string picture = fmt::format("testsrc=size={}x240:rate=1:duration=1", width);
    const OutputPath movie("mkv");
    (void)run(
        {KRV_FFMPEG,
         "-v",
         "quiet",
         "-y",
         "-f",
         "lavfi",
         "-i",
         picture,
         "-vf",
         fmt::format("scale=flags=accurate_rnd:out_color_matrix={}:out_range={},format={}", matrix, range, pixels),
         "-c:v",
         codec,
         "-qp",
         "1",
         "-q:v",
         "1",
         "-colorspace",
         matrix,
         "-color_range",
         range,
         movie.path()});
    const OutputPath meant("png");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-f", "lavfi", "-i", picture, "-frames:v", "1", meant.path()});
    for (const double box : {0, 160}) {
        make({.movie = movie.path(), .count = 1, .width = box, .height = box});
        const auto found = colourDifference(shownColours(files[0].path()), shownColours(meant.path()));
        EXPECT_LT(found.mean, 2) << box << " " << found.largest;
    }
}

INSTANTIATE_TEST_SUITE_P(Every, ThumbnailsInColours,
                         testing::Values(Colours{"yuv420p", "bt709", "tv"}, Colours{"yuv420p", "bt709", "pc"},
                                         Colours{"yuv420p", "smpte170m", "tv"}, Colours{"yuv420p", "smpte240m", "tv"},
                                         Colours{"yuv422p", "bt709", "tv"}, Colours{"yuv444p", "bt709", "tv"},
                                         Colours{"yuv444p", "bt709", "pc"}, Colours{"yuv420p10", "bt709", "tv"},
                                         Colours{"yuv420p", "bt709", "tv", 319}, Colours{"yuva420p", "bt709", "tv"},
                                         Colours{"yuvj420p", "bt709", "pc", 320, "libx264"},
                                         Colours{"yuvj420p", "smpte170m", "pc", 320, "libx264"},
                                         Colours{"yuvj422p", "smpte170m", "pc", 320, "mjpeg"}));

TEST_F(Thumbnails, OfHDRLookLikeThoseOfTheSDRMovie) {
    make({.movie = corpus("h264.mov"), .count = 3});
    std::vector<std::vector<int>> ordinary;
    for (const OutputPath& file : files) {
        ordinary.push_back(shownColours(file.path()));
    }
    make({.movie = corpus("hevc-hdr.mp4"), .count = 3});
    for (std::size_t i = 0; i < files.size(); ++i) {
        const auto found = colourDifference(shownColours(files[i].path()), ordinary[i]);
        std::cout << "[ measured ] mean colour difference " << found.mean << ", largest " << found.largest << '\n';
        EXPECT_LT(found.mean, 4);
    }
}

TEST_F(Thumbnails, OfAMovieOfOneFrameAllShowThatFrame) {
    make({.movie = corpus("one-picture.mp4"), .count = 3});
    EXPECT_THAT(numbers(), testing::ElementsAre(0, 0, 0));
}

TEST_F(Thumbnails, OfADamagedMovieShowWhatCanBeDecoded) {
    for (const char* movie : {"damaged.mkv", "truncated.mkv"}) {
        make({.movie = corpus(movie)});
        EXPECT_EQ(files.size(), 12U) << movie;
    }
}

TEST_F(Thumbnails, ProgressRisesToOne) {
    make({.movie = corpus("h264.mp4")});
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
    EXPECT_GE(sink.fractions.size(), 12U);
}

TEST_F(Thumbnails, FailWithoutVideo) {
    using Cause = FailureCause;
    for (const auto& [movie, cause] :
         {std::pair("song.m4a", Cause::NoVideoTrack), std::pair("album.m4a", Cause::NoVideoTrack),
          std::pair("text.mp4", Cause::NoVideoTrack), std::pair("truncated.mp4", Cause::Damaged)}) {
        const auto failure = failureWith({.movie = corpus(movie)});
        ASSERT_TRUE(failure) << movie;
        EXPECT_EQ(failure->cause, cause) << movie;
    }
}

TEST(FittedInto, KeepsTheShape) {
    EXPECT_EQ(fittedInto({1920, 1080}, 640, 640), (Extent{640, 360}));
    EXPECT_EQ(fittedInto({1080, 1920}, 640, 640), (Extent{360, 640}));
    EXPECT_EQ(fittedInto({1920, 1080}, 0, 0), (Extent{1920, 1080}));
    EXPECT_EQ(fittedInto({16384, 1}, 100, 100), (Extent{100, 1}));
}

}  // namespace
}  // namespace krv::media::test

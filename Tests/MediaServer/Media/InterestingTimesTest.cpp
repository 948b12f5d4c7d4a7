#include <algorithm>
#include <cmath>
#include <filesystem>
#include <set>
#include <string_view>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/InterestingTimes.h>

namespace krv::media::test {
namespace {

InterestingTimes timesOf(const std::string& movie, std::optional<std::int64_t> track = {}) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    InterestingTimes times = interestingTimes({.source = source.number(), .sourcePath = movie, .track = track}, sink);
    EXPECT_EQ(sink.fractions.back(), 1);
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    return times;
}

std::vector<double> seconds(const InterestingTimes& times) {
    std::vector<double> found;
    for (const std::int64_t value : times.values) {
        found.push_back(static_cast<double>(value) / times.timescale);
    }
    return found;
}

/// Returns when the key frames of a stream are shown, on the movie's own time, according to ffprobe.
std::vector<double> keyFrames(const std::string& movie, int stream) {
    const auto json =
        nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", std::to_string(stream),
                                   "-show_entries", "packet=pts_time,flags:format=start_time,format_name", movie}));
    const std::string format = text(json.at("format"), "format_name");
    const double start = number(json.at("format"), "start_time");
    const double shift = format == "mpegts" || format == "mpeg" || start < 0 ? start : 0;
    std::vector<double> times;
    for (const auto& packet : json.at("packets")) {
        const std::string flags = text(packet, "flags");
        const double time = number(packet, "pts_time") - shift;
        if (flags.find('K') != std::string::npos && flags.find('D') == std::string::npos) {
            times.push_back(std::max(time, 0.0));
        }
    }
    std::sort(times.begin(), times.end());
    return times;
}

std::vector<double> withStart(std::vector<double> times) {
    if (times.empty() || times.front() > 0) {
        times.insert(times.begin(), 0.0);
    }
    return times;
}

struct Movie {
    const char* name;
    int video = 0;
};
void PrintTo(const Movie& movie, std::ostream* out) {
    *out << movie.name;
}
class InterestingTimesOf : public testing::TestWithParam<Movie> {};

TEST_P(InterestingTimesOf, AreTheStartAndTheKeyFrames) {
    const std::string movie = corpus(GetParam().name);
    const auto times = timesOf(movie);
    EXPECT_THAT(seconds(times),
                testing::Pointwise(testing::DoubleNear(0.0011), withStart(keyFrames(movie, GetParam().video))));
    EXPECT_EQ(std::set(times.values.begin(), times.values.end()).size(), times.values.size());
    EXPECT_TRUE(std::is_sorted(times.values.begin(), times.values.end()));
}

INSTANTIATE_TEST_SUITE_P(Every, InterestingTimesOf,
                         testing::Values(Movie{"h264.mp4"}, Movie{"h264.mov"}, Movie{"h264.ts"}, Movie{"h264.mkv"},
                                         Movie{"fragmented.mp4"}, Movie{"hevc-hdr.mp4"}, Movie{"vp9.webm"},
                                         Movie{"av1.mp4"}, Movie{"prores.mov"}, Movie{"camera.avi"}, Movie{"mpeg2.mpg"},
                                         Movie{"movie-with-cover.mp4"}, Movie{"held.mp4"}, Movie{"variable.mkv"},
                                         Movie{"one-picture.mp4"}));

/// Returns when the key frames of a track are shown, by reading all packets of the movie. In units of the track.
std::vector<std::int64_t> packetTimes(const std::string& movie, std::size_t track) {
    RecordingSink sink;
    Progress progress(sink);
    const Descriptor file = openToRead(movie);
    Source source(file.number(), movie, progress);
    const PacketPtr packet = newPacket();
    std::set<std::int64_t> times;
    while (source.read(*packet)) {
        const bool shown = (packet->flags & AV_PKT_FLAG_DISCARD) == 0 && (packet->flags & AV_PKT_FLAG_KEY) != 0;
        if (shown && static_cast<std::size_t>(packet->stream_index) == track) {
            times.insert(std::max<std::int64_t>(packet->pts, 0));
        }
    }
    return {times.begin(), times.end()};
}

/// Returns the index of the first video track of a movie whose header lists all packets.
std::optional<std::size_t> indexedVideo(const std::string& movie) {
    RecordingSink sink;
    Progress progress(sink);
    const Descriptor file = openToRead(movie);
    try {
        const Source source(file.number(), movie, progress);
        const bool hasIndex = std::string_view(source.format().iformat->name).find("mov") != std::string_view::npos;
        for (std::size_t i = 0; hasIndex && i < source.streamCount(); ++i) {
            const AVStream& stream = source.stream(i);
            if (stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isCover(stream)) {
                return i;
            }
        }
    } catch (const Failure&) {  // not a movie at all
    }
    return std::nullopt;
}

TEST(InterestingTimes, OfEveryMovieWithAnIndexAreThoseOfItsPackets) {
    int compared = 0;
    for (const char* folder : {KRV_CORPUS, KRV_TEST_MEDIA}) {
        for (const auto& file : std::filesystem::directory_iterator(folder)) {
            const std::string movie = file.path().string();
            if (const auto video = indexedVideo(movie)) {
                SCOPED_TRACE(movie);
                EXPECT_EQ(timesOf(movie, static_cast<std::int64_t>(*video)).values, packetTimes(movie, *video));
                ++compared;
            }
        }
    }
    EXPECT_GT(compared, 50);
}

TEST(InterestingTimes, OfFramesOfDifferentLengthsAreThoseOfThePackets) {
    // Each of the many key frames comes later than it is decoded by another time.
    for (const char* extension : {"mp4", "mov"}) {
        OutputPath movie(extension);
        (void)run({KRV_FFMPEG,     "-v",
                   "quiet",        "-y",
                   "-i",           corpus("counted8.mkv"),
                   "-vf",          "setpts=(N+0.4*sin(N))/25/TB",
                   "-vsync",       "passthrough",
                   "-c:v",         "libx264",
                   "-bf",          "2",
                   "-g",           "5",
                   "-x264-params", "open-gop=1",
                   "-an",          "-video_track_timescale",
                   "12800",        movie.path()});
        const auto times = timesOf(movie.path(), 0).values;
        EXPECT_EQ(times, packetTimes(movie.path(), 0)) << extension;
        EXPECT_GE(times.size(), 40U) << extension;
    }
}

TEST(InterestingTimes, UseTheTimeScaleOfTheVideo) {
    EXPECT_EQ(timesOf(corpus("h264.mp4")).timescale, 12800);
    EXPECT_EQ(timesOf(corpus("h264.mkv")).timescale, 1000);
    EXPECT_EQ(timesOf(corpus("h264.ts")).timescale, 90000);
}

TEST(InterestingTimes, IncludeTheChapters) {
    for (const char* movie : {"chapters.mkv", "chapters.mp4"}) {
        EXPECT_THAT(seconds(timesOf(corpus(movie))), testing::Contains(testing::DoubleNear(2.5, 0.001))) << movie;
        EXPECT_THAT(seconds(timesOf(corpus("h264.mp4"))),
                    testing::Not(testing::Contains(testing::DoubleNear(2.5, 0.001))));
    }
}

TEST(InterestingTimes, IncludeTheEdits) {
    // The movie begins with an empty edit of 1.5 seconds.
    OutputPath movie("mov");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-itsoffset", "1.5", "-i", corpus("h264.mov"), "-itsoffset", "1.5",
               "-i", corpus("h264.mov"), "-map", "0:v", "-map", "1:a", "-c", "copy", movie.path()});
    const auto times = seconds(timesOf(movie.path()));
    EXPECT_THAT(times, testing::Contains(testing::DoubleNear(0, 1e-6)));
    EXPECT_THAT(times, testing::Contains(testing::DoubleNear(1.5, 0.03)));
}

TEST(InterestingTimes, OfATrackAreItsKeyFramesOnly) {
    const std::string movie = corpus("chapters.mkv");
    EXPECT_THAT(seconds(timesOf(movie, 0)), testing::Pointwise(testing::DoubleNear(0.0011), keyFrames(movie, 0)));
}

TEST(InterestingTimes, OfAnAudioTrackAreItsEdits) {
    EXPECT_THAT(seconds(timesOf(corpus("h264.mp4"), 1)), testing::ElementsAre(0));
    EXPECT_THAT(seconds(timesOf(corpus("h264.mkv"), 1)), testing::ElementsAre(0));
}

TEST(InterestingTimes, OfAnAudioFileAreItsStart) {
    EXPECT_THAT(seconds(timesOf(corpus("song.m4a"))), testing::ElementsAre(0));
    EXPECT_THAT(seconds(timesOf(corpus("song.flac"))), testing::ElementsAre(0));
}

TEST(InterestingTimes, OfAMissingTrackAreAnError) {
    for (const std::int64_t track : {-1L, 2L, 1L << 40}) {
        try {
            (void)timesOf(corpus("h264.mp4"), track);
            ADD_FAILURE() << track;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, FailureCause::NoSuchTrack);
            EXPECT_EQ(failure.subject, fmt::format("{}", track));
            EXPECT_EQ(failure.detail, "2");
        }
    }
}

TEST(InterestingTimes, OfADamagedMovieAreThoseThatCanBeFound) {
    EXPECT_GE(timesOf(corpus("truncated.mkv")).values.size(), 1U);
    EXPECT_GE(timesOf(corpus("damaged.mkv")).values.size(), 2U);
}

}  // namespace
}  // namespace krv::media::test

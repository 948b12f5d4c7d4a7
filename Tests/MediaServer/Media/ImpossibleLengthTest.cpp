// Movies whose header claims a length that cannot be, for example because a subtitle in them has no end.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include "Subtitles.h"

namespace krv::media::test {
namespace {

/// A recording of eight seconds, whose header says that it lasts for so many hours.
OutputPath recordingOf(double hours) {
    OutputPath movie("mkv");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", corpus("recording.mov"), "-c", "copy", movie.path()});
    std::string bytes = readFile(movie.path());
    const std::string duration = "\x44\x89\x88";  // an element with a float64 in milliseconds
    const std::size_t at = bytes.find(duration);
    if (at == std::string::npos) {
        throw std::runtime_error("no duration in the header");
    }
    const double milliseconds = hours * 3600 * 1000;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &milliseconds, sizeof bits);
    for (std::size_t i = 0; i < sizeof bits; ++i) {
        bytes[at + duration.size() + i] = static_cast<char>(bits >> (56 - 8 * i) & 0xff);
    }
    writeFile(movie.path(), bytes);
    return movie;
}

class ImpossibleLength : public testing::TestWithParam<double> {};

TEST_P(ImpossibleLength, DoesNotHoldUpProgress) {
    const auto movie = recordingOf(GetParam());
    RecordingSink sink;
    (void)convert({.source = movie.path(), .extension = "mp4", .type = 1}, sink);
    double largest = sink.fractions.front();
    for (std::size_t i = 1; i < sink.fractions.size(); ++i) {
        largest = std::max(largest, sink.fractions[i] - sink.fractions[i - 1]);
    }
    EXPECT_LT(largest, 0.2);
}

TEST_P(ImpossibleLength, IsNotDescribed) {
    expectDescription(recordingOf(GetParam()).path(), 8, 0.1, 0);
}

TEST_P(ImpossibleLength, HasThumbnailsOfWhatIsThere) {
    const auto made = numberedThumbnails(recordingOf(GetParam()).path(), 4);
    ASSERT_EQ(made.size(), 4U);
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_NEAR(made[i].time, 2.0 * static_cast<double>(i) + 1, 0.1);
        EXPECT_NEAR(made[i].number, 50 * static_cast<int>(i) + 25, 2);
    }
}

// Longer than any movie, and less than a byte per second.
INSTANTIATE_TEST_SUITE_P(Every, ImpossibleLength, testing::Values(1200.0, 500.0));

// Bitmap subtitles that FFmpeg has converted have no end of their own: each is shown until the next one appears.
TEST(BitmapsWithoutAnEnd, AreAllCopiedAndDoNotMakeTheCopyLonger) {
    const Bitmap bitmap{40, 180, 200, 40};
    const OutputPath bitmaps = fileWith("sup", bluRaySubtitles(320, 240, {{0}, {1, bitmap}, {2}, {3, bitmap}, {4}}));
    const OutputPath source = withSubtitles(corpus("recording.mov"), {bitmaps.path()}, "mkv", {"-c:s", "dvdsub"});
    ASSERT_GT(Probe(source).duration(), 4e6);
    for (const char* const extension : {"mkv", "mp4"}) {
        const auto copy = convert({.source = source.path(), .extension = extension, .type = 0});
        EXPECT_NEAR(Probe(copy).duration(), 8, 0.1) << extension;
        const auto packets = subtitlePackets(copy.path());
        const auto expected = subtitlePackets(source.path());
        ASSERT_EQ(expected.size(), 2U);
        ASSERT_EQ(packets.size(), expected.size()) << extension;
        for (std::size_t i = 0; i < packets.size(); ++i) {
            EXPECT_NEAR(packets[i].time, expected[i].time, 0.1) << extension;
            EXPECT_EQ(packets[i].hash, expected[i].hash) << extension;
        }
    }
}

TEST(LengthOfHeader, IsBelievedIfItCanBe) {
    const auto movie = recordingOf(4);
    const auto made = numberedThumbnails(movie.path(), 1);
    ASSERT_EQ(made.size(), 1U);
    EXPECT_NEAR(made[0].time, 2 * 3600, 1);
}

}  // namespace
}  // namespace krv::media::test

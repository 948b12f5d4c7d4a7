// Converts to containers that lack what others have: times, rotation, edit lists or audio.
#include <algorithm>
#include <cmath>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

struct Route {
    const char* source;
    const char* extension;
    std::int32_t type;
};
void PrintTo(const Route& one, std::ostream* out) {
    *out << one.source << " as type " << one.type << " to " << one.extension;
}

class PlainContainers : public testing::TestWithParam<Route> {};

TEST_P(PlainContainers, HaveEveryFrameAtItsTime) {
    const std::string source = corpus(GetParam().source);
    const auto output = convert({.source = source, .extension = GetParam().extension, .type = GetParam().type});
    EXPECT_EQ(frameNumbers(output.path()), frameNumbers(source));
    const auto was = frameTimes(source), is = frameTimes(output.path());
    ASSERT_EQ(was.size(), is.size());
    for (std::size_t i = 0; i < was.size(); ++i) {
        ASSERT_NEAR(is[i] - is.front(), was[i] - was.front(), 0.0021) << i;
    }
    EXPECT_NEAR(Probe(output).duration(), Probe(source).duration(), kFrame + 0.025);
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, 0.02);
}

INSTANTIATE_TEST_SUITE_P(Encode, PlainContainers,
                         testing::Values(Route{"h264.mov", "avi", 0}, Route{"h264.mov", "avi", 1},
                                         Route{"h264.mov", "avi", 3}, Route{"camera.avi", "avi", 0},
                                         Route{"late-sound.mkv", "avi", 0}, Route{"edited.mov", "avi", 1},
                                         Route{"mono.mp4", "avi", 0}, Route{"h264.mov", "ts", 0},
                                         Route{"h264.mov", "ts", 1}, Route{"h264.mov", "ts", 2},
                                         Route{"h264.ts", "ts", 0}, Route{"edited.mov", "ts", 0},
                                         Route{"late-sound.mkv", "ts", 0}, Route{"vp9.webm", "ts", 3}));

TEST(PlainContainers, HaveTheirDefaultCodecs) {
    const Probe avi(convert({.source = corpus("h264.mov"), .extension = "avi", .type = 3}));
    EXPECT_EQ(text(avi.video(), "codec_name"), "mpeg4");
    EXPECT_EQ(text(avi.audio(), "codec_name"), "mp3");
    const Probe ts(convert({.source = corpus("prores.mov"), .extension = "ts", .type = 3}));
    EXPECT_EQ(text(ts.video(), "codec_name"), "h264");
    EXPECT_EQ(text(ts.audio(), "codec_name"), "aac");
}

TEST(PlainContainers, AreCopiedToWhereTheyHoldTheCodecs) {
    const auto ts = convert({.source = corpus("h264.mov"), .extension = "ts", .type = 0});
    EXPECT_EQ(packetHashes(ts.path(), "a:0").size(), packetHashes(corpus("h264.mov"), "a:0").size());
    const auto avi = convert({.source = corpus("camera.avi"), .extension = "avi", .type = 0});
    EXPECT_EQ(packetHashes(avi.path(), "v:0"), packetHashes(corpus("camera.avi"), "v:0"));
    EXPECT_EQ(audioLength(avi.path()), audioLength(corpus("camera.avi")));
}

class Upright : public testing::TestWithParam<Route> {};

TEST_P(Upright, VideoHasItsPixelsTurned) {
    const std::string source = corpus(GetParam().source);
    const auto output = convert({.source = source, .extension = GetParam().extension, .type = GetParam().type});
    EXPECT_EQ(number(Probe(output).video(), "width"), 240);
    EXPECT_LT(difference(shownFrame(output.path()), shownFrame(source)), 6);
}

INSTANTIATE_TEST_SUITE_P(Encode, Upright,
                         testing::Values(Route{"phone-90.mp4", "avi", 0}, Route{"phone-270.mp4", "ts", 0},
                                         Route{"phone-90.mp4", "ts", 1}));

TEST(AVI, HasNoReorderedFrames) {
    const auto output = convert({.source = corpus("h264.mov"), .extension = "avi", .type = 1});
    EXPECT_EQ(number(Probe(output).video(), "has_b_frames"), 0);
}

TEST(AVI, RepeatsTheFramesThatAVariableRateHolds) {
    const auto output = convert({.source = corpus("held.mp4"), .extension = "avi", .type = 0});
    const auto sourceNumbers = frameNumbers(corpus("held.mp4"));
    std::vector<int> expected;
    for (int frame = 0; frame < 150; ++frame) {
        expected.push_back(*std::prev(std::upper_bound(sourceNumbers.begin(), sourceNumbers.end(), frame)));
    }
    EXPECT_EQ(frameNumbers(output.path()), expected);
}

TEST(AVI, ShowsTheFirstFrameFromTheBeginning) {
    // The audio of this source starts before the video.
    const auto output = convert({.source = corpus("h264.ts"), .extension = "avi", .type = 0});
    auto expected = numbersFrom(0, 149);
    expected.insert(expected.begin(), 0);
    EXPECT_EQ(frameNumbers(output.path()), expected);
    EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, 0.02);
}

TEST(AVI, KeepsThePixelShape) {
    const auto output = convert({.source = corpus("anamorphic.mp4"), .extension = "avi", .type = 3});
    EXPECT_EQ(text(Probe(output).video(), "display_aspect_ratio"), "16:9");
}

TEST(TransportStream, KeepsLanguagesAndPixelShape) {
    const auto output = convert({.source = testMedia("languages.mkv"), .extension = "ts", .type = 0});
    const auto audio = Probe(output).streams("audio");
    ASSERT_EQ(audio.size(), 3U);
    EXPECT_EQ(tagOf(audio[0], "language"), "eng");
    EXPECT_EQ(tagOf(audio[1], "language"), "deu");
    const auto wide = convert({.source = corpus("anamorphic.mp4"), .extension = "ts", .type = 0});
    EXPECT_EQ(text(Probe(wide).video(), "display_aspect_ratio"), "16:9");
}

TEST(TransportStream, LeavesTimeBetweenArrivalAndDecoding) {
    const auto output = convert({.source = corpus("h264.mov"), .extension = "ts", .type = 1});
    const auto format = nlohmann::json::parse(
        run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-show_entries", "format=start_time", output.path()}));
    EXPECT_GT(number(format.at("format"), "start_time"), 1.3);
}

Conversion animation(const std::string& source) {
    return {.source = source, .extension = "gif", .type = 3};
}

TEST(GIF, HasEveryFrameAtItsTime) {
    const auto output = convert(animation(corpus("h264.mov")));
    EXPECT_EQ(frameNumbers(output.path()), numbersFrom(0, 149));
    const auto times = frameTimes(output.path());
    for (std::size_t i = 0; i < times.size(); ++i) {
        ASSERT_NEAR(times[i], static_cast<double>(i) * kFrame, 0.0001);
    }
    EXPECT_NEAR(Probe(output).duration(), 6, 0.001);
    EXPECT_EQ(Probe(output).streams("audio").size(), 0U);
}

TEST(GIF, LooksLikeTheSource) {
    for (const char* const movie : {"h264.mov", "hevc-hdr.mp4"}) {
        const auto output = convert(animation(corpus(movie)));
        for (const int frame : {10, 75, 140}) {
            const auto found =
                colourDifference(shownColours(output.path(), frame), shownColours(corpus("h264.mov"), frame));
            std::cout << "[ measured ] mean colour difference " << found.mean << '\n';
            EXPECT_LT(found.mean, 4) << movie;
        }
    }
}

TEST(GIF, RepeatsEndlessly) {
    const std::string bytes = readFile(convert(animation(corpus("one-picture.mp4"))).path());
    const auto block = bytes.find("NETSCAPE2.0");
    ASSERT_NE(block, std::string::npos);
    EXPECT_EQ(bytes.substr(block + 11, 5), std::string("\x03\x01\0\0\0", 5)) << "zero repetitions mean endless ones";
}

TEST(GIF, HoldsAFrameAsLongAsTheSourceDoes) {
    const auto output = convert(animation(corpus("held.mp4")));
    EXPECT_EQ(frameNumbers(output.path()), frameNumbers(corpus("held.mp4")));
    EXPECT_THAT(frameTimes(output.path()),
                testing::Pointwise(testing::DoubleNear(0.006), frameTimes(corpus("held.mp4"))));
}

TEST(GIF, HasNoFrameThatBrowsersSlowDown) {
    // Fifty frames per second, half of which remain when the movie is deinterlaced; and more than a GIF can show.
    const auto fast = convert({.source = corpus("counted50.mkv"), .extension = "gif", .type = 3});
    const auto times = frameTimes(fast.path());
    ASSERT_EQ(times.size(), 300U);
    for (std::size_t i = 1; i < times.size(); ++i) {
        ASSERT_NEAR(times[i] - times[i - 1], 0.02, 0.0001);
    }
    const auto failure =
        failureOf({.source = corpus("h264.mov"), .extension = "gif", .type = 3, .video = VideoRequest{0, 0, 60, ""}});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::ValueOutOfRange);
}

TEST(GIF, HasSquarePixelsInTheShapeOfTheSource) {
    const auto wide = Probe(convert(animation(corpus("anamorphic.mp4")))).video();
    EXPECT_EQ(number(wide, "width"), 427);
    EXPECT_EQ(number(wide, "height"), 240);
    const auto turned = convert(animation(corpus("phone-90.mp4")));
    EXPECT_EQ(number(Probe(turned).video(), "width"), 240);
    EXPECT_EQ(frameNumbers(turned.path(), "transpose=clock"), numbersFrom(0, 149));
}

TEST(GIF, IsLetterboxedToAnotherShape) {
    const auto video = Probe(convert({.source = corpus("one-picture.mp4"),
                                      .extension = "gif",
                                      .type = 3,
                                      .video = VideoRequest{0, 0, 0, "width=160:height=160"}}))
                           .video();
    EXPECT_EQ(number(video, "width"), 160);
    EXPECT_EQ(number(video, "height"), 160);
}

TEST(GIF, IsCopiedFromAGIF) {
    const auto first = convert(animation(corpus("one-picture.mp4")));
    const auto second = convert({.source = first.path(), .extension = "gif", .type = 0});
    EXPECT_EQ(packetHashes(second.path(), "v:0"), packetHashes(first.path(), "v:0"));
}

TEST(GIF, CannotHoldAudio) {
    const auto failure = failureOf({.source = corpus("song.m4a"), .extension = "gif", .type = 3});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::NoVideoTrack);
}

}  // namespace
}  // namespace krv::media::test

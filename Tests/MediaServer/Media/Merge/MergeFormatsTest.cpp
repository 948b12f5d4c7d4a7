#include <limits>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MergeTestKit.h"
#include "Numbers.h"

namespace krv::media::test {
namespace {

constexpr int kBlack = 24;
constexpr int kWhite = 200;

/// The white columns and rows through the centre: the first one, and one past the last.
struct Extent {
    int left, right, top, bottom;
};

Extent whiteOf(const GreyFrame& frame) {
    Extent extent{-1, -1, -1, -1};
    for (int x = 0; x < frame.width; ++x) {
        if (frame.at(x, frame.height / 2) > kWhite) {
            extent.left = extent.left < 0 ? x : extent.left;
            extent.right = x + 1;
        }
    }
    for (int y = 0; y < frame.height; ++y) {
        if (frame.at(frame.width / 2, y) > kWhite) {
            extent.top = extent.top < 0 ? y : extent.top;
            extent.bottom = y + 1;
        }
    }
    return extent;
}

TEST(MergeFormats, OtherShapesAreLetterboxedAndNotStretched) {
    for (const char* other : {"square.mp4", "square-pixels.mp4"}) {
        const auto output = join({"silent.mp4", other}, "mp4");
        const GreyFrame frame = frameAt(output.path(), 2.5);
        ASSERT_EQ(frame.width, 320) << other;
        ASSERT_EQ(frame.height, 240) << other;
        // 160 x 240 as it is shown, centred.
        EXPECT_LT(frame.at(40, 120), kBlack) << other;
        EXPECT_LT(frame.at(76, 120), kBlack) << other;
        EXPECT_GT(frame.at(84, 20), 100) << other;
        EXPECT_GT(frame.at(235, 20), 100) << other;
        EXPECT_LT(frame.at(243, 120), kBlack) << other;
        const Extent white = whiteOf(frame);
        EXPECT_NEAR(white.right - white.left, 80, 2) << other;
        EXPECT_NEAR(white.bottom - white.top, 80, 2) << other;
        EXPECT_NEAR(white.left, 120, 2) << other;
    }
}

/// Makes a movie of one second of a test picture whose colour matrix is not named.
OutputPath moviePainted(const std::string& picture, const std::string& matrix) {
    OutputPath movie("mkv");
    (void)run({KRV_FFMPEG, "-v", "error", "-y", "-f", "lavfi", "-i", picture, "-vf",
               fmt::format("scale=flags=accurate_rnd:out_color_matrix={}:out_range=tv,format=yuv420p,"
                           "setparams=colorspace=unknown",
                           matrix),
               "-c:v", "libx264", "-qp", "1", movie.path()});
    return movie;
}

TEST(MergeFormats, TheColoursOfASmallMovieStayTheSameInALetterboxOfAnotherMatrix) {
    const std::string picture = "testsrc=size=640x272:rate=5:duration=1";
    const auto large = moviePainted("testsrc=size=960x720:rate=5:duration=1", "bt709");
    const auto small = moviePainted(picture, "smpte170m");
    const auto output = join({large.path(), small.path()}, "mp4");
    const OutputPath shown("png"), meant("png");
    (void)run({KRV_FFMPEG, "-v", "error", "-y", "-i", output.path(), "-vf",
               "select=gte(n\\,5),crop=960:408,scale=in_color_matrix=bt709,format=rgb24", "-frames:v", "1",
               shown.path()});
    (void)run({KRV_FFMPEG, "-v", "error", "-y", "-f", "lavfi", "-i", picture, "-frames:v", "1", meant.path()});
    const auto found = colourDifference(shownColours(shown.path()), shownColours(meant.path()));
    EXPECT_LT(found.mean, 2) << found.largest;
}

TEST(MergeFormats, ThePixelAspectRatioOfTheFirstSourceCounts) {
    const auto output = join({"square-pixels.mp4", "silent.mp4"}, "mp4");
    const auto video = Probe(output).video();
    EXPECT_EQ(text(video, "sample_aspect_ratio"), "1:2");
    // The display size is 160 x 240, in which a 4:3 frame is 120 rows high.
    const GreyFrame frame = frameAt(output.path(), 1.5);
    EXPECT_LT(frame.at(160, 50), kBlack);
    EXPECT_LT(frame.at(160, 190), kBlack);
    int shown = 0;
    for (int y = 0; y < frame.height; ++y) {
        int sum = 0;
        for (int x = 0; x < frame.width; ++x) {
            sum += frame.at(x, y);
        }
        shown += sum / frame.width > kBlack ? 1 : 0;
    }
    EXPECT_NEAR(shown, 120, 4);
}

TEST(MergeFormats, RotatedVideoIsUpright) {
    for (const char* first : {"left.mp4", "left-turned.mp4"}) {
        for (const char* second : {"left-turned.mp4", "left.mp4"}) {
            for (const char* extension : {"mp4", "mkv"}) {
                const auto output = join({first, second}, extension);
                for (const double time : {0.5, 1.5}) {
                    const GreyFrame frame = frameAt(output.path(), time);
                    ASSERT_EQ(frame.width, 240) << first << second;
                    ASSERT_EQ(frame.height, 320) << first << second;
                    EXPECT_GT(frame.at(60, 20), kWhite) << first << second << time;
                    EXPECT_GT(frame.at(60, 300), kWhite) << first << second << time;
                    EXPECT_LT(frame.at(180, 20), kBlack) << first << second << time;
                    EXPECT_LT(frame.at(180, 300), kBlack) << first << second << time;
                }
            }
        }
    }
}

TEST(MergeFormats, TheFirstSourceDecidesSizeRateChannelsAndCodec) {
    const auto wide = Probe(join({"wide.mp4", "flash.mov"}, "mov"));
    EXPECT_EQ(number(wide.video(), "width"), 480);
    EXPECT_EQ(number(wide.video(), "height"), 270);
    EXPECT_EQ(text(wide.video(), "avg_frame_rate"), "30/1");
    EXPECT_EQ(number(wide.audio(), "channels"), 6);
    EXPECT_EQ(number(wide.audio(), "sample_rate"), 44100);
    const auto flash = Probe(join({"flash.mov", "wide.mp4"}, "mov"));
    EXPECT_EQ(number(flash.video(), "width"), 320);
    EXPECT_EQ(number(flash.audio(), "channels"), 1);
    EXPECT_EQ(number(flash.audio(), "sample_rate"), 48000);
    const auto production = Probe(join({"flash.prores.mov", "flash.mov"}, "mov"));
    EXPECT_EQ(text(production.video(), "codec_name"), "prores");
    EXPECT_EQ(text(production.audio(), "codec_name"), "pcm_s16le");
    const auto web = Probe(join({"flash.webm", "flash.mov"}, "webm"));
    EXPECT_EQ(text(web.video(), "codec_name"), "vp9");
    EXPECT_EQ(text(web.audio(), "codec_name"), "opus");
}

MergeRequest wish(std::optional<double> rate, std::optional<MergeRequest::Size> size = {}) {
    MergeRequest request;
    request.frameRate = rate;
    request.size = size;
    return request;
}

TEST(MergeFormats, TheRequestOverridesTheFrameRate) {
    const auto output = joinAs(wish(50), {"flash.mov", "wide.mp4"}, "mp4");
    EXPECT_EQ(text(Probe(output).video(), "avg_frame_rate"), "50/1");
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 200);
    for (const double start : {0.0, 2.0}) {
        EXPECT_NEAR(flashTime(output.path(), start), start + 1, 0.04);
        EXPECT_NEAR(beepTime(output.path(), start) - flashTime(output.path(), start), 0, 0.03);
    }
    const auto television = joinAs(wish(29.97), {"flash.mov"}, "mp4");
    EXPECT_EQ(text(Probe(television).video(), "avg_frame_rate"), "30000/1001");
}

TEST(MergeFormats, TheRequestOverridesTheSizeAndSourcesAreLetterboxed) {
    const auto output = joinAs(wish({}, MergeRequest::Size{400, 100}), {"square.mp4", "square-pixels.mp4"}, "mp4");
    const auto video = Probe(output).video();
    EXPECT_EQ(number(video, "width"), 400);
    EXPECT_EQ(number(video, "height"), 100);
    for (const double time : {0.5, 1.5}) {
        const GreyFrame frame = frameAt(output.path(), time);
        EXPECT_LT(frame.at(100, 50), kBlack) << "a bar";
        EXPECT_LT(frame.at(300, 50), kBlack) << "a bar";
        int wide = 0, high = 0;
        for (int x = 0; x < 400; ++x) {
            wide += frame.at(x, 50) > kWhite ? 1 : 0;
        }
        for (int y = 0; y < 100; ++y) {
            high += frame.at(200, y) > kWhite ? 1 : 0;
        }
        EXPECT_NEAR(wide, high, 3) << "the square is still square";
        EXPECT_NEAR(high, 33, 3);
    }
}

TEST(MergeFormats, SourcesThatAreAsTheRequestAsksAreCopied) {
    const auto output = joinAs(wish(25, MergeRequest::Size{320, 240}), {"flash.mov", "flash.mov"}, "mov");
    EXPECT_EQ(packetHashes(output.path(), "v:0"), repeated(packetHashes(testMedia("flash.mov"), "v:0"), 2));
}

TEST(MergeFormats, RatesAndSizesThatCannotBeAreOutOfRange) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInfinite = std::numeric_limits<double>::infinity();
    for (const MergeRequest& request :
         {wish(0), wish(-25), wish(kNaN), wish(kInfinite), wish(1001), wish({}, MergeRequest::Size{0, 0}),
          wish({}, MergeRequest::Size{320, 0}), wish({}, MergeRequest::Size{-320, 240}),
          wish({}, MergeRequest::Size{321, 240}), wish({}, MergeRequest::Size{320.5, 240}),
          wish({}, MergeRequest::Size{kNaN, 240}), wish({}, MergeRequest::Size{320, 20000})}) {
        try {
            (void)joinAs(request, {"flash.mov"}, "mov");
            ADD_FAILURE() << request.frameRate.value_or(0);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, FailureCause::ValueOutOfRange);
        }
    }
}

TEST(MergeFormats, ACodecThatTheContainerCannotHoldIsReplaced) {
    const auto probe = Probe(join({"theora.webm", "theora.webm"}, "mov"));
    EXPECT_EQ(text(probe.video(), "codec_name"), "h264");
    EXPECT_EQ(text(probe.audio(), "codec_name"), "aac");
    EXPECT_NEAR(number(probe.video(), "nb_read_frames"), 2 * 25 * Probe(testMedia("theora.webm")).duration(), 1);
}

TEST(MergeFormats, AnAVIHasAllFramesInOrder) {
    const auto output = join({"flash.mov", "tall.mp4", "flash.mov"}, "avi");
    const Probe probe(output);
    EXPECT_EQ(number(probe.video(), "nb_read_frames"), 150);
    EXPECT_EQ(number(probe.video(), "has_b_frames"), 0);
    for (const double start : {0.0, 2.0, 4.0}) {
        EXPECT_NEAR(flashTime(output.path(), start), start + 1, 0.04);
        EXPECT_NEAR(beepTime(output.path(), start), start + 1, 0.02);
    }
}

TEST(MergeFormats, AGIFHasThePaletteOfAllSources) {
    const auto output = join({"left.mp4", "plain.mov"}, "gif");
    EXPECT_EQ(Probe(output).streams("audio").size(), 0U);
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 75);
    // The first source is black and white only.
    const auto shown = shownColours(output.path(), 50);
    const auto expected = shownColours(join({"left.mp4", "plain.mov"}, "mov").path(), 50);
    EXPECT_LT(colourDifference(shown, expected).mean, 4);
}

TEST(MergeFormats, ASourceWithoutVideoIsBlackAndOneWithoutAudioSilent) {
    const auto output = join({"sound.wav", "silent.mp4"}, "mp4");
    EXPECT_NEAR(Probe(output).duration(), 4, 0.04);
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 100);
    const GreyFrame during = frameAt(output.path(), 1);
    EXPECT_LT(*std::max_element(during.values.begin(), during.values.end()), kBlack);
    EXPECT_GT(difference(during.values, frameAt(output.path(), 3).values), 50);
    const DecodedAudio audio = decodedAudio(output.path());
    EXPECT_GT(audio.level(0, 440, 0.1, 1.9), -30);
    EXPECT_LT(audio.peak(2.1, 3.9), 0.002);
}

TEST(MergeFormats, AudioFilesAreJoinedIntoAnAudioFile) {
    for (const char* extension : {"m4a", "wav", "mkv", "flac"}) {
        const auto output = join({"sound.wav", "cover.m4a", "sound24.wav"}, extension);
        EXPECT_TRUE(Probe(output).streams("video").empty());
        EXPECT_NEAR(audioLength(output.path()), 6.0, 0.03) << extension;
    }
}

TEST(MergeFormats, AudioOfMoviesIsJoinedInAnAudioContainer) {
    const auto output = join({"flash.mov", "mute.mp4", "flash.mov"}, "m4a");
    EXPECT_NEAR(beepTime(output.path(), 2), 5.0, 0.01);
}

TEST(MergeFormats, TheFirstSourceDecidesBetweenHDRAndSDR) {
    const auto ordinary = join({"plain.mov", "hdr.mp4"}, "mp4");
    EXPECT_EQ(text(Probe(ordinary).video(), "color_transfer"), "bt709");
    EXPECT_EQ(text(Probe(ordinary).video(), "pix_fmt"), "yuv420p");
    const auto greys = frameAt(ordinary.path(), 3);
    // Without conversion, white would be at 127.
    EXPECT_GT(*std::max_element(greys.values.begin(), greys.values.end()), 150);
    const auto high = join({"hdr.mp4", "plain.mov"}, "mp4");
    EXPECT_EQ(text(Probe(high).video(), "color_transfer"), "smpte2084");
    // Both movies show the same frame.
    EXPECT_LT(difference(frameAt(high.path(), 1).values, frameAt(high.path(), 3).values), 25);
}

TEST(MergeFormats, InterlacedSourcesAreDeinterlaced) {
    const auto video = Probe(join({"interlaced.mpg", "plain.mov"}, "mp4")).video();
    EXPECT_EQ(text(video, "field_order"), "progressive");
}

}  // namespace
}  // namespace krv::media::test

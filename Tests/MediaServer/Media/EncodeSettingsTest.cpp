#include <filesystem>

#include <gmock/gmock.h>

#include "MediaTestKit.h"

namespace krv::media::test {
namespace {

Conversion custom(const VideoRequest& video, const char* extension = "mp4", const char* source = "plain.mov") {
    return {.source = testMedia(source), .extension = extension, .type = 3, .video = video};
}

Conversion custom(const AudioRequest& audio, const char* extension = "mp4", const char* source = "plain.mov") {
    return {.source = testMedia(source), .extension = extension, .type = 3, .audio = audio};
}

struct VideoCodec {
    const char* fourCC;
    const char* extension;
    const char* codec;
    const char* pixels;
};

void PrintTo(const VideoCodec& one, std::ostream* out) {
    *out << one.fourCC << " in " << one.extension;
}

class VideoCodecs : public testing::TestWithParam<VideoCodec> {};

TEST_P(VideoCodecs, AreMadeOnRequest) {
    const VideoCodec& asked = GetParam();
    const std::string code = asked.fourCC;
    const char array[5] = {code[0], code[1], code[2], code[3], 0};
    const auto video = Probe(convert(custom(VideoRequest{fourCC(array), 0, 0, ""}, asked.extension))).video();
    EXPECT_EQ(text(video, "codec_name"), asked.codec);
    EXPECT_EQ(text(video, "pix_fmt"), asked.pixels);
    if (std::string_view(asked.extension) == "mov" && code.starts_with("ap")) {
        EXPECT_EQ(text(video, "codec_tag_string"), code);
    }
    EXPECT_EQ(number(video, "nb_read_frames"), 50);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, VideoCodecs,
    testing::Values(VideoCodec{"avc1", "mov", "h264", "yuv420p"}, VideoCodec{"hvc1", "mp4", "hevc", "yuv420p"},
                    VideoCodec{"av01", "webm", "av1", "yuv420p"}, VideoCodec{"vp09", "mkv", "vp9", "yuv420p"},
                    VideoCodec{"apcn", "mov", "prores", "yuv422p10le"},
                    VideoCodec{"apch", "mov", "prores", "yuv422p10le"},
                    VideoCodec{"ap4h", "mov", "prores", "yuv444p12le"}, VideoCodec{"jpeg", "mov", "mjpeg", "yuvj420p"},
                    VideoCodec{"mp4v", "mp4", "mpeg4", "yuv420p"}));

struct AudioCodec {
    const char* fourCC;
    const char* extension;
    const char* codec;
};

void PrintTo(const AudioCodec& one, std::ostream* out) {
    *out << one.fourCC << " in " << one.extension;
}

class AudioCodecs : public testing::TestWithParam<AudioCodec> {};

TEST_P(AudioCodecs, AreMadeOnRequest) {
    const std::string code = GetParam().fourCC;
    const char array[5] = {code[0], code[1], code[2], code[3], 0};
    const auto output = convert(custom(AudioRequest{fourCC(array), 0, ""}, GetParam().extension, "sound.wav"));
    EXPECT_EQ(text(Probe(output).audio(), "codec_name"), GetParam().codec);
    EXPECT_NEAR(audioLength(output.path()), 2.0, 0.04);
}

INSTANTIATE_TEST_SUITE_P(Settings, AudioCodecs,
                         testing::Values(AudioCodec{"mp4a", "m4a", "aac"}, AudioCodec{"alac", "m4a", "alac"},
                                         AudioCodec{"lpcm", "mov", "pcm_s16le"}, AudioCodec{"ac-3", "mp4", "ac3"},
                                         AudioCodec{"Opus", "ogg", "opus"}, AudioCodec{"Opus", "mp4", "opus"},
                                         AudioCodec{"fLaC", "flac", "flac"}, AudioCodec{"fLaC", "ogg", "flac"},
                                         AudioCodec{".mp3", "mp3", "mp3"}, AudioCodec{".mp3", "mp4", "mp3"}));

class QualityOf : public testing::TestWithParam<VideoCodec> {};

TEST_P(QualityOf, HigherMakesALargerFile) {
    const std::string code = GetParam().fourCC;
    const char array[5] = {code[0], code[1], code[2], code[3], 0};
    const auto size = [&](float quality) {
        const auto output =
            convert(custom(VideoRequest{fourCC(array), quality, 0, ""}, GetParam().extension, "silent.mp4"));
        return std::filesystem::file_size(output.path());
    };
    const auto low = size(0.1F), middle = size(0.5F), high = size(1);
    EXPECT_LT(low, middle);
    EXPECT_LT(middle, high);
    EXPECT_LT(low, size(0));
    EXPECT_LT(size(0), high);
}

INSTANTIATE_TEST_SUITE_P(Settings, QualityOf,
                         testing::Values(VideoCodec{"avc1", "mp4", "", ""}, VideoCodec{"hvc1", "mp4", "", ""},
                                         VideoCodec{"vp09", "webm", "", ""}, VideoCodec{"av01", "mp4", "", ""},
                                         VideoCodec{"apcn", "mov", "", ""}, VideoCodec{"jpeg", "mov", "", ""},
                                         VideoCodec{"mp4v", "mp4", "", ""}));

TEST(Settings, QualityOfAudioSetsItsBitRate) {
    const auto size = [](float quality) {
        return std::filesystem::file_size(convert({.source = testMedia("noise.wav"),
                                                   .extension = "m4a",
                                                   .type = 7,
                                                   .audio = AudioRequest{0, quality, ""}})
                                              .path());
    };
    EXPECT_LT(size(0.1F), size(0));
    EXPECT_LT(size(0), size(1));
}

TEST(Settings, WidthAloneKeepsTheShape) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "width=160"}))).video();
    EXPECT_EQ(number(video, "width"), 160);
    EXPECT_EQ(number(video, "height"), 120);
}

TEST(Settings, HeightAloneKeepsTheShape) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "height=480"}))).video();
    EXPECT_EQ(number(video, "width"), 640);
    EXPECT_EQ(number(video, "height"), 480);
}

TEST(Settings, WidthAndHeightDoNotDistortTheVideo) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "width=320:height=180"}))).video();
    EXPECT_EQ(number(video, "width"), 320);
    EXPECT_EQ(number(video, "height"), 180);
    EXPECT_EQ(text(video, "display_aspect_ratio"), "4:3");
}

TEST(Settings, WidthIsThatOfTheUprightFrame) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "width=120"}, "mp4", "rotated.mp4"))).video();
    EXPECT_EQ(number(video, "width"), 160);  // stored in landscape
    EXPECT_EQ(number(video, "height"), 120);
    const auto turned = Probe(convert(custom(VideoRequest{0, 0, 0, "width=120"}, "mkv", "rotated.mp4"))).video();
    EXPECT_EQ(number(turned, "width"), 120);
    EXPECT_EQ(number(turned, "height"), 160);
}

TEST(Settings, OddSidesAreMadeEven) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "width=161:height=121"}))).video();
    EXPECT_EQ(number(video, "width"), 160);
    EXPECT_EQ(number(video, "height"), 120);
}

TEST(Settings, BitRateIsKept) {
    const auto output = convert(custom(VideoRequest{0, 0, 0, "bitrate=200000"}, "mp4", "silent.mp4"));
    EXPECT_NEAR(number(Probe(output).video(), "bit_rate"), 200000, 80000);
}

TEST(Settings, PixelFormatGivesTenBits) {
    const auto video = Probe(convert(custom(VideoRequest{0, 0, 0, "pixelFormat=yuv420p10le"}))).video();
    EXPECT_EQ(text(video, "pix_fmt"), "yuv420p10le");
}

TEST(Settings, EncoderOptionsReachTheEncoder) {
    const auto output = convert(custom(VideoRequest{0, 0, 0, "g=5:bf=0:preset=ultrafast:profile=baseline"}));
    const auto video = Probe(output).video();
    EXPECT_EQ(text(video, "profile"), "Constrained Baseline");
    EXPECT_EQ(number(video, "has_b_frames"), 0);
    const std::string keys = run({KRV_FFPROBE, "-v", "quiet", "-select_streams", "v:0", "-skip_frame", "nokey",
                                  "-show_entries", "frame=key_frame", "-of", "csv=p=0", output.path()});
    EXPECT_EQ(std::count(keys.begin(), keys.end(), '1'), 10);
}

TEST(Settings, ChannelsAndSampleRateAreConverted) {
    const auto audio =
        Probe(convert(custom(AudioRequest{0, 0, "channels=2:sampleRate=44100"}, "mp4", "surround.mov"))).audio();
    EXPECT_EQ(number(audio, "channels"), 2);
    EXPECT_EQ(number(audio, "sample_rate"), 44100);
}

TEST(Settings, ApplyToTheCodecsOfOtherEncodingTypes) {
    const auto video = Probe(convert({.source = testMedia("plain.mov"),
                                      .type = 2,
                                      .video = VideoRequest{0, 0, 0, "width=160:preset=ultrafast"}}))
                           .video();
    EXPECT_EQ(text(video, "codec_name"), "hevc");
    EXPECT_EQ(number(video, "width"), 160);
}

}  // namespace
}  // namespace krv::media::test

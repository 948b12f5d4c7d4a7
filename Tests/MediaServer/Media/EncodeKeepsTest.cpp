#include <array>
#include <cstring>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"

namespace krv::media::test {
namespace {

/// The largest difference between two encodings of one frame. A wrong orientation differs several times as much.
constexpr double kSameFrame = 4;

std::vector<nlohmann::json> frameSideData(const std::string& path) {
    const auto json = nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", "v:0",
                                                 "-show_frames", "-read_intervals", "%+#1", path}));
    const auto& frame = json.at("frames").at(0);
    return frame.contains("side_data_list") ? frame.at("side_data_list").get<std::vector<nlohmann::json>>()
                                            : std::vector<nlohmann::json>{};
}

std::string displayMatrix(const Probe& probe) {
    for (const auto& data : probe.video().value("side_data_list", nlohmann::json::array())) {
        if (text(data, "side_data_type") == "Display Matrix") {
            return text(data, "displaymatrix");
        }
    }
    return "";
}

/// Returns a copy of upright.mp4 with another display matrix: two rows of two, in 16.16 fixed point.
OutputPath turned(std::array<int, 4> matrix) {
    std::string bytes = readFile(testMedia("upright.mp4"));
    const auto box = bytes.find("tkhd");
    const auto at = box + 4 + 40;  // the matrix of a version 0 track header
    const auto put = [&](std::size_t cell, int value) {
        const auto fixed = static_cast<std::uint32_t>(value) << 16;
        for (std::size_t i = 0; i < 4; ++i) {
            bytes[at + cell * 4 + i] = static_cast<char>(fixed >> (24 - 8 * i) & 0xff);
        }
    };
    put(0, matrix[0]);
    put(1, matrix[1]);
    put(3, matrix[2]);
    put(4, matrix[3]);
    OutputPath output("mp4");
    writeFile(output.path(), bytes);
    return output;
}

class Orientation : public testing::TestWithParam<std::array<int, 4>> {};

TEST_P(Orientation, IsKeptInTheMatrixOrInThePixels) {
    const OutputPath source = turned(GetParam());
    const auto expected = shownFrame(source.path());
    for (const std::int32_t type : {0, 1}) {
        const auto movie = convert({.source = source.path(), .extension = "mp4", .type = type});
        EXPECT_EQ(displayMatrix(Probe(movie)), displayMatrix(Probe(source)));
        EXPECT_LT(difference(shownFrame(movie.path()), expected), kSameFrame);
        const auto matroska = convert({.source = source.path(), .extension = "mkv", .type = type});
        EXPECT_EQ(displayMatrix(Probe(matroska)), "");
        EXPECT_LT(difference(shownFrame(matroska.path()), expected), kSameFrame);
    }
}

// Rotated by 0, 90, 180, 270 degrees, and the same mirrored.
INSTANTIATE_TEST_SUITE_P(Keeps, Orientation,
                         testing::Values(std::array{1, 0, 0, 1}, std::array{0, 1, -1, 0}, std::array{-1, 0, 0, -1},
                                         std::array{0, -1, 1, 0}, std::array{-1, 0, 0, 1}, std::array{1, 0, 0, -1},
                                         std::array{0, 1, 1, 0}, std::array{0, -1, -1, 0}));

TEST(Keeps, ThePixelAspectRatio) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1, 2}) {
            const auto output = convert({.source = testMedia("anamorphic.mov"), .extension = extension, .type = type});
            EXPECT_EQ(text(Probe(output).video(), "sample_aspect_ratio"), "4:3") << extension << type;
        }
    }
}

TEST(Keeps, TheColourDescription) {
    for (const std::int32_t type : {0, 1, 2}) {
        const auto video = Probe(convert({.source = testMedia("plain.mov"), .type = type})).video();
        EXPECT_EQ(text(video, "color_primaries"), "bt709");
        EXPECT_EQ(text(video, "color_transfer"), "bt709");
        EXPECT_EQ(text(video, "color_space"), "bt709");
        EXPECT_EQ(text(video, "color_range"), "tv");
    }
}

TEST(Keeps, HighDynamicRangeInHEVC) {
    for (const char* extension : {"mp4", "mkv"}) {
        const auto output = convert({.source = testMedia("hdr.mp4"), .extension = extension, .type = 2});
        const auto video = Probe(output).video();
        EXPECT_EQ(text(video, "pix_fmt"), "yuv420p10le");
        EXPECT_EQ(text(video, "color_primaries"), "bt2020");
        EXPECT_EQ(text(video, "color_transfer"), "smpte2084");
        EXPECT_EQ(text(video, "color_space"), "bt2020nc");
        std::string mastering, light;
        for (const auto& data : frameSideData(output.path())) {
            if (text(data, "side_data_type") == "Mastering display metadata") {
                mastering = text(data, "max_luminance") + " " + text(data, "red_x");
            }
            if (text(data, "side_data_type") == "Content light level metadata") {
                light = text(data, "max_content") + " " + text(data, "max_average");
            }
        }
        EXPECT_EQ(mastering, "10000000/10000 34000/50000");
        EXPECT_EQ(light, "1000 400");
    }
}

/// Returns what the container says of a stream's mastering display and content light, as numbers.
std::string hdrOfContainer(const nlohmann::json& stream) {
    std::string display, content;
    for (const auto& data : stream.value("side_data_list", nlohmann::json::array())) {
        if (text(data, "side_data_type") == "Mastering display metadata") {
            const auto quotient = [&](const char* key) {
                const std::string fraction = text(data, key);
                return std::stod(fraction) / std::stod(fraction.substr(fraction.find('/') + 1));
            };
            display = fmt::format("red {:.3f} {:.3f} white {:.4f} {:.4f} light {:.3f} to {:.0f} ", quotient("red_x"),
                                  quotient("red_y"), quotient("white_point_x"), quotient("white_point_y"),
                                  quotient("min_luminance"), quotient("max_luminance"));
        }
        if (text(data, "side_data_type") == "Content light level metadata") {
            content = "content " + text(data, "max_content") + " " + text(data, "max_average");
        }
    }
    return display + content;
}

TEST(Keeps, HDRMetadataInTheContainer) {
    struct Output {
        const char* extension;
        std::int32_t type;
    };
    for (const Output output :
         {Output{"mp4", 2}, Output{"mov", 2}, Output{"mkv", 2}, Output{"mp4", 6}, Output{"mkv", 6}, Output{"webm", 5},
          Output{"mkv", 5}, Output{"mp4", 5}, Output{"mov", 4}}) {
        const auto movie =
            convert({.source = testMedia("hdr.mp4"), .extension = output.extension, .type = output.type});
        EXPECT_EQ(hdrOfContainer(Probe(movie).video()),
                  "red 0.680 0.320 white 0.3127 0.3290 light 0.005 to 1000 content 1000 400")
            << output.extension << ", type " << output.type;
    }
}

TEST(Keeps, HDRMetadataInTheContainerOfAMerge) {
    for (const char* const extension : {"mp4", "mov", "mkv"}) {
        const auto movie = join({testMedia("hdr.mp4"), testMedia("plain.mov")}, extension);
        EXPECT_EQ(hdrOfContainer(Probe(movie).video()),
                  "red 0.680 0.320 white 0.3127 0.3290 light 0.005 to 1000 content 1000 400")
            << extension;
    }
}

TEST(Keeps, HDRMetadataInTheContainerOfACopy) {
    // In VP9 the container is the only place for it.
    const auto source = convert({.source = testMedia("hdr.mp4"), .extension = "webm", .type = 5});
    const std::string expected = hdrOfContainer(Probe(source).video());
    ASSERT_NE(expected, "");
    for (const char* const extension : {"webm", "mkv", "mp4"}) {
        const auto copy = convert({.source = source.path(), .extension = extension, .type = 0});
        EXPECT_EQ(hdrOfContainer(Probe(copy).video()), expected) << extension;
        const auto joined = join({source.path(), source.path()}, extension);
        EXPECT_EQ(hdrOfContainer(Probe(joined).video()), expected) << extension;
        EXPECT_EQ(packetHashes(joined.path(), "v:0"), repeated(packetHashes(source.path(), "v:0"), 2)) << extension;
    }
}

TEST(Keeps, TheLookOfHDRInH264ByToneMapping) {
    const auto output = convert({.source = testMedia("hdr.mp4"), .type = 1});
    const auto video = Probe(output).video();
    EXPECT_EQ(text(video, "pix_fmt"), "yuv420p");
    EXPECT_EQ(text(video, "color_primaries"), "bt709");
    EXPECT_EQ(text(video, "color_transfer"), "bt709");
    EXPECT_EQ(text(video, "color_space"), "bt709");
    // The output uses the whole range of greys. Without tone-mapping the signal of this movie uses the dark half only.
    const auto greys = shownFrame(output.path());
    EXPECT_GT(*std::max_element(greys.begin(), greys.end()) - *std::min_element(greys.begin(), greys.end()), 100);
}

TEST(Keeps, ChaptersWithTheirTitles) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto output = convert({.source = testMedia("chapters.mp4"), .extension = extension, .type = type});
            const Probe probe(output);
            const auto& chapters = probe.all().at("chapters");
            ASSERT_EQ(chapters.size(), 2U) << extension;
            EXPECT_EQ(tagOf(chapters[0], "title"), "One");
            EXPECT_EQ(tagOf(chapters[1], "title"), "Two");
            EXPECT_NEAR(number(chapters[1], "start_time"), 1.0, 0.001);
        }
    }
}

TEST(Keeps, TitleAndOtherTags) {
    for (const char* extension : {"mov", "mp4", "mkv", "mp3", "flac"}) {
        const bool audioOnly = std::strlen(extension) > 3 || std::string_view(extension) == "mp3";
        const auto output =
            convert({.source = testMedia("plain.mov"), .extension = extension, .type = audioOnly ? 7 : 1});
        EXPECT_EQ(Probe(output).tag("title"), "A plain movie") << extension;
        EXPECT_EQ(Probe(output).tag("artist"), "Nobody") << extension;
    }
}

// Matroska stores all keys in capital letters.
TEST(Keeps, NoTagThatDescribesTheSourceFile) {
    const auto output = convert({.source = testMedia("everything.mkv"), .extension = "mkv", .type = 0});
    EXPECT_EQ(Probe(output).tag("artist"), "Nobody");
    for (const char* const key : {"major_brand", "minor_version", "compatible_brands"}) {
        EXPECT_EQ(Probe(output).tag(key), "") << key;
    }
}

TEST(Keeps, CameraTags) {
    const auto output = convert({.source = testMedia("camera.mov"), .extension = "mov", .type = 1});
    EXPECT_EQ(Probe(output).tag("com.apple.quicktime.model"), "Test camera");
    EXPECT_EQ(Probe(output).tag("title"), "From a camera");
    for (const char* extension : {"mp4", "m4v"}) {
        const auto movie = convert({.source = testMedia("camera.mov"), .extension = extension, .type = 1});
        EXPECT_EQ(Probe(movie).tag("com.apple.quicktime.model"), "Test camera") << extension;
        EXPECT_EQ(Probe(movie).tag("title"), "From a camera") << extension;
    }
}

/// A song with a cover, tags of music, chapters and a language.
OutputPath taggedSong() {
    OutputPath song("m4a");
    const OutputPath chapters("txt");
    writeFile(chapters.path(), ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=First\n"
                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=2000\ntitle=Second\n");
    run({KRV_FFMPEG,
         "-v",
         "error",
         "-y",
         "-i",
         testMedia("cover.m4a"),
         "-i",
         chapters.path(),
         "-map",
         "0",
         "-map_chapters",
         "1",
         "-c",
         "copy",
         "-metadata:s:a:0",
         "language=fra",
         "-metadata",
         "album_artist=Everybody",
         "-metadata",
         "composer=Someone",
         "-metadata",
         "description=About",
         "-metadata",
         "track=3/9",
         "-metadata",
         "disc=1/2",
         "-metadata",
         "lyrics=La la",
         song.path()});
    return song;
}

TEST(Keeps, TagsOfMusicAndTheCoverInMov) {
    const OutputPath song = taggedSong();
    for (const std::int32_t type : {0, 1}) {
        const auto output = convert({.source = song.path(), .extension = "mov", .type = type});
        const Probe probe(output);
        EXPECT_EQ(probe.tag("title"), "With a cover");
        EXPECT_EQ(probe.tag("album_artist"), "Everybody");
        EXPECT_EQ(probe.tag("composer"), "Someone");
        EXPECT_EQ(probe.tag("description"), "About");
        EXPECT_EQ(probe.tag("track"), "3/9");
        EXPECT_EQ(probe.tag("disc"), "1/2");
        EXPECT_EQ(probe.tag("lyrics"), "La la");
        ASSERT_EQ(probe.covers().size(), 1U);
        EXPECT_EQ(text(probe.covers()[0], "codec_name"), "mjpeg");
        EXPECT_EQ(packetHashes(output.path(), "v:0"), packetHashes(song.path(), "v:0"));
        // And back, where the cover is a stream again.
        const Probe back(convert({.source = output.path(), .extension = "m4a", .type = 0}));
        EXPECT_EQ(back.tag("album_artist"), "Everybody");
        EXPECT_EQ(back.covers().size(), 1U);
    }
}

TEST(Keeps, TheCoverBesideCameraTags) {
    const OutputPath source("mka");
    run({KRV_FFMPEG,
         "-v",
         "error",
         "-y",
         "-i",
         testMedia("cover.m4a"),
         "-map",
         "0:a",
         "-c",
         "copy",
         "-attach",
         testMedia("cover.jpg"),
         "-metadata:s:t",
         "mimetype=image/jpeg",
         "-metadata:s:t",
         "filename=cover.jpg",
         "-metadata",
         "com.apple.quicktime.make=Maker",
         "-metadata",
         "com.apple.quicktime.location.ISO6709=+48.1+011.5/",
         source.path()});
    for (const char* extension : {"mp4", "m4a", "mov"}) {
        const Probe probe(convert({.source = source.path(), .extension = extension, .type = 0}));
        EXPECT_EQ(probe.covers().size(), 1U) << extension;
        EXPECT_EQ(probe.tag("com.apple.quicktime.make"), "Maker") << extension;
        const auto tags = probe.all().at("format").at("tags");
        EXPECT_EQ(text(tags, "com.apple.quicktime.location.ISO6709"), "+48.1+011.5/") << extension;
    }
}

TEST(Keeps, TheLanguageInFormatsWithOneTrack) {
    const OutputPath song = taggedSong();
    for (const char* extension : {"mp3", "flac", "wav"}) {
        const auto output = convert({.source = song.path(), .extension = extension, .type = 7});
        EXPECT_EQ(Probe(output).tag("language"), "fra") << extension;
        const auto back = convert({.source = output.path(), .extension = "mp4", .type = 7});
        EXPECT_EQ(tagOf(Probe(back).audio(), "language"), "fra") << extension;
    }
}

TEST(Keeps, ChaptersInFLAC) {
    const auto output = convert({.source = taggedSong().path(), .extension = "flac", .type = 7});
    const auto chapters = Probe(output).all().at("chapters");
    ASSERT_EQ(chapters.size(), 2U);
    EXPECT_EQ(tagOf(chapters[1], "title"), "Second");
    EXPECT_NEAR(std::stod(text(chapters[1], "start_time")), 1, 0.001);
}

TEST(Keeps, EveryAudioTrackWithItsLanguage) {
    // Convert twice through different containers, because each stores languages in its own way.
    const auto matroska = convert({.source = testMedia("languages.mkv"), .extension = "mkv", .type = 1});
    const auto movie = convert({.source = matroska.path(), .extension = "mov", .type = 0});
    const auto mp4 = convert({.source = matroska.path(), .extension = "mp4", .type = 1});
    for (const auto* output : {&matroska, &movie, &mp4}) {
        const auto tracks = Probe(*output).streams("audio");
        ASSERT_EQ(tracks.size(), 3U);
        EXPECT_EQ(tagOf(tracks[0], "language"), "eng");
        EXPECT_THAT(tagOf(tracks[1], "language"), testing::AnyOf("deu", "ger"));
        EXPECT_EQ(tagOf(tracks[2], "language"), "fra");
    }
}

TEST(Keeps, WhichTrackIsTheDefault) {
    const auto output = convert({.source = testMedia("languages.mkv"), .extension = "mkv", .type = 1});
    const auto tracks = Probe(output).streams("audio");
    EXPECT_EQ(tracks.at(0)["disposition"]["default"], 0);
    EXPECT_EQ(tracks.at(1)["disposition"]["default"], 1);
}

TEST(Keeps, TheDefaultTrackWhereOnlyOneFits) {
    const auto output = convert({.source = testMedia("languages.mkv"), .extension = "mp3", .type = 7});
    EXPECT_EQ(Probe(output).streams("audio").size(), 1U);
    const auto expected = convert({.source = testMedia("languages.mkv"), .extension = "mka", .type = 0});
    EXPECT_EQ(Probe(expected).streams("audio").size(), 3U);
}

TEST(Keeps, CoverArt) {
    for (const char* extension : {"m4a", "mp4", "mka", "mp3", "flac"}) {
        const auto output = convert({.source = testMedia("cover.m4a"), .extension = extension, .type = 7});
        const Probe probe(output);
        ASSERT_EQ(probe.covers().size(), 1U) << extension;
        EXPECT_EQ(number(probe.covers()[0], "width"), 64);
        EXPECT_EQ(probe.streams("audio").size(), 1U);
    }
}

TEST(Keeps, TextSubtitles) {
    struct Kind {
        const char* extension;
        std::int32_t type;
        const char* codec;
    };
    for (const auto& [extension, type, codec] : {Kind{"mov", 1, "mov_text"}, Kind{"mp4", 0, "mov_text"},
                                                 Kind{"mkv", 1, "subrip"}, Kind{"webm", 5, "webvtt"}}) {
        const auto output = convert({.source = testMedia("subtitles.mkv"), .extension = extension, .type = type});
        const auto subtitles = Probe(output).streams("subtitle");
        ASSERT_EQ(subtitles.size(), 1U) << extension;
        EXPECT_EQ(text(subtitles[0], "codec_name"), codec);
        EXPECT_EQ(tagOf(subtitles[0], "language"), "fra");
        const std::string lines =
            run({KRV_FFMPEG, "-v", "quiet", "-i", output.path(), "-map", "0:s:0", "-f", "srt", "-"});
        EXPECT_THAT(lines, testing::HasSubstr("00:00:00,200 --> 00:00:00,900"));
        EXPECT_THAT(lines, testing::HasSubstr("First line"));
        EXPECT_THAT(lines, testing::HasSubstr("Second line"));
    }
}

TEST(Keeps, TheTimesOfTextLinesThatOverlap) {
    const OutputPath lines("srt");
    writeFile(lines.path(), "1\n00:00:00,100 --> 00:00:01,900\nA sign\n\n2\n00:00:00,500 --> 00:00:00,900\nOne\n\n"
                            "3\n00:00:01,000 --> 00:00:01,400\nTwo\n\n4\n00:00:01,500 --> 00:00:01,800\nThree\n\n");
    const OutputPath source("mkv");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-i", lines.path(), "-map", "0:v", "-map", "1",
         "-c:v", "copy", "-c:s", "srt", source.path()});
    for (const char* extension : {"mp4", "mov", "m4v", "mkv"}) {
        const auto output = convert({.source = source.path(), .extension = extension, .type = 0});
        const std::string shown =
            run({KRV_FFMPEG, "-v", "quiet", "-i", output.path(), "-map", "0:s:0", "-f", "srt", "-"});
        for (const char* start : {"00:00:00,500 -->", "00:00:01,000 -->", "00:00:01,500 -->"}) {
            EXPECT_THAT(shown, testing::HasSubstr(start)) << extension;
        }
        EXPECT_LT(number(Probe(output).all().at("format"), "duration"), 2.1) << extension;
    }
}

TEST(Keeps, LosslessAudioInMPEG4) {
    const OutputPath source("mkv");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-map", "0:v", "-map", "0:a:0", "-c:v", "copy",
         "-c:a", "flac", source.path()});
    for (const char* extension : {"mp4", "m4v"}) {
        for (const bool flatten : {false, true}) {
            const auto output =
                convert({.source = source.path(), .extension = extension, .type = 0, .flatten = flatten});
            EXPECT_EQ(text(Probe(output).audio(), "codec_name"), "flac") << extension;
            EXPECT_EQ(packetHashes(output.path(), "a:0"), packetHashes(source.path(), "a:0")) << extension;
        }
    }
}

TEST(Keeps, TagsThatOggStoresInItsStreams) {
    for (const char* extension : {"opus", "ogg"}) {
        const OutputPath source(extension);
        run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-map", "0:a:0", "-metadata",
             "title=A song", "-metadata", "artist=Somebody", "-metadata", "album=Record", "-metadata", "track=7",
             "-metadata", "date=1999", source.path()});
        for (const char* container : {"m4a", "mp4", "mp3", "flac", "mka", "mkv"}) {
            const auto output = convert({.source = source.path(), .extension = container, .type = 7});
            const Probe probe(output);
            EXPECT_EQ(probe.tag("title"), "A song") << extension << " to " << container;
            EXPECT_EQ(probe.tag("artist"), "Somebody") << extension << " to " << container;
            EXPECT_EQ(probe.tag("album"), "Record") << extension << " to " << container;
            EXPECT_EQ(probe.tag("track"), "7") << extension << " to " << container;
            EXPECT_EQ(probe.tag("date"), "1999") << extension << " to " << container;
        }
    }
}

TEST(Keeps, FontsAndOtherAttachments) {
    const OutputPath font("ttf");
    writeFile(font.path(), std::string(5000, 'f'));
    const OutputPath source("mkv");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("subtitles.mkv"), "-map", "0", "-c", "copy", "-attach",
         font.path(), "-metadata:s:t", "mimetype=application/x-truetype-font", source.path()});
    for (const std::int32_t type : {0, 1}) {
        for (const bool flatten : {false, true}) {
            const auto output =
                convert({.source = source.path(), .extension = "mkv", .type = type, .flatten = flatten});
            const auto attachments = Probe(output).streams("attachment");
            ASSERT_EQ(attachments.size(), 1U);
            EXPECT_EQ(tagOf(attachments[0], "mimetype"), "application/x-truetype-font");
            EXPECT_EQ(number(attachments[0], "extradata_size"), 5000);
        }
    }
    const auto movie = convert({.source = source.path(), .extension = "mp4", .type = 0});
    EXPECT_EQ(Probe(movie).streams("attachment").size(), 0U);
}

TEST(Keeps, NoTagThatPromisesTransparency) {
    const OutputPath source("webm");
    run({KRV_FFMPEG, "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=1", "-c:v",
         "libvpx-vp9", "-pix_fmt", "yuva420p", "-deadline", "realtime", source.path()});
    ASSERT_EQ(tagOf(Probe(source).video(), "alpha_mode"), "1");
    const auto encoded = convert({.source = source.path(), .extension = "webm", .type = 5});
    EXPECT_EQ(tagOf(Probe(encoded).video(), "alpha_mode"), "");
    const auto copied = convert({.source = source.path(), .extension = "webm", .type = 0});
    EXPECT_EQ(tagOf(Probe(copied).video(), "alpha_mode"), "1");
}

TEST(Keeps, TheTimeCode) {
    for (const char* extension : {"mov", "mp4"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto output = convert({.source = testMedia("plain.mov"), .extension = extension, .type = type});
            EXPECT_EQ(tagOf(Probe(output).video(), "timecode"), "01:00:00:00") << extension << type;
        }
    }
}

TEST(Keeps, InterlacingOnlyInTheSameOrAProductionCodec) {
    const auto copied = Probe(convert({.source = testMedia("interlaced.mpg"), .extension = "mkv", .type = 0}));
    EXPECT_EQ(text(copied.video(), "field_order"), "tt");
    const auto changed = Probe(convert({.source = testMedia("interlaced.mpg"), .type = 1}));
    EXPECT_EQ(text(changed.video(), "field_order"), "progressive");
    EXPECT_EQ(number(changed.video(), "nb_read_frames"), 50);
    const auto production = Probe(convert({.source = testMedia("interlaced.mpg"), .extension = "mov", .type = 4}));
    EXPECT_EQ(text(production.video(), "field_order"), "tt");
}

TEST(Keeps, OddSizesRoundedToEvenOnes) {
    const auto video = Probe(convert({.source = testMedia("odd.mkv")})).video();
    EXPECT_EQ(number(video, "width"), 320);
    EXPECT_EQ(number(video, "height"), 240);
}

TEST(Keeps, AllChannels) {
    for (const char* extension : {"mp4", "mkv"}) {
        const auto audio = Probe(convert({.source = testMedia("surround.mov"), .extension = extension})).audio();
        EXPECT_EQ(number(audio, "channels"), 6);
        EXPECT_EQ(text(audio, "channel_layout"), "5.1");
    }
    const auto opus = Probe(convert({.source = testMedia("surround.mov"), .extension = "webm", .type = 5})).audio();
    EXPECT_EQ(number(opus, "channels"), 6);
}

}  // namespace
}  // namespace krv::media::test

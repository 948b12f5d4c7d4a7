// Subtitles that are drawn into the video, measured in its pixels.
#include <algorithm>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include "Subtitles.h"
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media::test {
namespace {

using testing::IsEmpty;

constexpr int kDark = 60;
constexpr int kBright = 180;

// ffmpeg moves the first set to the beginning, so that one is empty.

/// The bitmap of most tests, in a movie of 320 x 240 pixels. It is shown from 2 to 4 s.
constexpr Bitmap kBitmap{40, 180, 200, 40};

/// Six seconds of black with bitmap subtitles.
OutputPath blackWithBitmaps(const std::vector<DisplaySet>& sets = {{0}, {2, kBitmap}, {4}}, int width = 320,
                            int height = 240) {
    const OutputPath file = fileWith("sup", bluRaySubtitles(width, height, sets));
    return withSubtitles(corpus("black.mp4"), {file.path()}, "mkv");
}

/// Six seconds of black with a line of text from 2 to 4 s.
OutputPath blackWithText(const std::string& extension, const std::string& codec,
                         const std::vector<TextLine>& lines = {{2, 4, "WWWWWWWW"}}) {
    const OutputPath file = fileWith("srt", subRip(lines));
    return withSubtitles(corpus("black.mp4"), {file.path()}, extension, {"-c:s", codec});
}

Conversion burning(const std::string& source, const std::string& extension = "mp4", std::int32_t type = 1,
                   const std::string& settings = "", const std::string& track = "1") {
    return {.source = source,
            .extension = extension,
            .type = type,
            .video = VideoRequest{0, 0, 0, "burnInSubtitleTrack=" + track + (settings.empty() ? "" : ":") + settings}};
}

/// Returns the numbers of the frames that are not dark everywhere, the first of which is 0.
std::vector<int> litFrames(const std::string& path) {
    const std::string bytes =
        run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-vf", "scale=64:48:flags=area,format=gray",
             "-vsync", "passthrough", "-f", "rawvideo", "-"});
    constexpr std::size_t kFrame = 64 * 48;
    std::vector<int> lit;
    for (std::size_t at = 0; at + kFrame <= bytes.size(); at += kFrame) {
        const auto brightest = *std::max_element(
            bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin() + static_cast<std::ptrdiff_t>(at + kFrame),
            [](char a, char b) { return static_cast<unsigned char>(a) < static_cast<unsigned char>(b); });
        if (static_cast<unsigned char>(brightest) > kDark) {
            lit.push_back(static_cast<int>(at / kFrame));
        }
    }
    return lit;
}

int brightest(const GreyFrame& frame, int x, int y, int width, int height) {
    int value = 0;
    for (int i = y; i < y + height; ++i) {
        for (int j = x; j < x + width; ++j) {
            value = std::max(value, frame.at(j, i));
        }
    }
    return value;
}

void expectRectangle(const GreyFrame& frame, const Bitmap& box) {
    const int right = box.x + box.width, bottom = box.y + box.height;
    for (const auto& [x, y] : {std::pair{box.x + 4, box.y + 4}, std::pair{right - 5, box.y + 4},
                               std::pair{box.x + 4, bottom - 5}, std::pair{right - 5, bottom - 5}}) {
        EXPECT_GT(frame.at(x, y), kBright) << x << " " << y;
    }
    for (const auto& [x, y] : {std::pair{box.x - 5, box.y + 4}, std::pair{right + 4, box.y + 4},
                               std::pair{box.x + 4, box.y - 5}, std::pair{box.x + 4, bottom + 4}}) {
        EXPECT_LT(frame.at(x, y), kDark) << x << " " << y;
    }
}

struct Output {
    const char* extension;
    std::int32_t type;
};
void PrintTo(const Output& one, std::ostream* out) {
    *out << "type " << one.type << " to " << one.extension;
}

class BurnInto : public testing::TestWithParam<Output> {};

TEST_P(BurnInto, BitmapsAreAtTheirPlaceAndTime) {
    const auto& [extension, type] = GetParam();
    const OutputPath source = blackWithBitmaps();
    const auto output = convert(burning(source.path(), extension, type));
    EXPECT_EQ(litFrames(output.path()), numbersFrom(50, 99));
    expectRectangle(frameAt(output.path(), 3), kBitmap);
    EXPECT_TRUE(Probe(output).streams("subtitle").empty());
}

TEST_P(BurnInto, TextIsAtItsPlaceAndTime) {
    const auto& [extension, type] = GetParam();
    const OutputPath source = blackWithText("mkv", "srt");
    const auto output = convert(burning(source.path(), extension, type));
    EXPECT_EQ(litFrames(output.path()), numbersFrom(50, 99));
    const GreyFrame frame = frameAt(output.path(), 3);
    EXPECT_GT(brightest(frame, 100, 200, 120, 40), kBright);
    EXPECT_LT(brightest(frame, 0, 0, 320, 180), kDark);
    EXPECT_TRUE(Probe(output).streams("subtitle").empty());
}

INSTANTIATE_TEST_SUITE_P(BurnIn, BurnInto,
                         testing::Values(Output{"mp4", 1}, Output{"mkv", 1}, Output{"mkv", 2}, Output{"mov", 4},
                                         Output{"webm", 5}, Output{"avi", 3}));

TEST(BurnIn, DrawsTextOfEveryFormat) {
    for (const auto& [extension, codec] :
         {std::pair{"mp4", "mov_text"}, std::pair{"mkv", "ass"}, std::pair{"mkv", "webvtt"}}) {
        const OutputPath source = blackWithText(extension, codec);
        const auto output = convert(burning(source.path()));
        EXPECT_EQ(litFrames(output.path()), numbersFrom(50, 99)) << codec;
        EXPECT_GT(brightest(frameAt(output.path(), 3), 100, 200, 120, 40), kBright) << codec;
    }
}

TEST(BurnIn, DrawsTextWithItsStyle) {
    const OutputPath file =
        fileWith("ass", "[Script Info]\nPlayResX: 320\nPlayResY: 240\n[V4+ Styles]\nFormat: Name, Fontname, Fontsize, "
                        "PrimaryColour, OutlineColour, BackColour, BorderStyle, Outline, Alignment, MarginV\n"
                        "Style: Top,Missing,40,&H00FFFFFF,&H00000000,&H00000000,1,0,8,10\n[Events]\nFormat: Layer, "
                        "Start, End, Style, Text\nDialogue: 0,0:00:02.00,0:00:04.00,Top,WWWW\n"
                        "Dialogue: 0,0:00:03.00,0:00:04.00,Top,{\\pos(40,220)}WW\n");
    const OutputPath source = withSubtitles(corpus("black.mp4"), {file.path()}, "mkv", {"-c:s", "ass"});
    const auto output = convert(burning(source.path()));
    const GreyFrame one = frameAt(output.path(), 2.5), two = frameAt(output.path(), 3.5);
    EXPECT_GT(brightest(one, 80, 5, 160, 50), kBright);
    EXPECT_LT(brightest(one, 0, 120, 320, 120), kDark);
    EXPECT_GT(brightest(two, 80, 5, 160, 50), kBright);
    EXPECT_GT(brightest(two, 0, 170, 100, 60), kBright);
    EXPECT_LT(brightest(two, 160, 120, 160, 120), kDark);
}

TEST(BurnIn, UsesTheFontsOfTheMovieAndNeedsOne) {
    const OutputPath source = blackWithText("mkv", "srt");
    Conversion without = burning(source.path());
    without.withFont = false;
    const auto failure = failureOf(without);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting);
    EXPECT_EQ(failure->subject, "burnInSubtitleTrack");
    EXPECT_THAT(failure->detail, testing::HasSubstr("font"));
    // Bitmaps need none.
    const OutputPath bitmaps = blackWithBitmaps();
    without.source = bitmaps.path();
    EXPECT_EQ(litFrames(convert(without).path()), numbersFrom(50, 99));

    const OutputPath file = fileWith(
        "ass", "[Script Info]\nPlayResX: 320\nPlayResY: 240\n[V4+ Styles]\nFormat: Name, Fontname, Fontsize, "
               "PrimaryColour\nStyle: Own,DejaVu Sans Mono,40,&H00FFFFFF\n[Events]\nFormat: Layer, Start, End, "
               "Style, Text\nDialogue: 0,0:00:02.00,0:00:04.00,Own,WWWW\n");
    for (const char* type : {"application/x-truetype-font", "application/octet-stream"}) {
        const OutputPath attached =
            withSubtitles(corpus("black.mp4"), {file.path()}, "mkv",
                          {"-c:s", "ass", "-attach", "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf",
                           "-metadata:s:t", std::string("mimetype=") + type});
        without.source = attached.path();
        EXPECT_EQ(litFrames(convert(without).path()), numbersFrom(50, 99)) << type;
    }
}

TEST(BurnIn, IsUprightWhereTheViewerSeesIt) {
    const OutputPath text = blackWithText("mp4", "mov_text");
    const OutputPath bitmaps = blackWithBitmaps({{0}, {2, Bitmap{40, 250, 160, 40}}, {4}}, 240, 320);
    for (const char* degrees : {"90", "180", "270"}) {
        const OutputPath turned("mp4");
        run({KRV_FFMPEG, "-v", "error", "-y", "-i", text.path(), "-map", "0", "-c", "copy", "-metadata:s:v",
             fmt::format("rotate={}", degrees), turned.path()});
        // One container stores the rotation, the other one has turned pixels.
        for (const char* extension : {"mp4", "mkv"}) {
            const auto output = convert(burning(turned.path(), extension));
            const GreyFrame frame = frameAt(output.path(), 3);
            const bool sideways = std::string(degrees) != "180";
            ASSERT_EQ(frame.width, sideways ? 240 : 320);
            EXPECT_GT(brightest(frame, frame.width / 4, frame.height * 5 / 6, frame.width / 2, frame.height / 6),
                      kBright)
                << degrees << extension;
            EXPECT_LT(brightest(frame, 0, 0, frame.width, frame.height * 3 / 4), kDark) << degrees << extension;
            EXPECT_EQ(litFrames(output.path()), numbersFrom(50, 99));
        }
    }
    const OutputPath turned("mp4");
    run({KRV_FFMPEG, "-v", "error", "-y", "-fix_sub_duration", "-i", bitmaps.path(), "-map", "0", "-c", "copy", "-c:s",
         "dvdsub", "-s:s", "240x320", "-metadata:s:v", "rotate=90", turned.path()});
    for (const char* extension : {"mp4", "mkv"}) {
        expectRectangle(frameAt(convert(burning(turned.path(), extension)).path(), 3), Bitmap{40, 250, 160, 40});
    }
}

TEST(BurnIn, FollowsATrim) {
    const OutputPath text = blackWithText("mkv", "srt"), bitmaps = blackWithBitmaps();
    for (const OutputPath* const source : {&text, &bitmaps}) {
        const auto lit = [&](const char* part) {
            return litFrames(convert(burning(source->path(), "mp4", 1, part)).path());
        };
        EXPECT_EQ(lit("trimStart=1"), numbersFrom(25, 74));
        EXPECT_EQ(lit("trimStart=2.4:trimEnd=5"), numbersFrom(0, 39));
        EXPECT_EQ(lit("trimEnd=3"), numbersFrom(50, 74));
        EXPECT_THAT(lit("trimStart=4.2"), IsEmpty());
    }
}

TEST(BurnIn, FollowsAnEditList) {
    const OutputPath source = blackWithText("mp4", "mov_text");
    const OutputPath edited("mp4");
    run({KRV_FFMPEG, "-v", "error", "-y", "-ss", "1", "-i", source.path(), "-map", "0", "-c", "copy", edited.path()});
    const std::vector<TextLine> lines = linesOf(edited.path());
    ASSERT_EQ(lines.size(), 1U);
    const auto output = convert(burning(edited.path()));
    const auto lit = litFrames(output.path());
    ASSERT_FALSE(lit.empty());
    EXPECT_NEAR(lit.front() * 0.04, lines[0].start, 0.021);
    EXPECT_NEAR((lit.back() + 1) * 0.04, lines[0].end, 0.021);
}

/// Returns a copy of a movie in which all packets of subtitles are stored after those of the video.
OutputPath withSubtitlesLast(const std::string& path) {
    OutputPath output("mkv");
    AVFormatContext* from = nullptr;
    AVFormatContext* to = nullptr;
    EXPECT_EQ(avformat_open_input(&from, path.c_str(), nullptr, nullptr), 0);
    EXPECT_GE(avformat_find_stream_info(from, nullptr), 0);
    EXPECT_GE(avformat_alloc_output_context2(&to, nullptr, "matroska", output.path().c_str()), 0);
    for (unsigned i = 0; i < from->nb_streams; ++i) {
        AVStream* const stream = notNull(avformat_new_stream(to, nullptr));
        EXPECT_GE(avcodec_parameters_copy(stream->codecpar, from->streams[i]->codecpar), 0);
        stream->time_base = from->streams[i]->time_base;
    }
    EXPECT_GE(avio_open(&to->pb, output.path().c_str(), AVIO_FLAG_WRITE), 0);
    EXPECT_GE(avformat_write_header(to, nullptr), 0);
    std::vector<PacketPtr> last;
    const auto write = [&](AVPacket& packet) {
        av_packet_rescale_ts(&packet, from->streams[packet.stream_index]->time_base,
                             to->streams[packet.stream_index]->time_base);
        EXPECT_GE(av_write_frame(to, &packet), 0);
    };
    for (PacketPtr packet = newPacket(); av_read_frame(from, packet.get()) >= 0; packet = newPacket()) {
        if (from->streams[packet->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE) {
            last.push_back(std::move(packet));
        } else {
            write(*packet);
        }
    }
    for (const PacketPtr& packet : last) {
        write(*packet);
    }
    EXPECT_EQ(av_write_trailer(to), 0);
    avio_closep(&to->pb);
    avformat_free_context(to);
    avformat_close_input(&from);
    return output;
}

TEST(BurnIn, FindsSubtitlesThatAreStoredLast) {
    const OutputPath text = blackWithText("mkv", "srt"), bitmaps = blackWithBitmaps();
    for (const OutputPath* const source : {&text, &bitmaps}) {
        const OutputPath movie = withSubtitlesLast(source->path());
        EXPECT_EQ(litFrames(convert(burning(movie.path())).path()), numbersFrom(50, 99));
    }
}

TEST(BurnIn, ScalesBitmapsWithTheVideo) {
    const OutputPath source = blackWithBitmaps();
    expectRectangle(frameAt(convert(burning(source.path(), "mp4", 1, "width=640:height=480")).path(), 3),
                    {80, 360, 400, 80});
    expectRectangle(frameAt(convert(burning(source.path(), "mp4", 1, "width=160")).path(), 3), {20, 90, 100, 20});
    // A disc in high definition, of which the bars have been cut off.
    const OutputPath disc = blackWithBitmaps({{0}, {2, Bitmap{480, 780, 960, 150}}, {4}}, 1920, 1080);
    const OutputPath wide("mkv");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", disc.path(), "-map", "0", "-vf", "scale=960:400,setsar=1", "-c:v",
         "libx264", "-preset", "ultrafast", "-c:s", "copy", wide.path()});
    expectRectangle(frameAt(convert(burning(wide.path())).path(), 3), {240, 320, 480, 75});
    // What was shown over the lower bar is moved up.
    const OutputPath low = blackWithBitmaps({{0}, {2, Bitmap{480, 1000, 960, 60}}, {4}}, 1920, 1080);
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", low.path(), "-map", "0", "-vf", "scale=960:400,setsar=1", "-c:v",
         "libx264", "-preset", "ultrafast", "-c:s", "copy", wide.path()});
    EXPECT_GT(frameAt(convert(burning(wide.path())).path(), 3).at(480, 385), kBright);
}

TEST(BurnIn, DrawsOtherBitmapFormats) {
    const OutputPath blu = blackWithBitmaps();
    for (const auto& [codec, extension] : {std::pair{"dvdsub", "mkv"}, std::pair{"dvbsub", "ts"}}) {
        const OutputPath other(extension);
        run({KRV_FFMPEG, "-v", "error", "-y", "-fix_sub_duration", "-i", blu.path(), "-map", "0", "-c:v", "copy",
             "-c:s", codec, other.path()});
        const auto lit = litFrames(convert(burning(other.path())).path());
        ASSERT_FALSE(lit.empty()) << codec;
        EXPECT_NEAR(lit.front(), 50, 3) << codec;
        EXPECT_NEAR(lit.back(), 99, 3) << codec;
    }
}

TEST(BurnIn, ShowsLinesWhileAFrameIsHeld) {
    // From 2.36 to 4.92 s, one frame is shown.
    const OutputPath file = fileWith("sup", bluRaySubtitles(320, 240, {{0}, {3, kBitmap}, {4}}));
    const OutputPath source = withSubtitles(corpus("held.mp4"), {file.path()}, "mkv");
    for (const float fps : {0.0F, 25.0F}) {
        Conversion request = burning(source.path());
        request.video->fps = fps;
        const auto output = convert(request);
        EXPECT_LT(frameAt(output.path(), 2.8).at(100, 200), 120);
        EXPECT_GT(frameAt(output.path(), 3.2).at(100, 200), kBright);
        EXPECT_GT(frameAt(output.path(), 3.8).at(100, 200), kBright);
        EXPECT_LT(frameAt(output.path(), 4.3).at(100, 200), 120);
    }
}

TEST(BurnIn, IsAsBrightAsPaperInHighDynamicRange) {
    const OutputPath file = fileWith("sup", bluRaySubtitles(320, 240, {{0}, {0.5, kBitmap}, {1.5}}));
    const OutputPath source = withSubtitles(testMedia("hdr.mp4"), {file.path()}, "mkv");
    const auto output = convert(burning(source.path(), "mkv", 2));
    // 203 candela per square metre are 58 % of the signal. All of it would be 10,000.
    EXPECT_NEAR(frameAt(output.path(), 1).at(140, 200), 0.58 * 255, 6);
}

TEST(BurnIn, DrawsIntoAnimations) {
    const OutputPath source = blackWithBitmaps({{0}, {0.4, kBitmap}, {0.8}});
    const auto output = convert(burning(source.path(), "gif", 3, "trimEnd=1.2"));
    EXPECT_EQ(litFrames(output.path()), numbersFrom(10, 19));
}

TEST(BurnIn, TakesATrackByItsLanguageAndKeepsTheOthers) {
    const OutputPath english = fileWith("srt", subRip({{0.5, 1.5, "WWWW"}})),
                     german = fileWith("srt", subRip({{2, 4, "WWWW"}}));
    const OutputPath source =
        withSubtitles(corpus("black.mp4"), {english.path(), german.path()}, "mkv",
                      {"-c:s", "srt", "-metadata:s:s:0", "language=eng", "-metadata:s:s:1", "language=deu"});
    const auto output = convert(burning(source.path(), "mkv", 1, "", "ger"));
    EXPECT_EQ(litFrames(output.path()), numbersFrom(50, 99));
    const auto left = Probe(output).streams("subtitle");
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(tagOf(left[0], "language"), "eng");
}

TEST(BurnIn, IsNoLoss) {
    const OutputPath source = blackWithBitmaps();
    EXPECT_THAT(reportOf(burning(source.path(), "mp4", 1, "strict=1")).droppedTracks, IsEmpty());
    EXPECT_EQ(reportOf({.source = source.path(), .extension = "mp4", .type = 1}).droppedTracks.size(), 1U);
}

TEST(BurnIn, IsRefusedWhereItCannotBeDone) {
    const OutputPath file = fileWith("srt", subRip({{0, 1, "W"}}));
    const OutputPath source = withSubtitles(testMedia("flash.mov"), {file.path()}, "mkv", {"-c:s", "srt"});
    const auto refusal = [](const Conversion& conversion) {
        const auto failure = failureOf(conversion);
        if (!failure) {
            return std::string("accepted");
        }
        EXPECT_EQ(failure->cause, FailureCause::UnsupportedSetting);
        EXPECT_EQ(failure->subject, "burnInSubtitleTrack");
        return failure->detail;
    };
    const char* const missing = "names a track that the movie does not have: “{}”";
    for (const char* name : {"7", "0", "jpn"}) {
        EXPECT_EQ(refusal(burning(source.path(), "mp4", 1, "", name)), fmt::format(fmt::runtime(missing), name));
    }
    EXPECT_EQ(refusal(burning(source.path(), "mp4", 1, "", "2,3")), "names several tracks: “2,3”");
    EXPECT_EQ(refusal(burning(source.path(), "mp4", 1, "", "")), "has an empty entry");
    const char* const copies = "needs video that is encoded, and this conversion copies it";
    EXPECT_EQ(refusal(burning(source.path(), "mkv", 0, "", "2")), copies);
    Conversion flatten = burning(source.path(), "mkv", 1, "", "2");
    flatten.flatten = true;
    EXPECT_EQ(refusal(flatten), copies);
    EXPECT_EQ(refusal(burning(source.path(), "m4a", 7, "", "2")), "needs video, and this conversion writes none");
    EXPECT_EQ(refusal(burning(source.path(), "webm", 0, "", "2")), "accepted");  // H.264 has to be encoded there
    Conversion wrong = burning(source.path());
    wrong.video = std::nullopt;
    wrong.audio = AudioRequest{0, 0, "burnInSubtitleTrack=2"};
    const auto failure = failureOf(wrong);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::SettingDoesNotApply);
}

}  // namespace
}  // namespace krv::media::test

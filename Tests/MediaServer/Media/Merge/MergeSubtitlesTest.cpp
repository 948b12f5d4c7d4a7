// Subtitles of several sources in one movie, measured in the output.
#include <algorithm>
#include <set>

#include <fcntl.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MergeTestKit.h"
#include "Subtitles.h"
#include <MediaServer/Media/Container/Language.h>

namespace krv::media::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Two lines in English, two in German, the last of which would last longer than the two seconds of the movie.
const std::vector<TextLine> kEnglish{{0.2, 0.9, "First line"}, {1.0, 1.7, "Second line"}};
const std::vector<TextLine> kGerman{{0.1, 0.9, "Erste Zeile"}, {1.2, 3.5, "Zweite Zeile"}};

/// Returns the lines of a movie of two seconds, in which they are cut, moved.
std::vector<TextLine> at(double seconds, std::vector<TextLine> lines) {
    for (TextLine& line : lines) {
        line.start = line.start + seconds;
        line.end = std::min(line.end, 2.0) + seconds;
    }
    return lines;
}

std::vector<TextLine> operator+(std::vector<TextLine> one, const std::vector<TextLine>& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

void expectLines(const std::string& path, int track, const std::vector<TextLine>& expected) {
    const auto lines = linesOf(path, track);
    ASSERT_EQ(lines.size(), expected.size()) << testing::PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].text, expected[i].text) << i;
        EXPECT_NEAR(lines[i].start, expected[i].start, 0.0015) << i;
        EXPECT_NEAR(lines[i].end, expected[i].end, 0.0015) << i;
    }
}

/// A movie of two seconds with lines in English and in German.
OutputPath bilingual(const std::string& extension, const std::string& codec) {
    const OutputPath english = fileWith("srt", subRip(kEnglish)), german = fileWith("srt", subRip(kGerman));
    return withSubtitles(testMedia("silent.mp4"), {english.path(), german.path()}, extension,
                         {"-c:s", codec, "-metadata:s:s:0", "language=eng", "-metadata:s:s:1", "language=deu"});
}

std::vector<std::string> losses(const std::vector<std::string>& sources, const std::string& extension) {
    const OutputPath output(extension);
    std::vector<Descriptor> files;
    MergeRequest request;
    for (const std::string& path : sources) {
        files.push_back(openToRead(path));
        request.sources.push_back({files.back().number(), path});
    }
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    request.destination = to.number();
    request.destinationPath = output.path();
    RecordingSink sink;
    std::vector<std::string> result;
    for (const DroppedTrack& each : merge(request, sink).droppedTracks) {
        result.push_back(fmt::format("{} {} {}: {}", each.source, each.index, each.kind, each.reason));
    }
    return result;
}

struct Kinds {
    const char* from;
    const char* codec;
    const char* to;
    const char* expected;
};
void PrintTo(const Kinds& one, std::ostream* out) {
    *out << one.codec << " in " << one.from << " to " << one.to;
}

class MergeText : public testing::TestWithParam<Kinds> {};

TEST_P(MergeText, KeepsTheLinesOfAllSourcesAtTheirTimes) {
    const auto& [from, codec, to, expected] = GetParam();
    const OutputPath source = bilingual(from, codec);
    const auto output = join({source.path(), source.path(), source.path()}, to);
    const auto tracks = Probe(output).streams("subtitle");
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_EQ(text(tracks[0], "codec_name"), expected);
    EXPECT_EQ(tagOf(tracks[0], "language"), "eng");
    EXPECT_TRUE(sameLanguage(tagOf(tracks[1], "language"), "deu"));
    expectLines(output.path(), 0, at(0, kEnglish) + at(2, kEnglish) + at(4, kEnglish));
    expectLines(output.path(), 1, at(0, kGerman) + at(2, kGerman) + at(4, kGerman));
    EXPECT_NEAR(Probe(output).duration(), 6, 0.05);
    EXPECT_THAT(losses({source.path(), source.path()}, to), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Merge, MergeText,
                         testing::Values(Kinds{"mp4", "mov_text", "mp4", "mov_text"},
                                         Kinds{"mp4", "mov_text", "mkv", "ass"}, Kinds{"mkv", "srt", "mkv", "subrip"},
                                         Kinds{"mkv", "srt", "mp4", "mov_text"}, Kinds{"mkv", "srt", "mov", "mov_text"},
                                         Kinds{"mkv", "ass", "mkv", "ass"}, Kinds{"mkv", "ass", "mp4", "mov_text"},
                                         Kinds{"mkv", "webvtt", "webm", "webvtt"}));

TEST(MergeSubtitles, NumbersLinesThroughBecausePlayersDropRepeatedNumbers) {
    for (const char* codec : {"ass", "mov_text"}) {
        const OutputPath source = bilingual(codec == std::string("ass") ? "mkv" : "mp4", codec);
        const auto output = join({source.path(), source.path()}, "mkv");
        const std::string packets =
            run({KRV_FFMPEG, "-v", "quiet", "-i", output.path(), "-map", "0:s:0", "-c", "copy", "-f", "data", "-"});
        for (const char* line : {"0,0,Default", "1,0,Default", "2,0,Default", "3,0,Default"}) {
            EXPECT_THAT(packets, testing::HasSubstr(line)) << codec;
        }
    }
}

TEST(MergeSubtitles, ConvertsTextOfDifferentFormats) {
    const OutputPath first = bilingual("mp4", "mov_text"), second = bilingual("mkv", "srt");
    for (const char* extension : {"mp4", "mkv"}) {
        const auto output = join({first.path(), second.path()}, extension);
        EXPECT_EQ(Probe(output).streams("subtitle").size(), 2U);
        expectLines(output.path(), 0, at(0, kEnglish) + at(2, kEnglish));
        expectLines(output.path(), 1, at(0, kGerman) + at(2, kGerman));
    }
}

TEST(MergeSubtitles, PairsTracksByLanguageAndKeepsThemIfOneSourceHasNone) {
    const OutputPath both = bilingual("mkv", "srt");
    const OutputPath file = fileWith("srt", subRip(kGerman));
    const OutputPath german = withSubtitles(testMedia("silent.mp4"), {file.path()}, "mkv",
                                            {"-c:s", "srt", "-metadata:s:s:0", "language=deu"});
    for (const char* extension : {"mkv", "mp4"}) {
        const auto output = join(
            {testMedia("silent.mp4"), german.path(), both.path(), testMedia("silent.mp4"), both.path()}, extension);
        ASSERT_EQ(Probe(output).streams("subtitle").size(), 2U) << extension;
        expectLines(output.path(), 0, at(2, kGerman) + at(4, kGerman) + at(8, kGerman));
        expectLines(output.path(), 1, at(4, kEnglish) + at(8, kEnglish));
        EXPECT_NEAR(Probe(output).duration(), 10, 0.1);
    }
}

TEST(MergeSubtitles, DoesNotMixForcedLinesWithOthers) {
    const OutputPath all = fileWith("srt", subRip(kEnglish)), signs = fileWith("srt", subRip({{0.5, 1.5, "A sign"}}));
    const OutputPath first =
        withSubtitles(testMedia("silent.mp4"), {signs.path(), all.path()}, "mkv",
                      {"-c:s", "srt", "-disposition:s:0", "forced", "-metadata:s:s", "language=eng"});
    const OutputPath second =
        withSubtitles(testMedia("silent.mp4"), {all.path()}, "mkv", {"-c:s", "srt", "-metadata:s:s", "language=eng"});
    const auto output = join({first.path(), second.path()}, "mkv");
    expectLines(output.path(), 0, {{0.5, 1.5, "A sign"}});
    expectLines(output.path(), 1, at(0, kEnglish) + at(2, kEnglish));
}

TEST(MergeSubtitles, StayAtTheirTimesWhereLinesOverlapAtTheJoin) {
    const OutputPath file = fileWith(
        "srt", subRip({{0.0, 0.8, "One"}, {0.4, 1.2, "Two"}, {1.5, 4, "Long"}, {1.8, 3, "Late"}, {2.5, 3, "Never"}}));
    const OutputPath source = withSubtitles(testMedia("silent.mp4"), {file.path()}, "mkv", {"-c:s", "srt"});
    const auto output = join({source.path(), source.path()}, "mkv");
    const std::vector<TextLine> once{{0.0, 0.8, "One"}, {0.4, 1.2, "Two"}, {1.5, 2, "Long"}, {1.8, 2, "Late"}};
    expectLines(output.path(), 0, at(0, once) + at(2, once));
    // There, only one line can be shown at a time, but each starts when it should.
    const auto movie = join({source.path(), source.path()}, "mp4");
    std::vector<double> starts;
    for (const TextLine& line : linesOf(movie.path())) {
        starts.push_back(line.start);
    }
    EXPECT_THAT(starts, testing::IsSupersetOf({testing::DoubleNear(0.4, 0.001), testing::DoubleNear(1.8, 0.001),
                                               testing::DoubleNear(2.0, 0.001), testing::DoubleNear(2.4, 0.001),
                                               testing::DoubleNear(3.5, 0.001), testing::DoubleNear(3.8, 0.001)}));
    EXPECT_LT(Probe(movie).duration(), 4.1);
}

TEST(MergeSubtitles, CopiesBitmapsAndEndsThemWithTheirSource) {
    const OutputPath file = fileWith(
        "sup", bluRaySubtitles(320, 240, {{0.5, Bitmap{10, 180, 200, 40}}, {1.0}, {1.5, Bitmap{20, 180, 100, 40}}}));
    const OutputPath source = withSubtitles(testMedia("silent.mp4"), {file.path()}, "mkv");
    const auto original = subtitlePackets(source.path());
    ASSERT_EQ(original.size(), 3U);
    const auto output = join({source.path(), source.path()}, "mkv");
    const auto joined = subtitlePackets(output.path());
    ASSERT_EQ(joined.size(), 8U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(joined[i].hash, original[i].hash);
        EXPECT_EQ(joined[i + 4].hash, original[i].hash);
        EXPECT_NEAR(joined[i].time, original[i].time, 0.0015);
        EXPECT_NEAR(joined[i + 4].time, original[i].time + 2, 0.0015);
    }
    // What the last set shows would remain over the second source.
    EXPECT_NEAR(joined[3].time, 2, 0.0015);
    EXPECT_NEAR(joined[7].time, 4, 0.0015);
    const auto shown = nlohmann::json::parse(
        run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", "s:0", "-show_frames", output.path()}));
    std::vector<int> rectangles;
    for (const auto& frame : shown.at("frames")) {
        rectangles.push_back(static_cast<int>(number(frame, "num_rects")));
    }
    EXPECT_THAT(rectangles, ElementsAre(1, 0, 1, 0, 1, 0, 1, 0));
}

TEST(MergeSubtitles, NamesBitmapsThatCannotBeJoined) {
    const OutputPath file = fileWith("sup", bluRaySubtitles(320, 240, {{0.5, Bitmap{10, 180, 200, 40}}, {1.0}}));
    const OutputPath blu = withSubtitles(testMedia("silent.mp4"), {file.path()}, "mkv");
    const OutputPath dvd = withSubtitles(blu.path(), {blu.path()}, "mkv", {"-c:s", "dvdsub"});
    EXPECT_THAT(losses({blu.path(), blu.path()}, "mp4"),
                ElementsAre("0 1 subtitle: mp4 files cannot hold bitmap subtitles",
                            "1 1 subtitle: mp4 files cannot hold bitmap subtitles"));
    EXPECT_THAT(losses({blu.path(), dvd.path()}, "mkv"),
                ElementsAre("1 1 subtitle: its format is not that of the first such subtitles"));
    EXPECT_EQ(subtitlePackets(join({blu.path(), dvd.path()}, "mkv").path()).size(), 2U);
}

TEST(MergeSubtitles, KeepTheFontsThatAreAttached) {
    const OutputPath lines = fileWith("srt", subRip(kEnglish));
    const OutputPath one = fileWith("ttf", std::string(5000, 'f')), other = fileWith("ttf", std::string(6000, 'g'));
    const auto with = [&](const OutputPath& font) {
        return withSubtitles(
            testMedia("silent.mp4"), {lines.path()}, "mkv",
            {"-c:s", "ass", "-attach", font.path(), "-metadata:s:t", "mimetype=application/x-truetype-font"});
    };
    const OutputPath first = with(one), second = with(other);
    const auto output = join({first.path(), second.path(), first.path()}, "mkv");
    const auto fonts = Probe(output).streams("attachment");
    ASSERT_EQ(fonts.size(), 2U);
    EXPECT_EQ(number(fonts[0], "extradata_size"), 5000);
    EXPECT_EQ(number(fonts[1], "extradata_size"), 6000);
    expectLines(output.path(), 0, at(0, kEnglish) + at(2, kEnglish) + at(4, kEnglish));
    EXPECT_THAT(losses({first.path(), second.path()}, "mkv"), IsEmpty());
    EXPECT_THAT(losses({first.path(), second.path()}, "mp4"),
                ElementsAre("0 2 attachment: mp4 files cannot hold attached files",
                            "1 2 attachment: mp4 files cannot hold attached files"));
}

TEST(MergeSubtitles, AreNotInFormatsForAudio) {
    const OutputPath file = fileWith("srt", subRip(kEnglish));
    const OutputPath source = withSubtitles(testMedia("flash.mov"), {file.path()}, "mkv", {"-c:s", "srt"});
    for (const char* extension : {"m4a", "wav"}) {
        EXPECT_TRUE(Probe(join({source.path(), source.path()}, extension)).streams("subtitle").empty()) << extension;
    }
}

TEST(MergeSubtitles, EndWithTheShortestTrackIfTheRequestAsksForIt) {
    const OutputPath source = bilingual("mkv", "srt");
    const OutputPath brief("mkv");
    run({KRV_FFMPEG,  "-v",    "error", "-y",        "-i",   source.path(),
         "-f",        "lavfi", "-t",    "1.4",       "-i",   "sine=frequency=440:sample_rate=48000",
         "-map",      "0:v",   "-map",  "1:a",       "-map", "0:s",
         "-c:v",      "copy",  "-c:a",  "pcm_s16le", "-c:s", "copy",
         brief.path()});
    const auto output = join({brief.path(), source.path()}, "mkv", true);
    const double boundary = 1.4;
    const auto lines = linesOf(output.path(), 0);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_NEAR(lines[1].end, boundary, 0.0015);
    EXPECT_NEAR(lines[2].start, boundary + 0.2, 0.0015);
}

}  // namespace
}  // namespace krv::media::test

// The tracks, tags and chapters that a description lists.
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/MovieInfo.h>

namespace krv::media::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

MovieContents contentsOf(const std::string& movie) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    return movieInfo({.source = source.number(), .sourcePath = movie}, sink).contents;
}

/// Returns "kind codec language title default: what else is known" for each track.
std::vector<std::string> tracksOf(const std::string& movie) {
    std::vector<std::string> lines;
    for (const ListedTrack& track : contentsOf(movie).tracks) {
        std::string line = fmt::format("{} {} '{}' '{}'{}:", track.kind, track.codec, track.language, track.title,
                                       track.isDefault ? " default" : "");
        if (track.dimensions) {
            line += fmt::format(" {}x{}", track.dimensions->width, track.dimensions->height);
        }
        if (track.frameRate) {
            line += fmt::format(" {:.2f} fps", *track.frameRate);
        }
        if (track.channels) {
            line += fmt::format(" {} channels", *track.channels);
        }
        if (track.sampleRate) {
            line += fmt::format(" {} Hz", *track.sampleRate);
        }
        lines.push_back(line);
    }
    return lines;
}

/// Returns "start-end title" for each chapter.
std::vector<std::string> chaptersOf(const std::string& movie) {
    std::vector<std::string> lines;
    for (const ListedChapter& chapter : contentsOf(movie).chapters) {
        lines.push_back(fmt::format("{:.3f}-{:.3f} {}", chapter.start, chapter.end, chapter.title));
    }
    return lines;
}

/// Returns the beginning of a file with metadata for ffmpeg, which may contain any bytes.
constexpr const char* kMetadata = ";FFMETADATA1\n";

/// Returns a movie with the tracks of another one and the tags and chapters of this text.
OutputPath withMetadata(const std::string& metadata, const std::string& extension,
                        const std::vector<std::string>& more = {}) {
    const OutputPath file("txt");
    writeFile(file.path(), kMetadata + metadata);
    OutputPath movie(extension);
    std::vector<std::string> command{
        KRV_FFMPEG, "-v",   "error", "-y", "-i",   testMedia("plain.mov"), "-i", file.path(),     "-map",
        "0:v",      "-map", "0:a",   "-c", "copy", "-map_metadata",        "1",  "-map_chapters", "1"};
    command.insert(command.end(), more.begin(), more.end());
    command.push_back(movie.path());
    (void)run(command);
    return movie;
}

TEST(Contents, ListEveryTrackInItsOrder) {
    EXPECT_THAT(tracksOf(corpus("many.mkv")), ElementsAre("video H.264 '' '' default: 320x240 25.00 fps",
                                                          "audio AAC 'eng' '' default: 2 channels 48000 Hz",
                                                          "audio AAC 'deu' '': 6 channels 48000 Hz",
                                                          "audio AAC 'fra' '' default: 2 channels 48000 Hz",
                                                          "subtitle subrip '' '' default:", "subtitle subrip '' '':"));
    EXPECT_THAT(tracksOf(testMedia("everything.mkv")),
                ElementsAre("video H.264 '' '' default: 320x240 25.00 fps",
                            "audio AAC 'deu' 'The sound' default: 6 channels 48000 Hz", "subtitle subrip 'fra' '':"));
}

TEST(Contents, ListTracksThatAreNotPlayed) {
    EXPECT_THAT(tracksOf(testMedia("plain.mov")),
                ElementsAre("video H.264 '' '' default: 320x240 25.00 fps",
                            "audio AAC 'eng' '' default: 1 channels 48000 Hz", "audio AAC '' '': 1 channels 48000 Hz",
                            "data tmcd 'eng' '':"));
    EXPECT_THAT(tracksOf(corpus("movie-with-cover.mp4")),
                ElementsAre(StartsWith("video H.264"), StartsWith("audio AAC"), "cover Motion JPEG '' '': 300x300"));
    const OutputPath movie("mkv");
    (void)run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("plain.mov"), "-map", "0:v", "-c", "copy", "-attach",
               testMedia("lines.srt"), "-metadata:s:t", "mimetype=text/plain", movie.path()});
    EXPECT_THAT(tracksOf(movie.path()), ElementsAre(StartsWith("video H.264"), StartsWith("attachment ")));
}

TEST(Contents, HaveTheSizeOfVideoAsItIsShown) {
    EXPECT_THAT(tracksOf(corpus("phone-90.mp4")).at(0), testing::HasSubstr(": 240x320 "));
    EXPECT_THAT(tracksOf(corpus("anamorphic.mp4")).at(0), testing::HasSubstr(": 427x240 "));
}

TEST(Contents, HaveTheTagsOfEveryContainer) {
    for (const char* const extension : {"mov", "mp4", "mkv"}) {
        const OutputPath movie = withMetadata(
            "title=A title\nartist=An artist\nalbum=An album\ndate=1999\ncomment=Two\\\nlines\ngenre=Film\n",
            extension);
        EXPECT_THAT(contentsOf(movie.path()).tags,
                    ElementsAre(Pair("album", "An album"), Pair("artist", "An artist"), Pair("comment", "Two\nlines"),
                                Pair("date", "1999"), Pair("genre", "Film"), Pair("title", "A title")))
            << extension;
    }
    for (const char* const song : {"song.m4a", "song.mp3", "song.flac", "song.ogg", "song.wav"}) {
        EXPECT_THAT(contentsOf(corpus(song)).tags, ElementsAre(Pair("title", "A song"))) << song;
    }
}

TEST(Contents, HaveTheTagsOfCamerasAndNoneThatDescribeTheFile) {
    EXPECT_THAT(contentsOf(testMedia("camera.mov")).tags,
                ElementsAre(Pair("com.apple.quicktime.model", "Test camera"), Pair("title", "From a camera")));
    EXPECT_THAT(
        contentsOf(testMedia("everything.mkv")).tags,
        ElementsAre(Pair("artist", "Nobody"), Pair("comment", "Made for a test"), Pair("title", "A plain movie")));
    EXPECT_THAT(contentsOf(corpus("h264.mp4")).tags, IsEmpty());
}

TEST(Contents, HaveATagOnceThatIsInOneLanguage) {
    const OutputPath movie = withMetadata("title=Ein Titel\ntitle-ger=Ein Titel\n", "mov");
    EXPECT_THAT(run({KRV_FFPROBE, "-v", "error", "-show_entries", "format_tags", movie.path()}),
                testing::HasSubstr("title-ger=Ein Titel"));
    EXPECT_THAT(contentsOf(movie.path()).tags, ElementsAre(Pair("title", "Ein Titel")));
}

TEST(Contents, HaveTextsInValidUTF8) {
    const OutputPath movie = withMetadata("title=Fr\xfchling\nartist=Gr\u00FC\u00DFe \u4E2D \U0001F3AC\n"
                                          "album=esc\x1b[2J\ncomment=\xc3\n[CHAPTER]\nSTART=0\nEND=1000000000\n"
                                          "title=\xed\xa0\x80!\n",
                                          "mkv", {"-metadata:s:a:0", "title=\xff"});
    const MovieContents contents = contentsOf(movie.path());
    EXPECT_THAT(contents.tags,
                ElementsAre(Pair("album", "esc\uFFFD[2J"), Pair("artist", "Gr\u00FC\u00DFe \u4E2D \U0001F3AC"),
                            Pair("comment", "\uFFFD"), Pair("title", "Fr\uFFFDhling")));
    EXPECT_EQ(contents.tracks.at(1).title, "\uFFFD");
    EXPECT_THAT(contents.chapters.at(0).title, testing::EndsWith("!"));
    EXPECT_THAT(contents.chapters.at(0).title, StartsWith("\uFFFD"));
}

TEST(Contents, CutOffLongTextsBetweenTwoCharacters) {
    std::string umlauts;
    for (std::size_t i = 0; i < kLongestListedValue; ++i) {
        umlauts += "\u00FC";
    }
    const std::string longest(kLongestListedValue, 'x');
    const std::string key(kLongestListedKey, 'k');
    const OutputPath movie = withMetadata(
        fmt::format("comment={}\ntitle={}\nartist={}x\n{}=kept\n{}k=dropped\n", umlauts, longest, longest, key, key),
        "mkv", {"-metadata:s:a:0", "title=" + longest});
    const MovieContents contents = contentsOf(movie.path());
    EXPECT_EQ(contents.tags.at("title"), longest);
    EXPECT_EQ(contents.tags.at("artist"), longest.substr(3) + "…");
    const std::string& comment = contents.tags.at("comment");
    EXPECT_LE(comment.size(), kLongestListedValue);
    EXPECT_GE(comment.size(), kLongestListedValue - 1);
    EXPECT_TRUE(comment.starts_with("\u00FC") && comment.ends_with("\u00FC…"));
    EXPECT_EQ(contents.tags.at(key), "kept");
    EXPECT_EQ(contents.tags.size(), 4U);
    EXPECT_EQ(contents.tracks.at(1).title, std::string(kLongestListedTitle - 3, 'x') + "…");
}

TEST(Contents, AreBounded) {
    std::string metadata;
    for (std::size_t i = 0; i <= kMostListedTags; ++i) {
        metadata += fmt::format("tag{:04}=value\n", i);
    }
    for (std::size_t i = 0; i <= kMostListedChapters; ++i) {
        metadata += fmt::format("[CHAPTER]\nTIMEBASE=1/10000\nSTART={}\nEND={}\n", i, i + 1);
    }
    const MovieContents contents = contentsOf(withMetadata(metadata, "mkv").path());
    EXPECT_EQ(contents.tags.size(), kMostListedTags);
    EXPECT_EQ(contents.chapters.size(), kMostListedChapters);
}

TEST(Contents, HaveTheChapters) {
    for (const char* const movie : {"chapters.mkv", "chapters.mp4"}) {
        EXPECT_THAT(chaptersOf(corpus(movie)), ElementsAre("0.000-2.500 One", "2.500-6.000 Two")) << movie;
    }
    EXPECT_THAT(chaptersOf(corpus("h264.mp4")), IsEmpty());
}

TEST(Contents, HaveChaptersWithGapsAndWithoutTitles) {
    const OutputPath movie = withMetadata("[CHAPTER]\nTIMEBASE=1/10\nSTART=2\nEND=5\n"
                                          "[CHAPTER]\nTIMEBASE=1/10\nSTART=10\nEND=20\ntitle=Second\n",
                                          "mkv");
    EXPECT_THAT(chaptersOf(movie.path()), ElementsAre("0.200-0.500 ", "1.000-2.000 Second"));
}

}  // namespace
}  // namespace krv::media::test

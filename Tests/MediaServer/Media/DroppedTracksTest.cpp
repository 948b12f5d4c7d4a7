// Every kind of loss is listed, with its reason.
#include <algorithm>
#include <string>
#include <vector>

#include <fcntl.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Foundation/FourCC.h>
#include <MediaServer/Media/Merge/Merge.h>
#include <MediaServer/Media/StereoMix.h>

namespace krv::media::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Returns "kind index codec language: reason" for each entry.
std::vector<std::string> lines(const MovieReport& report) {
    std::vector<std::string> result;
    for (const DroppedTrack& each : report.droppedTracks) {
        result.push_back(fmt::format("{} {} {} {}: {}", each.kind, each.index, each.codec, each.language, each.reason));
    }
    return result;
}

std::vector<std::string> dropped(const Conversion& conversion) {
    return lines(reportOf(conversion));
}

/// A movie made by ffmpeg with these arguments.
OutputPath movie(const std::string& extension, std::vector<std::string> arguments) {
    OutputPath path(extension);
    arguments.insert(arguments.begin(), {KRV_FFMPEG, "-v", "error", "-y"});
    arguments.push_back(path.path());
    run(arguments);
    return path;
}

/// Two segments of Blu-ray subtitles, each of which ends a display set.
std::string bitmapSubtitles() {
    std::string bytes;
    for (const char second : {'\x01', '\x02'}) {
        bytes += std::string("PG\0\0", 4) + second + std::string("\0\0\0\0\0\x80\0\0", 8);
    }
    return bytes;
}

/// Video, two audio tracks with titles and flags, and bitmap subtitles.
OutputPath movieWithMuch() {
    const OutputPath bitmaps("sup");
    writeFile(bitmaps.path(), bitmapSubtitles());
    return movie("mkv", {"-i",
                         testMedia("silent.mp4"),
                         "-i",
                         testMedia("sound.wav"),
                         "-f",
                         "sup",
                         "-i",
                         bitmaps.path(),
                         "-map",
                         "0:v",
                         "-map",
                         "1:a",
                         "-map",
                         "1:a",
                         "-map",
                         "2:s",
                         "-c:v",
                         "copy",
                         "-c:a",
                         "aac",
                         "-c:s",
                         "copy",
                         "-metadata:s:a:0",
                         "language=deu",
                         "-metadata:s:a:1",
                         "language=eng",
                         "-metadata:s:a:1",
                         "title=Commentary",
                         "-metadata:s:s:0",
                         "language=fra",
                         "-disposition:a:0",
                         "default+original",
                         "-disposition:a:1",
                         "comment+visual_impaired"});
}

TEST(Dropped, NothingIfAllIsKept) {
    EXPECT_THAT(dropped({.source = testMedia("plain.mov"), .extension = "mov", .type = 0}), IsEmpty());
    EXPECT_THAT(dropped({.source = testMedia("plain.mov"), .extension = "mp4", .type = 1}), IsEmpty());
    const OutputPath much = movieWithMuch();
    EXPECT_THAT(dropped({.source = much.path(), .extension = "mkv", .flatten = true}), IsEmpty());
    EXPECT_THAT(dropped({.source = much.path(), .extension = "mkv", .type = 1}), IsEmpty());
}

TEST(Dropped, BitmapSubtitlesAndFlags) {
    const OutputPath much = movieWithMuch();
    for (const bool flatten : {false, true}) {
        for (const std::int32_t type : {0, 1}) {
            EXPECT_THAT(dropped({.source = much.path(), .extension = "mov", .type = type, .flatten = flatten}),
                        ElementsAre("flag 1 aac deu: mov files cannot store the flags: original",
                                    "flag 2 aac eng: mov files cannot store the flags: comment, visual impaired",
                                    "subtitle 3 hdmv_pgs_subtitle fra: mov files cannot hold bitmap subtitles"));
        }
    }
    EXPECT_THAT(dropped({.source = much.path(), .extension = "mp4", .type = 1}),
                ElementsAre("flag 1 aac deu: mp4 files cannot store the flags: original",
                            "subtitle 3 hdmv_pgs_subtitle fra: mp4 files cannot hold bitmap subtitles"));
}

TEST(Dropped, WhatOtherContainersCannotHold) {
    const OutputPath much = movieWithMuch();
    EXPECT_THAT(
        dropped({.source = much.path(), .extension = "m4a", .type = 0}),
        ElementsAre("video 0 h264 : m4a files cannot hold video",
                    "flag 1 aac deu: m4a files cannot store the flags: original",
                    "title 2 aac eng: m4a files cannot store titles of tracks",
                    "flag 2 aac eng: m4a files cannot store the flags: comment, visual impaired",
                    "subtitle 3 hdmv_pgs_subtitle fra: m4a files cannot hold subtitles in hdmv_pgs_subtitle format"));
    EXPECT_THAT(dropped({.source = much.path(), .extension = "avi", .type = 3}),
                ElementsAre("language 1 aac deu: avi files cannot store languages of tracks",
                            "flag 1 aac deu: avi files cannot store the flags: original",
                            "language 2 aac eng: avi files cannot store languages of tracks",
                            "flag 2 aac eng: avi files cannot store the flags: comment, visual impaired",
                            "subtitle 3 hdmv_pgs_subtitle fra: avi files cannot hold subtitles in hdmv_pgs_subtitle "
                            "format"));
    EXPECT_THAT(dropped({.source = much.path(), .extension = "ts", .type = 1}),
                ElementsAre("flag 1 aac deu: ts files cannot store the flags: original",
                            "title 2 aac eng: ts files cannot store titles of tracks",
                            "flag 2 aac eng: ts files cannot store the flags: comment, visual impaired",
                            "subtitle 3 hdmv_pgs_subtitle fra: ts files cannot hold subtitles in hdmv_pgs_subtitle "
                            "format"));
    // Who asks for audio only does not miss the video.
    EXPECT_THAT(dropped({.source = much.path(), .extension = "m4a", .type = 7}),
                ElementsAre("flag 1 aac deu: m4a files cannot store the flags: original",
                            "title 2 aac eng: m4a files cannot store titles of tracks",
                            "flag 2 aac eng: m4a files cannot store the flags: comment, visual impaired"));
    EXPECT_THAT(dropped({.source = testMedia("languages.mkv"), .extension = "ogg", .type = 7}), IsEmpty());
    const auto single = reportOf({.source = testMedia("languages.mkv"), .extension = "wav", .type = 7}).droppedTracks;
    EXPECT_EQ(std::count_if(single.begin(), single.end(),
                            [](const DroppedTrack& each) {
                                return each.kind == "audio" && each.reason == "wav files hold one audio track only";
                            }),
              2);
}

TEST(Dropped, AttachmentsAndCovers) {
    const OutputPath font("ttf");
    writeFile(font.path(), std::string(5000, 'f'));
    const OutputPath source = movie("mkv", {"-i", testMedia("subtitles.mkv"), "-map", "0", "-c", "copy", "-attach",
                                            font.path(), "-metadata:s:t", "mimetype=application/x-truetype-font"});
    const auto lost = reportOf({.source = source.path(), .extension = "mp4", .type = 0}).droppedTracks;
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_EQ(lost[0].kind, "attachment");
    EXPECT_EQ(lost[0].reason, "mp4 files cannot hold attached files");
    EXPECT_THAT(dropped({.source = testMedia("cover.m4a"), .extension = "wav", .type = 7}),
                testing::Contains("cover 1 mjpeg : wav files cannot hold cover art"));
}

TEST(Dropped, FurtherVideoTracksOfAnEncoding) {
    const OutputPath two = movie("mov", {"-i", testMedia("silent.mp4"), "-map", "0:v", "-map", "0:v", "-c", "copy"});
    EXPECT_THAT(dropped({.source = two.path(), .extension = "mov", .type = 0}), IsEmpty());
    EXPECT_THAT(dropped({.source = two.path(), .extension = "mov", .type = 1}),
                ElementsAre("video 1 h264 : only one video track is written"));
}

TEST(Dropped, TransparencyAndStereoscopicLayout) {
    const OutputPath alpha = movie("webm", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=1", "-c:v",
                                            "libvpx-vp9", "-pix_fmt", "yuva420p", "-deadline", "realtime"});
    EXPECT_THAT(dropped({.source = alpha.path(), .extension = "webm", .type = 0}), IsEmpty());
    EXPECT_THAT(dropped({.source = alpha.path(), .extension = "mp4", .type = 0}),
                ElementsAre("alpha 0 vp9 : mp4 files cannot hold the transparency of this codec"));
    EXPECT_THAT(dropped({.source = alpha.path(), .extension = "webm", .type = 5}),
                ElementsAre("alpha 0 vp9 : the encoder does not support transparency"));
    const OutputPath sides =
        movie("mkv", {"-i", testMedia("silent.mp4"), "-c", "copy", "-metadata:s:v:0", "stereo_mode=left_right"});
    for (const std::int32_t type : {0, 1}) {
        EXPECT_THAT(dropped({.source = sides.path(), .extension = "mov", .type = type}),
                    ElementsAre("stereo3D 0 h264 : mov files cannot store the stereoscopic layout"));
        const auto kept = convert({.source = sides.path(), .extension = "mp4", .type = type});
        EXPECT_THAT(Probe(kept).video().dump(), testing::HasSubstr("side by side"));
    }
}

TEST(Dropped, ChannelsThatTheCodecCannotHold) {
    const std::string eight = corpus("eight.mkv");
    EXPECT_THAT(dropped({.source = eight, .extension = "m4a", .type = 7}), IsEmpty());
    EXPECT_THAT(dropped({.source = eight, .extension = "mp3", .type = 7}),
                ElementsAre("channels 0 flac : the codec cannot hold 8 channels, so they are mixed down to 2"));
    const auto surround = [&](const std::string& settings) {
        return Conversion{
            .source = eight, .extension = "mkv", .type = 3, .audio = AudioRequest{fourCC("ac-3"), 0, settings}};
    };
    EXPECT_THAT(dropped(surround("")),
                ElementsAre("channels 0 flac : the codec cannot hold 8 channels, so they are mixed down to 6"));
    EXPECT_THAT(dropped(surround("channels=2")), IsEmpty()) << "nothing else was asked for";
    EXPECT_THROW((void)dropped(surround("strict=1")), Failure);
}

TEST(Dropped, AlternativesOfAStereoMix) {
    const OutputPath output("mp4");
    const Descriptor source = openToRead(testMedia("languages.mkv"));
    const Descriptor destination(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    RecordingSink sink;
    const MovieReport report =
        mixToStereo({source.number(), destination.number(), testMedia("languages.mkv"), output.path()}, sink);
    ASSERT_EQ(report.droppedTracks.size(), 2U);
    for (const DroppedTrack& each : report.droppedTracks) {
        EXPECT_EQ(each.kind, "audio");
        EXPECT_EQ(each.reason, "only one audio track is written");
    }
}

TEST(Dropped, WhatAMergeDoesNotKeepOfEachSource) {
    const OutputPath output("mp4");
    const Descriptor first = openToRead(testMedia("plain.mov"));
    const Descriptor second = openToRead(testMedia("subtitles.mkv"));
    const Descriptor third = openToRead(testMedia("languages.mkv"));
    const Descriptor fourth = openToRead(testMedia("chapters.mp4"));
    const Descriptor destination(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    MergeRequest request;
    request.sources = {{first.number(), testMedia("plain.mov")},
                       {second.number(), testMedia("subtitles.mkv")},
                       {third.number(), testMedia("languages.mkv")},
                       {fourth.number(), testMedia("chapters.mp4")}};
    request.destination = destination.number();
    request.destinationPath = output.path();
    RecordingSink sink;
    const auto all = merge(request, sink).droppedTracks;
    const auto of = [&](std::size_t source) {
        std::vector<std::string> result;
        for (const DroppedTrack& each : all) {
            if (each.source == source) {
                result.push_back(each.kind + ": " + each.reason);
            }
        }
        return result;
    };
    EXPECT_THAT(of(0), IsEmpty());
    EXPECT_THAT(of(1), IsEmpty());
    EXPECT_THAT(of(2), ElementsAre("audio: the first source has fewer audio tracks"));
    EXPECT_THAT(of(3), IsEmpty());
}

TEST(Dropped, IsAnErrorOfAStrictConversionBeforeAnythingIsWritten) {
    const OutputPath much = movieWithMuch();
    const VideoRequest strict{.settings = "strict=1"};
    const AudioRequest strictAudio{.settings = "strict=1"};
    const Conversion lossy{.source = much.path(), .extension = "mov", .type = 0};
    Conversion request = lossy;
    request.video = strict;
    const auto failure = failureOf(request);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::WouldDropTrack);
    EXPECT_EQ(failure->subject, "flag of track 1");
    request.video = std::nullopt;
    request.audio = strictAudio;
    EXPECT_TRUE(failureOf(request));
    request.flatten = true;
    EXPECT_TRUE(failureOf(request));

    request = {.source = testMedia("plain.mov"), .extension = "mp4", .type = 1, .video = strict};
    EXPECT_FALSE(failureOf(request));
    request = lossy;
    request.video = VideoRequest{.settings = "strict=0"};
    EXPECT_FALSE(failureOf(request));
    request.video = VideoRequest{.settings = "strict=2"};
    EXPECT_EQ(failureOf(request)->cause, FailureCause::UnsupportedSetting);
}

}  // namespace
}  // namespace krv::media::test

#include <algorithm>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

struct Made {
    std::int32_t type;
    const char* extension;
    const char* video;     ///< codec
    const char* videoTag;  ///< empty: not checked
    const char* audio;
};

void PrintTo(const Made& one, std::ostream* out) {
    *out << "type " << one.type << " to " << one.extension;
}

class EncodingTypes : public testing::TestWithParam<Made> {};

TEST_P(EncodingTypes, UseTheCodecsOfTheirRow) {
    const Made& made = GetParam();
    const auto output = convert({.source = testMedia("plain.mov"), .extension = made.extension, .type = made.type});
    const Probe probe(output);
    ASSERT_EQ(probe.streams("video").size(), 1U);
    EXPECT_EQ(text(probe.video(), "codec_name"), made.video);
    if (*made.videoTag) {
        EXPECT_EQ(text(probe.video(), "codec_tag_string"), made.videoTag);
    }
    EXPECT_EQ(number(probe.video(), "width"), 320);
    EXPECT_EQ(number(probe.video(), "height"), 240);
    EXPECT_EQ(number(probe.video(), "nb_read_frames"), 50);
    ASSERT_EQ(probe.streams("audio").size(), 2U);
    for (const auto& audio : probe.streams("audio")) {
        EXPECT_EQ(text(audio, "codec_name"), made.audio);
    }
    EXPECT_NEAR(probe.duration(), 2.0, kFrame);
}

INSTANTIATE_TEST_SUITE_P(Encode, EncodingTypes,
                         testing::Values(Made{0, "mp4", "h264", "avc1", "aac"}, Made{0, "mkv", "h264", "", "aac"},
                                         Made{0, "webm", "vp9", "", "opus"}, Made{1, "mov", "h264", "avc1", "aac"},
                                         Made{1, "mp4", "h264", "avc1", "aac"}, Made{1, "m4v", "h264", "avc1", "aac"},
                                         Made{1, "mkv", "h264", "", "aac"}, Made{2, "mp4", "hevc", "hvc1", "aac"},
                                         Made{2, "mov", "hevc", "hvc1", "aac"}, Made{2, "mkv", "hevc", "", "aac"},
                                         Made{3, "mp4", "h264", "avc1", "aac"}, Made{3, "webm", "vp9", "", "opus"},
                                         Made{4, "mov", "prores", "apcn", "pcm_s16le"},
                                         Made{5, "webm", "vp9", "", "opus"}, Made{5, "mp4", "vp9", "vp09", "opus"},
                                         Made{6, "mp4", "av1", "av01", "opus"}, Made{6, "mkv", "av1", "", "opus"}));

struct MadeAudio {
    std::int32_t type;
    const char* source;
    const char* extension;
    const char* audio;
};

void PrintTo(const MadeAudio& one, std::ostream* out) {
    *out << one.source << " as type " << one.type << " to " << one.extension;
}

class AudioContainers : public testing::TestWithParam<MadeAudio> {};

TEST_P(AudioContainers, HoldTheAudioOnly) {
    const MadeAudio& made = GetParam();
    const auto output = convert({.source = testMedia(made.source), .extension = made.extension, .type = made.type});
    const Probe probe(output);
    EXPECT_TRUE(probe.streams("video").empty());
    ASSERT_FALSE(probe.streams("audio").empty());
    EXPECT_EQ(text(probe.audio(), "codec_name"), made.audio);
    EXPECT_NEAR(audioLength(output.path()), 2.0, kFrame);
}

INSTANTIATE_TEST_SUITE_P(
    Encode, AudioContainers,
    testing::Values(MadeAudio{7, "plain.mov", "m4a", "aac"}, MadeAudio{7, "plain.mov", "mp4", "aac"},
                    MadeAudio{7, "plain.mov", "mka", "aac"}, MadeAudio{7, "plain.mov", "wav", "pcm_s16le"},
                    MadeAudio{7, "sound24.wav", "wav", "pcm_s24le"}, MadeAudio{7, "plain.mov", "mp3", "mp3"},
                    MadeAudio{7, "plain.mov", "flac", "flac"}, MadeAudio{7, "plain.mov", "ogg", "opus"},
                    MadeAudio{7, "plain.mov", "webm", "opus"}, MadeAudio{0, "plain.mov", "wav", "pcm_s16le"},
                    MadeAudio{0, "plain.mov", "m4a", "aac"}, MadeAudio{0, "sound24.wav", "wav", "pcm_s24le"},
                    MadeAudio{3, "plain.mov", "flac", "flac"}, MadeAudio{1, "sound.wav", "mp4", "aac"},
                    MadeAudio{4, "sound24.wav", "mov", "pcm_s24le"}));

TEST(Encode, OriginalCopiesBitForBit) {
    const auto hash = [](const std::string& path) {
        return run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-c", "copy", "-f", "md5", "-"});
    };
    const auto output = convert({.source = testMedia("plain.mov"), .extension = "mp4", .type = 0});
    EXPECT_EQ(hash(output.path()), hash(testMedia("plain.mov")));
}

TEST(Encode, FlattenCopiesWhateverTheTypeAndPutsTheIndexInFront) {
    const auto output = convert({.source = testMedia("plain.mov"), .extension = "mov", .type = 5, .flatten = true});
    const Probe probe(output);
    EXPECT_EQ(text(probe.video(), "codec_name"), "h264");
    EXPECT_EQ(probe.streams("audio").size(), 2U);
    const std::string bytes = readFile(output.path());
    EXPECT_LT(bytes.find("moov"), bytes.find("mdat"));
    const std::string before = readFile(testMedia("plain.mov"));
    EXPECT_GT(before.find("moov"), before.find("mdat")) << "the source must have its index at the end";
}

/// Returns by how much the decoding time steps back at most from packet to packet, in seconds. The packets are in the
/// order in which they are in the file.
double largestStepBack(const std::string& path) {
    const auto json = nlohmann::json::parse(
        run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-show_entries", "packet=dts_time,pos", path}));
    std::vector<std::pair<double, double>> placed;
    for (const auto& packet : json.at("packets")) {
        placed.emplace_back(number(packet, "pos"), number(packet, "dts_time"));
    }
    std::sort(placed.begin(), placed.end());
    double largest = 0;
    for (std::size_t i = 1; i < placed.size(); ++i) {
        largest = std::max(largest, placed[i - 1].second - placed[i].second);
    }
    return largest;
}

TEST(Encode, FlattenInterleavesTracksThatFollowOneAnother) {
    const OutputPath source("mov");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-i", corpus("recording.mov"), "-map", "0", "-c", "copy",
               "-chunk_duration", "8000000", source.path()});
    ASSERT_GT(largestStepBack(source.path()), 5);
    const auto output = convert({.source = source.path(), .extension = "mov", .flatten = true});
    EXPECT_LT(largestStepBack(output.path()), 1.1);
    for (const char* stream : {"v:0", "a:0"}) {
        EXPECT_EQ(packetHashes(output.path(), stream), packetHashes(source.path(), stream)) << stream;
    }
}

class FastStart : public testing::TestWithParam<const char*> {};

TEST_P(FastStart, PutsTheIndexInFrontOfTheMedia) {
    const auto output = convert({.source = testMedia("plain.mov"), .extension = GetParam(), .type = 7});
    const std::string bytes = readFile(output.path());
    ASSERT_NE(bytes.find("moov"), std::string::npos);
    EXPECT_LT(bytes.find("moov"), bytes.find("mdat"));
}

INSTANTIATE_TEST_SUITE_P(Encode, FastStart, testing::Values("mov", "mp4", "m4v", "m4a"));

TEST(Encode, OriginalReplacesOnlyWhatTheContainerCannotHold) {
    const auto output = convert({.source = testMedia("late.mkv"), .extension = "mp4", .type = 0});
    const Probe probe(output);
    EXPECT_EQ(text(probe.video(), "codec_name"), "h264");
    EXPECT_EQ(text(probe.audio(), "codec_name"), "aac");  // it cannot hold the source's PCM
}

TEST(Encode, AMovieWithoutAudioStaysWithoutAudio) {
    const auto output = convert({.source = testMedia("silent.mp4")});
    EXPECT_TRUE(Probe(output).streams("audio").empty());
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 50);
}

TEST(Encode, AMovieOfOneFrameIsConverted) {
    for (const char* extension : {"mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1, 2, 5, 6}) {
            const auto output = convert({.source = testMedia("still.mov"), .extension = extension, .type = type});
            EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 1) << extension << type;
            EXPECT_NEAR(Probe(output).duration(), kFrame, 0.001) << extension << type;
        }
    }
}

TEST(Encode, AMovieOfTwoFramesIsConverted) {
    for (const std::int32_t type : {1, 2, 5, 6}) {
        const auto output = convert({.source = testMedia("two.mov"), .type = type});
        EXPECT_THAT(frameTimes(output.path()), testing::ElementsAre(0, testing::DoubleNear(kFrame, 0.001)));
    }
}

TEST(Encode, AnUnnamedDestinationIsAccepted) {
    const Descriptor source = openToRead(testMedia("plain.mov"));
    const Descriptor destination(open(testing::TempDir().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    EncodeRequest request;
    request.source = source.number();
    request.sourcePath = "plain.mov";
    request.destination = destination.number();
    request.destinationPath = "made.mp4";
    request.encodingType = 1;
    RecordingSink sink;
    encode(request, sink);
    EXPECT_EQ(number(Probe("/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(destination.number())).video(),
                     "nb_read_frames"),
              50);
}

TEST(Encode, TheOldContentOfTheDestinationIsTruncated) {
    const OutputPath output("mp4");
    writeFile(output.path(), std::string(3'000'000, 'x'));
    const Descriptor source = openToRead(testMedia("still.mov"));
    const Descriptor destination(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    EncodeRequest request;
    request.source = source.number();
    request.sourcePath = "still.mov";
    request.destination = destination.number();
    request.destinationPath = output.path();
    RecordingSink sink;
    encode(request, sink);
    EXPECT_LT(readFile(output.path()).size(), 100'000U);
    EXPECT_EQ(number(Probe(output).video(), "nb_read_frames"), 1);
}

TEST(Encode, ProgressRisesAndEndsAtOne) {
    for (const bool flatten : {false, true}) {
        RecordingSink sink;
        (void)convert({.source = testMedia("plain.mov"), .flatten = flatten}, sink);
        const auto& seen = sink.fractions;
        // Two seconds are copied within a few milliseconds, in which few reports are worth sending.
        ASSERT_GT(seen.size(), flatten ? 1U : 10U);
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_GE(seen.front(), 0);
        EXPECT_EQ(seen.back(), 1);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1.0), 1);
    }
}

}  // namespace
}  // namespace krv::media::test

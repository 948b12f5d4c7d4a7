#include <fcntl.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/StereoMix.h>

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;
constexpr double k3dB = 3.01;
constexpr double kSameLevel = 0.5;
constexpr double kSilent = -60;
constexpr double kTone = 440;

OutputPath mix(const std::string& source, const char* extension, ProgressSink& sink) {
    OutputPath output(extension);
    const Descriptor from = openToRead(source);
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    mixToStereo({from.number(), to.number(), source, output.path()}, sink);
    return output;
}

OutputPath mix(const std::string& source, const char* extension = "mov") {
    RecordingSink sink;
    return mix(testMedia(source), extension, sink);
}

void expectOneStereoTrack(const OutputPath& output, const char* codec = "aac") {
    const auto tracks = Probe(output).streams("audio");
    ASSERT_EQ(tracks.size(), 1U);
    EXPECT_EQ(text(tracks[0], "codec_name"), codec);
    EXPECT_EQ(number(tracks[0], "channels"), 2);
}

/// Returns the level of the tone in a channel of a source, away from its ends.
double sourceLevel(const char* source, std::size_t channel) {
    return decodedAudio(testMedia(source)).level(channel, kTone, 0.5, 1.5);
}

/// Returns the integrated loudness of the first audio track after EBU R 128, in LUFS.
double loudness(const std::string& path) {
    const std::string lines =
        run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:a:0", "-af",
             "ebur128=metadata=1,ametadata=mode=print:key=lavfi.r128.I:file=-", "-f", "null", "-"});
    const std::string key = "lavfi.r128.I=";
    return std::stod(lines.substr(lines.rfind(key) + key.size()));
}

struct Loudness {
    std::string source;
    double change;
};

TEST(StereoMix, IsAsLoudAsTheSource) {
    // The centre is in both channels at half its power, so speech stays as loud as it was. R 128 weighs surround channels
    // by 1.41, but in the mix they have half their power. So five independent channels of the same level change from
    // 3 + 2 * 1.41 to 4, which is -1.6 dB. A mix that is scaled down to avoid clipping would be 7.7 dB below that. The bound is
    // for the filter that R 128 begins with, which treats the tones of the channels differently by as much.
    for (const auto& [source, change] :
         {Loudness{testMedia("centre.mov"), 0}, Loudness{corpus("surround-ac3.mkv"), -1.63}}) {
        RecordingSink sink;
        const double measured = loudness(mix(source, "mov", sink).path()) - loudness(source);
        std::cout << "[ measured ] change of loudness " << measured << " LU\n";
        EXPECT_NEAR(measured, change, 0.5) << source;
    }
}

TEST(StereoMix, KeepsTheVideoBitForBit) {
    for (const char* source : {"centre.mov", "plain.mov", "flash-surround.mkv", "two-mono.mov"}) {
        for (const char* extension : {"mov", "mp4", "mkv"}) {
            const auto output = mix(source, extension);
            EXPECT_EQ(packetHashes(output.path(), "v:0"), packetHashes(testMedia(source), "v:0")) << source;
            expectOneStereoTrack(output);
            EXPECT_NEAR(Probe(output).duration(), Probe(testMedia(source)).duration(), kFrame) << source;
        }
    }
}

TEST(StereoMix, SpeechInTheCentreIsLoweredByThreeDecibelsOnly) {
    for (const char* source : {"centre.mov", "centre.ac3.mov"}) {
        const auto output = mix(source);
        expectOneStereoTrack(output);
        const DecodedAudio audio = decodedAudio(output.path());
        EXPECT_NEAR(audio.level(0, kTone, 0.5, 1.5), sourceLevel(source, 2) - k3dB, kSameLevel) << source;
        EXPECT_NEAR(audio.level(1, kTone, 0.5, 1.5), sourceLevel(source, 2) - k3dB, kSameLevel) << source;
    }
}

TEST(StereoMix, ALeftSurroundIsHeardOnTheLeftOnly) {
    struct Case {
        const char* source;
        std::size_t channel;
    };
    for (const auto& [source, channel] : {Case{"leftsurround.mov", 4}, Case{"leftback.mov", 4}}) {
        const auto output = mix(source);
        const DecodedAudio audio = decodedAudio(output.path());
        EXPECT_NEAR(audio.level(0, kTone, 0.5, 1.5), sourceLevel(source, channel) - k3dB, kSameLevel) << source;
        EXPECT_LT(audio.level(1, kTone, 0.5, 1.5), kSilent) << source;
    }
}

TEST(StereoMix, LowFrequencyEffectsAreDropped) {
    EXPECT_GT(sourceLevel("bass.mov", 3), -30);
    const auto output = mix("bass.mov");
    EXPECT_LT(decodedAudio(output.path()).peak(0, 1.9), 0.001);
}

TEST(StereoMix, OneMonoTrackIsHeardOnBothSides) {
    const auto output = mix("mono.mov");
    expectOneStereoTrack(output);
    const DecodedAudio audio = decodedAudio(output.path());
    EXPECT_NEAR(audio.level(0, kTone, 0.5, 1.5), sourceLevel("mono.mov", 0) - k3dB, kSameLevel);
    EXPECT_NEAR(audio.level(1, kTone, 0.5, 1.5), sourceLevel("mono.mov", 0) - k3dB, kSameLevel);
}

TEST(StereoMix, TracksOfDifferentRatesAreMixedInSync) {
    const auto output = mix("two-mono.mov");
    expectOneStereoTrack(output);
    const DecodedAudio audio = decodedAudio(output.path());
    const double first = sourceLevel("two-mono.mov", 0) - k3dB;
    EXPECT_NEAR(audio.level(0, kTone, 0.1, 0.9), first, kSameLevel);
    EXPECT_NEAR(audio.level(0, kTone, 1.1, 1.9), first, kSameLevel);
    EXPECT_LT(audio.level(0, 1000, 0.1, 0.98), kSilent);
    EXPECT_NEAR(audio.level(0, 1000, 1.02, 1.9), first, kSameLevel);
}

TEST(StereoMix, ADisabledTrackIsNotHeard) {
    const auto output = mix("disabled.mov");
    expectOneStereoTrack(output);
    const DecodedAudio audio = decodedAudio(output.path());
    EXPECT_GT(audio.level(0, kTone, 0.5, 1.5), -30);
    EXPECT_GT(audio.level(0, 1000, 0.5, 1.5), -30);
    EXPECT_LT(audio.level(0, 2000, 0.5, 1.5), kSilent);
}

TEST(StereoMix, OneLanguageIsHeardInContainersWhoseTracksAreAlternatives) {
    // Three tracks have the same tone. The second is the default.
    const auto output = mix("languages.mkv");
    expectOneStereoTrack(output);
    EXPECT_EQ(Probe(output).audio()["disposition"]["default"], 1);
    const double one = sourceLevel("languages.mkv", 0) - k3dB;
    EXPECT_NEAR(decodedAudio(output.path()).level(0, kTone, 0.5, 1.5), one, kSameLevel);
    EXPECT_THAT(tagOf(Probe(output).audio(), "language"), testing::AnyOf("deu", "ger"));
}

TEST(StereoMix, TheFirstLanguageIsHeardIfNoneIsTheDefault) {
    const OutputPath source("mkv");
    run({KRV_FFMPEG,
         "-v",
         "error",
         "-y",
         "-i",
         testMedia("plain.mov"),
         "-f",
         "lavfi",
         "-i",
         "sine=frequency=3000:sample_rate=48000:duration=2",
         "-map",
         "0:v",
         "-map",
         "0:a:0",
         "-map",
         "1:a",
         "-c:v",
         "copy",
         "-disposition:a",
         "0",
         "-default_mode",
         "passthrough",
         source.path()});
    RecordingSink sink;
    const auto output = mix(source.path(), "mp4", sink);
    expectOneStereoTrack(output);
    const DecodedAudio audio = decodedAudio(output.path());
    EXPECT_GT(audio.level(0, kTone, 0.5, 1.5), -30);
    EXPECT_LT(audio.level(0, 3000, 0.5, 1.5), kSilent);
}

TEST(StereoMix, NothingIsClippedAndOnlyWhatIsTooLoudIsLowered) {
    const auto output = mix("loud.mov");
    const DecodedAudio audio = decodedAudio(output.path());
    EXPECT_LT(audio.peak(0, 3.9), 1.0);
    EXPECT_NEAR(audio.level(0, kTone, 1.2, 1.8), -1.0, kSameLevel);
    // Left, centre and surround are in phase: 1 + 0.71 + 0.71 times.
    const double quiet = decodedAudio(testMedia("loud.mov")).level(0, kTone, 0.1, 0.9) + 7.66;
    EXPECT_NEAR(audio.level(0, kTone, 0.1, 0.9), quiet, kSameLevel);
    EXPECT_NEAR(audio.level(0, kTone, 3.0, 3.9), quiet, kSameLevel);
}

TEST(StereoMix, TheCeilingHoldsForEverySampleInALosslessCodec) {
    for (const char* source : {"loud.mov", "noisy.mov"}) {
        const auto output = mix(source, "flac");
        expectOneStereoTrack(output, "flac");
        EXPECT_LE(decodedAudio(output.path()).peak(0, 1.9), 0.8913) << source;
        EXPECT_GE(decodedAudio(output.path()).peak(0, 1.9), 0.85) << source;
    }
}

TEST(StereoMix, DenseMusicIsNotClippedByTheDecoder) {
    const auto output = mix("busy.mov");
    EXPECT_GT(decodedAudio(output.path()).peak(0, 1.9), 0.85);
    EXPECT_LT(decodedAudio(output.path()).peak(0, 1.9), 1.0);
}

TEST(StereoMix, TheBeepStaysInSyncWithTheFlash) {
    for (const char* source : {"flash-surround.mov", "flash-surround.mkv", "late.mkv"}) {
        for (const char* extension : {"mov", "mp4", "mkv"}) {
            const auto output = mix(source, extension);
            // In Matroska the priming packet of AAC shifts the whole movie by its length.
            const double before = beepTime(testMedia(source)) - flashTime(testMedia(source));
            EXPECT_NEAR(flashTime(output.path()), flashTime(testMedia(source)), kFrame) << source << extension;
            EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), before, 0.004) << source << extension;
        }
    }
}

TEST(StereoMix, StereoAudioIsCopied) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = mix("flash-stereo.mov", extension);
        EXPECT_EQ(packetHashes(output.path(), "a:0"), packetHashes(testMedia("flash-stereo.mov"), "a:0"));
        EXPECT_EQ(packetHashes(output.path(), "v:0"), packetHashes(testMedia("flash-stereo.mov"), "v:0"));
        EXPECT_NEAR(beepTime(output.path()) - flashTime(output.path()), 0, kFrame / 2) << extension;
    }
}

TEST(StereoMix, StereoAudioIsEncodedWhereTheContainerCannotHoldItsCodec) {
    const auto output = mix("flash-stereo.mov", "wav");
    expectOneStereoTrack(output, "pcm_s16le");
    EXPECT_NEAR(beepTime(output.path()), 1.0, 0.004);
}

TEST(StereoMix, AWebMovieGetsItsOwnCodec) {
    const auto output = mix("theora.webm", "webm");
    expectOneStereoTrack(output, "opus");
    EXPECT_EQ(packetHashes(output.path(), "v:0"), packetHashes(testMedia("theora.webm"), "v:0"));
}

TEST(StereoMix, KeepsChaptersTagsSubtitlesAndTheTrackTitle) {
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = mix("everything.mkv", extension);
        const Probe probe(output);
        expectOneStereoTrack(output);
        EXPECT_EQ(probe.tag("title"), "A plain movie");
        EXPECT_THAT(tagOf(probe.audio(), "language"), testing::AnyOf("deu", "ger"));
        ASSERT_EQ(probe.all().at("chapters").size(), 2U);
        EXPECT_EQ(tagOf(probe.all().at("chapters")[1], "title"), "Two");
        ASSERT_EQ(probe.streams("subtitle").size(), 1U);
        EXPECT_EQ(tagOf(probe.streams("subtitle")[0], "language"), "fra");
        const std::string lines =
            run({KRV_FFMPEG, "-v", "quiet", "-i", output.path(), "-map", "0:s:0", "-f", "srt", "-"});
        EXPECT_THAT(lines, testing::HasSubstr("Second line"));
    }
    EXPECT_EQ(tagOf(Probe(mix("everything.mkv", "mkv")).audio(), "title"), "The sound");
}

TEST(StereoMix, KeepsTheCoverOfASong) {
    const auto output = mix("cover.m4a", "m4a");
    expectOneStereoTrack(output);
    EXPECT_EQ(Probe(output).covers().size(), 1U);
}

TEST(StereoMix, AMovieWithoutAudioIsRefused) {
    try {
        (void)mix("silent.mp4");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::NoAudioTrack);
    }
}

TEST(StereoMix, VideoThatTheContainerCannotHoldIsRefused) {
    try {
        (void)mix("plain.mov", "webm");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.cause, FailureCause::ContainerCannotHold);
        EXPECT_EQ(failure.subject, "webm");
        EXPECT_EQ(failure.detail, "h264");
    }
}

TEST(StereoMix, ProgressRisesToOne) {
    RecordingSink sink;
    (void)mix(testMedia("loud.mov"), "mov", sink);
    ASSERT_GT(sink.fractions.size(), 5U);
    EXPECT_TRUE(std::is_sorted(sink.fractions.begin(), sink.fractions.end()));
    EXPECT_EQ(sink.fractions.back(), 1);
    EXPECT_EQ(std::count(sink.fractions.begin(), sink.fractions.end(), 1.0), 1);
}

}  // namespace
}  // namespace krv::media::test

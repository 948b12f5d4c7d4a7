// Movies whose owner has cut parts out. Editors for QuickTime movies only write down which parts are played; the
// footage stays in the file. No operation may bring it back.
#include <algorithm>

#include <fcntl.h>

#include <gmock/gmock.h>

#include "EditedMovie.h"
#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/StereoMix.h>

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

std::vector<int> together(std::vector<int> first, const std::vector<int>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// From a recording of eight seconds only four to six remain, then one to two.
OutputPath twoParts() {
    return editedMovie(corpus("recording.mov"), {{4, 6}, {1, 2}});
}
std::vector<int> framesOfTwoParts() {
    return together(numbersFrom(100, 149), numbersFrom(25, 49));
}

OutputPath mixed(const std::string& movie, const char* extension) {
    OutputPath output(extension);
    const Descriptor from = openToRead(movie);
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    RecordingSink sink;
    mixToStereo({from.number(), to.number(), movie, output.path()}, sink);
    return output;
}

/// The output plays the two parts and nothing else: each frame at its time, and each part with its own beeps.
void expectTwoParts(const std::string& output) {
    EXPECT_EQ(frameNumbers(output), framesOfTwoParts());
    EXPECT_NEAR(Probe(output).duration(), 3, kFrame);
    std::vector<double> times;
    for (std::size_t i = 0; i < framesOfTwoParts().size(); ++i) {
        times.push_back(static_cast<double>(i) * kFrame);
    }
    // Some containers move everything by the priming of the audio.
    auto shown = frameTimes(output);
    ASSERT_FALSE(shown.empty());
    const double start = shown.front();
    std::for_each(shown.begin(), shown.end(), [&](double& time) { time -= start; });
    EXPECT_THAT(shown, testing::Pointwise(testing::DoubleNear(0.0015), times));
    const auto audio = decodedAudio(output);
    for (const auto& [second, tone] : {std::pair(0, 900), std::pair(1, 1000), std::pair(2, 600)}) {
        EXPECT_GT(audio.level(0, tone, start + second + 0.03, start + second + 0.09), -10) << second;
        EXPECT_LT(audio.level(0, tone, start + second + 0.14, start + second + 0.2), -40) << second;
    }
    EXPECT_NEAR(beepTime(output, 1.5), start + 2, kFrame / 2);
}

TEST(SeveralEdits, PlayWhatIsLeftInEveryContainer) {
    const auto movie = twoParts();
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            SCOPED_TRACE(testing::Message() << extension << type);
            expectTwoParts(convert({.source = movie.path(), .extension = extension, .type = type}).path());
        }
    }
}

TEST(SeveralEdits, AreCopiedIfTheyBeginAtKeyFrames) {
    const auto movie = editedMovie(corpus("recording.mov"), {{4, 6}, {0, 2}});
    const auto expected = together(numbersFrom(100, 149), numbersFrom(0, 49));
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto output = convert({.source = movie.path(), .extension = extension, .type = 0});
        EXPECT_EQ(frameNumbers(output.path()), expected) << extension;
        const auto copied = packetHashes(output.path(), "v:0");
        EXPECT_THAT(packetHashes(corpus("recording.mov"), "v:0"), testing::IsSupersetOf(copied)) << extension;
        EXPECT_NEAR(Probe(output).duration(), 4, 2 * kFrame) << extension;
        const auto times = frameTimes(output.path());
        for (std::size_t i = 1; i < times.size(); ++i) {
            EXPECT_NEAR(times[i] - times[i - 1], kFrame, 0.0015) << extension << i;
        }
    }
}

TEST(SeveralEdits, OfVideoWithKeyFramesOnlyAreFlattened) {
    OutputPath recording("mov");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-i", corpus("counted8.mkv"), "-c:v", "prores_ks", recording.path()});
    const auto movie = editedMovie(recording.path(), {{4, 6}, {1, 2}});
    for (const char* extension : {"mov", "mkv"}) {
        const auto output = convert({.source = movie.path(), .extension = extension, .flatten = true});
        EXPECT_EQ(frameNumbers(output.path()), framesOfTwoParts()) << extension;
        EXPECT_EQ(packetHashes(output.path(), "v:0").size(), 75U) << extension;
    }
}

TEST(SeveralEdits, AreNotInTheOutputOfOriginal) {
    // Footage that was cut out may be private, so it must not even be stored. Every stored frame is played.
    const auto output = convert({.source = twoParts().path(), .extension = "mp4", .type = 0});
    EXPECT_EQ(packetHashes(output.path(), "v:0").size(), framesOfTwoParts().size());
    EXPECT_EQ(text(Probe(output).video(), "codec_name"), "h264");
}

TEST(SeveralEdits, PlayWhatIsLeftAfterMixingDown) {
    for (const char* extension : {"mov", "mp4"}) {
        SCOPED_TRACE(extension);
        expectTwoParts(mixed(twoParts().path(), extension).path());
    }
}

TEST(SeveralEdits, CannotBeFlattened) {
    const auto movie = twoParts();
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        const auto failure = failureOf({.source = movie.path(), .extension = extension, .flatten = true});
        ASSERT_TRUE(failure) << extension;
        EXPECT_EQ(failure->cause, FailureCause::EditsCannotBeCopied) << extension;
    }
}

TEST(SeveralEdits, PlayWhatIsLeftAfterMerging) {
    const auto movie = twoParts();
    for (const char* extension : {"mov", "mkv"}) {
        const auto output = join({movie.path(), movie.path()}, extension);
        EXPECT_EQ(frameNumbers(output.path()), together(framesOfTwoParts(), framesOfTwoParts())) << extension;
        EXPECT_NEAR(Probe(output).duration(), 6, kFrame) << extension;
        const auto alone = join({movie.path()}, extension);
        EXPECT_EQ(frameNumbers(alone.path()), framesOfTwoParts()) << extension;
    }
}

std::vector<double> timesOf(const std::string& movie, std::optional<std::int64_t> track) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    const auto times = interestingTimes({.source = source.number(), .sourcePath = movie, .track = track}, sink);
    std::vector<double> seconds;
    for (const std::int64_t value : times.values) {
        seconds.push_back(static_cast<double>(value) / times.timescale);
    }
    return seconds;
}

TEST(SeveralEdits, HaveInterestingTimesWithinTheMovie) {
    // The only key frame that is shown is the first frame. The second part begins at two seconds.
    EXPECT_THAT(timesOf(twoParts().path(), 0), testing::ElementsAre(0));
    EXPECT_THAT(timesOf(twoParts().path(), std::nullopt), testing::ElementsAre(0, 2));
}

TEST(SeveralEdits, AreDescribedByWhatIsLeft) {
    expectDescription(twoParts().path(), 3, 0.001, 100);
}

TEST(SeveralEdits, HaveThumbnailsOfWhatIsLeft) {
    std::vector<int> numbers;
    for (const NumberedThumbnail& one : numberedThumbnails(twoParts().path(), 6)) {
        numbers.push_back(one.number);
    }
    // The frames at 0.25, 0.75 ... 2.75 seconds.
    EXPECT_THAT(numbers, testing::ElementsAre(106, 118, 131, 143, 31, 43));
}

/// Only the middle of the recording remains, as after trimming on a telephone. Neither end is at a key frame.
OutputPath trimmed() {
    return editedMovie(corpus("recording.mov"), {{1.2, 3.12}});
}

TEST(ATrimmedMovie, PlaysWhatIsLeft) {
    const auto movie = trimmed();
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            const auto output = convert({.source = movie.path(), .extension = extension, .type = type});
            EXPECT_EQ(frameNumbers(output.path()), numbersFrom(30, 77)) << extension << type;
            EXPECT_NEAR(Probe(output).duration(), 1.92, kFrame) << extension << type;
        }
    }
    for (const char* extension : {"mov", "mp4", "mkv"}) {
        EXPECT_EQ(frameNumbers(mixed(movie.path(), extension).path()), numbersFrom(30, 77)) << extension;
        EXPECT_EQ(frameNumbers(join({movie.path()}, extension).path()), numbersFrom(30, 77)) << extension;
    }
}

TEST(ATrimmedMovie, HasInterestingTimesWithinTheMovie) {
    EXPECT_THAT(timesOf(trimmed().path(), std::nullopt), testing::ElementsAre(0, testing::DoubleNear(0.8, 0.001)));
}

TEST(ATrimmedMovie, IsFlattenedIntoContainersWithEdits) {
    const auto movie = trimmed();
    for (const char* extension : {"mov", "mp4"}) {
        const auto output = convert({.source = movie.path(), .extension = extension, .flatten = true});
        EXPECT_EQ(frameNumbers(output.path()), numbersFrom(30, 77)) << extension;
        EXPECT_NEAR(Probe(output).duration(), 1.92, kFrame) << extension;
        // It has been copied, and from the key frame before its beginning to its end only.
        const auto copied = packetHashes(output.path(), "v:0");
        EXPECT_LT(copied.size(), 85U);
        EXPECT_THAT(packetHashes(corpus("recording.mov"), "v:0"), testing::IsSupersetOf(copied));
    }
    const auto failure = failureOf({.source = movie.path(), .extension = "mkv", .flatten = true});
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->cause, FailureCause::EditsCannotBeCopied);
}

}  // namespace
}  // namespace krv::media::test

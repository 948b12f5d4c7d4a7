// Recordings whose clock jumps: parts that were joined byte by byte, and a clock that overflows. All of them play for
// eight seconds, as two hundred numbered frames with a beep at each full second.
#include <algorithm>
#include <cmath>

#include <fcntl.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/StereoMix.h>

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

class JumpingClock : public testing::TestWithParam<const char*> {
protected:
    static std::string movie() { return corpus(GetParam()); }
};

/// The output has all frames, one after another, and each beep comes with its frame.
void expectEverythingInSync(const std::string& output) {
    EXPECT_EQ(frameNumbers(output), numbersFrom(0, 199));
    const auto times = frameTimes(output);
    ASSERT_EQ(times.size(), 200U);
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_NEAR(times[i] - times[i - 1], kFrame, 0.0015) << i;
    }
    for (std::size_t second = 1; second < 8; ++second) {
        const double shown = times[25 * second];
        EXPECT_NEAR(beepTime(output, shown - 0.5), shown, kFrame) << "at " << second << " seconds";
    }
}

/// Most players play the audio of a movie as it is stored, one packet after another.
void expectAudioWithoutOverlaps(const std::string& output) {
    const auto json = nlohmann::json::parse(run({KRV_FFPROBE, "-v", "quiet", "-of", "json", "-select_streams", "a:0",
                                                 "-show_entries", "packet=pts_time", output}));
    const auto& packets = json.at("packets");
    ASSERT_GT(packets.size(), 300U);
    for (std::size_t i = 1; i < packets.size(); ++i) {
        EXPECT_GT(number(packets[i], "pts_time") - number(packets[i - 1], "pts_time"), 0.5 * 1024 / 48000) << i;
    }
}

TEST_P(JumpingClock, KeepsAllFramesAndTheirBeeps) {
    for (const char* extension : {"mp4", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            SCOPED_TRACE(testing::Message() << extension << type);
            const auto output = convert({.source = movie(), .extension = extension, .type = type});
            expectEverythingInSync(output.path());
            expectAudioWithoutOverlaps(output.path());
        }
    }
    const auto flattened = convert({.source = movie(), .extension = "mov", .flatten = true});
    expectEverythingInSync(flattened.path());
}

TEST_P(JumpingClock, StaysInSyncWithAMixThatCopiesTheVideo) {
    OutputPath output("mp4");
    const Descriptor from = openToRead(movie());
    const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    RecordingSink sink;
    mixToStereo({from.number(), to.number(), movie(), output.path()}, sink);
    expectEverythingInSync(output.path());
}

TEST_P(JumpingClock, DoesNotCountIntoTheDuration) {
    expectDescription(movie(), 8, 0.1, 0);
}

TEST_P(JumpingClock, HasThumbnailsOfAllItsParts) {
    const auto made = numberedThumbnails(movie(), 8);
    const Probe probe(movie());  // the audio starts a little before the video
    const double videoStart = number(probe.video(), "start_time") - number(probe.all().at("format"), "start_time");
    ASSERT_EQ(made.size(), 8U);
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_NEAR(made[i].time, static_cast<double>(i) + 0.5, 0.05);
        EXPECT_EQ(made[i].number, std::floor((made[i].time - videoStart) / kFrame + 1e-6)) << i;
    }
}

TEST_P(JumpingClock, HasInterestingTimesThatArePlayed) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie());
    const auto times = interestingTimes({.source = source.number(), .sourcePath = movie(), .track = {}}, sink);
    std::vector<double> seconds;
    for (const std::int64_t value : times.values) {
        seconds.push_back(static_cast<double>(value) / times.timescale);
    }
    // A key frame every two seconds. The audio may start before the first of them.
    std::vector<double> keys;
    std::copy_if(seconds.begin(), seconds.end(), std::back_inserter(keys), [](double time) { return time > 0.5; });
    EXPECT_THAT(keys, testing::Pointwise(testing::DoubleNear(0.1), {2.0, 4.0, 6.0}));
}

INSTANTIATE_TEST_SUITE_P(Every, JumpingClock,
                         testing::Values("spliced.ts", "resized.ts", "clock-jump.ts", "wrapped.ts"));

}  // namespace
}  // namespace krv::media::test

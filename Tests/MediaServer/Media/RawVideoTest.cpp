// Video without a container, which has no timestamps. Its frames are not stored in the order in which they are shown.
#include <fcntl.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/InterestingTimes.h>

namespace krv::media::test {
namespace {

constexpr double kFrame = 0.04;

class RawVideo : public testing::TestWithParam<const char*> {
protected:
    static std::string movie() { return corpus(GetParam()); }
};

void expectAllFrames(const std::string& output) {
    EXPECT_EQ(frameNumbers(output), numbersFrom(0, 199));
    std::vector<double> times;
    for (int i = 0; i < 200; ++i) {
        times.push_back(i * kFrame);
    }
    EXPECT_THAT(frameTimes(output), testing::Pointwise(testing::DoubleNear(0.0015), times));
}

TEST_P(RawVideo, KeepsAllFramesInOrder) {
    for (const char* extension : {"mp4", "mov", "mkv"}) {
        for (const std::int32_t type : {0, 1}) {
            SCOPED_TRACE(testing::Message() << extension << type);
            expectAllFrames(convert({.source = movie(), .extension = extension, .type = type}).path());
        }
        expectAllFrames(convert({.source = movie(), .extension = extension, .flatten = true}).path());
    }
}

TEST_P(RawVideo, IsDescribed) {
    expectDescription(movie(), 8, 0.001, 0);
}

TEST_P(RawVideo, HasThumbnails) {
    std::vector<int> numbers;
    for (const NumberedThumbnail& one : numberedThumbnails(movie(), 8)) {
        numbers.push_back(one.number);
    }
    EXPECT_THAT(numbers, testing::ElementsAre(12, 37, 62, 87, 112, 137, 162, 187));
}

TEST_P(RawVideo, HasInterestingTimes) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie());
    const auto times = interestingTimes({.source = source.number(), .sourcePath = movie(), .track = {}}, sink);
    std::vector<double> seconds;
    for (const std::int64_t value : times.values) {
        seconds.push_back(static_cast<double>(value) / times.timescale);
    }
    EXPECT_THAT(seconds, testing::Pointwise(testing::DoubleNear(0.001), {0.0, 2.0, 4.0, 6.0}));
}

INSTANTIATE_TEST_SUITE_P(Every, RawVideo, testing::Values("raw.h264", "raw.hevc"));

}  // namespace
}  // namespace krv::media::test

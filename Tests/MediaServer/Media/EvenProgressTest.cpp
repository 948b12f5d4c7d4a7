// Even progress allows an honest estimate of the remaining time. It rises in small steps, and about as far in the first
// half of the work as in the second.
#include <algorithm>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"

namespace krv::media::test {
namespace {

void expectEven(const std::vector<double>& fractions) {
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    double largest = fractions.front();
    for (std::size_t i = 1; i < fractions.size(); ++i) {
        largest = std::max(largest, fractions[i] - fractions[i - 1]);
    }
    EXPECT_LT(largest, 0.1);
    EXPECT_EQ(fractions.back(), 1);
}

TEST(EvenProgress, OfEncoding) {
    RecordingSink sink;
    (void)convert({.source = testMedia("long.mov"), .extension = "mp4", .type = 1}, sink);
    expectEven(sink.fractions);
}

TEST(EvenProgress, OfCopying) {
    // One megabyte in the first seconds and hardly anything after that. If progress followed time, copying would seem
    // to speed up at the end.
    OutputPath uneven("mov");
    (void)run({KRV_FFMPEG, "-v", "quiet", "-y", "-f", "lavfi", "-i",
               "testsrc2=size=320x240:rate=25:duration=20,noise=alls=60:allf=t:enable='lt(t,4)'", "-c:v", "mpeg4",
               "-q:v", "3", uneven.path()});
    RecordingSink sink;
    (void)convert({.source = uneven.path(), .extension = "mkv", .type = 0}, sink);
    expectEven(sink.fractions);
}

TEST(EvenProgress, OfMerging) {
    for (const bool copied : {true, false}) {
        RecordingSink sink;
        (void)join({"long.mov", copied ? "long.mov" : "plain.mov"}, "mov", false, sink);
        expectEven(sink.fractions);
    }
}

}  // namespace
}  // namespace krv::media::test

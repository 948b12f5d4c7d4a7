// Even progress allows an honest estimate of the remaining time. It rises in small steps, and about as far in the first
// half of the work as in the second.
#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"
#include "Numbers.h"

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

TEST(EvenProgress, OfEncodingARecordingWhoseClockJumps) {
    for (const char* movie : {"spliced.ts", "clock-jump.ts"}) {
        RecordingSink sink;
        (void)convert({.source = corpus(movie), .extension = "mp4", .type = 1}, sink);
        expectEven(sink.fractions);
    }
}

/// Compares every report with how much of the output has been written by then.
class WrittenSink : public ProgressSink {
public:
    void progress(double fraction) noexcept override {
        struct stat status {};
        reports.push_back({fraction, fstat(output, &status) == 0 ? static_cast<double>(status.st_size) : 0});
    }
    struct Report {
        double fraction;
        double written;  // in bytes
    };
    int output = -1;
    std::vector<Report> reports;
};

TEST(EvenProgress, DoesNotRunAheadOfTheEncoder) {
    // The encoder looks ahead by more than half of the movie, and its output is far larger than all buffers.
    for (const char* movie : {"raw.h264", "recording.mov", "wrapped.ts"}) {
        const std::string source = corpus(movie);
        const OutputPath output("mp4");
        const Descriptor from = openToRead(source);
        const Descriptor to(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
        WrittenSink sink;
        sink.output = to.number();
        EncodeRequest request;
        request.source = from.number();
        request.sourcePath = source;
        request.destination = to.number();
        request.destinationPath = output.path();
        request.encodingType = 3;
        request.video =
            VideoRequest{fourCC("avc1"), 0, 0, "width=1280:height=960:preset=veryfast:crf=1:rc-lookahead=120"};
        encode(request, sink);
        const double whole = sink.reports.back().written;
        ASSERT_GT(whole, 3e6);
        for (const auto& [fraction, written] : sink.reports) {
            EXPECT_LT(fraction, written / whole + 0.2) << movie;
        }
    }
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

// A source on a failing disk: some of its bytes cannot be read.
#include <atomic>
#include <cerrno>
#include <functional>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/StereoMix.h>
#include <MediaServer/Media/Thumbnails.h>

namespace {

/// The bytes of a file that the disk cannot read. Inode 0: none.
struct BadBytes {
    std::atomic<ino_t> inode{0};
    std::atomic<off_t> begin{0};
    std::atomic<off_t> end{0};
    std::atomic<int> failures{0};
};
BadBytes badBytes;

}  // namespace

/// Takes the place of the C library's function in this program.
extern "C" ssize_t pread(int file, void* buffer, size_t size, off_t offset) {
    using Function = ssize_t (*)(int, void*, size_t, off_t);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pread"));
    struct stat status {};
    if (badBytes.inode != 0 && ::fstat(file, &status) == 0 && status.st_ino == badBytes.inode &&
        offset < badBytes.end && offset + static_cast<off_t>(size) > badBytes.begin) {
        if (offset >= badBytes.begin) {
            ++badBytes.failures;
            errno = EIO;
            return -1;
        }
        size = static_cast<size_t>(badBytes.begin - offset);  // the disk returns what is before the bad sector
    }
    return real(file, buffer, size, offset);
}

namespace krv::media::test {
namespace {

/// A movie of several megabytes, whose data is spread evenly.
class UnreadableSource : public testing::TestWithParam<const char*> {
protected:
    UnreadableSource()
        : movie_(GetParam()) {
        (void)run({KRV_FFMPEG, "-v",    "quiet",      "-y",
                   "-f",       "lavfi", "-i",         "testsrc2=size=320x240:rate=25:duration=8,noise=alls=60:allf=t",
                   "-f",       "lavfi", "-i",         "sine=frequency=440:sample_rate=48000:duration=8",
                   "-ac",      "6",     "-c:v",       "mpeg4",
                   "-q:v",     "3",     "-g",         "25",
                   "-c:a",     "aac",   movie_.path()});
    }
    ~UnreadableSource() override { badBytes.inode = 0; }

    void breakDisk(double from, double to) {
        struct stat status {};
        ASSERT_EQ(::stat(movie_.path().c_str(), &status), 0);
        ASSERT_GT(status.st_size, 2 << 20);
        badBytes.begin = static_cast<off_t>(static_cast<double>(status.st_size) * from);
        badBytes.end = static_cast<off_t>(static_cast<double>(status.st_size) * to);
        badBytes.failures = 0;
        badBytes.inode = status.st_ino;
    }
    /// Expects that the operation fails because of the disk.
    static void expectUnreadable(const char* operation, const std::function<void()>& perform) {
        badBytes.failures = 0;
        try {
            perform();
            ADD_FAILURE() << operation << " ended without an error after " << badBytes.failures << " failed reads";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.cause, FailureCause::UnreadableSource) << operation << ": " << failure.what();
            EXPECT_EQ(failure.errorNumber, EIO) << operation;
        }
        EXPECT_GT(badBytes.failures, 0) << operation;
    }

    OutputPath movie_;
};

TEST_P(UnreadableSource, FailsEveryOperationThatReadsItToItsEnd) {
    breakDisk(0.4, 0.45);
    const std::string source = movie_.path();
    expectUnreadable("copy", [&] { (void)convert({.source = source, .extension = "mkv", .type = 0}); });
    expectUnreadable("encode", [&] { (void)convert({.source = source, .extension = "mp4", .type = 1}); });
    expectUnreadable("flatten", [&] { (void)convert({.source = source, .extension = "mov", .flatten = true}); });
    expectUnreadable("mix", [&] {
        const OutputPath output("mov");
        const Descriptor in = openToRead(source);
        const Descriptor out(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
        RecordingSink sink;
        mixToStereo({.source = in.number(),
                     .destination = out.number(),
                     .sourcePath = source,
                     .destinationPath = output.path()},
                    sink);
    });
    expectUnreadable("merge", [&] { (void)join({"plain.mov", source}); });
}

TEST_P(UnreadableSource, OfAMergeIsTheOneThatIsNamed) {
    breakDisk(0.4, 0.45);
    try {
        (void)join({"plain.mov", movie_.path()});
        ADD_FAILURE();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.source, 1U);
    }
}

TEST_P(UnreadableSource, FailsThumbnailsAndTheDescriptionThatNeedTheBadBytes) {
    breakDisk(0.05, 0.95);
    const std::string source = movie_.path();
    expectUnreadable("thumbnails", [&] {
        const OutputPath output("bin");
        const Descriptor in = openToRead(source);
        const Descriptor out(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
        RecordingSink sink;
        (void)makeThumbnails({.source = in.number(), .sourcePath = source, .destination = out.number(), .count = 6},
                             sink);
    });
    breakDisk(0.0, 1.0);
    expectUnreadable("description", [&] {
        const Descriptor in = openToRead(source);
        RecordingSink sink;
        (void)movieInfo({.source = in.number(), .sourcePath = source}, sink);
    });
    expectUnreadable("interesting times", [&] {
        const Descriptor in = openToRead(source);
        RecordingSink sink;
        (void)interestingTimes({.source = in.number(), .sourcePath = source, .track = {}}, sink);
    });
}

INSTANTIATE_TEST_SUITE_P(Containers, UnreadableSource, testing::Values("mov", "mkv", "ts"));

}  // namespace
}  // namespace krv::media::test

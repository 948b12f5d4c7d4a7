#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/Container/CuePoints.h>

namespace krv::media::test {
namespace {

using testing::ElementsAre;
using testing::Pair;

std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
    }
    return value;
}

/// Returns the chunks of a WAV file after its header of 12 bytes, or of a list, and checks that they fill it.
std::multimap<std::string, std::string> chunks(const std::string& bytes, std::size_t at) {
    std::multimap<std::string, std::string> found;
    while (at + 8 <= bytes.size()) {
        const std::size_t size = numberAt(bytes, at + 4);
        EXPECT_LE(at + 8 + size, bytes.size());
        found.emplace(bytes.substr(at, 4), bytes.substr(at + 8, size));
        at += 8 + size + size % 2;
    }
    EXPECT_EQ(at, bytes.size());
    return found;
}

/// Returns the titles of the marks in a WAV file by their samples.
std::map<std::uint32_t, std::string> marks(const std::string& path) {
    const std::string bytes = readFile(path);
    EXPECT_EQ(bytes.substr(0, 4), "RIFF");
    EXPECT_EQ(numberAt(bytes, 4) + 8, bytes.size());
    std::map<std::uint32_t, std::string> titles;
    for (const auto& [name, content] : chunks(bytes, 12)) {
        if (name == "LIST" && content.starts_with("adtl")) {
            for (const auto& [kind, label] : chunks(content, 4)) {
                EXPECT_EQ(kind, "labl");
                titles[numberAt(label, 0)] = label.substr(4, label.size() - 5);
            }
        }
    }
    std::map<std::uint32_t, std::string> result;
    for (const auto& [name, content] : chunks(bytes, 12)) {
        for (std::size_t i = 0; name == "cue " && i < numberAt(content, 0); ++i) {
            EXPECT_EQ(content.substr(4 + 24 * i + 8, 4), "data");
            EXPECT_EQ(numberAt(content, 4 + 24 * i + 4), numberAt(content, 4 + 24 * i + 20));
            result[numberAt(content, 4 + 24 * i + 20)] = titles[numberAt(content, 4 + 24 * i)];
        }
    }
    return result;
}

TEST(CuePoints, MarkTheChaptersInAWaveFile) {
    const auto output = convert({.source = testMedia("chapters.mp4"), .extension = "wav", .type = 7});
    EXPECT_THAT(marks(output.path()), ElementsAre(Pair(0, "One"), Pair(48000, "Two")));
    EXPECT_NEAR(audioLength(output.path()), 2, 0.05);
    EXPECT_EQ(Probe(output).tag("title"), "With chapters");
    EXPECT_TRUE(reportOf({.source = testMedia("chapters.mp4"), .extension = "wav", .type = 7}).droppedTracks.empty());
}

TEST(CuePoints, FollowATrim) {
    const auto output = convert({.source = testMedia("chapters.mp4"),
                                 .extension = "wav",
                                 .type = 7,
                                 .audio = AudioRequest{0, 0, "trimStart=0.5"}});
    EXPECT_THAT(marks(output.path()), ElementsAre(Pair(0, "One"), Pair(24000, "Two")));
}

TEST(CuePoints, MarkTheSourcesOfAMerge) {
    const auto output = join({"sound.wav", "sound.wav"}, "wav");
    EXPECT_THAT(marks(output.path()), ElementsAre(Pair(0, "sound"), Pair(96000, "sound")));
}

TEST(CuePoints, FollowSamplesOfAnOddLength) {
    const OutputPath odd("wav");
    const auto chapters = convert({.source = testMedia("chapters.mp4"),
                                   .extension = "wav",
                                   .type = 7,
                                   .audio = AudioRequest{fourCC("lpcm"), 0, "channels=1"}});
    EXPECT_EQ(marks(chapters.path()).size(), 2U);
    writeFile(odd.path(), std::string("RIFF\x0d\0\0\0WAVEdata\x01\0\0\0x", 21));
    const Descriptor file(open(odd.path().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(appendChunks(file.number(), std::string("more\x02\0\0\0ab", 10)));
    EXPECT_EQ(readFile(odd.path()), std::string("RIFF\x18\0\0\0WAVEdata\x01\0\0\0x\0more\x02\0\0\0ab", 32));
}

TEST(CuePoints, OfALongFileAreCountedInEightBytes) {
    const OutputPath output("wav");
    writeFile(output.path(), std::string("RF64\xff\xff\xff\xffWAVEds64\x1c\0\0\0", 20) + std::string(28, '\0'));
    const Descriptor file(open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    constexpr off_t kLong = off_t{5} << 30;
    ASSERT_EQ(ftruncate(file.number(), kLong), 0);
    ASSERT_TRUE(appendChunks(file.number(), "12345678"));
    std::string size(8, '\0');
    ASSERT_EQ(pread(file.number(), size.data(), size.size(), 20), 8);
    const std::uint64_t expected = kLong;  // with the new chunks, without the first eight bytes
    EXPECT_EQ(numberAt(size, 0), expected & 0xffffffff);
    EXPECT_EQ(numberAt(size, 4), expected >> 32);
    // A file that has no room for a long size stays as it is.
    ASSERT_EQ(pwrite(file.number(), "RIFF", 4, 0), 4);
    ASSERT_TRUE(appendChunks(file.number(), "12345678"));
    struct stat status {};
    ASSERT_EQ(fstat(file.number(), &status), 0);
    EXPECT_EQ(status.st_size, kLong + 8);
}

TEST(CuePoints, LeaveOutWhatDoesNotFit) {
    AVChapter late{}, early{};
    late.time_base = early.time_base = {1, 1};
    late.start = 100'000;
    const std::array<const AVChapter*, 2> both{&early, &late};
    EXPECT_EQ(numberAt(cueChunks(both, 48000), 8), 1U);
    const std::array<const AVChapter*, 1> none{&late};
    EXPECT_EQ(cueChunks(none, 48000), "");
}

}  // namespace
}  // namespace krv::media::test

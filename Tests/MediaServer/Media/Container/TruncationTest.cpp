#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <MediaServer/Media/Container/Truncation.h>

namespace krv::media {
namespace {

using namespace std::string_literals;

std::optional<std::int64_t> sizeOf(const std::string& file) {
    const auto readAt = [&file](std::int64_t offset, std::span<std::byte> bytes) {
        if (offset < 0 || static_cast<std::size_t>(offset) + bytes.size() > file.size()) {
            return false;
        }
        std::memcpy(bytes.data(), file.data() + offset, bytes.size());
        return true;
    };
    return declaredSize(readAt, static_cast<std::int64_t>(file.size()));
}

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
        text += static_cast<char>(value >> shift & 0xFF);
    }
    return text;
}
std::string box(const std::string& name, std::size_t contents) {
    return bigEndian(contents + 8, 4) + name + std::string(contents, 'x');
}
std::string matroska(const std::string& segmentSize) {
    return "\x1A\x45\xDF\xA3\x84"s + "head" + "\x18\x53\x80\x67" + segmentSize;
}

TEST(DeclaredSize, OfAWholeFileIsNotReported) {
    EXPECT_FALSE(sizeOf(box("ftyp", 12) + box("mdat", 100) + box("moov", 40)));
    EXPECT_FALSE(sizeOf(matroska("\x88") + "contents"));
    EXPECT_FALSE(sizeOf("RIFF\x0C\0\0\0AVI LISTabcd"s));
    EXPECT_FALSE(sizeOf("ID3 and other formats"));
    EXPECT_FALSE(sizeOf(""));
    EXPECT_FALSE(sizeOf("short"));
}

TEST(DeclaredSize, OfBoxesIsWhereTheLastOneEnds) {
    const std::string file = box("ftyp", 12) + box("moov", 40) + box("mdat", 100);
    const auto size = static_cast<std::int64_t>(file.size());
    for (const std::size_t cut : {1U, 50U, 99U, 100U}) {
        EXPECT_EQ(sizeOf(file.substr(0, file.size() - cut)), size) << cut;
    }
    const std::string large = box("ftyp", 12) + bigEndian(1, 4) + "mdat" + bigEndian(5'000'000'000, 8) + "data";
    EXPECT_EQ(sizeOf(large), 20 + 5'000'000'000);
}

TEST(DeclaredSize, IgnoresBoxesWithoutASizeAndWhatFollowsTheLastBox) {
    EXPECT_FALSE(sizeOf(box("ftyp", 12) + bigEndian(0, 4) + "mdat" + "to the end of the file"));
    EXPECT_FALSE(sizeOf(box("ftyp", 12) + box("moov", 40) + std::string(20, '\0')));
    EXPECT_FALSE(sizeOf(box("ftyp", 12) + box("moov", 40) + "\x7F\xFF\xFF\xFF\x01\x02\x03\x04 not a box"));
    EXPECT_FALSE(sizeOf(box("ftyp", 12) + bigEndian(7, 4) + "mdat"));
}

TEST(DeclaredSize, OfMatroskaIsThatOfItsSegment) {
    EXPECT_EQ(sizeOf(matroska("\x90") + "contents"), 9 + 4 + 1 + 16);
    EXPECT_EQ(sizeOf(matroska("\x01" + bigEndian(1'000'000, 7)) + "contents"), 9 + 4 + 8 + 1'000'000);
    EXPECT_FALSE(sizeOf(matroska("\xFF") + "a live recording"));
    EXPECT_FALSE(sizeOf(matroska("\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF") + "a live recording"));
    EXPECT_FALSE(sizeOf("\x1A\x45\xDF\xA3\x84headnot a segment"s));
    EXPECT_FALSE(sizeOf("\x1A\x45\xDF\xA3\0 bad number"s));
}

TEST(DeclaredSize, OfRIFFIsInItsHeader) {
    EXPECT_EQ(sizeOf("RIFF\xE8\x03\0\0WAVEfmt "s), 1008);
    EXPECT_FALSE(sizeOf("RIFF\xFF\xFF\xFF\xFFWAVEfmt "s));
    EXPECT_FALSE(sizeOf("RIFF\0\0\0\0WAVEfmt "s));
}

TEST(DeclaredSize, HugeNumbersDoNotOverflow) {
    EXPECT_GT(sizeOf(box("ftyp", 12) + bigEndian(1, 4) + "mdat" + bigEndian(~0ULL, 8) + "data"), 0);
    EXPECT_GT(sizeOf(matroska("\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFE") + "contents"), 0);
}

}  // namespace
}  // namespace krv::media

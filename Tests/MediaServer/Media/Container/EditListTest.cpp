#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "HandmadeBoxes.h"
#include <MediaServer/Media/Container/EditList.h>

namespace krv::media {
namespace {

using test::box;
using test::number;

std::string header(const std::string& type, std::uint32_t field) {
    return box(type, number(0, 12) + number(field, 4) + number(0, 60));
}

std::string edits(const std::vector<std::uint32_t>& lengths) {
    std::string list = number(0, 4) + number(lengths.size(), 4);
    for (const std::uint32_t length : lengths) {
        list += number(length, 4) + number(0, 4) + number(0x10000, 4);
    }
    return box("edts", box("elst", list));
}

MovieEdits parse(const std::string& bytes) {
    return parseMovieEdits(std::as_bytes(std::span(bytes)));
}

MovieEdits read(const std::string& file) {
    const auto readAt = [&file](std::int64_t offset, std::span<std::byte> bytes) {
        if (offset < 0 || static_cast<std::size_t>(offset) + bytes.size() > file.size()) {
            return false;
        }
        std::memcpy(bytes.data(), file.data() + offset, bytes.size());
        return true;
    };
    return readMovieEdits(readAt, static_cast<std::int64_t>(file.size()));
}

TEST(MovieEdits, BeginWhereThePreviousOnesEnd) {
    const auto found = parse(header("mvhd", 600) + box("trak", header("tkhd", 7) + edits({300, 1200, 60})));
    EXPECT_EQ(found.timeScale, 600U);
    ASSERT_EQ(found.tracks.size(), 1U);
    EXPECT_EQ(found.tracks[0].id, 7U);
    EXPECT_THAT(found.tracks[0].starts, testing::ElementsAre(0, 300, 1500));
}

TEST(MovieEdits, OfVersionOneListsHaveSixtyFourBits) {
    const std::string list = number(1, 1) + number(0, 3) + number(2, 4) + number(5'000'000'000, 8) + number(0, 12) +
                             number(1, 8) + number(0, 12);
    const auto found = parse(header("mvhd", 600) + box("trak", header("tkhd", 1) + box("edts", box("elst", list))));
    EXPECT_THAT(found.tracks.at(0).starts, testing::ElementsAre(0, 5'000'000'000));
}

TEST(MovieEdits, AreEmptyWithoutAnEditList) {
    const auto found = parse(header("mvhd", 600) + box("trak", header("tkhd", 1)));
    EXPECT_THAT(found.tracks.at(0).starts, testing::IsEmpty());
}

TEST(MovieEdits, AreCutOffIfTheCountExceedsTheList) {
    std::string list = number(0, 4) + number(0xffffffff, 4) + number(10, 4) + number(0, 8);
    const auto found = parse(header("mvhd", 600) + box("trak", header("tkhd", 1) + box("edts", box("elst", list))));
    EXPECT_THAT(found.tracks.at(0).starts, testing::ElementsAre(0));
}

TEST(MovieEdits, EndAtAnOverflow) {
    const std::string list = number(1, 1) + number(0, 3) + number(3, 4) + number(INT64_MAX, 8) + number(0, 12) +
                             number(INT64_MAX, 8) + number(0, 12) + number(1, 8) + number(0, 12);
    const auto found = parse(header("mvhd", 600) + box("trak", header("tkhd", 1) + box("edts", box("elst", list))));
    EXPECT_THAT(found.tracks.at(0).starts, testing::ElementsAre(0, INT64_MAX));
}

TEST(MovieEdits, OfMalformedBoxesAreEmpty) {
    for (const std::string& bytes :
         {std::string(), std::string("moo"), number(4, 4) + "mvhd", number(1, 4) + "mvhd", number(1000, 4) + "trak",
          box("mvhd", ""), box("mvhd", "x"), box("trak", box("tkhd", number(1, 1)))}) {
        const auto found = parse(bytes);
        EXPECT_EQ(found.timeScale, 0U);
        EXPECT_TRUE(found.tracks.empty());
    }
}

TEST(MovieEdits, AreFoundAfterOtherBoxes) {
    const std::string movie = header("mvhd", 90000) + box("trak", header("tkhd", 2) + edits({9}));
    const auto found = read(box("ftyp", "qt  ") + number(1, 4) + "mdat" + number(20, 8) + "abcd" + box("moov", movie));
    EXPECT_EQ(found.timeScale, 90000U);
    EXPECT_EQ(found.tracks.size(), 1U);
}

TEST(MovieEdits, OfTruncatedFilesAreEmpty) {
    const std::string file = box("ftyp", "qt  ") + box("moov", header("mvhd", 600));
    for (std::size_t length = 0; length < file.size(); ++length) {
        EXPECT_EQ(read(file.substr(0, length)).timeScale, 0U) << length;
    }
    EXPECT_EQ(read(file).timeScale, 600U);
}

/// A track of 1800 units with two edits, the second of which begins at 600.
std::string longTrack(std::uint32_t id) {
    const std::string track = number(0, 12) + number(id, 4) + number(0, 4) + number(1800, 4) + number(0, 60);
    return box("trak", box("tkhd", track) + edits({600, 1200}));
}
std::string movieOf(const std::string& tracks) {
    return box("mvhd", number(0, 12) + number(600, 4) + number(1800, 4) + number(0, 80)) + tracks;
}
std::uint64_t numberAt(const std::string& bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    }
    return value;
}
std::string shortened(std::string bytes, const std::vector<TrackEnd>& ends) {
    shortenTracks(std::as_writable_bytes(std::span(bytes)), ends);
    return bytes;
}
constexpr std::size_t kMovieLength = 8 + 16;

TEST(ShortenedTracks, EndWithinTheirLastEdit) {
    const std::string track = longTrack(7);
    const std::string short7 = shortened(movieOf(track), {{7, 2.5}});
    EXPECT_EQ(numberAt(short7, kMovieLength), 1500U);
    EXPECT_EQ(numberAt(short7, movieOf("").size() + 16 + 20), 1500U) << "the length of the track";
    const std::string list = short7.substr(short7.find("elst") + 4);
    EXPECT_EQ(numberAt(list, 8), 600U);
    EXPECT_EQ(numberAt(list, 8 + 12), 900U);
    EXPECT_EQ(short7.size(), movieOf(track).size());
}

TEST(ShortenedTracks, DoNotShortenOtherTracks) {
    const std::string movie = movieOf(longTrack(1) + longTrack(2));
    const std::string result = shortened(movie, {{2, 2.5}});
    EXPECT_EQ(numberAt(result, kMovieLength), 1800U) << "the first track still ends there";
    EXPECT_EQ(result.substr(0, movieOf(longTrack(1)).size()), movie.substr(0, movieOf(longTrack(1)).size()));
    EXPECT_NE(result, movie);
}

TEST(ShortenedTracks, NeverBecomeLonger) {
    const std::string movie = movieOf(longTrack(1));
    EXPECT_EQ(shortened(movie, {{1, 4}}), movie);
    EXPECT_EQ(shortened(movie, {{3, 1}}), movie);
}

TEST(ShortenedTracks, OfMalformedBoxesStayAsTheyAre) {
    const std::string movie = movieOf(longTrack(1));
    for (std::size_t length = 0; length < movie.size(); ++length) {
        EXPECT_EQ(shortened(movie.substr(0, length), {{1, 2.5}}).size(), length);
    }
}

}  // namespace
}  // namespace krv::media

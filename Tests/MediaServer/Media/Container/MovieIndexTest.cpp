#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "HandmadeBoxes.h"
#include "MediaTestKit.h"
#include <MediaServer/Media/Container/Boxes.h>
#include <MediaServer/Media/Container/MovieIndex.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

using test::box;
using test::Descriptor;
using test::number;
using test::OutputPath;

std::string table(const std::string& type, int field, const std::vector<std::uint64_t>& places) {
    std::string list = number(0, 4) + number(places.size(), 4);
    for (const std::uint64_t place : places) {
        list += number(place, field);
    }
    return box(type, list);
}

std::string track(std::uint32_t id, const std::string& places) {
    return box("trak", box("tkhd", number(0, 12) + number(id, 4) + number(0, 68)) +
                           box("mdia", box("minf", box("stbl", places))));
}

std::string moved(std::string movieBox, std::int64_t distance) {
    const bool fits = moveChunks(std::as_writable_bytes(std::span(movieBox)), distance);
    return fits ? movieBox : "does not fit";
}

TEST(MovieIndex, PlacesOfSamplesAreMovedInEveryTrack) {
    const auto index = [](std::uint64_t distance) {
        return track(1, table("stco", 4, {48 + distance, 100 + distance})) +
               track(2, table("co64", 8, {70 + distance, 5'000'000'000 + distance}));
    };
    EXPECT_EQ(moved(index(0), 1000), index(1000));
}

TEST(MovieIndex, APlaceThatDoesNotFitIsReported) {
    const std::string index = track(1, table("stco", 4, {48, 4'294'967'000}));
    EXPECT_NE(moved(index, 295), "does not fit");
    EXPECT_EQ(moved(index, 296), "does not fit");
}

TEST(MovieIndex, APlaceBeyondTheLargestOffsetIsReportedEvenIfTheSumWrapsAround) {
    const std::string index = track(1, table("co64", 8, {std::uint64_t{0} - 1000}));
    EXPECT_EQ(moved(index, 70'000), "does not fit");
}

TEST(MovieIndex, ATableThatClaimsToBeLongerThanItIsIsMovedAsFarAsItGoes) {
    const auto index = [](std::uint64_t place) {
        return track(1, box("stco", number(0, 4) + number(1000, 4) + number(place, 4)));
    };
    EXPECT_EQ(moved(index(48), 10), index(58));
}

TEST(MovieIndex, ItsSizeIsThatOfTheTracksThatAreAskedFor) {
    const std::string first = track(1, table("stco", 4, {48}));
    const std::string second = track(2, table("stco", 4, {48, 100}));
    const std::string file = box("ftyp", "isom") + box("moov", box("mvhd", "") + first + second);
    const auto readAt = [&](std::int64_t offset, std::span<std::byte> bytes) {
        std::memcpy(bytes.data(), file.data() + offset, bytes.size());
        return true;
    };
    const auto size = [&](const std::vector<int>& tracks) {
        return static_cast<std::size_t>(indexSize(readAt, static_cast<std::int64_t>(file.size()), tracks));
    };
    EXPECT_EQ(size({1, 2}), 16 + first.size() + second.size());
    EXPECT_EQ(size({2}), 16 + second.size());
}

/// A file with room for an index, whose places do not count the room.
class IndexMove : public testing::Test {
protected:
    /// Moves the index, and returns what the file is then.
    std::string moveInto(std::size_t roomSize, const std::string& behind = "") {
        const std::string start = box("ftyp", "isom");
        const IndexRoom room{static_cast<std::int64_t>(start.size()), static_cast<std::int64_t>(roomSize)};
        test::writeFile(file_.path(),
                        start + std::string(roomSize, '\0') + samples_ + index(start.size() + 8) + behind);
        const Descriptor descriptor(open(file_.path().c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(moveIndexToFront(descriptor.number(), room, [this](std::int64_t bytes) { bytesMoved_ += bytes; }), 0);
        return test::readFile(file_.path());
    }
    static std::string index(std::size_t place) { return box("moov", track(1, table("stco", 4, {place}))); }
    static std::string contents(std::size_t place) { return box("ftyp", "isom") + index(place); }

    OutputPath file_{"mp4"};
    const std::string samples_ = box("mdat", std::string(1000, 's'));
    const std::size_t size_ = index(0).size();
    std::int64_t bytesMoved_ = 0;
};

TEST_F(IndexMove, FillsTheRoomExactly) {
    EXPECT_EQ(moveInto(size_), contents(12 + size_ + 8) + samples_);
    EXPECT_EQ(bytesMoved_, 0);
}

TEST_F(IndexMove, LeavesAnEmptyBoxInARoomThatIsTooLarge) {
    EXPECT_EQ(moveInto(size_ + 100), contents(12 + size_ + 100 + 8) + box("free", std::string(92, '\0')) + samples_);
    EXPECT_EQ(bytesMoved_, 0);
}

TEST_F(IndexMove, MovesTheSamplesIfTheRoomIsTooSmall) {
    EXPECT_EQ(moveInto(size_ - 30), contents(12 + size_ + 8) + samples_);
    EXPECT_EQ(bytesMoved_, static_cast<std::int64_t>(samples_.size()));
}

TEST_F(IndexMove, MovesTheSamplesIfNoEmptyBoxFitsInWhatRemains) {
    EXPECT_EQ(moveInto(size_ + 5), contents(12 + size_ + 13 + 8) + box("free", std::string(5, '\0')) + samples_);
}

TEST_F(IndexMove, NeedsTheIndexAtTheEnd) {
    EXPECT_THROW((void)moveInto(size_, box("free", "")), Failure);
}

}  // namespace
}  // namespace krv::media

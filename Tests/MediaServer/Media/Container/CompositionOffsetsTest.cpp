#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "HandmadeBoxes.h"
#include <MediaServer/Media/Container/CompositionOffsets.h>

namespace krv::media {
namespace {

using test::box;
using test::number;
using testing::ElementsAre;
using testing::Optional;

constexpr std::uint32_t kTrack = 7;

/// A number of samples in a row, and their offset.
using Run = std::pair<std::uint32_t, std::int32_t>;

std::string offsetTable(const std::vector<Run>& runs, std::size_t claimed) {
    std::string list = number(0, 4) + number(claimed, 4);
    for (const auto& [samples, offset] : runs) {
        list += number(samples, 4) + number(static_cast<std::uint32_t>(offset), 4);
    }
    return box("ctts", list);
}

std::string offsetTable(const std::vector<Run>& runs) {
    return offsetTable(runs, runs.size());
}

std::string sizeTable(std::size_t samples) {
    return box("stsz", number(0, 8) + number(samples, 4));
}

std::string track(std::uint32_t id, const std::string& tables) {
    return box("trak", box("tkhd", number(0, 12) + number(id, 4) + number(0, 68)) +
                           box("mdia", box("minf", box("stbl", tables))));
}

auto offsets(const std::string& movieBox, const std::vector<std::size_t>& samples, std::size_t sampleCount = 10) {
    return compositionOffsets(std::as_bytes(std::span(movieBox)), kTrack, samples, sampleCount);
}

TEST(CompositionOffsets, AreThoseOfTheRunsThatContainTheSamples) {
    const std::string movie =
        track(1, sizeTable(10)) + track(kTrack, sizeTable(10) + offsetTable({{1, 20}, {2, 50}, {3, 0}, {4, -10}}));
    EXPECT_THAT(offsets(movie, {0, 2, 3, 5, 6, 9}), Optional(ElementsAre(20, 50, 0, 0, -10, -10)));
    EXPECT_THAT(offsets(movie, {}), Optional(ElementsAre()));
}

TEST(CompositionOffsets, AreZeroWithoutATable) {
    EXPECT_THAT(offsets(track(kTrack, sizeTable(10)), {0, 9}), Optional(ElementsAre(0, 0)));
    EXPECT_THAT(offsets(track(kTrack, box("stz2", number(8, 8) + number(10, 4))), {4}), Optional(ElementsAre(0)));
}

TEST(CompositionOffsets, NeedTheNumberOfSamplesThatIsExpected) {
    EXPECT_FALSE(offsets(track(kTrack, sizeTable(11)), {0}));
    EXPECT_FALSE(offsets(track(kTrack, ""), {0}));
    EXPECT_FALSE(offsets(track(kTrack, box("stsz", number(0, 8))), {0}));
    EXPECT_FALSE(offsets(track(1, sizeTable(10)), {0}));
    EXPECT_FALSE(offsets("", {0}));
}

TEST(CompositionOffsets, AreUnknownBeyondTheEndOfTheTable) {
    const auto of = [](const std::string& table) { return track(kTrack, sizeTable(10) + table); };
    EXPECT_FALSE(offsets(of(offsetTable({{5, 20}})), {4, 5}));
    EXPECT_FALSE(offsets(of(offsetTable({})), {0}));
    EXPECT_FALSE(offsets(of(box("ctts", "")), {0}));
    EXPECT_FALSE(offsets(of(offsetTable({{5, 20}}, 1'000'000)), {4, 5}));
    EXPECT_FALSE(offsets(of(offsetTable({{5, 20}, {5, 30}}, 1)), {4, 5}));
    EXPECT_THAT(offsets(of(offsetTable({{5, 20}}, 1'000'000)), {4}), Optional(ElementsAre(20)));
}

TEST(CompositionOffsets, SkipEmptyRuns) {
    EXPECT_THAT(offsets(track(kTrack, sizeTable(10) + offsetTable({{0, 1}, {5, 20}, {0, 2}, {5, 30}})), {0, 5}),
                Optional(ElementsAre(20, 30)));
}

TEST(CompositionOffsets, OfRunsWhoseLengthsExceedAnyMovieStillFindTheirSamples) {
    EXPECT_THAT(
        offsets(track(kTrack, sizeTable(10) + offsetTable({{1, 5}, {0xffffffff, 20}, {0xffffffff, 30}})), {0, 9}),
        Optional(ElementsAre(5, 20)));
}

TEST(CompositionOffsets, ThatAreImplausibleAreNotUsed) {
    constexpr std::int32_t kTooLarge = 1 << 28;
    for (const std::int32_t offset : {kTooLarge, -kTooLarge}) {
        EXPECT_FALSE(offsets(track(kTrack, sizeTable(10) + offsetTable({{10, offset}})), {0}));
    }
    EXPECT_THAT(offsets(track(kTrack, sizeTable(10) + offsetTable({{10, kTooLarge - 1}})), {0}),
                Optional(ElementsAre(kTooLarge - 1)));
}

}  // namespace
}  // namespace krv::media

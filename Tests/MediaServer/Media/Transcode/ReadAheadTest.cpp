#include <algorithm>
#include <cstdint>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../MediaTestKit.h"
#include <MediaServer/Media/Transcode/ReadAhead.h>

namespace krv::media::test {
namespace {

/// What identifies a packet: its stream, its decoding time and its length.
using Identity = std::tuple<int, std::int64_t, int>;

Identity identity(const AVPacket& packet) {
    return {packet.stream_index, packet.dts, packet.size};
}

/// A movie that is open for reading.
struct OpenMovie {
    explicit OpenMovie(const std::string& name)
        : file(openToRead(testMedia(name)))
        , source(file.number(), name, progress)
        , reader(source, allStreams(source)) {}

    static std::vector<std::size_t> allStreams(const Source& source) {
        std::vector<std::size_t> all(source.streamCount());
        for (std::size_t i = 0; i < all.size(); ++i) {
            all[i] = i;
        }
        return all;
    }

    Descriptor file;
    RecordingSink sink;
    Progress progress{sink};
    Source source;
    PartReader reader;
};

TEST(ReadAhead, ReturnsAllPacketsInOrder) {
    OpenMovie plain("longer.mov");
    std::vector<Identity> expected;
    for (const PacketPtr packet = newPacket(); plain.reader.read(*packet);) {
        expected.push_back(identity(*packet));
    }

    OpenMovie movie("longer.mov");
    std::vector<Identity> received;
    std::vector<double> positions;
    {
        ReadAhead ahead(movie.reader, movie.source);
        for (auto batch = ahead.next(); !batch.packets.empty(); batch = ahead.next()) {
            for (const PacketPtr& packet : batch.packets) {
                received.push_back(identity(*packet));
            }
            positions.push_back(batch.position);
        }
        EXPECT_THAT(ahead.next().packets, testing::IsEmpty());
    }
    EXPECT_EQ(received, expected);
    EXPECT_GT(positions.size(), 10U);
    EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end()));
    EXPECT_GT(positions.back(), 0.9);
}

TEST(ReadAhead, StopsReadingWhenItIsDestroyed) {
    OpenMovie movie("longer.mov");
    {
        ReadAhead ahead(movie.reader, movie.source);
        EXPECT_THAT(ahead.next().packets, testing::Not(testing::IsEmpty()));
    }
    EXPECT_LT(movie.source.bytePosition(), 0.9);
}

}  // namespace
}  // namespace krv::media::test

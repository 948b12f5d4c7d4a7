#include <array>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Shared/Hexval.h>
#include <KRVQTProcessClient/Shared/VideoConversion.h>

namespace krv {
namespace {

TEST(Hexval, IsLowerCaseWithoutSeparators) {
    const std::array<std::byte, 4> bytes{std::byte{0x00}, std::byte{0x1f}, std::byte{0xAB}, std::byte{0xff}};
    EXPECT_EQ(hexval(bytes), "001fabff");
    EXPECT_EQ(hexval({}), "");
}

TEST(VideoConversion, NamesEachType) {
    const std::vector<std::string_view> names{"Original",   "H.264", "HEVC", "Custom",
                                              "ProRes 422", "VP9",   "AV1",  "Audio Only"};
    for (std::size_t type = 0; type < names.size(); ++type) {
        EXPECT_EQ(VideoConversion::nameForType(static_cast<std::int32_t>(type)), names[type]);
        EXPECT_EQ(VideoConversion::types()[type].type, static_cast<std::int32_t>(type));
    }
    EXPECT_EQ(VideoConversion::nameForType(8), "Unknown");
    EXPECT_EQ(VideoConversion::nameForType(-1), "Unknown");
}

}  // namespace
}  // namespace krv

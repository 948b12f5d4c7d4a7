#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/VideoConversion.h>

namespace krv {
namespace {

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

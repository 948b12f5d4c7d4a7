#include <array>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Discovery/Hexval.h>

namespace krv {
namespace {

TEST(Hexval, IsLowerCaseWithoutSeparators) {
    const std::array<std::byte, 4> bytes{std::byte{0x00}, std::byte{0x1f}, std::byte{0xAB}, std::byte{0xff}};
    EXPECT_EQ(hexval(bytes), "001fabff");
    EXPECT_EQ(hexval({}), "");
}

}  // namespace
}  // namespace krv

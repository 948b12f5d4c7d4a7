#include <gtest/gtest.h>

#include <MediaServer/Media/Subtitles/FrameLayout.h>

namespace krv::media::test {
namespace {

FrameLayout turned(int quarterTurns, bool mirrored) {
    FrameLayout layout;
    layout.width = 4;
    layout.height = 3;
    layout.quarterTurns = quarterTurns;
    layout.mirrored = mirrored;
    return layout;
}

TEST(FrameLayout, FindsEveryPixelAgain) {
    for (int turns = 0; turns < 4; ++turns) {
        for (const bool mirrored : {false, true}) {
            const FrameLayout layout = turned(turns, mirrored);
            for (int y = 0; y < layout.height; ++y) {
                for (int x = 0; x < layout.width; ++x) {
                    const auto upright = layout.upright({x, y});
                    EXPECT_GE(upright.x, 0);
                    EXPECT_LT(upright.x, layout.uprightWidth());
                    EXPECT_GE(upright.y, 0);
                    EXPECT_LT(upright.y, layout.uprightHeight());
                    const auto stored = layout.stored(upright);
                    EXPECT_EQ(stored.x, x) << turns << mirrored;
                    EXPECT_EQ(stored.y, y) << turns << mirrored;
                }
            }
        }
    }
}

TEST(FrameLayout, TurnsClockwise) {
    const auto corner = [](int turns, bool mirrored = false) {
        const auto at = turned(turns, mirrored).upright({0, 0});
        return std::pair(at.x, at.y);
    };
    EXPECT_EQ(corner(0), std::pair(0, 0));
    EXPECT_EQ(corner(1), std::pair(2, 0));
    EXPECT_EQ(corner(2), std::pair(3, 2));
    EXPECT_EQ(corner(3), std::pair(0, 3));
    EXPECT_EQ(corner(0, true), std::pair(0, 2));
    EXPECT_EQ(corner(1, true), std::pair(0, 0));
}

TEST(FrameLayout, TurnsBoxes) {
    const Box box = turned(1, false).stored(Box{0, 0, 1, 2});
    EXPECT_EQ(box.x, 0);
    EXPECT_EQ(box.y, 2);
    EXPECT_EQ(box.width, 2);
    EXPECT_EQ(box.height, 1);
}

TEST(Boxes, AreJoinedUntilNoneOverlap) {
    EXPECT_TRUE(disjoint({}).empty());
    EXPECT_TRUE(disjoint({Box{3, 3, 0, 5}}).empty());
    EXPECT_EQ(disjoint({Box{0, 0, 2, 2}, Box{2, 0, 2, 2}}).size(), 2U);
    // The third overlaps the two others, which do not overlap each other.
    const auto joined = disjoint({Box{0, 0, 2, 2}, Box{8, 0, 2, 2}, Box{1, 1, 8, 5}, Box{20, 20, 1, 1}});
    ASSERT_EQ(joined.size(), 2U);
    EXPECT_EQ(joined[0].x, 0);
    EXPECT_EQ(joined[0].width, 10);
    EXPECT_EQ(joined[0].height, 6);
    const std::vector<Box> many(100, Box{5, 5, 1, 1});
    EXPECT_EQ(disjoint(many).size(), 1U);
}

TEST(FrameLayout, TurnsThePixelShape) {
    FrameLayout layout = turned(1, false);
    layout.pixelShape = {4, 3};
    EXPECT_DOUBLE_EQ(layout.uprightPixelShape(), 0.75);
    layout.quarterTurns = 2;
    EXPECT_DOUBLE_EQ(layout.uprightPixelShape(), 4.0 / 3);
    layout.pixelShape = {0, 1};
    EXPECT_DOUBLE_EQ(layout.uprightPixelShape(), 1);
}

}  // namespace
}  // namespace krv::media::test

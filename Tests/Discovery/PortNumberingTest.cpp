#include <gtest/gtest.h>

#include <KRVQTProcessClient/Discovery/PortNumbering.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace krv {
namespace {

class Ports : public testing::Test {
protected:
    ~Ports() override { set(nullptr, nullptr); }
    static void set(const char* minimum, const char* maximum) {
        const auto put = [](std::string_view key, const char* value) {
            if (value) {
                UserDefaults::standard().setString(key, value);
            } else {
                UserDefaults::standard().removeKey(key);
            }
        };
        put("minimumPortNumber", minimum);
        put("maximumPortNumber", maximum);
    }
    static std::pair<int, int> range() {
        return {PortNumbering::minimumPortNumber(), PortNumbering::maximumPortNumber()};
    }
};
using Range = std::pair<int, int>;

TEST_F(Ports, GoFrom8000To9000WithoutSettings) {
    set(nullptr, nullptr);
    EXPECT_EQ(range(), Range(8000, 9000));
    EXPECT_EQ(kMinPortNumber, 8000);
    EXPECT_EQ(kNumThreadsToStart, 20);
}

TEST_F(Ports, PrivilegedMinimaAreReplaced) {
    for (const char* low : {"1024", "0", "-5", "80", "text"}) {
        set(low, nullptr);
        EXPECT_EQ(range(), Range(8000, 9000)) << low;
    }
    set("1025", nullptr);
    EXPECT_EQ(range(), Range(1025, 2025));
}

TEST_F(Ports, NothingExceedsTheHighestPort) {
    set("70000", nullptr);
    EXPECT_EQ(range(), Range(65535, 65535));
    set("65000", nullptr);
    EXPECT_EQ(range(), Range(65000, 65535));
    set("8000", "99999");
    EXPECT_EQ(range(), Range(8000, 65535));
}

TEST_F(Ports, AMaximumBelowTheMinimumIsReplacedAndAnEqualOneKept) {
    set("9000", "8500");
    EXPECT_EQ(range(), Range(9000, 10000));
    set("9000", "9000");
    EXPECT_EQ(range(), Range(9000, 9000));
}

TEST_F(Ports, SettingsAreReadAtEveryCallAndNarrowedTo32Bits) {
    set("9000", nullptr);
    EXPECT_EQ(range(), Range(9000, 10000));
    set("9100", nullptr);
    EXPECT_EQ(range(), Range(9100, 10100));
    set("4294976296", nullptr);  // 2^32 + 9000
    EXPECT_EQ(range(), Range(9000, 10000));
}

}  // namespace
}  // namespace krv

// Texts whose hashes fall together would make writing them quadratic. The seed keeps them from being prepared.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/AtomTable.h>

namespace krv {
namespace {

/// Where a table of 4,096 places looks for the text first.
std::uint64_t placeOf(const std::string& text, std::uint64_t seed) {
    return plist::scan(text, seed).hash >> 32 & 0xFFF;
}

TEST(TextHash, TextsThatFallTogetherUnderOneSeedDoNotUnderAnother) {
    constexpr std::uint64_t kKnownSeed = 0x9E3779B97F4A7C15U;
    for (const char* const start : {"", "/Movies/", "a start that is longer than two words "}) {
        std::vector<std::string> together;
        for (int i = 0; together.size() < 200; ++i) {
            std::string text = start + std::to_string(i);
            if (placeOf(text, kKnownSeed) == 0) {
                together.push_back(std::move(text));
            }
        }
        for (const std::uint64_t seed : {kKnownSeed + 2, plist::hashSeed()}) {
            std::set<std::uint64_t> places;
            for (const std::string& text : together) {
                places.insert(placeOf(text, seed));
            }
            // 200 random places of 4,096 are 195 different ones.
            EXPECT_GT(places.size(), 150U) << start;
        }
    }
}

TEST(TextHash, EachProcessHasItsOwnSeed) {
    const std::string own = "seed " + std::to_string(plist::hashSeed()) + "\n";
    constexpr const char* kChild = "KRV_PRINT_HASH_SEED";
    if (::getenv(kChild)) {
        std::fputs(own.c_str(), stdout);
        return;
    }
    // The same program with this test only.
    const std::string command = fmt::format("{}=1 /proc/{}/exe --gtest_filter=TextHash.EachProcessHasItsOwnSeed "
                                            "--gtest_output= | grep '^seed '",
                                            kChild, ::getpid());
    const auto seedOfAnotherProcess = [&command] {
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(::popen(command.c_str(), "r"), &::pclose);
        std::array<char, 64> line{};
        EXPECT_TRUE(std::fgets(line.data(), line.size(), output.get()));
        return std::string(line.data());
    };
    EXPECT_EQ((std::set<std::string>{own, seedOfAnotherProcess(), seedOfAnotherProcess()}).size(), 3U);
    EXPECT_EQ(plist::hashSeed() % 2, 1U);
}

}  // namespace
}  // namespace krv

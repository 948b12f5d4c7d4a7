// A conversion that waits longer than its client waits for news. In real time, so only with KRV_SLOW=1.
#include <cstdlib>
#include <iostream>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class Stall : public Server {};

TEST_F(Stall, AConversionThatWaitsForMinutesIsNotGivenUp) {
    if (!std::getenv("KRV_SLOW")) {
        GTEST_SKIP() << "takes minutes; KRV_SLOW=1 runs it";
    }
    start();
    using Seconds = std::chrono::duration<double>;
    const auto now = [] { return std::chrono::steady_clock::now(); };
    // The server's own clients wait for nothing here: work is put in front until the last has waited long enough.
    const auto begun = now();
    const std::string lengthy = std::string(KRV_TEST_MEDIA) + "/longer.mov";
    std::vector<std::optional<std::string>> ahead;
    for (int i = 0; i < 100; ++i) {
        const auto name = fmt::format("ahead{}.mp4", i);
        ahead.push_back(ask(R::encodeVideoOperation(lengthy, out(name.c_str())))->uniqueID());
    }
    auto changed = now();
    Seconds longest{};
    Seconds waited{};
    bool released = false;
    float last = -1;
    observer->onProgress = [&](const R&, float progress) {
        if (progress != last) {
            longest = std::max(longest, Seconds(now() - changed));
            changed = now();
            last = progress;
        }
        if (!released && now() - begun > 100s) {
            released = true;
            waited = now() - begun;
            for (const auto& id : ahead) {
                (void)ask(R::cancelOperation(id));
            }
        }
        return true;
    };
    EXPECT_EQ(convert(movie(), out()), nullptr);
    ASSERT_TRUE(released) << "the work ahead was done too soon";
    EXPECT_GT(waited, Seconds(90));
    EXPECT_LT(longest, Seconds(60));
    std::cout << "[ measured ] waited " << waited.count() << " s; " << observer->seen.size()
              << " reports, the number stood still for " << longest.count() << " s at most\n";
}

}  // namespace
}  // namespace krv::server

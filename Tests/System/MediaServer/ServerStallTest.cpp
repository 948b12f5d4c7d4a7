// A conversion that is queued for longer than its client waits without progress. Runs in real time, so only if
// KRV_SLOW=1.
#include <cstdlib>
#include <iostream>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class Stall : public Server {};

TEST_F(Stall, AConversionThatIsQueuedForMinutesIsNotGivenUp) {
    if (!std::getenv("KRV_SLOW")) {
        GTEST_SKIP() << "takes minutes; KRV_SLOW=1 runs it";
    }
    start();
    using Seconds = std::chrono::duration<double>;
    const auto now = [] { return std::chrono::steady_clock::now(); };
    // Queues work ahead of the conversion until it has waited long enough.
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
              << " reports, progress did not change for " << longest.count() << " s at most\n";
}

}  // namespace
}  // namespace krv::server

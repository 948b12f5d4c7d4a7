// Conversions that make no progress: with a worker that has stopped, and in a queue for longer than the client waits.
// The latter runs in real time, so only if KRV_SLOW=1.
#include <cstdlib>
#include <iostream>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class Stall : public Server {};

TEST_F(Stall, AWorkerThatHasStoppedIsKilled) {
    start({"-workerStallLimit", "1"});
    std::ofstream(out()) << "old";
    const auto id = ask(R::encodeVideoOperation(std::string(KRV_TEST_MEDIA) + "/longer.mov", out()))->uniqueID();
    ASSERT_EQ(::kill(worker(), SIGSTOP), 0);
    R::Ref state;
    waitUntil([&] {
        state = ask(R::progressAndCompletionOperation(id));
        return state->completed() || state->error();
    });
    ASSERT_TRUE(state->error());
    EXPECT_EQ(state->error()->code(), 7);
    EXPECT_EQ(state->error()->localizedDescription(), "Cannot convert longer.mov: there was no progress for 1 second.");
    EXPECT_EQ(state->error()->localizedFailureReason(), "out of time: the worker reported nothing for 1 s");
    EXPECT_EQ(fs::file_size(out()), 3U);
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Stall, ATemplateThatHasStoppedDoesNotKeepTheServerFromExiting) {
    start();
    waitUntil([this] { return workers().size() == 2; });
    const pid_t stopped = children("KRVTemplate").at(0);
    ASSERT_EQ(::kill(stopped, SIGSTOP), 0);
    std::vector<std::string> ids;
    for (int i = 0; i < 3; ++i) {
        ids.push_back(ask(R::provideMetadataFor(movie()))->uniqueID().value_or(""));
    }
    // There are workers for two of them at most. The others wait for one until they are cancelled.
    const auto ended = [&](const std::string& id) {
        const auto state = ask(R::progressAndCompletionOperation(id));
        return state->completed() || state->error() || state->cancelled();
    };
    waitUntil([&] { return ended(ids[0]); });
    for (const std::string& id : ids) {
        (void)ask(R::cancelOperation(id));
        waitUntil([&] { return ended(id); });
    }
    EXPECT_EQ(children("KRVTemplate"), std::vector<pid_t>{stopped});
    const auto since = std::chrono::steady_clock::now();
    process->signal(SIGTERM);
    EXPECT_EQ(process->wait(), 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - since;
    std::cout << "[ measured ] exited " << took.count() << " s after the signal\n";
}

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

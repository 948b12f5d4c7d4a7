#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Guarded.h>

namespace krv {
namespace {

TEST(Guarded, StartsWithTheGivenOrTheDefaultValue) {
    EXPECT_EQ(Guarded<std::string>("first").get(), "first");
    EXPECT_EQ(Guarded<int>().get(), 0);
}

TEST(Guarded, SetReplacesAndExchangeReturnsTheOldValue) {
    Guarded<std::string> value("first");
    value.set("second");
    EXPECT_EQ(value.get(), "second");
    EXPECT_EQ(value.exchange("third"), "second");
    EXPECT_EQ(value.get(), "third");
}

TEST(Guarded, WithReturnsTheFunctionsResultAndReleasesTheMutexWhenItThrows) {
    Guarded<std::vector<int>> value;
    EXPECT_EQ(value.with([](std::vector<int>& v) {
        v.push_back(7);
        return v.size();
    }),
              1U);
    EXPECT_THROW(value.with([](std::vector<int>&) { throw std::runtime_error("failure"); }), std::runtime_error);
    EXPECT_EQ(std::as_const(value).with([](const std::vector<int>& v) { return v.front(); }), 7);
}

TEST(Guarded, AnOldValueIsDestroyedWithoutTheMutex) {
    struct Reader {
        Guarded<std::shared_ptr<Reader>>* owner;
        explicit Reader(Guarded<std::shared_ptr<Reader>>& o)
            : owner(&o) {}
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;
        ~Reader() { EXPECT_EQ(owner->get(), nullptr); }
    };
    Guarded<std::shared_ptr<Reader>> value;
    value.set(std::make_shared<Reader>(value));
    value.set(nullptr);
}

TEST(Guarded, LosesNoChangeOfSeveralThreads) {
    constexpr int kThreads = 4;
    constexpr int kChanges = 1000;
    Guarded<int> value;
    std::latch allRun(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            allRun.arrive_and_wait();
            for (int change = 0; change < kChanges; ++change) {
                value.with([](int& v) {
                    const int before = v;
                    std::this_thread::yield();  // lets another thread in if nothing keeps it out
                    v = before + 1;
                });
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(value.get(), kThreads * kChanges);
}

}  // namespace
}  // namespace krv

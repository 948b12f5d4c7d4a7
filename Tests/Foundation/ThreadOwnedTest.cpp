#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Foundation/KeyedUnarchiver.h>
#include <KRVQTProcessClient/Foundation/ThreadOwned.h>

namespace krv {
namespace {

struct Counter {
    int value = 0;
};

TEST(ThreadOwned, IsTheSameObjectForTheWholeThread) {
    threadOwned<Counter>()->value = 7;
    EXPECT_EQ(threadOwned<Counter>()->value, 7);
}

TEST(ThreadOwned, IsAnotherObjectOnAnotherThread) {
    threadOwned<Counter>()->value = 7;
    int there = -1;
    std::thread([&] { there = threadOwned<Counter>()->value; }).join();
    EXPECT_EQ(there, 0);
}

/// Calls something when the thread's objects are destroyed. Objects that are created later are destroyed before.
struct AtTheEndOfTheThread {
    std::function<void()> call;
    ~AtTheEndOfTheThread() { call(); }
};

TEST(ThreadOwned, IsNullWhileTheThreadsObjectsAreDestroyed) {
    std::optional<bool> wasNull;
    std::thread([&] {
        thread_local AtTheEndOfTheThread later{[&] { wasNull = !threadOwned<Counter>(); }};
        EXPECT_TRUE(threadOwned<Counter>());
    }).join();
    EXPECT_EQ(wasNull, true);
}

TEST(ThreadOwned, ArchivesCanBeMadeAndReadWhileTheThreadsObjectsAreDestroyed) {
    const Value value(Dictionary{{"key", "the last word"}});
    const auto roundTrip = [&value] { return KeyedUnarchiver::unarchive(KeyedArchiver::archivedData(value), {}); };
    Value before;
    Value after;
    std::thread([&] {
        thread_local AtTheEndOfTheThread later{[&] { after = roundTrip(); }};
        before = roundTrip();
    }).join();
    EXPECT_EQ(before, value);
    EXPECT_EQ(after, value);
}

}  // namespace
}  // namespace krv

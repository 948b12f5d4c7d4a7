#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
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

TEST(ThreadOwned, ArchivesCanBeMadeWhileTheThreadsObjectsAreDestroyed) {
    const Value value(std::string("the last word"));
    Data before;
    Data after;
    std::thread([&] {
        thread_local AtTheEndOfTheThread later{[&] { after = KeyedArchiver::archivedData(value); }};
        before = KeyedArchiver::archivedData(value);
    }).join();
    EXPECT_FALSE(before.empty());
    EXPECT_EQ(before, after);
}

}  // namespace
}  // namespace krv

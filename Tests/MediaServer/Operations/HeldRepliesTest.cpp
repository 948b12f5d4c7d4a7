#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include <MediaServer/Operations/HeldReplies.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

TEST(HeldReplies, AreSentWhenTheyAreReady) {
    HeldReplies held;
    std::atomic<bool> ready{false};
    std::promise<void> answered;
    held.hold(
        1h, [&] { return ready.load(); }, [&] { answered.set_value(); });
    held.checkAgain();
    ready = true;
    held.checkAgain();
    answered.get_future().wait();
}

TEST(HeldReplies, AreSentAtTheDeadline) {
    HeldReplies held;
    std::promise<void> answered;
    held.hold(
        1ms, [] { return false; }, [&] { answered.set_value(); });
    answered.get_future().wait();
}

TEST(HeldReplies, AreSentAtOnceIfTheyAreReady) {
    HeldReplies held;
    std::promise<void> answered;
    held.hold(
        1h, [] { return true; }, [&] { answered.set_value(); });
    answered.get_future().wait();
}

TEST(HeldReplies, AreSentByTheThreadThatBringsTheNews) {
    HeldReplies held;
    bool ready = false;
    std::thread::id sender;
    const auto hold = [&] {
        held.hold(
            1h, [&] { return ready; }, [&] { sender = std::this_thread::get_id(); });
    };
    hold();
    held.checkAgain();
    EXPECT_EQ(sender, std::thread::id());
    ready = true;
    held.checkAgain();
    EXPECT_EQ(sender, std::this_thread::get_id());
    sender = {};
    hold();
    EXPECT_EQ(sender, std::this_thread::get_id());
}

TEST(HeldReplies, AnEarlierDeadlineIsNotMissed) {
    HeldReplies held;
    held.hold(
        1h, [] { return false; }, [] {});
    std::promise<void> answered;
    held.hold(
        1ms, [] { return false; }, [&] { answered.set_value(); });
    answered.get_future().wait();
}

TEST(HeldReplies, AreSentByTheDestructor) {
    int answers = 0;
    {
        HeldReplies held;
        for (int i = 0; i < 10; ++i) {
            held.hold(
                1h, [] { return false; }, [&] { ++answers; });
        }
    }
    EXPECT_EQ(answers, 10);
}

TEST(HeldReplies, MayHoldAnotherReplyWhileTheyAreSent) {
    std::promise<void> answered;
    HeldReplies held;
    held.hold(
        1ms, [] { return false; },
        [&] {
            held.hold(
                1ms, [] { return false; }, [&] { answered.set_value(); });
        });
    answered.get_future().wait();
}

}  // namespace
}  // namespace krv::server

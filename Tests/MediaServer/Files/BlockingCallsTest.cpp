// Calls that block, and their threads.
#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <new>
#include <string>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "NoDescriptors.h"
#include "WaitUntil.h"
#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Files/MountTable.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using End = BlockingCalls::End;

/// A pipe that nothing is written to until the test releases its readers.
class Drive {
public:
    Drive() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        readEnd_ = std::make_shared<Descriptor>(ends[0]);
        writeEnd_.reset(ends[1]);
    }
    /// Returns a call that blocks in the kernel, and that owns something that is destroyed with it.
    [[nodiscard]] BlockingCalls::Call access() const {
        return [file = readEnd_, owned = owned_](const BlockingCalls::Report&) {
            char byte = 0;
            [[maybe_unused]] const auto count = ::read(file->get(), &byte, 1);
        };
    }
    [[nodiscard]] long owners() const { return owned_.use_count() - 1; }
    void respond() { writeEnd_.reset(); }

private:
    std::shared_ptr<Descriptor> readEnd_;
    Descriptor writeEnd_;
    std::shared_ptr<int> owned_ = std::make_shared<int>();
};

class Blocking : public testing::Test {
protected:
    ~Blocking() override {
        drive.respond();
        test::waitUntil([this] { return calls.abandoned() == 0; });
    }
    Drive drive;
    BlockingCalls calls{{.perDrive = 2, .all = 3}};
    const Descriptor cancellation{::eventfd(0, EFD_CLOEXEC)};
    const Descriptor cancelled{::eventfd(1, EFD_CLOEXEC)};
};

TEST_F(Blocking, ACallThatReturnsIsDestroyedBeforeItsCallerGoesOn) {
    const auto owned = std::make_shared<int>(1);
    int seen = 0;
    EXPECT_EQ(calls.run([owned, &seen](const BlockingCalls::Report&) { seen = *owned; }, {.limit = 20s}),
              End::Returned);
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_EQ(calls.abandoned(), 0U);
}

TEST_F(Blocking, WhatACallThrowsReachesItsCaller) {
    EXPECT_THROW((void)calls.run([](const BlockingCalls::Report&) { throw std::bad_alloc(); }, {.limit = 20s}),
                 std::bad_alloc);
    EXPECT_EQ(calls.abandoned(), 0U);
}

TEST_F(Blocking, ACallThatDoesNotReturnIsAbandonedAndCleansUpWhenItDoes) {
    EXPECT_EQ(calls.run(drive.access(), {.limit = 1ms}), End::TimedOut);
    EXPECT_EQ(calls.abandoned(), 1U);
    EXPECT_EQ(drive.owners(), 1);
    drive.respond();
    test::waitUntil([this] { return calls.abandoned() == 0; });
    EXPECT_EQ(drive.owners(), 0);
}

TEST_F(Blocking, ACancelledCallIsAbandoned) {
    EXPECT_EQ(calls.run(drive.access(), {.cancellation = cancelled.get()}), End::Cancelled);
    EXPECT_EQ(calls.abandoned(), 1U);
}

TEST_F(Blocking, ACancelledCallMayEndByItself) {
    EXPECT_EQ(calls.run(
                  [](const BlockingCalls::Report& report) {
                      while (report()) {
                          std::this_thread::yield();
                      }
                  },
                  {.cancellation = cancelled.get(), .afterCancellation = 1h}),
              End::Returned);
    EXPECT_EQ(calls.abandoned(), 0U);
}

TEST_F(Blocking, ACancelledCallCannotDecideAnyMore) {
    bool decided = true;
    EXPECT_EQ(calls.run(
                  [&](const BlockingCalls::Report& report) {
                      while (report()) {
                          std::this_thread::yield();
                      }
                      decided = report.decide();
                  },
                  {.cancellation = cancelled.get(), .afterCancellation = 1h}),
              End::Returned);
    EXPECT_FALSE(decided);
}

TEST_F(Blocking, ACancellationAfterTheDecisionComesTooLate) {
    const auto cancel = [this] {
        const std::uint64_t one = 1;
        EXPECT_EQ(::write(cancellation.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    };
    // The caller has seen the cancellation once it calls onReport after it.
    std::promise<void> seen;
    int reports = 0;
    EXPECT_EQ(calls.run(
                  [&](const BlockingCalls::Report& report) {
                      EXPECT_TRUE(report.decide());
                      cancel();
                      EXPECT_TRUE(report());
                      seen.get_future().wait();
                      EXPECT_TRUE(report());
                  },
                  {.cancellation = cancellation.get(),
                   .onReport =
                       [&] {
                           if (++reports == 1) {
                               seen.set_value();
                           }
                       }}),
              End::Returned);
}

TEST_F(Blocking, AnAbandonedCallThatCleansUpIsWaitedForAtTheEnd) {
    const auto cleaned = std::make_shared<std::atomic<bool>>(false);
    EXPECT_EQ(calls.run(
                  [cleaned](const BlockingCalls::Report& report) {
                      while (report()) {
                          std::this_thread::yield();
                      }
                      for (int i = 0; i < 100; ++i) {
                          (void)report();
                          std::this_thread::sleep_for(1ms);
                      }
                      *cleaned = true;
                  },
                  {.cancellation = cancelled.get(), .cleansUp = true}),
              End::Cancelled);
    calls.waitForCleanUp();
    EXPECT_TRUE(*cleaned);
}

TEST_F(Blocking, AnAbandonedCallThatHasCleanedUpIsNotWaitedFor) {
    const auto cleaned = std::make_shared<std::promise<void>>();
    EXPECT_EQ(calls.run(
                  [access = drive.access(), cleaned](const BlockingCalls::Report& report) {
                      report.cleanedUp();
                      cleaned->set_value();
                      access(report);
                  },
                  {.limit = 1ms, .cleansUp = true}),
              End::TimedOut);
    cleaned->get_future().wait();
    calls.waitForCleanUp();
    EXPECT_EQ(calls.abandoned(), 1U);
}

TEST_F(Blocking, AnAbandonedCallThatCannotCleanUpIsNotWaitedForInVain) {
    EXPECT_EQ(calls.run(drive.access(), {.cancellation = cancelled.get(), .cleansUp = true}), End::Cancelled);
    calls.waitForCleanUp();
    EXPECT_EQ(calls.abandoned(), 1U);
}

TEST_F(Blocking, ReportsReachTheCallersThreadAndKeepTheCallAlive) {
    const auto caller = std::this_thread::get_id();
    std::promise<void> first;
    auto seen = first.get_future();
    bool told = false;
    EXPECT_EQ(calls.run(
                  [&seen](const BlockingCalls::Report& report) {
                      EXPECT_TRUE(report());
                      seen.wait();
                  },
                  {.cancellation = cancellation.get(),
                   .limit = 1h,
                   .onReport =
                       [&] {
                           EXPECT_EQ(std::this_thread::get_id(), caller);
                           if (!std::exchange(told, true)) {
                               first.set_value();
                           }
                       }}),
              End::Returned);
    EXPECT_TRUE(told);
}

TEST_F(Blocking, ADelayIsReportedOnce) {
    int delays = 0;
    EXPECT_EQ(calls.run(drive.access(), {.limit = 1h,
                                         .onDelay =
                                             [&] {
                                                 ++delays;
                                                 drive.respond();
                                             }}),
              End::Returned);
    EXPECT_EQ(delays, 1);
}

TEST_F(Blocking, NoMoreThreadsAreAbandonedThanAllowed) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(calls.run(drive.access(), {.limit = 1ms}), End::TimedOut);
    }
    EXPECT_EQ(calls.run([](const BlockingCalls::Report&) { ADD_FAILURE(); }, {}), End::Refused);
    drive.respond();
    test::waitUntil([this] { return calls.abandoned() == 0; });
    EXPECT_EQ(calls.run([](const BlockingCalls::Report&) {}, {}), End::Returned);
}

TEST_F(Blocking, ADriveThatBlocksTooManyThreadsMayNotBeUsedUntilItResponds) {
    constexpr dev_t kDead = 1;
    constexpr dev_t kOther = 2;
    const auto mayUse = [this](dev_t drive) {
        bool may = false;
        EXPECT_EQ(calls.run([&](const BlockingCalls::Report& report) { may = report.mayUse(drive); }, {}),
                  End::Returned);
        return may;
    };
    const auto abandon = [&] {
        const auto access = drive.access();
        EXPECT_EQ(calls.run(
                      [access](const BlockingCalls::Report& report) {
                          report.uses(kDead);
                          access(report);
                          report.uses(kOther);
                      },
                      {.limit = 100ms}),
                  End::TimedOut);
    };
    abandon();
    EXPECT_TRUE(mayUse(kDead));
    abandon();
    EXPECT_FALSE(mayUse(kDead));
    EXPECT_TRUE(mayUse(kOther));
    EXPECT_TRUE(mayUse(MountTable::kUnknownDrive));
    drive.respond();
    test::waitUntil([this] { return calls.abandoned() == 0; });
    EXPECT_TRUE(mayUse(kDead));
    EXPECT_TRUE(mayUse(kOther));
}

TEST_F(Blocking, WithoutDescriptorsNothingIsRun) {
    const test::NoDescriptors none;
    EXPECT_EQ(calls.run([](const BlockingCalls::Report&) { ADD_FAILURE(); }, {}), End::NoThread);
}

TEST_F(Blocking, ThreadsBlockAllSignals) {
    sigset_t blocked{};
    EXPECT_EQ(calls.run([&](const BlockingCalls::Report&) { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }, {}),
              End::Returned);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(sigismember(&blocked, number), 1) << number;
    }
    sigset_t own{};
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGUSR1), 0);
}

TEST_F(Blocking, MeasuresAThread) {
    constexpr int kCalls = 2000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_EQ(calls.run([](const BlockingCalls::Report&) {}, {.limit = 20s}), End::Returned);
    }
    const auto each = (std::chrono::steady_clock::now() - start) / kCalls;
    std::cout << "[ measured ] " << std::chrono::duration<double, std::micro>(each).count() << " us per call\n";
}

}  // namespace
}  // namespace krv::server

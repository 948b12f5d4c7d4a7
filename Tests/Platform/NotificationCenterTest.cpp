#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>

namespace krv {
namespace {

using testing::ElementsAre;

class NotificationCenterTest : public testing::Test {
protected:
    NotificationCenter::Observer recorder(std::string text) {
        return [this, text = std::move(text)](const Notification&) { heard_.push_back(text); };
    }

    NotificationCenter center_;
    std::vector<std::string> heard_;
};

TEST_F(NotificationCenterTest, DeliversNameValueAndObject) {
    const auto object = std::make_shared<int>(7);
    Notification seen;
    (void)center_.addObserver("changed", [&](const Notification& n) { seen = n; });
    center_.post({"changed", Value(8001), object});
    EXPECT_EQ(seen.name, "changed");
    EXPECT_EQ(seen.value, Value(8001));
    EXPECT_EQ(seen.object, object);
}

TEST_F(NotificationCenterTest, CallsObserversOfThatNameInTheOrderOfAdding) {
    (void)center_.addObserver("a", recorder("first"));
    (void)center_.addObserver("b", recorder("other"));
    (void)center_.addObserver("a", recorder("second"));
    center_.post({"a", {}, {}});
    EXPECT_THAT(heard_, ElementsAre("first", "second"));
}

TEST_F(NotificationCenterTest, CallsObserversOnThePostingThread) {
    std::thread::id observed;
    (void)center_.addObserver("a", [&](const Notification&) { observed = std::this_thread::get_id(); });
    std::thread::id posted;
    std::thread([&] {
        posted = std::this_thread::get_id();
        center_.post({"a", {}, {}});
    }).join();
    EXPECT_EQ(observed, posted);
}

TEST_F(NotificationCenterTest, ARemovedObserverIsNotCalled) {
    const auto token = center_.addObserver("a", recorder("gone"));
    (void)center_.addObserver("a", recorder("stays"));
    center_.removeObserver(token);
    center_.removeObserver(token);
    center_.removeObserver({});
    center_.post({"a", {}, {}});
    EXPECT_THAT(heard_, ElementsAre("stays"));
}

TEST_F(NotificationCenterTest, AnObserverMayRemoveItselfAndOthersAndAddMore) {
    NotificationCenter::Token own;
    NotificationCenter::Token later;
    own = center_.addObserver("a", [&](const Notification&) {
        heard_.emplace_back("own");
        center_.removeObserver(own);
        center_.removeObserver(later);
        (void)center_.addObserver("a", recorder("new"));
    });
    later = center_.addObserver("a", recorder("later"));
    center_.post({"a", {}, {}});
    EXPECT_THAT(heard_, ElementsAre("own"));
    center_.post({"a", {}, {}});
    EXPECT_THAT(heard_, ElementsAre("own", "new"));
}

TEST_F(NotificationCenterTest, AnObserverMayPost) {
    (void)center_.addObserver("a", [&](const Notification&) { center_.post({"b", {}, {}}); });
    (void)center_.addObserver("b", recorder("b"));
    center_.post({"a", {}, {}});
    EXPECT_THAT(heard_, ElementsAre("b"));
}

TEST_F(NotificationCenterTest, AnObserversDestructorMayCallTheCentre) {
    struct Poster {
        explicit Poster(NotificationCenter& told)
            : center(told) {}
        NotificationCenter& center;
        ~Poster() { center.post({"b", {}, {}}); }
    };
    auto poster = std::make_shared<Poster>(center_);
    const auto token = center_.addObserver("a", [poster](const Notification&) {});
    poster.reset();
    (void)center_.addObserver("b", recorder("b"));
    center_.removeObserver(token);
    EXPECT_THAT(heard_, ElementsAre("b"));
}

TEST_F(NotificationCenterTest, AnObserversExceptionStopsDeliveryAndIsLogged) {
    const LogRecorder log;
    (void)center_.addObserver("a", [](const Notification&) { throw Exception("Observer", "the reason"); });
    (void)center_.addObserver("a", recorder("after"));
    (void)center_.addObserver("b", [](const Notification&) { throw std::runtime_error("another reason"); });
    (void)center_.addObserver("c", [](const Notification&) { throw 3; });
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_NO_THROW(center_.post({name, {}, {}}));
    }
    EXPECT_TRUE(heard_.empty());
    EXPECT_THAT(log.texts(), ElementsAre("Exception in an observer of a: Observer: the reason",
                                         "Exception in an observer of b: another reason",
                                         "Exception of an unknown kind in an observer of c"));
    for (const LogRecorder::Line& line : log.lines()) {
        EXPECT_EQ(line.flag, kLogFlagError);
    }
}

TEST_F(NotificationCenterTest, AnEmptyObserverIsNeverCalled) {
    (void)center_.addObserver("a", nullptr);
    EXPECT_NO_THROW(center_.post({"a", {}, {}}));
}

TEST_F(NotificationCenterTest, IsThreadSafe) {
    std::atomic<int> told{0};
    const auto work = [&] {
        for (int i = 0; i < 200; ++i) {
            const auto token = center_.addObserver("a", [&](const Notification&) { ++told; });
            center_.post({"a", {}, {}});
            center_.removeObserver(token);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_GE(told, 400);
    told = 0;
    center_.post({"a", {}, {}});
    EXPECT_EQ(told, 0);
}

TEST_F(NotificationCenterTest, TheDefaultCenterIsASingleton) {
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

}  // namespace
}  // namespace krv

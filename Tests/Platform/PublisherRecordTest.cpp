#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Fakes/FakeProcessTable.h>
#include <KRVQTProcessClient/Platform/MulticastDNS/PublisherRecord.h>

namespace krv {
namespace {

using Text = std::vector<std::string>;

class Publisher : public testing::Test {
protected:
    Publisher() { processes.add({4711, "KRVQuicktimeProcess", 1000, 99}); }
    bool isDead(const Text& text) const { return publisherIsDead(text, processes); }
    FakeProcessTable processes;
};

TEST_F(Publisher, RecordsItsProcess) {
    EXPECT_EQ(publisherRecord({"name", 8000, 4711, 99, 5, "1.2.3"}),
              (Text{"pid=4711", "start=99", "pidns=5", "version=1.2.3"}));
}

TEST_F(Publisher, IsElsewhereInAnotherPidNamespace) {
    EXPECT_TRUE(publisherIsElsewhere(Text{"pid=1", "pidns=5"}, 6));
    EXPECT_FALSE(publisherIsElsewhere(Text{"pid=1", "pidns=5"}, 5));
    for (const Text& text : {Text{}, Text{"pidns="}, Text{"pidns=x"}, Text{"pid=5"}}) {
        EXPECT_FALSE(publisherIsElsewhere(text, 6));
    }
}

TEST_F(Publisher, NamesItsVersion) {
    EXPECT_EQ(publisherVersion(Text{"pid=1", "version=1.2"}), "1.2");
    EXPECT_EQ(publisherVersion(Text{"pid=1", "version"}), "");
}

TEST_F(Publisher, IsAliveWhileItsProcessRuns) {
    EXPECT_FALSE(isDead({"pid=4711", "start=99"}));
    EXPECT_FALSE(isDead({"other=1", "start=99", "pid=4711"}));
}

TEST_F(Publisher, IsDeadAfterItsProcessExits) {
    EXPECT_TRUE(isDead({"pid=4712", "start=99"}));
}

TEST_F(Publisher, IsDeadWhenAnotherProcessHasItsId) {
    EXPECT_TRUE(isDead({"pid=4711", "start=100"}));
}

TEST_F(Publisher, WithAnotherRecordIsNotDead) {
    for (const Text& text : std::vector<Text>{{},
                                              {"pid=4712"},
                                              {"start=1"},
                                              {"pid=", "start="},
                                              {"pid=x", "start=1"},
                                              {"pid=99999999999999999999", "start=1"},
                                              {"pid=4712 ", "start=1"},
                                              {"PID=4712", "start=1"},
                                              {std::string("pid=4712\0", 9), "start=1"}}) {
        EXPECT_FALSE(isDead(text));
    }
}

TEST_F(Publisher, RecordOfThisProcessIsCorrect) {
    const auto self = serviceRecordOfThisProcess("name", 8000);
    ASSERT_TRUE(self);
    EXPECT_FALSE(publisherIsDead(publisherRecord(*self), ProcessTable::ofThisUser()));
    EXPECT_FALSE(publisherIsElsewhere(publisherRecord(*self), pidNamespace()));
}

}  // namespace
}  // namespace krv

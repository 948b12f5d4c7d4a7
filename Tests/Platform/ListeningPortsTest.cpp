#include <fstream>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/ListeningPorts.h>
#include <KRVQTProcessClient/Platform/Linux/PublishedName.h>

namespace krv {
namespace {

constexpr const char* kTable =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
    "   0: 0100007F:1F40 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 29561 1 0000 100 0 0 "
    "10 0\n"
    "   1: 0100007F:1F41 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1001        0 29562 1 0000 100 0 0 "
    "10 0\n"
    "   2: 0100007F:1F42 0100007F:D431 01 00000000:00000000 00:00000000 00000000  1000        0 29563 1 0000 100 0 0 "
    "10 0\n";

TEST(ListeningPorts, AListenerCountsForItsUserOnly) {
    EXPECT_TRUE(tableHasListener(kTable, 8000, 1000));
    EXPECT_FALSE(tableHasListener(kTable, 8000, 1001));
    EXPECT_TRUE(tableHasListener(kTable, 8001, 1001));
    EXPECT_FALSE(tableHasListener(kTable, 8005, 1000));
}

TEST(ListeningPorts, AnEstablishedConnectionIsNoListener) {
    EXPECT_FALSE(tableHasListener(kTable, 8002, 1000));
}

TEST(ListeningPorts, ReadsTheLongAddressesOfTheOtherFamily) {
    EXPECT_TRUE(tableHasListener("   0: 00000000000000000000000001000000:1F40 00000000000000000000000000000000:0000 0A "
                                 "00000000:00000000 00:00000000 00000000     0        0 1 1 0 100 0 0 10 0",
                                 8000, 0));
}

TEST(ListeningPorts, PassesOverWhatItCannotRead) {
    for (const char* table : {"", "\n\n", "x", "0: 0100007F 0 0A", "0: 0100007F:1F40 0 0A 0 0 0",
                              "0: 0100007F:ZZZZ 00000000:0000 0A 0 0 0 1000", "0: :1F40 0 0A 0 0 0 10x"}) {
        EXPECT_FALSE(tableHasListener(table, 8000, 1000)) << table;
    }
}

TEST(PublishedName, DropsTheNumberOfAConflict) {
    EXPECT_EQ(publishedName("KRVQuicktimeProcess #2"), "KRVQuicktimeProcess");
    EXPECT_EQ(publishedName("00ff-KRVQuicktimeProcess #12"), "00ff-KRVQuicktimeProcess");
    EXPECT_EQ(publishedName("plain"), "plain");
    EXPECT_EQ(publishedName("a #b"), "a #b");
    EXPECT_EQ(publishedName("a #"), "a #");
    EXPECT_EQ(publishedName("a #02"), "a #02");
    EXPECT_EQ(publishedName(" #2"), " #2");
    EXPECT_EQ(publishedName(""), "");
}

}  // namespace
}  // namespace krv

#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

namespace krv {
namespace {

TEST(ServerIdentity, ReadsTheMajorVersion) {
    EXPECT_EQ(majorVersion("0.1.0"), 0);
    EXPECT_EQ(majorVersion("12.3"), 12);
    EXPECT_EQ(majorVersion("7"), 7);
    for (const char* text : {"", ".", "x", "-1.0", "+1", " 1", "1x", "99999999999.0"}) {
        EXPECT_EQ(majorVersion(text), -1) << text;
    }
}

TEST(ServerIdentity, AcceptsItsOwnMajorVersionOnly) {
    const int major = majorVersion(buildVersion());
    ASSERT_GE(major, 0);
    EXPECT_TRUE(isCompatibleVersion(buildVersion()));
    EXPECT_TRUE(isCompatibleVersion(fmt::format("{}.999.3", major)));
    EXPECT_FALSE(isCompatibleVersion(fmt::format("{}.1.0", major + 1)));
    EXPECT_FALSE(isCompatibleVersion(""));
}

TEST(ServerIdentity, KnowsTheHeaderOfOurServer) {
    EXPECT_TRUE(isCompatibleServer(fmt::format("KRVQuicktimeProcess/{}", buildVersion())));
    for (const std::string& text :
         {std::string(), std::string("KRVQuicktimeProcess"), std::string("KRVQuicktimeProcess/"),
          std::string("KRVQuicktimeProcess/x"), fmt::format("Krvquicktimeprocess/{}", buildVersion()),
          fmt::format("KRVQuicktimeProcess {}", buildVersion()),
          fmt::format("x KRVQuicktimeProcess/{}", buildVersion())}) {
        EXPECT_FALSE(isCompatibleServer(text)) << text;
    }
}

TEST(ServerIdentity, NamesFilesByPidNamespace) {
    const std::string name = serverFileName(".lock");
    EXPECT_EQ(name.find("KRVQuicktimeProcess"), 0U);
    EXPECT_TRUE(name.ends_with(".lock"));
    EXPECT_EQ(name.find(std::to_string(pidNamespace())) == std::string::npos, pidNamespace() == kFirstPidNamespace);
}

}  // namespace
}  // namespace krv

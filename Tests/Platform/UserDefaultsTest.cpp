#include <cstdlib>
#include <filesystem>
#include <thread>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/UserDefaults.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv {
namespace {

constexpr std::string_view kKey = "minimumPortNumber";

class UserDefaultsTest : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("XDG_CONFIG_HOME", folder_.path().c_str(), 1);
        defaults_.setDomain("org.example.Editor");
    }
    void TearDown() override {
        defaults_.removeKey(kKey);
        defaults_.setDomain("");
        ::unsetenv("XDG_CONFIG_HOME");
    }
    void writeOwn(std::string_view text) const { folder_.write("org.example.Editor/defaults.ini", text); }
    void writeShared(std::string_view text) const { folder_.write("KRVQTProcessClient/defaults.ini", text); }

    test::TemporaryFolder folder_;
    UserDefaults& defaults_ = UserDefaults::standard();
};

TEST_F(UserDefaultsTest, AMissingKeyIsEmptyAndZero) {
    EXPECT_EQ(defaults_.stringForKey(kKey), std::nullopt);
    EXPECT_EQ(defaults_.integerForKey(kKey), 0);
}

TEST_F(UserDefaultsTest, TheFirstPlaceThatHasTheKeyWins) {
    writeShared("[Defaults]\nminimumPortNumber=1\n");
    EXPECT_EQ(defaults_.integerForKey(kKey), 1);
    writeOwn("[Defaults]\nminimumPortNumber=2\n");
    EXPECT_EQ(defaults_.integerForKey(kKey), 2);
    defaults_.setString(kKey, "3");
    EXPECT_EQ(defaults_.integerForKey(kKey), 3);
    defaults_.removeKey(kKey);
    defaults_.removeKey(kKey);
    EXPECT_EQ(defaults_.integerForKey(kKey), 2);
    test::ChildProcess probe({KRV_PLATFORM_PROBE, "setting", "minimumPortNumber", "-minimumPortNumber", "4"});
    EXPECT_EQ(probe.readLine(), "4");
}

TEST_F(UserDefaultsTest, AnArgumentWinsOverTheApplicationsValue) {
    // The probe sets the key before it reads it, and both files contain it too.
    writeShared("[Defaults]\nlevel=1\n");
    test::ChildProcess probe(
        {KRV_PLATFORM_PROBE, "set", "level=2", "setting", "level", "setting", "other", "-level", "-7"});
    EXPECT_EQ(probe.readLine(), "done");
    EXPECT_EQ(probe.readLine(), "-7");
    EXPECT_EQ(probe.readLine(), "(none)");
}

TEST_F(UserDefaultsTest, TheFilesAreReadAtEveryCall) {
    writeOwn("[Defaults]\nminimumPortNumber=1\n");
    EXPECT_EQ(defaults_.stringForKey(kKey), "1");
    writeOwn("[Defaults]\nminimumPortNumber=2\n");
    EXPECT_EQ(defaults_.stringForKey(kKey), "2");
    std::filesystem::remove_all(folder_.path() / "org.example.Editor");
    EXPECT_EQ(defaults_.stringForKey(kKey), std::nullopt);
}

TEST_F(UserDefaultsTest, OnlyTheDefaultsGroupIsRead) {
    writeOwn("[Other]\nminimumPortNumber=1\n");
    EXPECT_EQ(defaults_.stringForKey(kKey), std::nullopt);
}

TEST_F(UserDefaultsTest, ADamagedOrUnreadableFileCountsAsEmpty) {
    writeShared("[Defaults]\nminimumPortNumber=1\n");
    for (const std::string& text : {std::string("minimumPortNumber=2\n"), std::string("[Defaults\nx"),
                                    std::string("\0\0\0", 3), std::string("[Defaults]\nminimumPortNumber=\xff\n"),
                                    "[Defaults]\nminimumPortNumber=2\n#" + std::string(2 << 20, 'x')}) {
        writeOwn(text);
        EXPECT_EQ(defaults_.integerForKey(kKey), 1) << text.substr(0, 40);
    }
    const auto file = folder_.path() / "org.example.Editor/defaults.ini";
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_EQ(defaults_.integerForKey(kKey), 1);
}

TEST_F(UserDefaultsTest, APipeInPlaceOfTheFileDoesNotBlock) {
    writeShared("[Defaults]\nminimumPortNumber=1\n");
    std::filesystem::create_directories(folder_.path() / "org.example.Editor");
    ASSERT_EQ(::mkfifo((folder_.path() / "org.example.Editor/defaults.ini").c_str(), 0600), 0);
    EXPECT_EQ(defaults_.integerForKey(kKey), 1);
}

TEST_F(UserDefaultsTest, ADomainThatIsNotADirectoryNameHasNoFile) {
    folder_.write("defaults.ini", "[Defaults]\nminimumPortNumber=1\n");
    folder_.write("a/b/defaults.ini", "[Defaults]\nminimumPortNumber=1\n");
    for (const char* domain : {".", "..", "a/b", "../a"}) {
        defaults_.setDomain(domain);
        EXPECT_EQ(defaults_.stringForKey(kKey), std::nullopt) << domain;
    }
}

TEST_F(UserDefaultsTest, TheDirectoryIsConfigInTheHomeWhenTheVariableIsUnset) {
    ::unsetenv("XDG_CONFIG_HOME");
    folder_.write(".config/KRVQTProcessClient/defaults.ini", "[Defaults]\nminimumPortNumber=5\n");
    test::ChildProcess probe(
        {"env", "HOME=" + folder_.path().string(), KRV_PLATFORM_PROBE, "setting", "minimumPortNumber"});
    EXPECT_EQ(probe.readLine(), "5");
}

TEST_F(UserDefaultsTest, TheDomainIsTheApplicationsIdentifierUnlessItIsSet) {
    folder_.write("org.example.Object/defaults.ini", "[Defaults]\nminimumPortNumber=6\n");
    test::ChildProcess probe({KRV_PLATFORM_PROBE, "application", "org.example.Object", "setting", "minimumPortNumber"});
    EXPECT_EQ(probe.readLine(), "org.example.Object");
    EXPECT_EQ(probe.readLine(), "6");
}

TEST_F(UserDefaultsTest, IsThreadSafe) {
    writeOwn("[Defaults]\nminimumPortNumber=1\n");
    const auto work = [this] {
        for (int i = 0; i < 100; ++i) {
            defaults_.setString(kKey, "2");
            const auto value = defaults_.integerForKey(kKey);
            EXPECT_TRUE(value == 1 || value == 2) << value;
            defaults_.removeKey(kKey);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(defaults_.integerForKey(kKey), 1);
}

}  // namespace
}  // namespace krv

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServiceRecord.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

const ServiceRecord kRecord{"KRV server \xC3\xA4 #1=2", 8001, 4711, 98765, 4026531836, "0.1.0"};

TEST(ServiceRecord, ReadsWhatItWrites) {
    EXPECT_EQ(textOf(kRecord),
              "name=KRV server \xC3\xA4 #1=2\nport=8001\npid=4711\nstart=98765\npidns=4026531836\nversion=0.1.0\n");
    EXPECT_EQ(parseServiceRecord(textOf(kRecord)), kRecord);
}

TEST(ServiceRecord, IgnoresOtherKeysAndTheOrder) {
    EXPECT_EQ(parseServiceRecord("version=0.1.0\nfuture=\npidns=4026531836\nstart=98765\npid=4711\nport=8001\n=\n"
                                 "name=KRV server \xC3\xA4 #1=2\n"),
              kRecord);
}

TEST(ServiceRecord, RefusesWhatIsIncompleteOrInvalid) {
    const std::string good = textOf(kRecord);
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(parseServiceRecord(good.substr(0, length))) << length;
    }
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        return parseServiceRecord(text).has_value();
    };
    EXPECT_TRUE(with("8001", "65535"));
    for (const char* port :
         {"", "0", "-1", "65536", "8001 ", " 8001", "+8001", "0x1F", "8001.0", "99999999999999999999"}) {
        EXPECT_FALSE(with("8001", port)) << port;
    }
    for (const char* pid : {"0", "-4711", "2147483648", "self"}) {
        EXPECT_FALSE(with("4711", pid)) << pid;
    }
    EXPECT_FALSE(with("98765", "0"));
    EXPECT_FALSE(with("4026531836", "18446744073709551616"));
    EXPECT_FALSE(with("port=8001", "port=8001\nport=8001"));
    EXPECT_FALSE(with("KRV", std::string("K\0V", 3)));
    EXPECT_FALSE(with("0.1.0", "0.1.0\r"));
    EXPECT_FALSE(with("0.1.0", ""));
    EXPECT_FALSE(with("port=8001", "port 8001"));
    EXPECT_FALSE(parseServiceRecord(good + "x=" + std::string(5000, 'x') + '\n'));
}

class ServiceRecordInFolder : public testing::Test {
protected:
    fs::path path() const { return fs::path(folder_.path()) / serviceRecordFileName(); }
    std::string folder() const { return folder_.path().string(); }
    std::size_t files() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()));
    }

    const test::TemporaryFolder folder_;
};

TEST_F(ServiceRecordInFolder, StandsThereLockedUntilItIsDestroyed) {
    {
        const ServiceRecordFile file(folder(), kRecord);
        EXPECT_TRUE(file.isInPlace());
        EXPECT_EQ(readServiceRecord(folder()), kRecord);
        EXPECT_EQ(files(), 1U);
        struct stat status {};
        ASSERT_EQ(::stat(path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
        const int other = ::open(path().c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_NE(::flock(other, LOCK_SH | LOCK_NB), 0);
        ::close(other);
    }
    EXPECT_EQ(files(), 0U);
    EXPECT_FALSE(readServiceRecord(folder()));
}

TEST_F(ServiceRecordInFolder, ReplacesThatOfAnEarlierServerWhichThenLeavesItAlone) {
    auto earlier = std::make_unique<ServiceRecordFile>(folder(), kRecord);
    ServiceRecord next = kRecord;
    next.pid = 4712;
    const ServiceRecordFile file(folder(), next);
    EXPECT_FALSE(earlier->isInPlace());
    earlier.reset();
    EXPECT_EQ(readServiceRecord(folder()), next);
}

TEST_F(ServiceRecordInFolder, NeedsAFolderThatCanBeWrittenTo) {
    for (const std::string& elsewhere : {std::string(), folder() + "/missing"}) {
        const ServiceRecordFile file(elsewhere, kRecord);
        EXPECT_FALSE(file.isInPlace());
        EXPECT_FALSE(readServiceRecord(elsewhere));
    }
}

TEST_F(ServiceRecordInFolder, IsNotReadThroughALinkNorFromAFifoOrAFolder) {
    std::ofstream(folder() + "/elsewhere") << textOf(kRecord);
    fs::create_symlink(folder() + "/elsewhere", path());
    EXPECT_FALSE(readServiceRecord(folder()));
    fs::remove(path());
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_FALSE(readServiceRecord(folder()));
    fs::remove(path());
    fs::create_directory(path());
    EXPECT_FALSE(readServiceRecord(folder()));
}

TEST_F(ServiceRecordInFolder, ReplacesWhateverStandsInItsPlace) {
    std::ofstream(folder() + "/elsewhere") << "elsewhere";
    const auto replaces = [this] {
        const ServiceRecordFile file(folder(), kRecord);
        return file.isInPlace() && readServiceRecord(folder()) == kRecord;
    };
    fs::create_symlink(folder() + "/elsewhere", path());
    EXPECT_TRUE(replaces());
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_TRUE(replaces());
    fs::create_directory(path());
    EXPECT_TRUE(replaces());
    EXPECT_EQ(files(), 1U);
    // Nothing that somebody may need is lost.
    for (const std::size_t folders : {1UL, 2UL}) {
        fs::create_directory(path());
        std::ofstream(path() / "inside") << "inside";
        EXPECT_TRUE(replaces());
        EXPECT_EQ(files(), 1 + folders);
    }
}

TEST_F(ServiceRecordInFolder, OfThisProcessNamesIt) {
    const auto record = serviceRecordOfThisProcess("name", 8000);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->pid, ::getpid());
    EXPECT_EQ(record->pidNamespace, pidNamespace());
    EXPECT_EQ(parseServiceRecord(textOf(*record)), record);
}

}  // namespace
}  // namespace krv

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include <MediaServer/Files/GradualFlush.h>
#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {
namespace {

class Flush : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(file);
        ASSERT_EQ(::ftruncate(file.get(), 20 << 20), 0);
    }
    test::TemporaryFolder folder;
    Descriptor file{::open(folder.write("file", "text").c_str(), O_RDWR | O_CLOEXEC)};
    int signs = 0;
};

TEST_F(Flush, ReportsProgressAfterEachPart) {
    EXPECT_EQ(flushGradually(file.get(),
                             [this] {
                                 ++signs;
                                 return true;
                             }),
              0);
    EXPECT_EQ(signs, 3);
}

TEST_F(Flush, StopsWhenItsCallbackSaysSo) {
    EXPECT_EQ(flushGradually(file.get(),
                             [this] {
                                 ++signs;
                                 return false;
                             }),
              0);
    EXPECT_EQ(signs, 1);
}

TEST_F(Flush, OfAnEmptyFileReturnsAtOnce) {
    ASSERT_EQ(::ftruncate(file.get(), 0), 0);
    EXPECT_EQ(flushGradually(file.get(),
                             [this] {
                                 ++signs;
                                 return true;
                             }),
              0);
    EXPECT_EQ(signs, 0);
}

TEST_F(Flush, ReturnsTheErrorNumber) {
    EXPECT_EQ(flushGradually(-1, [] { return true; }), EBADF);
}

TEST_F(Flush, OfAFileThatCannotBeFlushedInPartsSucceeds) {
    const Descriptor device(::open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(flushGradually(device.get(), [] { return true; }), 0);
}

}  // namespace
}  // namespace krv::server

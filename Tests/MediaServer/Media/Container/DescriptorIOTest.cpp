#include <array>
#include <cerrno>
#include <csignal>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include <MediaServer/Media/Container/DescriptorIO.h>

namespace krv::media {
namespace {

using test::Descriptor;
using test::OutputPath;

std::string readAll(AVIOContext* io) {
    std::array<unsigned char, 100> buffer{};
    std::string content;
    for (int got = 0; (got = avio_read(io, buffer.data(), static_cast<int>(buffer.size()))) > 0;) {
        content.append(reinterpret_cast<const char*>(buffer.data()), static_cast<std::size_t>(got));
    }
    return content;
}

class DescriptorIOTest : public testing::Test {
protected:
    OutputPath file_{"bin"};
    Descriptor descriptor_{open(file_.path().c_str(), O_RDWR | O_CLOEXEC)};
    std::int64_t bytes_ = 0;
    std::function<void(std::int64_t)> count_ = [this](std::int64_t bytes) { bytes_ += bytes; };
};

TEST_F(DescriptorIOTest, ReadsBackWhatAnotherWroteToTheSameDescriptor) {
    DescriptorIO writer(descriptor_.number(), DescriptorIO::Mode::Write, count_);
    const std::string content(100'000, 'x');
    avio_write(writer.context(), reinterpret_cast<const unsigned char*>(content.data()),
               static_cast<int>(content.size()));
    avio_flush(writer.context());
    EXPECT_EQ(bytes_, 100'000);
    DescriptorIO reader(descriptor_.number(), DescriptorIO::Mode::Read, count_);
    EXPECT_EQ(readAll(reader.context()), content);
}

TEST_F(DescriptorIOTest, LeavesRoomThatIsNotCounted) {
    DescriptorIO writer(descriptor_.number(), DescriptorIO::Mode::Write, count_);
    const auto write = [&writer](const std::string& content) {
        avio_write(writer.context(), reinterpret_cast<const unsigned char*>(content.data()),
                   static_cast<int>(content.size()));
        avio_flush(writer.context());
    };
    write("head");
    writer.leaveRoom(4, 3);
    write("samples");
    EXPECT_EQ(avio_tell(writer.context()), 11);
    EXPECT_EQ(avio_size(writer.context()), 11);
    avio_seek(writer.context(), 4, SEEK_SET);
    write("S");
    avio_seek(writer.context(), 0, SEEK_SET);
    write("H");
    EXPECT_EQ(test::readFile(file_.path()), std::string("Head\0\0\0Samples", 14));
}

TEST_F(DescriptorIOTest, DoesNotWriteEachPacketByItself) {
    int transfers = 0;
    DescriptorIO writer(descriptor_.number(), DescriptorIO::Mode::Write, [&](std::int64_t) { ++transfers; });
    for (int i = 0; i < 1000; ++i) {
        avio_w8(writer.context(), 'x');
        avio_write_marker(writer.context(), 0, AVIO_DATA_MARKER_FLUSH_POINT);
    }
    avio_flush(writer.context());
    EXPECT_EQ(transfers, 1);
}

TEST_F(DescriptorIOTest, HasItsOwnPosition) {
    test::writeFile(file_.path(), "0123456789");
    lseek(descriptor_.number(), 7, SEEK_SET);
    DescriptorIO first(descriptor_.number(), DescriptorIO::Mode::Read, count_);
    DescriptorIO second(descriptor_.number(), DescriptorIO::Mode::Read, count_);
    avio_seek(first.context(), 5, SEEK_SET);
    EXPECT_EQ(readAll(second.context()), "0123456789");
    EXPECT_EQ(readAll(first.context()), "56789");
    EXPECT_EQ(lseek(descriptor_.number(), 0, SEEK_CUR), 7);
}

TEST_F(DescriptorIOTest, KnowsTheSize) {
    test::writeFile(file_.path(), "0123456789");
    DescriptorIO io(descriptor_.number(), DescriptorIO::Mode::Read, count_);
    EXPECT_EQ(avio_size(io.context()), 10);
}

TEST_F(DescriptorIOTest, RemembersWhyATransferFailed) {
    const Descriptor folder = test::openToRead(testing::TempDir());
    DescriptorIO io(folder.number(), DescriptorIO::Mode::Read, count_);
    EXPECT_EQ(readAll(io.context()), "");
    EXPECT_EQ(io.errorNumber(), EISDIR);
}

TEST_F(DescriptorIOTest, AFullDiskFailsTheTransfer) {
    // A limit on file sizes simulates a full disk. It is lifted before anything else is written.
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{1000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    DescriptorIO io(descriptor_.number(), DescriptorIO::Mode::Write, count_);
    const std::string content(5000, 'x');
    avio_write(io.context(), reinterpret_cast<const unsigned char*>(content.data()), static_cast<int>(content.size()));
    avio_flush(io.context());
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(io.errorNumber(), EFBIG);
    EXPECT_LT(io.context()->error, 0);
}

}  // namespace
}  // namespace krv::media

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {
namespace {

class Channel : public testing::Test {
protected:
    Channel() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        raw = ends[1];
        server.emplace(Descriptor(ends[0]));
        worker.emplace(Descriptor(ends[1]));
    }
    void sendRaw(const std::string& bytes) {
        ASSERT_EQ(::write(raw, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    int raw = -1;
    std::optional<WorkerChannel> server;
    std::optional<WorkerChannel> worker;
};

TEST_F(Channel, CarriesRecordsInOrder) {
    EXPECT_TRUE(server->send(*KRVOperationBase::provideMetadataFor("/a")));
    EXPECT_TRUE(server->send(*KRVOperationBase::provideMetadataFor("/b")));
    EXPECT_EQ(worker->receive()->record->encodingSourceFilename(), "/a");
    EXPECT_EQ(worker->receive()->record->encodingSourceFilename(), "/b");
}

TEST_F(Channel, CarriesDescriptorsInOrder) {
    int pipes[2];
    ASSERT_EQ(::pipe(pipes), 0);
    const Descriptor reading(pipes[0]);
    Descriptor writing(pipes[1]);
    EXPECT_TRUE(server->send(*KRVOperationBase::provideMetadataFor("/a"), {writing.get(), reading.get()}));
    auto message = worker->receive();
    ASSERT_TRUE(message);
    ASSERT_EQ(message->files.size(), 2U);
    ASSERT_EQ(::write(message->files[0].get(), "x", 1), 1);
    char c = 0;
    EXPECT_EQ(::read(message->files[1].get(), &c, 1), 1);
    EXPECT_EQ(c, 'x');
}

TEST_F(Channel, CarriesMoreDescriptorsThanFitIntoOneMessage) {
    const Descriptor folder(::open("/", O_PATH | O_CLOEXEC));
    const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::vector<int> files(700, nothing.get());
    files.back() = folder.get();
    std::thread sender([&] { EXPECT_TRUE(server->send(*KRVOperationBase::provideMetadataFor("/a"), files)); });
    const auto message = worker->receive();
    sender.join();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->record->encodingSourceFilename(), "/a");
    ASSERT_EQ(message->files.size(), 700U);
    struct stat status {};
    ASSERT_EQ(::fstat(message->files[698].get(), &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    ASSERT_EQ(::fstat(message->files[699].get(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST_F(Channel, EndsWhenThePeerCloses) {
    worker.reset();
    EXPECT_FALSE(server->receive());
    EXPECT_FALSE(server->send(KRVOperationBase()));
}

TEST_F(Channel, EndsAtAnInvalidMessage) {
    sendRaw(std::string("\x05\x00\x00\x00hello", 9));
    EXPECT_FALSE(server->receive());
}

TEST_F(Channel, EndsAtALengthAboveTheLimit) {
    sendRaw("\xFF\xFF\xFF\xFF");
    EXPECT_FALSE(server->receive());
}

TEST_F(Channel, EndsAtATruncatedMessage) {
    sendRaw(std::string("\x00\x10\x00\x00half", 8));
    worker.reset();
    EXPECT_FALSE(server->receive());
}

class AvailableMessages : public Channel {
protected:
    std::optional<WorkerChannel::Message> next() { return server->receiveAvailable(ended); }
    bool ended = false;
};

TEST_F(AvailableMessages, ArriveWholeAndInOrder) {
    EXPECT_FALSE(next());
    EXPECT_TRUE(worker->send(*KRVOperationBase::provideMetadataFor("/a")));
    EXPECT_TRUE(worker->send(*KRVOperationBase::provideMetadataFor("/b")));
    EXPECT_EQ(next()->record->encodingSourceFilename(), "/a");
    EXPECT_EQ(next()->record->encodingSourceFilename(), "/b");
    EXPECT_FALSE(next());
    EXPECT_FALSE(ended);
}

TEST_F(AvailableMessages, AreKeptUntilAllBytesHaveArrived) {
    const Data record = KRVOperationBase::provideMetadataFor("/a")->convertToData();
    std::string bytes(4, '\0');
    bytes[0] = static_cast<char>(record.size() & 0xFF);
    bytes[1] = static_cast<char>(record.size() >> 8);
    bytes.append(reinterpret_cast<const char*>(record.data()), record.size());
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
        sendRaw(bytes.substr(i, 1));
        ASSERT_FALSE(next()) << i;
        ASSERT_FALSE(ended) << i;
    }
    sendRaw(bytes.substr(bytes.size() - 1));
    EXPECT_EQ(next()->record->encodingSourceFilename(), "/a");
}

TEST_F(AvailableMessages, LoseTheirDescriptors) {
    const Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Descriptor before(::dup(nothing.get()));
    EXPECT_TRUE(worker->send(*KRVOperationBase::provideMetadataFor("/a"), std::vector<int>(200, nothing.get())));
    const auto message = next();
    ASSERT_TRUE(message);
    EXPECT_TRUE(message->files.empty());
    const Descriptor after(::dup(nothing.get()));
    EXPECT_EQ(after.get(), before.get() + 1);
}

TEST_F(AvailableMessages, EndWithTheStreamAndAtInvalidBytes) {
    sendRaw(std::string("\x05\x00\x00\x00hello", 9));
    EXPECT_FALSE(next());
    EXPECT_TRUE(ended);
    ended = false;
    sendRaw("\xFF\xFF\xFF\xFF");
    EXPECT_FALSE(next());
    EXPECT_TRUE(ended);
}

TEST_F(AvailableMessages, EndWhenThePeerClosesInTheMiddle) {
    sendRaw(std::string("\x00\x10\x00\x00half", 8));
    worker.reset();
    EXPECT_FALSE(next());
    EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace krv::server

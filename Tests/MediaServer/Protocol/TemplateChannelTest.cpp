// Both ends of the channel between the server and the template of its workers.
#include <cerrno>
#include <optional>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <MediaServer/Protocol/TemplateChannel.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

class TemplateEnds : public testing::Test {
protected:
    TemplateEnds() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        server.emplace(Descriptor(ends[0]));
        forker.emplace(Descriptor(ends[1]));
    }

    std::optional<TemplateChannel> server;
    std::optional<TemplateChannel> forker;
};

TEST_F(TemplateEnds, PassTheWorkersEndAndItsProcessId) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const Descriptor reading(pipe[0]);
    const Descriptor writing(pipe[1]);
    std::thread thread([&] {
        const Descriptor passed = forker->receiveRequest();
        EXPECT_NE(passed.get(), writing.get());
        EXPECT_EQ(::write(passed.get(), "x", 1), 1);
        forker->reply(4711);
    });
    EXPECT_EQ(server->requestWorker(writing.get(), 60s), 4711);
    thread.join();
    char byte = 0;
    EXPECT_EQ(::read(reading.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST_F(TemplateEnds, DoNotWaitOnceTheyAreStopped) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const Descriptor reading(pipe[0]);
    Descriptor(pipe[1]).reset();
    EXPECT_EQ(server->requestWorker(STDIN_FILENO, 60s, reading.get()), -1);
    EXPECT_EQ(errno, ECANCELED);
}

TEST_F(TemplateEnds, PassTheErrorOfAForkThatFails) {
    forker->reply(-ENOMEM);
    EXPECT_EQ(server->requestWorker(STDIN_FILENO, 60s), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(TemplateEnds, DoNotWaitForeverForATemplateThatHasStopped) {
    EXPECT_EQ(server->requestWorker(STDIN_FILENO, 1ms), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(TemplateEnds, NoticeThatTheTemplateHasExited) {
    forker.reset();
    EXPECT_EQ(server->requestWorker(STDIN_FILENO, 60s), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(TemplateEnds, NoticeThatTheTemplateExitsBeforeItReplies) {
    std::thread thread([&] {
        (void)forker->receiveRequest();
        forker.reset();
    });
    EXPECT_EQ(server->requestWorker(STDIN_FILENO, 60s), -1);
    EXPECT_EQ(errno, EPIPE);
    thread.join();
}

TEST_F(TemplateEnds, NoticeThatTheServerHasExited) {
    server.reset();
    EXPECT_FALSE(forker->receiveRequest());
}

}  // namespace
}  // namespace krv::server

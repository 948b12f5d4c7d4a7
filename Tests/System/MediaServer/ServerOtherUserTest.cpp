// Two users of one machine: the programs of one cannot use the server of the other.
#include <sys/resource.h>
#include <sys/wait.h>

#include <grp.h>

#include "ScriptedServerProcess.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

constexpr uid_t kOtherUser = 54321;

class OtherUser : public Server {
protected:
    void SetUp() override {
        if (!asOtherUser([] { return true; })) {
            GTEST_SKIP() << "only root can become another user";
        }
    }
    /// Makes the call in a child process as another user. Returns whether it returns true.
    static bool asOtherUser(const std::function<bool()>& call) {
        const pid_t child = ::fork();
        if (child == 0) {
            const bool changed = ::setgroups(0, nullptr) == 0 && ::setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 &&
                                 ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
            ::_exit(changed && call() ? 0 : 1);
        }
        int status = -1;
        return ::waitpid(child, &status, 0) == child && status == 0;
    }
    std::size_t openDescriptors() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(fmt::format("/proc/{}/fd", process->pid())), {}));
    }
    std::string registration() const {
        const auto record = R::registerWithServerOperation()->convertToData();
        return fmt::format("POST / HTTP/1.1\r\n{}Content-Length: {}\r\n\r\n", host(), record.size()) +
               std::string(reinterpret_cast<const char*>(record.data()), record.size());
    }
};

TEST_F(OtherUser, IsServedNothing) {
    start();
    const std::string post = registration();
    const std::string get = "GET /status HTTP/1.1\r\n" + host() + "\r\n";
    EXPECT_TRUE(asOtherUser([&] { return rawStatus(post) == 403; }));
    EXPECT_TRUE(asOtherUser([&] { return rawStatus(get) == 403; }));
    EXPECT_FALSE(client->amIRegistered());
    EXPECT_EQ(rawStatus(get), 200);
    EXPECT_EQ(rawStatus(post), 200);
    EXPECT_TRUE(client->amIRegistered());
}

TEST_F(OtherUser, CannotOccupyConnectionsThatTheOwnerNeeds) {
    start();
    constexpr int kMany = 3000;
    int opened[2];
    int end[2];
    ASSERT_EQ(::pipe(opened), 0);
    ASSERT_EQ(::pipe(end), 0);
    const pid_t other = ::fork();
    if (other == 0) {
        const rlimit many{kMany + 100, kMany + 100};
        bool done = ::setrlimit(RLIMIT_NOFILE, &many) == 0 && ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (int i = 0; i < kMany && done; ++i) {
            const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
            done = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        }
        char byte = 0;
        ::close(end[1]);
        [[maybe_unused]] const auto told = ::write(opened[1], &byte, done ? 1 : 0);
        ::close(opened[1]);
        [[maybe_unused]] const auto waited = ::read(end[0], &byte, 1);
        ::_exit(0);
    }
    ::close(opened[1]);
    char byte = 0;
    ASSERT_EQ(::read(opened[0], &byte, 1), 1);
    // The connections are refused as they are accepted, so the server soon has none of them.
    waitUntil([&] { return openDescriptors() < 100; });
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "\r\n"), 200);
    EXPECT_EQ(convert(movie(), out()), nullptr);
    ::close(end[1]);
    ::close(end[0]);
    ::close(opened[0]);
    ::waitpid(other, nullptr, 0);
}

TEST_F(OtherUser, CannotRegisterAsAClientByItsProcessId) {
    start();
    int ready[2];
    int end[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(end), 0);
    const pid_t other = ::fork();
    if (other == 0) {
        char byte = 0;
        const bool changed = ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
        ::close(end[1]);
        [[maybe_unused]] const auto told = ::write(ready[1], &byte, changed ? 1 : 0);
        ::close(ready[1]);
        [[maybe_unused]] const auto waited = ::read(end[0], &byte, 1);
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    const auto operation = R::registerWithServerOperation();
    operation->setRegInfoPID(std::int64_t{other});
    const auto reply = ask(operation);
    ASSERT_TRUE(reply->error());
    EXPECT_EQ(reply->error()->code(), 9);
    ::close(end[1]);
    ::close(end[0]);
    ::close(ready[0]);
    ::waitpid(other, nullptr, 0);
}

TEST_F(OtherUser, ReceivesNothingFromOurClients) {
    test::ScriptedServerProcess foreign({"user", std::to_string(kOtherUser), "report", "yes"});
    const auto port = std::make_shared<FixedPort>(foreign.port());
    KRVQuicktimeProcessClient misled(std::make_shared<KRVHTTPClientTransport>(port));
    std::shared_ptr<const Error> error;
    try {
        misled.convertMovie("/private/name.mov", out(), 1, false, observer, &error);
        FAIL() << "the conversion was accepted";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), kHTTPServerNSURLConnectionError);
        EXPECT_NE(exception.reason().find("does not belong to this user"), std::string::npos) << exception.reason();
    }
    EXPECT_FALSE(misled.isServerReadyToTakeRequests());
    EXPECT_FALSE(std::make_shared<KRVHTTPClientTransport>(port)->serviceReadyToRock());
    EXPECT_EQ(foreign.requestCount(), 0);
    EXPECT_TRUE(observer->seen.empty());
}

}  // namespace
}  // namespace krv::server

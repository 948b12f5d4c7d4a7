// Two users of one machine: the programs of one cannot use the server of the other.
#include <sys/resource.h>

#include "OtherUserProcess.h"
#include "ScriptedServerProcess.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

class OtherUser : public Server {
protected:
    void SetUp() override {
        if (!asOtherUser([] { return true; })) {
            GTEST_SKIP() << "only root can become another user";
        }
    }
    /// Makes the call in a process of another user. Returns whether it returns true.
    static bool asOtherUser(const std::function<bool()>& call) { return test::OtherUserProcess(call).succeeded(); }
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
    const auto openMany = [this] {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool connected = true;
        for (int i = 0; i < kMany && connected; ++i) {
            const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
            connected = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        }
        return connected;
    };
    const test::OtherUserProcess other(openMany, [] {
        const rlimit many{kMany + 100, kMany + 100};
        return ::setrlimit(RLIMIT_NOFILE, &many) == 0;
    });
    ASSERT_TRUE(other.succeeded());
    // The connections are refused as they are accepted, so the server soon has none of them.
    waitUntil([&] { return openDescriptors() < 100; });
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "\r\n"), 200);
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(OtherUser, CannotRegisterAsAClientByItsProcessId) {
    start();
    const test::OtherUserProcess other([] { return true; });
    ASSERT_TRUE(other.succeeded());
    const auto operation = R::registerWithServerOperation();
    operation->setRegInfoPID(std::int64_t{other.pid()});
    const auto reply = ask(operation);
    ASSERT_TRUE(reply->error());
    EXPECT_EQ(reply->error()->code(), 9);
}

TEST_F(OtherUser, ReceivesNothingFromOurClients) {
    test::ScriptedServerProcess foreign({"user", std::to_string(test::OtherUserProcess::kUser), "report", "yes"});
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

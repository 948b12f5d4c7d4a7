// The real server over HTTP: which requests it refuses, and requests that are slow, damaged or ambiguous.
#include <random>
#include <thread>

#include "ServerFixture.h"

namespace krv::server {
namespace {

TEST_F(Server, RefusesEverythingElse) {
    start();
    const std::string end = "\r\n";
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + end), 200);
    for (const std::string page : {"/activity", "/activity.json"}) {
        EXPECT_EQ(rawStatus("GET " + page + " HTTP/1.1\r\n" + host() + end), 200) << page;
        EXPECT_EQ(rawStatus("POST " + page + " HTTP/1.1\r\n" + host() + end), 405) << page;
        EXPECT_EQ(rawStatus("GET " + page + " HTTP/1.1\r\n" + host() + "Origin: http://localhost\r\n" + end), 403);
        EXPECT_EQ(rawStatus("GET " + page + " HTTP/1.1\r\nHost: example.com\r\nConnection: close\r\n" + end), 403);
        EXPECT_EQ(rawStatus("GET " + page + " HTTP/1.1\r\n" + host() + "Sec-Fetch-Site: cross-site\r\n" + end), 403);
    }
    EXPECT_EQ(rawStatus("GET /other HTTP/1.1\r\n" + host() + end), 404);
    EXPECT_EQ(rawStatus("GET / HTTP/1.1\r\n" + host() + end), 405);
    EXPECT_EQ(rawStatus("DELETE /status HTTP/1.1\r\n" + host() + end), 405);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "Origin: http://example.com\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\nHost: example.com\r\nConnection: close\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.1\r\n" + host() + "Host: localhost\r\n" + end), 403);
    EXPECT_EQ(rawStatus("GET /status HTTP/1.0\r\n" + end), 403);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 17825792\r\n" + end), 413);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 3\r\n\r\nabc"), 400);
    EXPECT_EQ(rawStatus("POST / HTTP/1.1\r\n" + host() + "Content-Length: 0\r\n" + end), 400);
}

/// Raw requests, one of which would register this process.
class Wire : public Server {
protected:
    std::string registration() const {
        const auto record = R::registerWithServerOperation()->convertToData();
        return fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Length: {}\r\n\r\n",
                           record.size()) +
               std::string(reinterpret_cast<const char*>(record.data()), record.size());
    }
    /// Sends all bytes and returns what the server sends until it closes the connection.
    std::string exchange(const std::string& bytes) const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        // A server that refuses closes the connection before it has read everything.
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(count);
        }
        std::string answer;
        char buffer[4096];
        for (ssize_t count = 0; (count = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
            answer.append(buffer, static_cast<std::size_t>(count));
        }
        ::close(fd);
        return answer;
    }
    static int statusOf(const std::string& answer) { return answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0; }
    void expectAliveAndUntouched(const std::string& what) {
        EXPECT_FALSE(client->amIRegistered()) << what;
        EXPECT_EQ(status()["pid"], process->pid()) << what;
    }
};

TEST_F(Wire, ServesPipelinedRequests) {
    start();
    const std::string answer = exchange("GET /status HTTP/1.1\r\nHost: localhost\r\n\r\n" + registration());
    EXPECT_NE(answer.find("HTTP/1.1 200", 12), std::string::npos);
    EXPECT_TRUE(client->amIRegistered());
}

TEST_F(Wire, ARequestFromElsewhereIsNotCarriedOut) {
    start();
    const std::string good = registration();
    const std::string host = "Host: localhost\r\n";
    const std::size_t place = good.find(host);
    const auto withHost = [&](const std::string& other) {
        return std::string(good).replace(place, host.size(), other);
    };
    for (const std::string& headers : std::vector<std::string>{
             "", "Host: example.com\r\n", "Host: localhost.example.com\r\n", "Host: localhost, example.com\r\n",
             "Host: localhost\r\nHost: localhost\r\n", "Host: localhost\r\nhost: example.com\r\n",
             "Host: localhost\r\nOrigin: http://localhost\r\n", "Host: localhost\r\norigin: null\r\n",
             "Host: localhost\r\nOrigin:\r\n"}) {
        EXPECT_EQ(statusOf(exchange(withHost(headers))), 403) << headers;
        expectAliveAndUntouched(headers);
    }
    for (const std::string& target : {fmt::format("http://127.0.0.1:{}/", port), std::string("http://example.com/"),
                                      std::string("//example.com/"), std::string("/status/../"), std::string("*")}) {
        EXPECT_EQ(statusOf(exchange(std::string(good).replace(5, 1, target))), 404) << target;
        expectAliveAndUntouched(target);
    }
    EXPECT_EQ(statusOf(exchange(good)), 200);
    EXPECT_TRUE(client->amIRegistered());
}

/// Ambiguous request framing: readers disagree on where each request ends, and the bytes in between are a request.
TEST_F(Wire, CarriesOutNoRequestHiddenInABody) {
    start();
    const std::string hidden = registration();
    const std::string size = std::to_string(hidden.size());
    const std::string length = "Content-Length: " + size + "\r\n";
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const std::string lastChunk = "0\r\n\r\n";
    struct Case {
        std::string headers;
        std::string body;
        int status;
    };
    for (const Case& each : std::vector<Case>{
             {length + chunked, lastChunk, 400},
             {chunked + length, lastChunk, 400},
             {"Content-Length: 0\r\n" + length, "", 400},
             {length + "Content-Length: 0\r\n", "", 400},
             {"Content-Length: 0\r\nContent-Length: 0\r\n", "", 400},
             {"Content-Length: 0, " + size + "\r\n", "", 400},
             {"Content-Length: -1\r\n", "", 400},
             {"Content-Length: +0\r\n", "", 400},
             {"Content-Length: 0x0\r\n", "", 400},
             {"Content-Length: \r\n", "", 400},
             {"Content-Length : " + size + "\r\n", "", 400},
             {"Content-Length: 18446744073709551615\r\n", "", 413},
             {"Content-Length: 18446744073709551616\r\n", "", 413},
             {"Content-Length: 99999999999999999999999999\r\n", "", 413},
             {"Transfer-Encoding: identity\r\n", "", 400},
             {"Transfer-Encoding: gzip, chunked\r\n", lastChunk, 400},
             {"Transfer-Encoding: xchunked\r\n", lastChunk, 400},
             {chunked + "Transfer-Encoding: identity\r\n", lastChunk, 400},
             {"Transfer-Encoding : chunked\r\n" + length, lastChunk, 400},
             {chunked, "g\r\n\r\n", 400},
             {chunked, "-1\r\n\r\n", 400},
             {chunked, "0x0\r\n\r\n", 400},
             {chunked, "\r\n", 400},
             {chunked, "2\r\nabc\r\n0\r\n\r\n", 400},
             {chunked, "ffffffffffffffffff\r\n", 413},
             {"X: folded\r\n " + length + "Content-Length: 0\r\n", "", 400},
             {length + "Transfer-Encoding:\r\n chunked\r\n", lastChunk, 400},
             {"Content-Length: 0\r\n " + size + "\r\n", "", 400},
             {"Origin:\r\n null\r\nContent-Length: 0\r\n", "", 400},
             {"X: y\rContent-Length: 0\r\n", "", 400},
             {"Host: localhost\r\n" + length, "", 403},
         }) {
        const std::string what = each.headers + "\n" + each.body;
        const std::string head = "POST / HTTP/1.1\r\nHost: localhost\r\n" + each.headers + "\r\n";
        EXPECT_EQ(statusOf(exchange(head + each.body + hidden)), each.status) << what;
        expectAliveAndUntouched(what);
    }
    EXPECT_EQ(statusOf(exchange("POST / HTTP/1.0\r\nHost: localhost\r\n" + chunked + "\r\n" + lastChunk + hidden)),
              400);
    // A bare line feed ends a line for the server, so the hidden request is the body and a further request follows.
    const std::string follows = "GET /status HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    for (const std::string& head :
         {"POST / HTTP/1.1\nHost: localhost\nContent-Length: " + size + "\n\n",
          "POST / HTTP/1.1\r\nHost: localhost\r\nX: y\nContent-Length: " + size + "\r\n\r\n"}) {
        const std::string answer = exchange(head + hidden + follows);
        EXPECT_EQ(statusOf(answer), 400);
        EXPECT_NE(answer.find("HTTP/1.1 200"), std::string::npos);
        expectAliveAndUntouched(head);
    }
}

TEST_F(Wire, AHiddenShutdownDoesNotShutDown) {
    start();
    const auto record = R::shutdownCommand()->convertToData();
    const std::string hidden =
        fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n", record.size()) +
        std::string(reinterpret_cast<const char*>(record.data()), record.size());
    for (const std::string headers : {"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                                      "Content-Length: 5\r\nContent-Length: 1000\r\n", "Content-Length : 1000\r\n"}) {
        EXPECT_EQ(statusOf(exchange("POST / HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n0\r\n\r\n" + hidden)),
                  400)
            << headers;
    }
    // A server that is shutting down refuses work.
    EXPECT_EQ(convert(movie(), out()), nullptr);
}

TEST_F(Wire, DoesNotBufferABodyThatIsTooLarge) {
    start();
    EXPECT_EQ(
        statusOf(exchange(fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n", 17 << 20))),
        413);
    const long before = residentKilobytes();
    std::string request =
        "POST / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string chunk = "100000\r\n" + std::string(1 << 20, 'x') + "\r\n";
    for (int i = 0; i < 64; ++i) {
        request += chunk;
    }
    request += "0\r\n\r\n";
    EXPECT_EQ(statusOf(exchange(request)), 413);
    EXPECT_LT(residentKilobytes() - before, 4096);
    // Sixteen, plus half of that while the buffer is reallocated.
    EXPECT_LT(std::stol(processStatus("VmHWM:")) - before, 32 * 1024);
    EXPECT_EQ(statusOf(exchange(registration())), 200);
}

/// A connection that sends its first bytes at once and the others one by one.
class SlowSender {
public:
    SlowSender(int port, const std::string& begin, char rest)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
        , rest_(rest) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        [[maybe_unused]] const auto sent = ::send(fd_, begin.data(), begin.size(), MSG_NOSIGNAL);
    }
    ~SlowSender() { ::close(fd_); }
    SlowSender(const SlowSender&) = delete;
    SlowSender& operator=(const SlowSender&) = delete;

    [[nodiscard]] bool isConnected() const { return connected_; }
    [[nodiscard]] bool isClosed() const {
        char byte = 0;
        const ssize_t count = ::recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return count == 0 || (count < 0 && errno != EAGAIN);
    }
    void sendMore() const { [[maybe_unused]] const auto sent = ::send(fd_, &rest_, 1, MSG_NOSIGNAL); }

private:
    const int fd_;
    const char rest_;
    bool connected_ = false;
};

TEST_F(Server, ReturnsTheMemoryOfLargeRecords) {
    start();
    Array texts;
    for (int i = 0; i < 150'000; ++i) {
        texts.push_back(fmt::format("{:06} {:a<64}", i, ""));
    }
    const auto manyTexts = R::numberOfOperationsOperation();
    manyTexts->arguments()->set("unknown", std::move(texts));
    const auto longText = R::numberOfOperationsOperation();
    longText->arguments()->set("unknown", std::string(16'000'000, 'x'));
    const long before = residentKilobytes();
    std::vector<std::thread> clients;
    for (const auto& record : {manyTexts, longText, manyTexts, longText}) {
        clients.emplace_back([this, body = record->convertToData()] {
            for (int i = 0; i < 4; ++i) {
                const auto response = HTTPClient::shared().send(
                    {.url = fmt::format("http://localhost:{}", port), .body = body, .timeout = 60s});
                EXPECT_EQ(response.status, 200);
            }
        });
    }
    for (std::thread& each : clients) {
        each.join();
    }
    waitUntil([&] { return residentKilobytes() - before < 32'768; });
}

TEST_F(Server, DropsSlowSendersAndKeepsIdleOnes) {
    start();
    const SlowSender slowHead(port, "POST / HT", 'T');
    const SlowSender slowBody(port, "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000\r\n\r\n", 'x');
    const SlowSender stuckBody(port, "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000\r\n\r\nx", 'x');
    const SlowSender idle(port, "", 'x');
    ASSERT_TRUE(slowHead.isConnected() && slowBody.isConnected() && stuckBody.isConnected() && idle.isConnected());
    while (!slowHead.isClosed() || !slowBody.isClosed() || !stuckBody.isClosed()) {
        std::this_thread::sleep_for(500ms);
        slowHead.sendMore();
        slowBody.sendMore();
        EXPECT_TRUE(status().is_object());
    }
    EXPECT_FALSE(idle.isClosed());
}

TEST_F(Server, SurvivesThreeThousandDamagedRequests) {
    start();
    std::mt19937 random(20261121);
    const std::vector<R::Ref> records{R::encodeVideoOperation("/missing/a.mov", "/missing/b.mp4", nullptr, nullptr),
                                      R::mergeSourcesOperation(Array{"/a", "/b"}, "/missing/c.mov", true),
                                      R::progressAndCompletionOperation("x"), R::numberOfOperationsOperation()};
    for (const R::Ref& record : records) {
        record->setRegInfoPID(1);  // the same bytes in every run, so the same damage
    }
    const auto send = [&](int count) {
        int answers = 0;
        for (int i = 0; i < count; ++i) {
            Data bytes = records[random() % records.size()]->convertToData();
            for (unsigned damage = random() % 8; damage > 0; --damage) {
                bytes[random() % bytes.size()] = static_cast<std::byte>(random());
            }
            if (random() % 4 == 0) {
                bytes.resize(random() % bytes.size());
            }
            const auto response = HTTPClient::shared().send(
                {.url = fmt::format("http://localhost:{}", port), .body = bytes, .timeout = 30s});
            answers += response.status == 200 || response.status == 400 ? 1 : 0;
        }
        return answers;
    };
    EXPECT_EQ(send(500), 500);
    const long before = residentKilobytes();
    EXPECT_EQ(send(2500), 2500);
    EXPECT_LT(residentKilobytes() - before, 4096);
    EXPECT_TRUE(client->isServerReadyToTakeRequests());
}

}  // namespace
}  // namespace krv::server

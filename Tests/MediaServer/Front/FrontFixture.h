#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <MediaServer/Front/HTTPFront.h>

/// The HTTP front in this process, with a socket of its own and handlers of the test's.
namespace krv::server {

/// One HTTP connection, byte by byte.
class HTTPConnection {
public:
    explicit HTTPConnection(std::uint16_t port)
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    void send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            ASSERT_GT(count, 0);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    /// Reads one response, headers and body; shorter if the server closes the connection.
    std::string receive() const {
        std::string response;
        for (;;) {
            const auto end = response.find("\r\n\r\n");
            const auto length = response.find("Content-Length: ");
            if (end != std::string::npos && length != std::string::npos &&
                response.size() >= end + 4 + std::stoul(response.substr(length + 16))) {
                return response;
            }
            char buffer[4096];
            const ssize_t count = ::recv(socket_.get(), buffer, sizeof buffer, 0);
            if (count <= 0) {
                return response;
            }
            response.append(buffer, static_cast<std::size_t>(count));
        }
    }
    /// Reads this many bytes of a response; fewer if the server closes the connection.
    std::string receive(std::size_t size) const {
        std::string start(size, '\0');
        const ssize_t count = ::recv(socket_.get(), start.data(), start.size(), MSG_WAITALL);
        start.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return start;
    }
    std::string ask(std::string_view bytes) const {
        send(bytes);
        return receive();
    }

private:
    Descriptor socket_;
};

inline std::string post(std::string_view body, std::string_view headers = "") {
    return fmt::format("POST / HTTP/1.1\r\nHost: localhost\r\n{}Content-Length: {}\r\n\r\n{}", headers, body.size(),
                       body);
}
inline std::string archived(const KRVOperationBase::Ref& record) {
    const Data bytes = record->convertToData();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
inline KRVOperationBase::Ref recordIn(const std::string& response) {
    const std::string body = response.substr(response.find("\r\n\r\n") + 4);
    const auto* const p = reinterpret_cast<const std::byte*>(body.data());
    return KRVOperationBase::operationFromData(std::make_shared<const Data>(p, p + body.size()));
}

class Front : public testing::Test {
protected:
    Front() {
        const int first = 20000 + ::getpid() % 20000;
        auto sockets = ListeningSockets::open(first, first + 1000);
        EXPECT_TRUE(sockets);
        port = sockets->port;
        EXPECT_TRUE(front.start(std::move(*sockets)));
    }

    std::uint16_t port = 0;
    std::atomic<int> requests{0};
    RequestSender sender;
    /// Called with each record; by default it replies with the same type and an identifier.
    std::function<void(const KRVOperationBase::Ref&, const HTTPFront::Reply&)> onRequest =
        [](const KRVOperationBase::Ref& request, const HTTPFront::Reply& reply) {
            const auto answer = std::make_shared<KRVOperationBase>();
            answer->setOperationType(request->operationType());
            answer->setUniqueID("id");
            reply(answer);
        };
    HTTPFront front{
        {[this](const KRVOperationBase::Ref& request, const RequestSender& from, const HTTPFront::Reply& reply) {
             ++requests;
             sender = from;
             onRequest(request, reply);
         },
         [](PageName name) {
             return name == PageName::Status ? Page{.body = "{\"name\":\"test\"}"}
                                             : Page{.body = "<p>", .type = "text/html", .headers = {{"X-Own", "yes"}}};
         }}};
};

}  // namespace krv::server

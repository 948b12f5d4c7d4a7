#include "HTTPEnd.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <microhttpd.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

namespace krv::test_kit {
namespace {

/// An application may wait for many operations at once.
constexpr unsigned kMostConnections = 4096;
constexpr std::size_t kStack = std::size_t{512} << 10;
constexpr const char* kRecordType = "application/octet-stream";

/// A request whose body is arriving, and what follows its response.
struct Exchange {
    Data body;
    std::function<void()> afterwards;
};

int listenOn(std::uint16_t port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listener < 0 || ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0) {
        const int problem = errno;
        ::close(listener);
        throw std::runtime_error(fmt::format("cannot listen on port {}: {}", port, std::strerror(problem)));
    }
    return listener;
}

MHD_Result respond(MHD_Connection* connection, unsigned status, const void* bytes, std::size_t size, const char* type) {
    MHD_Response* const response =
        MHD_create_response_from_buffer(size, const_cast<void*>(bytes), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    // By these two, clients recognise a server that they can use.
    MHD_add_response_header(response, MHD_HTTP_HEADER_SERVER,
                            fmt::format("{}/{}", kMediaServerName, libraryVersion()).c_str());
    MHD_add_response_header(response, std::string(kPidNamespaceHeader).c_str(), std::to_string(pidNamespace()).c_str());
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result respondText(MHD_Connection* connection, unsigned status, std::string_view text, const char* type) {
    return respond(connection, status, text.data(), text.size(), type);
}

[[noreturn]] void hang() {
    for (;;) {
        ::pause();
    }
}

}  // namespace

struct HTTPEnd::Internals {
    Handler handler;
    int listener = -1;
    std::uint16_t port = 0;
    MHD_Daemon* daemon = nullptr;

    static MHD_Result handle(void* userdata, MHD_Connection* connection, const char* target, const char* method,
                             const char* /*version*/, const char* upload, std::size_t* uploadSize, void** context) {
        try {
            auto* exchange = static_cast<Exchange*>(*context);
            if (!exchange) {
                *context = new Exchange;
                return MHD_YES;
            }
            if (*uploadSize > 0) {
                const auto* const bytes = reinterpret_cast<const std::byte*>(upload);
                exchange->body.insert(exchange->body.end(), bytes, bytes + std::exchange(*uploadSize, 0));
                return MHD_YES;
            }
            auto& self = *static_cast<Internals*>(userdata);
            return std::string_view(method) == MHD_HTTP_METHOD_POST ? self.operate(connection, *exchange)
                                                                    : self.status(connection, target);
        } catch (const std::exception&) {
            return MHD_NO;  // closes the connection; the HTTP library is written in C
        }
    }

    MHD_Result status(MHD_Connection* connection, std::string_view target) const {
        if (target != "/status") {
            return respondText(connection, MHD_HTTP_NOT_FOUND, "not found\n", "text/plain");
        }
        return respondText(connection, MHD_HTTP_OK,
                           fmt::format(R"({{"name":"krv-fake-server","pid":{},"port":{}}})", ::getpid(), port),
                           "application/json");
    }

    MHD_Result operate(MHD_Connection* connection, Exchange& exchange) const {
        const auto request =
            KRVOperationBase::operationFromData(std::make_shared<const Data>(std::move(exchange.body)));
        if (!request) {
            return respondText(connection, MHD_HTTP_BAD_REQUEST, "not an archived operation record\n", "text/plain");
        }
        Response response = handler(request);
        exchange.afterwards = std::move(response.afterwards);
        switch (response.kind) {
        case Response::Kind::Record: {
            const Data bytes = response.record->convertToData();
            return respond(connection, MHD_HTTP_OK, bytes.data(), bytes.size(), kRecordType);
        }
        case Response::Kind::Body:
            return respondText(connection, response.status, response.body, kRecordType);
        case Response::Kind::Hang:
            hang();
        case Response::Kind::Drop:
            break;
        }
        if (exchange.afterwards) {
            exchange.afterwards();
        }
        return MHD_NO;
    }

    static void ended(void* /*userdata*/, MHD_Connection* /*connection*/, void** context,
                      MHD_RequestTerminationCode /*code*/) {
        const std::unique_ptr<Exchange> exchange(static_cast<Exchange*>(std::exchange(*context, nullptr)));
        if (exchange && exchange->afterwards) {
            exchange->afterwards();
        }
    }
};

HTTPEnd::HTTPEnd(std::uint16_t port, Handler handler)
    : internals_(std::make_unique<Internals>()) {
    internals_->handler = std::move(handler);
    internals_->listener = listenOn(port);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(internals_->listener, reinterpret_cast<sockaddr*>(&address), &size);
    internals_->port = ntohs(address.sin_port);
    const SignalsBlocked blocked;
    internals_->daemon =
        MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL, 0, nullptr,
                         nullptr, &Internals::handle, internals_.get(), MHD_OPTION_LISTEN_SOCKET, internals_->listener,
                         MHD_OPTION_CONNECTION_LIMIT, kMostConnections, MHD_OPTION_THREAD_STACK_SIZE, kStack,
                         MHD_OPTION_NOTIFY_COMPLETED, &Internals::ended, internals_.get(), MHD_OPTION_END);
    if (!internals_->daemon) {
        throw std::runtime_error("the HTTP library does not start");
    }
}

HTTPEnd::~HTTPEnd() {
    MHD_stop_daemon(internals_->daemon);
}

std::uint16_t HTTPEnd::port() const {
    return internals_->port;
}

}  // namespace krv::test_kit

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <optional>
#include <set>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <microhttpd.h>

#include <KRVQTProcessClient/Operations/MediaServerName.h>
#include <KRVQTProcessClient/Platform/PeerUser.h>

#include <MediaServer/Front/HTTPFront.h>
#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

constexpr unsigned kMostConnections = 1200;
/// A connection without traffic is closed after this many seconds.
constexpr unsigned kIdleSeconds = 120;
/// A request must be complete within this time.
constexpr auto kSlowestRequest = 10s;
/// How long stop() waits for responses that are being sent.
constexpr auto kFarewell = 3s;

/// One request, from its headers to its response. Shared with the holder of the reply.
struct Exchange {
    enum class Stage { Reading, Dispatched, Suspended };
    Mutex mutex;
    Stage stage KRV_GUARDED_BY(mutex) = Stage::Reading;
    bool answered KRV_GUARDED_BY(mutex) = false;
    Data answer KRV_GUARDED_BY(mutex);
    Data body;
    bool tooLarge = false;
    bool isStatus = false;
};
using ExchangeRef = std::shared_ptr<Exchange>;

MHD_Result respond(MHD_Connection* connection, unsigned status, const void* bytes, std::size_t size, const char* type) {
    MHD_Response* const response =
        MHD_create_response_from_buffer(size, const_cast<void*>(bytes), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    static const std::string kServer = fmt::format("{}/{}", kMediaServerName, libraryVersion());
    MHD_add_response_header(response, MHD_HTTP_HEADER_SERVER, kServer.c_str());
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result respondText(MHD_Connection* connection, unsigned status, std::string_view text) {
    return respond(connection, status, text.data(), text.size(), "text/plain; charset=utf-8");
}

/// Compares header names, ignoring case.
bool isHeader(std::string_view name, std::string_view wanted) {
    return name.size() == wanted.size() && ::strncasecmp(name.data(), wanted.data(), wanted.size()) == 0;
}

/// Collects the headers that the policy needs.
MHD_Result readHeader(void* userdata, MHD_ValueKind /*kind*/, const char* key, std::size_t keySize, const char* value,
                      std::size_t valueSize) {
    auto& head = *static_cast<RequestHead*>(userdata);
    const std::string_view name(key, keySize);
    const std::string_view text = value ? std::string_view(value, valueSize) : std::string_view();
    if (!isWellFormedHeader(name, text)) {
        head.malformedHeaders = true;
    } else if (isHeader(name, MHD_HTTP_HEADER_HOST)) {
        head.hosts.push_back(text);
    } else if (isHeader(name, MHD_HTTP_HEADER_ORIGIN)) {
        head.hasOrigin = true;
    } else if (isHeader(name, "Sec-Fetch-Site")) {
        head.fetchSites.push_back(text);
    } else if (isHeader(name, MHD_HTTP_HEADER_TRANSFER_ENCODING)) {
        head.transferEncodings.push_back(text);
    } else if (isHeader(name, MHD_HTTP_HEADER_CONTENT_LENGTH)) {
        std::size_t length = 0;
        const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), length);
        // An unreadable length counts as too long.
        head.contentLength = failure == std::errc() && end == text.data() + text.size() ? length : ~std::size_t{0};
        ++head.contentLengths;
    }
    return MHD_YES;
}

/// One open connection.
struct Connection {
    int socket = -1;
    bool peerIsUser = false;
    /// Bytes received until the last request ended. Any more belong to the next request.
    std::uint64_t bytesOfOldRequests = 0;
    /// Whether the headers of a request are complete and its response is not.
    bool inRequest = false;
    /// When the current request began to arrive. Empty if there is none or it is complete.
    std::optional<std::chrono::steady_clock::time_point> arrivingSince{};
};

std::uint64_t bytesReceived(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    return ::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_received : 0;
}

Connection* connectionOf(MHD_Connection* connection) {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<Connection*>(info->socket_context) : nullptr;
}

}  // namespace

struct HTTPFront::Internals {
    explicit Internals(Handlers given)
        : handlers(std::move(given)) {}

    const Handlers handlers;
    std::vector<MHD_Daemon*> daemons;
    Mutex mutex;
    std::condition_variable_any exchangeEnded;
    int openExchanges KRV_GUARDED_BY(mutex) = 0;
    std::set<Connection*> connections KRV_GUARDED_BY(mutex);

    /// The peer of each connection is looked up once, when it opens.
    static void connectionChanged(void* userdata, MHD_Connection* connection, void** context,
                                  MHD_ConnectionNotificationCode code) {
        auto& self = *static_cast<Internals*>(userdata);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            auto* const opened = new Connection;
            opened->socket = info ? info->connect_fd : -1;
            opened->peerIsUser = info && clientBelongsToThisUser(info->connect_fd);
            *context = opened;
            const LockGuard lock(self.mutex);
            self.connections.insert(opened);
        } else if (auto* const closed = static_cast<Connection*>(*context)) {
            {
                const LockGuard lock(self.mutex);
                self.connections.erase(closed);
            }
            delete closed;
            *context = nullptr;
        }
    }

    static void requestEnded(void* userdata, MHD_Connection* connection, void** context,
                             MHD_RequestTerminationCode /*code*/) {
        auto& self = *static_cast<Internals*>(userdata);
        const bool wasExchange = *context != nullptr;
        delete static_cast<ExchangeRef*>(*context);
        *context = nullptr;
        const LockGuard lock(self.mutex);
        if (Connection* const its = connectionOf(connection)) {
            its->inRequest = false;
            its->arrivingSince.reset();
            its->bytesOfOldRequests = bytesReceived(its->socket);
        }
        if (wasExchange) {
            --self.openExchanges;
            self.exchangeEnded.notify_all();
        }
    }

    /// The headers are complete; a body may follow.
    void requestBegun(MHD_Connection* connection) {
        const LockGuard lock(mutex);
        if (Connection* const its = connectionOf(connection)) {
            its->inRequest = true;
            if (!its->arrivingSince) {
                its->arrivingSince = std::chrono::steady_clock::now();
            }
        }
    }

    void requestComplete(MHD_Connection* connection) {
        const LockGuard lock(mutex);
        if (Connection* const its = connectionOf(connection)) {
            its->arrivingSince.reset();
        }
    }

    void dropSlowSenders() {
        const auto now = std::chrono::steady_clock::now();
        // Connections are removed from the set, under the lock, before their descriptors are closed.
        const LockGuard lock(mutex);
        for (Connection* const its : connections) {
            if (!its->inRequest && !its->arrivingSince && bytesReceived(its->socket) > its->bytesOfOldRequests) {
                its->arrivingSince = now;
            }
            if (its->arrivingSince && now - *its->arrivingSince > kSlowestRequest) {
                ::shutdown(its->socket, SHUT_RDWR);
            }
        }
    }

    /// Waits until all responses have been sent.
    void drain() {
        const auto deadline = std::chrono::steady_clock::now() + kFarewell;
        mutex.lock();
        while (openExchanges > 0 && exchangeEnded.wait_until(mutex, deadline) != std::cv_status::timeout) {
        }
        mutex.unlock();
    }

    static MHD_Result handle(void* userdata, MHD_Connection* connection, const char* target, const char* method,
                             const char* version, const char* upload, std::size_t* uploadSize, void** context) {
        auto& self = *static_cast<Internals*>(userdata);
        if (!*context) {
            return self.begin(connection, target, method, version, context);
        }
        const ExchangeRef exchange = *static_cast<ExchangeRef*>(*context);
        if (*uploadSize > 0) {
            return receive(*exchange, upload, uploadSize);
        }
        return self.complete(connection, exchange);
    }

    /// The headers are complete, the body has not been read.
    MHD_Result begin(MHD_Connection* connection, const char* target, const char* method, const char* version,
                     void** context) {
        RequestHead head;
        head.method = method;
        head.target = target;
        head.version = version;
        requestBegun(connection);
        const Connection* const its = connectionOf(connection);
        head.peerIsUser = its && its->peerIsUser;
        MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &readHeader, &head);
        const Verdict verdict = judge(head);
        switch (verdict.action) {
        case Verdict::Action::Refuse:
            return respondText(connection, verdict.status, verdict.text);
        case Verdict::Action::Status:
        case Verdict::Action::Operation:
            break;
        }
        // A response queued now, before the request is complete, would close the connection.
        *context = new ExchangeRef(std::make_shared<Exchange>());
        (*static_cast<ExchangeRef*>(*context))->isStatus = verdict.action == Verdict::Action::Status;
        const LockGuard lock(mutex);
        ++openExchanges;
        return MHD_YES;
    }

    static MHD_Result receive(Exchange& exchange, const char* upload, std::size_t* uploadSize) {
        if (*uploadSize > kLargestRequest - exchange.body.size()) {
            exchange.tooLarge = true;
            Data().swap(exchange.body);  // frees what has arrived; the rest is discarded
        }
        if (!exchange.tooLarge) {
            const auto* p = reinterpret_cast<const std::byte*>(upload);
            exchange.body.insert(exchange.body.end(), p, p + *uploadSize);
        }
        *uploadSize = 0;
        return MHD_YES;
    }

    /// The body is complete, or the reply to it is available.
    MHD_Result complete(MHD_Connection* connection, const ExchangeRef& exchange) {
        requestComplete(connection);
        if (exchange->isStatus) {
            const std::string page = handlers.status();
            return respond(connection, MHD_HTTP_OK, page.data(), page.size(), "application/json");
        }
        {
            const LockGuard lock(exchange->mutex);
            if (exchange->answered) {
                return respond(connection, MHD_HTTP_OK, exchange->answer.data(), exchange->answer.size(),
                               "application/octet-stream");
            }
            exchange->stage = Exchange::Stage::Dispatched;
        }
        if (exchange->tooLarge) {
            return respondText(connection, MHD_HTTP_CONTENT_TOO_LARGE, "the record exceeds 16 MiB\n");
        }
        const auto record =
            KRVOperationBase::operationFromData(std::make_shared<const Data>(std::move(exchange->body)));
        if (!record) {
            return respondText(connection, MHD_HTTP_BAD_REQUEST, "not an archived operation record\n");
        }
        handlers.operation(record, [exchange, connection](const KRVOperationBase::Ref& reply) {
            Data bytes = reply->convertToData();
            const LockGuard lock(exchange->mutex);
            exchange->answer = std::move(bytes);
            exchange->answered = true;
            if (exchange->stage == Exchange::Stage::Suspended) {
                MHD_resume_connection(connection);
            }
        });
        const LockGuard lock(exchange->mutex);
        if (exchange->answered) {
            return respond(connection, MHD_HTTP_OK, exchange->answer.data(), exchange->answer.size(),
                           "application/octet-stream");
        }
        exchange->stage = Exchange::Stage::Suspended;
        MHD_suspend_connection(connection);
        return MHD_YES;
    }
};

HTTPFront::HTTPFront(Handlers handlers)
    : internals_(std::make_unique<Internals>(std::move(handlers))) {}

HTTPFront::~HTTPFront() {
    stop();
}

bool HTTPFront::start(ListeningSockets sockets) {
    for (Descriptor* const socket : {&sockets.ipv4, &sockets.ipv6}) {
        if (!*socket) {
            continue;
        }
        const unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC;
        MHD_Daemon* const daemon = MHD_start_daemon(
            flags, 0, nullptr, nullptr, &Internals::handle, internals_.get(), MHD_OPTION_LISTEN_SOCKET, socket->get(),
            MHD_OPTION_CONNECTION_LIMIT, kMostConnections, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
            MHD_OPTION_NOTIFY_COMPLETED, &Internals::requestEnded, internals_.get(), MHD_OPTION_NOTIFY_CONNECTION,
            &Internals::connectionChanged, internals_.get(), MHD_OPTION_END);
        if (!daemon) {
            return false;
        }
        (void)socket->release();  // the daemon closes it
        internals_->daemons.push_back(daemon);
    }
    return true;
}

void HTTPFront::dropSlowSenders() {
    internals_->dropSlowSenders();
}

void HTTPFront::stop() {
    if (internals_->daemons.empty()) {
        return;
    }
    // The daemon's thread may use its listening socket until the daemon is stopped, so the sockets are closed after that.
    std::vector<Descriptor> listeners;
    for (MHD_Daemon* const daemon : internals_->daemons) {
        if (const int listener = MHD_quiesce_daemon(daemon); listener != MHD_INVALID_SOCKET) {
            ::shutdown(listener, SHUT_RDWR);  // refuses further connections
            listeners.emplace_back(listener);
        }
    }
    internals_->drain();
    for (MHD_Daemon* const daemon : internals_->daemons) {
        MHD_stop_daemon(daemon);
    }
    internals_->daemons.clear();
}

}  // namespace krv::server

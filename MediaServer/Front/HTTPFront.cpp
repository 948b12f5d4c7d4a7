#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <new>
#include <optional>
#include <set>
#include <span>
#include <system_error>
#include <thread>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>
#include <malloc.h>
#include <microhttpd.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Front/ConnectionAcceptor.h>
#include <MediaServer/Front/HTTPFront.h>
#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostConnections = 1200;
/// Connections are limited to this share of the descriptors, so that operations find some.
constexpr std::size_t kShareOfDescriptors = 2;
/// Connections that have been shut down to make room, and that the HTTP library has not closed yet.
constexpr std::size_t kMostClosing = 256;
/// A connection without traffic is closed after this many seconds.
constexpr unsigned kIdleSeconds = 120;
/// A request must be complete within this time.
constexpr auto kSlowestRequest = 10s;
/// Larger records are decoded on a thread of their own, because decoding one may take 100 ms.
constexpr std::size_t kLargestOnEventLoop = std::size_t{256} << 10;
/// All bodies that are arriving, wait or are being decoded may take this many bytes.
constexpr std::size_t kMostBodyBytes = std::size_t{256} << 20;
/// All replies that are being sent may take this many bytes; small ones are not refused.
constexpr std::size_t kMostReplyBytes = std::size_t{256} << 20;
constexpr std::size_t kSmallReply = std::size_t{64} << 10;
/// How long stop() waits for responses that are being sent.
constexpr auto kFarewell = 3s;

/// What is sent for a request that was not refused by its headers.
struct Answer {
    unsigned status = MHD_HTTP_OK;
    Data bytes;
    const char* type = "application/octet-stream";
};

Answer textAnswer(unsigned status, std::string_view text) {
    const auto* const p = reinterpret_cast<const std::byte*>(text.data());
    return {status, Data(p, p + text.size()), "text/plain; charset=utf-8"};
}

/// Why a request is refused after its headers; none if the status is 0.
struct Refusal {
    unsigned status = 0;
    std::string_view text;
};

constexpr Refusal kOutOfMemory{MHD_HTTP_SERVICE_UNAVAILABLE, "out of memory\n"};

/// One request, from its headers to its response. Shared with the holder of the reply.
struct Exchange {
    Mutex mutex;
    bool suspended KRV_GUARDED_BY(mutex) = false;
    /// Set once.
    std::optional<Answer> answer KRV_GUARDED_BY(mutex);
    // Used by one thread at a time.
    RequestSender sender;
    Data body;
    bool dispatched = false;
    /// How much of the body has been counted among all bodies.
    std::size_t bodySize = 0;
    /// How much of the reply has been counted among all replies.
    std::size_t replySize = 0;
    /// How long the body is to be, according to the headers.
    std::size_t announcedSize = 0;
    Refusal refusal;
    std::optional<PageName> page{};
};
using ExchangeRef = std::shared_ptr<Exchange>;

using Headers = std::vector<std::pair<std::string, std::string>>;

MHD_Result respond(MHD_Connection* connection, unsigned status, const void* bytes, std::size_t size, const char* type,
                   const Headers& headers = {}) {
    MHD_Response* const response =
        MHD_create_response_from_buffer(size, const_cast<void*>(bytes), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    static const std::string kServer = fmt::format("{}/{}", kMediaServerName, libraryVersion());
    MHD_add_response_header(response, MHD_HTTP_HEADER_SERVER, kServer.c_str());
    static const std::string kPidNamespace = std::to_string(pidNamespace());
    MHD_add_response_header(response, std::string(kPidNamespaceHeader).c_str(), kPidNamespace.c_str());
    for (const auto& [name, value] : headers) {
        MHD_add_response_header(response, name.c_str(), value.c_str());
    }
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result respond(MHD_Connection* connection, const Answer& answer) {
    return respond(connection, answer.status, answer.bytes.data(), answer.bytes.size(), answer.type);
}

MHD_Result respondText(MHD_Connection* connection, unsigned status, std::string_view text) {
    return respond(connection, status, text.data(), text.size(), "text/plain; charset=utf-8");
}

/// Compares header names, ignoring case.
bool isHeader(std::string_view name, std::string_view wanted) {
    return name.size() == wanted.size() && ::strncasecmp(name.data(), wanted.data(), wanted.size()) == 0;
}

/// Parses a decimal number. Empty if the text is anything else.
template <typename T>
std::optional<T> number(std::string_view text) {
    T value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    return failure == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
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
    } else if (isHeader(name, kPidNamespaceHeader)) {
        head.pidNamespace = number<std::uint64_t>(text);
    } else if (isHeader(name, MHD_HTTP_HEADER_CONTENT_LENGTH)) {
        // An unreadable length counts as too long.
        head.contentLength = number<std::size_t>(text).value_or(~std::size_t{0});
        ++head.contentLengths;
    }
    return MHD_YES;
}

/// One open connection.
struct Connection {
    int socket = -1;
    /// Bytes received until the last request ended. Any more belong to the next request.
    std::uint64_t bytesOfOldRequests = 0;
    /// Whether the headers of a request are complete and its response is not.
    bool inRequest = false;
    /// When the current request began to arrive. Empty if there is none or it is complete.
    std::optional<std::chrono::steady_clock::time_point> arrivingSince{};
    /// When it was opened, or when its latest request ended.
    std::chrono::steady_clock::time_point idleSince{};
    /// Whether it has been shut down and only waits for the HTTP library to close it.
    bool closing = false;
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

/// Returns how many connections the front may hold, given how many descriptors this process may open.
std::size_t connectionLimit() {
    constexpr std::size_t kFewest = 8;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return kMostConnections;
    }
    return std::clamp<std::size_t>(limit.rlim_cur / kShareOfDescriptors, kFewest, kMostConnections);
}

}  // namespace

struct HTTPFront::Internals {
    explicit Internals(Handlers given)
        : handlers(std::move(given)) {}

    const Handlers handlers;
    std::optional<ConnectionAcceptor> acceptor;
    MHD_Daemon* daemon = nullptr;
    std::thread decoder;
    std::size_t mostConnections = kMostConnections;
    /// Changed on the event loop only.
    std::size_t bodyBytes = 0;
    std::size_t replyBytes = 0;
    Mutex mutex;
    std::condition_variable_any exchangeEnded;
    std::condition_variable_any largeRecordArrived;
    std::deque<std::pair<ExchangeRef, MHD_Connection*>> largeRecords KRV_GUARDED_BY(mutex);
    bool stopping KRV_GUARDED_BY(mutex) = false;
    /// Handed to the HTTP library and not yet closed by it.
    std::size_t admitted KRV_GUARDED_BY(mutex) = 0;
    int openExchanges KRV_GUARDED_BY(mutex) = 0;
    std::set<Connection*> connections KRV_GUARDED_BY(mutex);

    /// Hands a connection to the HTTP library. Makes room for it if there are too many.
    void admit(Descriptor connection) {
        sockaddr_storage peer{};
        socklen_t size = sizeof peer;
        if (::getpeername(connection.get(), reinterpret_cast<sockaddr*>(&peer), &size) != 0) {
            return;
        }
        {
            const LockGuard lock(mutex);
            if (admitted >= mostConnections && !makeRoom()) {
                return;
            }
            ++admitted;
        }
        if (MHD_add_connection(daemon, connection.release(), reinterpret_cast<sockaddr*>(&peer), size) != MHD_YES) {
            const LockGuard lock(mutex);
            --admitted;
        }
    }

    /// Returns whether one more connection may be admitted although there are as many as there should be.
    bool makeRoom() KRV_REQUIRES(mutex) {
        const auto closing = static_cast<std::size_t>(std::count_if(
            connections.begin(), connections.end(), [](const Connection* each) { return each->closing; }));
        return closing < kMostClosing && (admitted - closing < mostConnections || closeIdle());
    }

    /// Shuts down the connection that has been idle for the longest time. Returns false if none is idle.
    bool closeIdle() KRV_REQUIRES(mutex) {
        Connection* longest = nullptr;
        for (Connection* const its : connections) {
            const bool idle = !its->closing && !its->inRequest && !its->arrivingSince &&
                              bytesReceived(its->socket) <= its->bytesOfOldRequests;
            if (idle && (!longest || its->idleSince < longest->idleSince)) {
                longest = its;
            }
        }
        if (longest) {
            longest->closing = true;
            ::shutdown(longest->socket, SHUT_RDWR);
        }
        return longest != nullptr;
    }

    static void connectionChanged(void* userdata, MHD_Connection* connection, void** context,
                                  MHD_ConnectionNotificationCode code) {
        auto& self = *static_cast<Internals*>(userdata);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            auto* const opened = new Connection;
            opened->socket = info ? info->connect_fd : -1;
            opened->idleSince = std::chrono::steady_clock::now();
            *context = opened;
            const LockGuard lock(self.mutex);
            self.connections.insert(opened);
        } else if (auto* const closed = static_cast<Connection*>(*context)) {
            {
                const LockGuard lock(self.mutex);
                self.connections.erase(closed);
                --self.admitted;
            }
            delete closed;
            *context = nullptr;
        }
    }

    static void requestEnded(void* userdata, MHD_Connection* connection, void** context,
                             MHD_RequestTerminationCode /*code*/) {
        auto& self = *static_cast<Internals*>(userdata);
        const bool wasExchange = *context != nullptr;
        if (wasExchange) {
            Exchange& exchange = **static_cast<ExchangeRef*>(*context);
            self.forgetBody(exchange);
            self.replyBytes -= std::exchange(exchange.replySize, 0);
        }
        delete static_cast<ExchangeRef*>(*context);
        *context = nullptr;
        const LockGuard lock(self.mutex);
        if (Connection* const its = connectionOf(connection)) {
            its->inRequest = false;
            its->arrivingSince.reset();
            its->bytesOfOldRequests = bytesReceived(its->socket);
            its->idleSince = std::chrono::steady_clock::now();
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
        try {
            if (!*context) {
                return self.begin(connection, target, method, version, context);
            }
            const ExchangeRef exchange = *static_cast<ExchangeRef*>(*context);
            if (*uploadSize > 0) {
                return self.receive(*exchange, upload, uploadSize);
            }
            return self.complete(connection, exchange);
        } catch (...) {
            return MHD_NO;  // closes the connection; the HTTP library is written in C
        }
    }

    /// The headers are complete, the body has not been read.
    MHD_Result begin(MHD_Connection* connection, const char* target, const char* method, const char* version,
                     void** context) {
        RequestHead head;
        head.method = method;
        head.target = target;
        head.version = version;
        requestBegun(connection);
        MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &readHeader, &head);
        const Verdict verdict = judge(head);
        switch (verdict.action) {
        case Verdict::Action::Refuse:
            return respondText(connection, verdict.status, verdict.text);
        case Verdict::Action::Page:
        case Verdict::Action::Operation:
            break;
        }
        // A response queued now, before the request is complete, would close the connection.
        *context = new ExchangeRef(std::make_shared<Exchange>());
        if (verdict.action == Verdict::Action::Page) {
            (*static_cast<ExchangeRef*>(*context))->page = verdict.page;
        }
        (*static_cast<ExchangeRef*>(*context))->sender.pidNamespace = head.pidNamespace;
        (*static_cast<ExchangeRef*>(*context))->announcedSize = head.contentLength.value_or(0);
        const LockGuard lock(mutex);
        ++openExchanges;
        return MHD_YES;
    }

    MHD_Result receive(Exchange& exchange, const char* upload, std::size_t* uploadSize) {
        const bool tooLarge = *uploadSize > kLargestRequest - exchange.body.size();
        const bool tooMany = bodyBytes + *uploadSize > kMostBodyBytes;
        if ((tooLarge || tooMany) && exchange.refusal.status == 0) {
            exchange.refusal = tooLarge ? Refusal{MHD_HTTP_CONTENT_TOO_LARGE, "the record exceeds 16 MiB\n"}
                                        : Refusal{MHD_HTTP_SERVICE_UNAVAILABLE, "too many large records at once\n"};
            forgetBody(exchange);  // frees what has arrived; the rest is discarded
        }
        if (exchange.refusal.status == 0) {
            keepBody(exchange, {reinterpret_cast<const std::byte*>(upload), *uploadSize});
        }
        *uploadSize = 0;
        return MHD_YES;
    }

    void keepBody(Exchange& exchange, std::span<const std::byte> part) {
        try {
            // At once, so that it never has to be copied. What has not arrived takes no memory.
            exchange.body.reserve(std::min(exchange.announcedSize, kLargestRequest));
            exchange.body.insert(exchange.body.end(), part.begin(), part.end());
            exchange.bodySize += part.size();
            bodyBytes += part.size();
        } catch (const std::bad_alloc&) {
            exchange.refusal = kOutOfMemory;
            forgetBody(exchange);
        }
    }

    /// Frees the body of a request and the room that it takes among all bodies.
    void forgetBody(Exchange& exchange) {
        bodyBytes -= std::exchange(exchange.bodySize, 0);
        Data().swap(exchange.body);
    }

    /// The body is complete, or the reply to it is available.
    MHD_Result complete(MHD_Connection* connection, const ExchangeRef& exchange) {
        requestComplete(connection);
        if (exchange->page) {
            const Page page = handlers.page(*exchange->page);
            return respond(connection, MHD_HTTP_OK, page.body.data(), page.body.size(), page.type.c_str(),
                           page.headers);
        }
        if (exchange->refusal.status != 0) {
            return respondText(connection, exchange->refusal.status, exchange->refusal.text);
        }
        const bool isFirstCall = !std::exchange(exchange->dispatched, true);
        if (isFirstCall && exchange->body.size() > kLargestOnEventLoop) {
            const LockGuard lock(mutex);
            largeRecords.emplace_back(exchange, connection);
            largeRecordArrived.notify_one();
        } else if (isFirstCall) {
            dispatch(connection, exchange);
        }
        const LockGuard lock(exchange->mutex);
        if (exchange->answer) {
            return send(connection, *exchange);
        }
        exchange->suspended = true;
        MHD_suspend_connection(connection);
        return MHD_YES;
    }

    /// Sends the answer, unless clients leave too many large ones unread.
    MHD_Result send(MHD_Connection* connection, Exchange& exchange) KRV_REQUIRES(exchange.mutex) {
        const Answer& answer = *exchange.answer;
        const std::size_t size = answer.bytes.size();
        if (size > kSmallReply && replyBytes + size > kMostReplyBytes) {
            exchange.answer->bytes = Data();
            return respondText(connection, MHD_HTTP_SERVICE_UNAVAILABLE, "too many large replies at once\n");
        }
        replyBytes += exchange.replySize = size;
        const MHD_Result result = respond(connection, answer);
        Data().swap(exchange.answer->bytes);  // the HTTP library has a copy
        return result;
    }

    /// Decodes the body of a request and hands the record over. If that throws, the thread must live on: it is the
    /// HTTP library's or the decoder's.
    void dispatch(MHD_Connection* connection, const ExchangeRef& exchange) const {
        try {
            handOver(connection, exchange);
        } catch (const std::bad_alloc&) {
            answer(connection, *exchange, textAnswer(kOutOfMemory.status, kOutOfMemory.text));
        } catch (...) {
            answer(connection, *exchange, textAnswer(MHD_HTTP_INTERNAL_SERVER_ERROR, "the request failed\n"));
        }
    }

    void handOver(MHD_Connection* connection, const ExchangeRef& exchange) const {
        const auto record =
            KRVOperationBase::operationFromData(std::make_shared<const Data>(std::move(exchange->body)));
        if (!record) {
            answer(connection, *exchange, textAnswer(MHD_HTTP_BAD_REQUEST, "not an archived operation record\n"));
            return;
        }
        handlers.operation(record, exchange->sender, [exchange, connection](const KRVOperationBase::Ref& reply) {
            answer(connection, *exchange, answerWith(*reply));
        });
    }

    /// A reply that cannot be archived must not end the thread that gives it.
    static Answer answerWith(const KRVOperationBase& reply) {
        try {
            return {.bytes = reply.convertToData()};
        } catch (const std::bad_alloc&) {
            return textAnswer(kOutOfMemory.status, kOutOfMemory.text);
        } catch (const std::exception&) {
            return textAnswer(MHD_HTTP_INTERNAL_SERVER_ERROR, "the reply cannot be archived\n");
        }
    }

    /// The first answer counts. There is a second one if a handler throws after it has replied.
    static void answer(MHD_Connection* connection, Exchange& exchange, Answer given) {
        const LockGuard lock(exchange.mutex);
        if (exchange.answer) {
            return;
        }
        exchange.answer = std::move(given);
        if (exchange.suspended) {
            MHD_resume_connection(connection);
        }
    }

    /// The decoder's thread. Ends when the front stops and no large record is left.
    void decodeLargeRecords() {
        mutex.lock();
        for (;;) {
            if (largeRecords.empty()) {
                if (stopping) {
                    break;
                }
                largeRecordArrived.wait(mutex);
                continue;
            }
            auto [exchange, connection] = std::move(largeRecords.front());
            largeRecords.pop_front();
            mutex.unlock();
            dispatch(connection, exchange);
            exchange.reset();
            mutex.lock();
            if (largeRecords.empty()) {
                mutex.unlock();
                // The many small values of large records have left memory that the C library would keep.
                ::malloc_trim(0);
                mutex.lock();
            }
        }
        mutex.unlock();
    }
};

HTTPFront::HTTPFront(Handlers handlers)
    : internals_(std::make_unique<Internals>(std::move(handlers))) {}

HTTPFront::~HTTPFront() {
    stop();
}

bool HTTPFront::start(ListeningSockets sockets) {
    Internals& self = *internals_;
    self.mostConnections = connectionLimit();
    const unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_NO_LISTEN_SOCKET;
    const SignalsBlocked blocked;  // also in the library's own thread
    self.daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, &Internals::handle, &self, MHD_OPTION_CONNECTION_LIMIT,
                         static_cast<unsigned>(self.mostConnections + kMostClosing), MHD_OPTION_CONNECTION_TIMEOUT,
                         kIdleSeconds, MHD_OPTION_NOTIFY_COMPLETED, &Internals::requestEnded, &self,
                         MHD_OPTION_NOTIFY_CONNECTION, &Internals::connectionChanged, &self, MHD_OPTION_END);
    if (!self.daemon) {
        return false;
    }
    try {
        self.decoder = threadWithoutSignals("KRVDecoder", [&self] { self.decodeLargeRecords(); });
        self.acceptor.emplace(std::move(sockets),
                              ConnectionAcceptor::Handlers{
                                  [&self](Descriptor connection) { self.admit(std::move(connection)); },
                                  [&self] {
                                      const LockGuard lock(self.mutex);
                                      (void)self.closeIdle();
                                  },
                              });
    } catch (const std::system_error&) {
        stop();
        return false;
    }
    return true;
}

void HTTPFront::dropSlowSenders() {
    internals_->dropSlowSenders();
}

void HTTPFront::stop() {
    Internals& self = *internals_;
    if (!self.daemon) {
        return;
    }
    self.acceptor.reset();
    self.drain();
    {
        const LockGuard lock(self.mutex);
        self.stopping = true;
        self.largeRecordArrived.notify_one();
    }
    if (self.decoder.joinable()) {
        self.decoder.join();
    }
    MHD_stop_daemon(std::exchange(self.daemon, nullptr));
}

}  // namespace krv::server

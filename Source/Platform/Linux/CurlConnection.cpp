#include "CurlConnection.h"

#include <algorithm>
#include <limits>
#include <new>
#include <span>
#include <string_view>
#include <variant>

#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>

#include "LoopbackURL.h"
#include "SocketDiagnostics.h"

namespace krv {
namespace {

constexpr std::size_t kMaximumBody = std::size_t{64} << 20;

/// Returns the value of a header line if the header has this name, which is given in lower case.
std::optional<std::string_view> headerValue(std::string_view line, std::string_view name) {
    const std::size_t colon = line.find(':');
    const auto isSame = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; };
    if (colon != name.size() ||
        !std::equal(name.begin(), name.end(), line.begin(), [&](char b, char a) { return isSame(a, b); })) {
        return std::nullopt;
    }
    line.remove_prefix(colon + 1);
    constexpr std::string_view kSpace = " \t\r\n";
    const std::size_t first = line.find_first_not_of(kSpace);
    return first == std::string_view::npos ? std::string_view()
                                           : line.substr(first, line.find_last_not_of(kSpace) + 1 - first);
}

/// Rounds up. A time-out that has already passed becomes the shortest one, because curl takes 0 for "no limit".
long milliseconds(Clock::Duration timeout) {
    const auto count = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
    return std::clamp<long>(count, 1, std::numeric_limits<int>::max());
}

}  // namespace

CurlConnection::CurlConnection(Check check)
    : check_(check)
    , pidNamespace_(std::to_string(pidNamespace()))
    , headers_(nullptr, curl_slist_free_all)
    , addresses_(nullptr, curl_slist_free_all)
    , handle_(nullptr, curl_easy_cleanup) {
    // curl omits a header that has no value.
    const std::string pids = fmt::format("{}: {}", kPidNamespaceHeader, pidNamespace_);
    for (const char* header : {"Expect:", "Content-Type:", pids.c_str()}) {
        if (curl_slist* longer = curl_slist_append(headers_.get(), header)) {
            (void)headers_.release();
            headers_.reset(longer);
        }
    }
}

CurlConnection::~CurlConnection() = default;

bool CurlConnection::makeHandle() {
    if (handle_) {
        return true;
    }
    handle_.reset(curl_easy_init());
    CURL* const handle = handle_.get();
    if (!handle) {
        return false;
    }
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    // An empty proxy overrides the proxy and the exceptions in the environment.
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(handle, CURLOPT_HTTP09_ALLOWED, 0L);
    curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaximumBody));
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, socketOpened);
    curl_easy_setopt(handle, CURLOPT_PREREQFUNCTION, aboutToSend);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, headerReceived);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, bodyReceived);
    for (const CURLoption data : {CURLOPT_SOCKOPTDATA, CURLOPT_PREREQDATA, CURLOPT_HEADERDATA, CURLOPT_WRITEDATA}) {
        curl_easy_setopt(handle, data, this);
    }
    return true;
}

std::optional<std::string> CurlConnection::setAddress(const std::string& url) {
    if (handle_ && url == url_) {
        return std::nullopt;
    }
    auto parsed = readLoopbackURL(url);
    if (auto* const refusal = std::get_if<std::string>(&parsed)) {
        return std::move(*refusal);
    }
    const long port = std::get<LoopbackURL>(parsed).port;
    // "localhost" is resolved here, without the name service and /etc/hosts.
    List addresses(curl_slist_append(nullptr, fmt::format("localhost:{}:127.0.0.1,[::1]", port).c_str()),
                   curl_slist_free_all);
    if (!addresses || !makeHandle()) {
        return "Out of memory.";
    }
    url_.clear();  // until both are set
    if (curl_easy_setopt(handle_.get(), CURLOPT_RESOLVE, addresses.get()) != CURLE_OK ||
        curl_easy_setopt(handle_.get(), CURLOPT_URL, url.c_str()) != CURLE_OK) {
        return "Out of memory.";
    }
    addresses_ = std::move(addresses);
    url_ = url;
    port_ = port;
    return std::nullopt;
}

HTTPResponse CurlConnection::send(const HTTPRequest& request) {
    if (auto refusal = prepare(request)) {
        return {{}, 0, std::move(refusal)};
    }
    return finish(curl_easy_perform(handle_.get()));
}

std::optional<std::string> CurlConnection::prepare(const HTTPRequest& request) {
    if (auto refusal = setAddress(request.url)) {
        return refusal;
    }
    exchange_ = {};
    CURL* const handle = handle_.get();
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, milliseconds(request.timeout));
    if (request.body) {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
        // The data of an empty vector may be null, and with null curl would call a read callback.
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS,
                         request.body->empty() ? "" : reinterpret_cast<const char*>(request.body->data()));
    } else {
        curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    }
    return std::nullopt;
}

HTTPResponse CurlConnection::finish(CURLcode code) {
    curl_easy_setopt(handle_.get(), CURLOPT_POSTFIELDS, nullptr);
    if (code != CURLE_OK) {
        exchange_.response.error = errorText(code);
    } else if (!exchange_.response.body) {
        // curl takes truncated headers for the end of a response without a body.
        exchange_.response.error = errorText(CURLE_GOT_NOTHING);
    }
    if (exchange_.foreignPeer) {
        handle_.reset();  // otherwise curl would reuse the connection for the next request
    }
    return std::move(exchange_.response);
}

std::string CurlConnection::errorText(CURLcode code) const {
    if (exchange_.foreignPeer) {
        return fmt::format("Could not connect to the server: port {} does not belong to this user.", port_);
    }
    if (exchange_.otherServer) {
        return fmt::format("Could not connect to the server: port {} belongs to another program{}.", port_,
                           exchange_.fromElsewhere ? " of another pid namespace" : " or version");
    }
    if (exchange_.tooLarge || code == CURLE_FILESIZE_EXCEEDED) {
        return fmt::format("The response is longer than {} MiB.", kMaximumBody >> 20);
    }
    if (exchange_.noMemory) {
        return "Out of memory.";
    }
    switch (code) {
    case CURLE_COULDNT_CONNECT:
        return fmt::format("Could not connect to the server on port {}.", port_);
    case CURLE_OPERATION_TIMEDOUT:
        return "The request timed out.";
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        return "The connection to the server was lost.";
    case CURLE_PARTIAL_FILE:
        return "The connection to the server was lost before the response was complete.";
    default:
        return fmt::format("{}.", curl_easy_strerror(code));
    }
}

int CurlConnection::socketOpened(void* connection, curl_socket_t, curlsocktype) {
    static_cast<CurlConnection*>(connection)->exchange_.newSocket = true;
    return CURL_SOCKOPT_OK;
}

int CurlConnection::aboutToSend(void* connection, char* peer, char* local, int peerPort, int localPort) {
    auto& self = *static_cast<CurlConnection*>(connection);
    Exchange& exchange = self.exchange_;
    if (!exchange.newSocket && self.check_ == Check::EachConnection) {
        return CURL_PREREQFUNC_OK;
    }
    const auto peerEnd = SocketEnd::from(peer, peerPort);
    const auto localEnd = SocketEnd::from(local, localPort);
    exchange.foreignPeer = true;
    try {
        exchange.foreignPeer = !peerEnd || !localEnd || !serverBelongsToThisUser(*localEnd, *peerEnd);
    } catch (const std::bad_alloc&) {
        exchange.noMemory = true;
    }
    return exchange.foreignPeer ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
}

std::size_t CurlConnection::headerReceived(char* bytes, std::size_t size, std::size_t count, void* connection) {
    auto& self = *static_cast<CurlConnection*>(connection);
    Exchange& exchange = self.exchange_;
    const std::string_view line(bytes, size * count);
    if (line.starts_with("HTTP/")) {
        exchange.fromOurServer = false;
        exchange.fromElsewhere = false;
    } else if (const auto server = headerValue(line, "server")) {
        exchange.fromOurServer = isCompatibleServer(*server);
    } else if (const auto pids = headerValue(line, "krv-pid-namespace")) {
        exchange.fromElsewhere = *pids != self.pidNamespace_;
    }
    if (line == "\r\n" || line == "\n") {
        long status = 0;
        curl_easy_getinfo(self.handle_.get(), CURLINFO_RESPONSE_CODE, &status);
        // The statuses 100 to 199 only precede the final response.
        if (status >= 200 && !exchange.response.body) {
            if (!exchange.fromOurServer || exchange.fromElsewhere) {
                exchange.otherServer = true;
                return 0;  // ends the exchange
            }
            exchange.response.status = static_cast<int>(status);
            exchange.response.body.emplace();
        }
    }
    return line.size();
}

std::size_t CurlConnection::bodyReceived(char* bytes, std::size_t size, std::size_t count, void* connection) {
    Exchange& exchange = static_cast<CurlConnection*>(connection)->exchange_;
    if (!exchange.response.body) {
        return 0;
    }
    Data& body = *exchange.response.body;
    const auto more = std::as_bytes(std::span(bytes, size * count));
    if (more.size() > kMaximumBody - body.size()) {
        exchange.tooLarge = true;
        return 0;
    }
    try {
        body.insert(body.end(), more.begin(), more.end());
    } catch (const std::bad_alloc&) {
        exchange.noMemory = true;
        return 0;
    }
    return more.size();
}

}  // namespace krv

#include <algorithm>
#include <memory>
#include <mutex>

#include <unistd.h>

#include <curl/curl.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/HTTPRequest.h>

#include "SocketDiagnostics.h"

namespace krv {
namespace {

constexpr std::size_t kLargestBody = std::size_t{64} << 20;
constexpr std::string_view kPrefix = "http://localhost:";
constexpr long kHighestPort = 65535;

struct HandleDeleter {
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using Handle = std::unique_ptr<CURL, HandleDeleter>;

/// What the call-backs of one exchange work on.
struct Exchange {
    HTTPResponse response;
    bool tooLarge = false;
    bool otherUser = false;
};

std::size_t headArrived(char* /*line*/, std::size_t size, std::size_t count, void* userdata) {
    auto& exchange = *static_cast<Exchange*>(userdata);
    if (!exchange.response.body) {
        exchange.response.body.emplace();
    }
    return size * count;
}

std::size_t bodyArrived(char* bytes, std::size_t size, std::size_t count, void* userdata) {
    auto& exchange = *static_cast<Exchange*>(userdata);
    const std::size_t arrived = size * count;
    Data& body = exchange.response.body ? *exchange.response.body : exchange.response.body.emplace();
    if (arrived > kLargestBody - body.size()) {
        exchange.tooLarge = true;
        return 0;
    }
    const auto* p = reinterpret_cast<const std::byte*>(bytes);
    body.insert(body.end(), p, p + arrived);
    return arrived;
}

/// Between connecting and sending: the other end must be a process of our own user.
int aboutToSend(void* userdata, char* remote, char* local, int remotePort, int localPort) {
    auto& exchange = *static_cast<Exchange*>(userdata);
    const auto theirs = socketAddress(remote, remotePort);
    const auto ours = socketAddress(local, localPort);
    if (theirs && ours && ownerOf({*theirs, *ours}) == ::getuid()) {
        return CURL_PREREQFUNC_OK;
    }
    exchange.otherUser = true;
    return CURL_PREREQFUNC_ABORT;
}

Handle makeHandle() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    Handle handle(curl_easy_init());
    if (!handle) {
        return handle;
    }
    CURL* const h = handle.get();
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // Nothing of the environment: no proxy from http_proxy, no .netrc, no name look-up.
    curl_easy_setopt(h, CURLOPT_PROXY, "");
    curl_easy_setopt(h, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(h, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &headArrived);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &bodyArrived);
    curl_easy_setopt(h, CURLOPT_PREREQFUNCTION, &aboutToSend);
    return handle;
}

/// The port of an address of the one form that is sent to.
std::optional<long> portOf(const std::string& url) {
    if (url.compare(0, kPrefix.size(), kPrefix) != 0) {
        return std::nullopt;
    }
    long port = 0;
    std::size_t i = kPrefix.size();
    for (; i < url.size() && url[i] >= '0' && url[i] <= '9' && port <= kHighestPort; ++i) {
        port = port * 10 + (url[i] - '0');
    }
    const bool ended = i == url.size() || url[i] == '/';
    return ended && port >= 1 && port <= kHighestPort ? std::optional(port) : std::nullopt;
}

class CurlHTTPClient final : public HTTPClient {
public:
    HTTPResponse send(const HTTPRequest& request) override {
        const auto port = portOf(request.url);
        if (!port) {
            return failure(fmt::format("Could not connect to the server: {} is no address on this machine.", request.url));
        }
        // The handle keeps its connections open for the thread's next call.
        thread_local const Handle handle = makeHandle();
        if (!handle) {
            return failure("The HTTP library could not be started.");
        }
        CURL* const h = handle.get();
        Exchange exchange;
        curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
        curl_easy_setopt(h, CURLOPT_HEADERDATA, &exchange);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, &exchange);
        curl_easy_setopt(h, CURLOPT_PREREQDATA, &exchange);
        curl_easy_setopt(h, CURLOPT_TIMEOUT_MS,
                         std::max<long>(1, static_cast<long>(
                                               std::chrono::ceil<std::chrono::milliseconds>(request.timeout).count())));

        const std::string resolved = fmt::format("localhost:{}:127.0.0.1,::1", *port);
        curl_slist* const addresses = curl_slist_append(nullptr, resolved.c_str());
        curl_easy_setopt(h, CURLOPT_RESOLVE, addresses);
        curl_slist* headers = curl_slist_append(nullptr, "Expect:");
        headers = curl_slist_append(headers, "Content-Type:");
        headers = curl_slist_append(headers, "Cache-Control: no-cache");
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
        if (request.body) {
            curl_easy_setopt(h, CURLOPT_POST, 1L);
            curl_easy_setopt(h, CURLOPT_POSTFIELDS,
                             request.body->empty() ? "" : reinterpret_cast<const char*>(request.body->data()));
            curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
        } else {
            curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
        }

        const CURLcode code = curl_easy_perform(h);

        long status = 0;
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
        curl_easy_setopt(h, CURLOPT_RESOLVE, nullptr);
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, nullptr);
        curl_slist_free_all(headers);
        curl_slist_free_all(addresses);
        exchange.response.status = static_cast<int>(status);
        if (code != CURLE_OK) {
            exchange.response.error = sentence(exchange, code, *port);
        }
        return std::move(exchange.response);
    }

private:
    static HTTPResponse failure(std::string text) { return {std::nullopt, 0, std::move(text)}; }

    static std::string sentence(const Exchange& exchange, CURLcode code, long port) {
        if (exchange.otherUser) {
            return fmt::format("Could not connect to the server: port {} is held by another user.", port);
        }
        if (exchange.tooLarge) {
            return fmt::format("The server's answer is larger than {} bytes.", kLargestBody);
        }
        switch (code) {
        case CURLE_COULDNT_CONNECT:
            return fmt::format("Could not connect to the server on port {}.", port);
        case CURLE_OPERATION_TIMEDOUT:
            return "The request timed out.";
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return "The network connection was lost.";
        default:
            return fmt::format("The request failed: {}.", curl_easy_strerror(code));
        }
    }
};

}  // namespace

HTTPClient::~HTTPClient() = default;

HTTPClient& HTTPClient::shared() {
    static auto* client = new CurlHTTPClient;
    return *client;
}

}  // namespace krv

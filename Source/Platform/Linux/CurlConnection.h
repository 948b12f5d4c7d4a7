#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <curl/curl.h>

#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

/// A curl handle and the request that it sends. Used alone, it keeps its connections open between requests.
class CurlConnection {
public:
    /// When the kernel is asked whose socket is at the other end.
    enum class Check : std::uint8_t { EachConnection, EachRequest };

    explicit CurlConnection(Check check = Check::EachConnection);
    ~CurlConnection();
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

    /// Blocks until the exchange has ended.
    [[nodiscard]] HTTPResponse send(const HTTPRequest& request);

    // The same in steps, for a multi handle.

    /// Prepares the handle. Returns why the request cannot be sent, or nothing. The request must not change until
    /// finish().
    [[nodiscard]] std::optional<std::string> prepare(const HTTPRequest& request);
    [[nodiscard]] CURL* handle() const { return handle_.get(); }
    /// Returns the response after the transfer has ended with this code.
    [[nodiscard]] HTTPResponse finish(CURLcode code);

private:
    /// The state of one request.
    struct Exchange {
        HTTPResponse response{};
        /// Whether the connection was opened for this request.
        bool newSocket = false;
        bool foreignPeer = false;
        /// Whether the response that is being received names our server.
        bool fromOurServer = false;
        bool fromElsewhere = false;
        bool otherServer = false;
        bool tooLarge = false;
        bool noMemory = false;
    };
    using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
    using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

    [[nodiscard]] bool makeHandle();
    /// Sets the address of the next request, unless it is that of the previous one. Returns why it cannot be used, or
    /// nothing.
    [[nodiscard]] std::optional<std::string> setAddress(const std::string& url);
    [[nodiscard]] std::string errorText(CURLcode code) const;
    static int socketOpened(void* connection, curl_socket_t socket, curlsocktype purpose);
    static int aboutToSend(void* connection, char* peer, char* local, int peerPort, int localPort);
    static std::size_t headerReceived(char* bytes, std::size_t size, std::size_t count, void* connection);
    static std::size_t bodyReceived(char* bytes, std::size_t size, std::size_t count, void* connection);

    const Check check_;
    const std::string pidNamespace_;
    List headers_;
    List addresses_;
    Handle handle_;
    /// The address that is set in the handle.
    std::string url_;
    long port_ = 0;
    Exchange exchange_;
};

}  // namespace krv

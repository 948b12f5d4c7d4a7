#pragma once

#include <memory>
#include <optional>
#include <string>

#include <curl/curl.h>

#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

/// The connections of one thread, in a curl handle that keeps them open between requests.
class CurlConnection {
public:
    CurlConnection();
    ~CurlConnection();
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

    [[nodiscard]] HTTPResponse send(const HTTPRequest& request);

private:
    struct Exchange;
    using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
    using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

    [[nodiscard]] bool makeHandle();
    /// Sets the address of the next request, unless it is that of the previous one. Returns why it cannot be used, or
    /// nothing.
    [[nodiscard]] std::optional<std::string> setAddress(const std::string& url);
    [[nodiscard]] static std::string errorText(CURLcode code, const Exchange& exchange, long port);
    static int socketOpened(void* exchange, curl_socket_t socket, curlsocktype purpose);
    static int aboutToSend(void* exchange, char* peer, char* local, int peerPort, int localPort);
    static std::size_t headerReceived(char* bytes, std::size_t size, std::size_t count, void* exchange);
    static std::size_t bodyReceived(char* bytes, std::size_t size, std::size_t count, void* exchange);

    const std::string pidNamespace_;
    List headers_;
    List addresses_;
    Handle handle_;
    /// The address that is set in the handle.
    std::string url_;
    long port_ = 0;
};

}  // namespace krv

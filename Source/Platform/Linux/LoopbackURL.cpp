#include "LoopbackURL.h"

#include <charconv>
#include <memory>

#include <curl/curl.h>
#include <fmt/format.h>

#include <KRVQTProcessClient/Platform/Port.h>

namespace krv {
namespace {

struct CurlURL {
    CURLU* const handle = curl_url();
    CurlURL() = default;
    ~CurlURL() { curl_url_cleanup(handle); }
    CurlURL(const CurlURL&) = delete;
    CurlURL& operator=(const CurlURL&) = delete;

    [[nodiscard]] std::string part(CURLUPart which) const {
        char* text = nullptr;
        if (curl_url_get(handle, which, &text, which == CURLUPART_PORT ? CURLU_DEFAULT_PORT : 0) != CURLUE_OK) {
            return {};
        }
        const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
        return text;
    }
};

}  // namespace

std::variant<LoopbackURL, std::string> readLoopbackURL(const std::string& url) {
    const CurlURL parsed;
    if (!parsed.handle) {
        return std::string("Out of memory.");
    }
    switch (curl_url_set(parsed.handle, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME)) {
    case CURLUE_OK:
        break;
    case CURLUE_BAD_PORT_NUMBER:
        return fmt::format("Could not connect to the server: \"{}\" has no port from 1 to {}.", url, kHighestPort);
    default:
        return fmt::format("\"{}\" is not a URL.", url);
    }
    if (parsed.part(CURLUPART_SCHEME) != "http") {
        return fmt::format("\"{}\" is not an http URL.", url);
    }
    LoopbackURL result;
    result.host = parsed.part(CURLUPART_HOST);
    if (result.host != "localhost" && result.host != "127.0.0.1" && result.host != "[::1]") {
        return fmt::format("\"{}\" is not a server on this machine.", url);
    }
    const std::string port = parsed.part(CURLUPART_PORT);
    std::from_chars(port.data(), port.data() + port.size(), result.port);
    if (result.port < 1 || result.port > kHighestPort) {
        return fmt::format("Could not connect to the server: \"{}\" has no port from 1 to {}.", url, kHighestPort);
    }
    return result;
}

}  // namespace krv

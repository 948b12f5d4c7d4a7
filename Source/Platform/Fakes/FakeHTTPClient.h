#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

/// A client that returns a test's responses by URL. A URL without a response refuses the connection. Thread-safe.
///
///     FakeHTTPClient http;
///     http.respond("http://localhost:8003/status", FakeHTTPClient::reply("{}"));
///     http.respondOnce("http://localhost:8003", FakeHTTPClient::timedOut());
class FakeHTTPClient final : public HTTPClient {
public:
    using Handler = std::function<HTTPResponse(const HTTPRequest&)>;

    /// Sets the response to every later request for the URL.
    void respond(std::string_view url, HTTPResponse response);
    /// Sets a handler that makes the response to each request. It is called without a lock held.
    void respond(std::string_view url, Handler handler);
    /// Queues a response to one request for the URL. Queued responses are returned before that of respond().
    void respondOnce(std::string_view url, HTTPResponse response);
    /// Removes the responses of a URL, so that it refuses connections.
    void refuse(std::string_view url);

    HTTPResponse send(const HTTPRequest& request) override;

    /// Returns all requests so far, in order.
    [[nodiscard]] std::vector<HTTPRequest> requests() const;
    /// Returns the URLs of all requests so far, in order.
    [[nodiscard]] std::vector<std::string> urls() const;

    /// Returns a complete response.
    [[nodiscard]] static HTTPResponse reply(std::string_view body, int status = 200);
    [[nodiscard]] static HTTPResponse reply(Data body, int status = 200);
    /// Returns a response that was cut short after these bytes.
    [[nodiscard]] static HTTPResponse cutShort(std::string_view body);
    /// Return a failure without a response: a refused connection, a time-out.
    [[nodiscard]] static HTTPResponse refused();
    [[nodiscard]] static HTTPResponse timedOut();

private:
    struct Script {
        std::deque<HTTPResponse> once;
        Handler always;
    };

    mutable Mutex mutex_;
    std::map<std::string, Script, std::less<>> scripts_ KRV_GUARDED_BY(mutex_);
    std::vector<HTTPRequest> requests_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv

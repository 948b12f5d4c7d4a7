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

/// A client whose answers a test gives by URL. At a URL without an answer nobody listens. Any thread.
///
///     FakeHTTPClient http;
///     http.answer("http://localhost:8003/status", FakeHTTPClient::reply("{}"));
///     http.answerOnce("http://localhost:8003", FakeHTTPClient::timedOut());
class FakeHTTPClient final : public HTTPClient {
public:
    using Handler = std::function<HTTPResponse(const HTTPRequest&)>;

    /// Answers every request to the URL from now on.
    void answer(std::string_view url, HTTPResponse response);
    /// Works every answer out when it is asked for; called without a lock held.
    void answer(std::string_view url, Handler handler);
    /// Answers the next request to the URL that no other call of answerOnce answers, before what answer() gave.
    void answerOnce(std::string_view url, HTTPResponse response);
    /// Nobody listens there any more.
    void refuse(std::string_view url);

    HTTPResponse send(const HTTPRequest& request) override;

    /// All requests so far, in order.
    [[nodiscard]] std::vector<HTTPRequest> requests() const;
    /// The URLs of all requests so far, in order.
    [[nodiscard]] std::vector<std::string> urls() const;

    /// A whole answer.
    [[nodiscard]] static HTTPResponse reply(std::string_view body, int status = 200);
    [[nodiscard]] static HTTPResponse reply(Data body, int status = 200);
    /// An answer that was cut short after these bytes.
    [[nodiscard]] static HTTPResponse cutShort(std::string_view body);
    /// No answer: nobody listens, or it did not come in time.
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

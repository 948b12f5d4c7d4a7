#include <algorithm>
#include <span>
#include <utility>

#include <KRVQTProcessClient/Platform/Fakes/FakeHTTPClient.h>

namespace krv {

void FakeHTTPClient::respond(std::string_view url, HTTPResponse response) {
    respond(url, [response = std::move(response)](const HTTPRequest&) { return response; });
}

void FakeHTTPClient::respond(std::string_view url, Handler handler) {
    const LockGuard lock(mutex_);
    scripts_[std::string(url)].always = std::move(handler);
}

void FakeHTTPClient::respondOnce(std::string_view url, HTTPResponse response) {
    const LockGuard lock(mutex_);
    scripts_[std::string(url)].once.push_back(std::move(response));
}

void FakeHTTPClient::refuse(std::string_view url) {
    const LockGuard lock(mutex_);
    scripts_.erase(std::string(url));
}

HTTPResponse FakeHTTPClient::send(const HTTPRequest& request) {
    Handler handler;
    {
        const LockGuard lock(mutex_);
        requests_.push_back(request);
        const auto it = scripts_.find(request.url);
        if (it != scripts_.end()) {
            auto& [once, always] = it->second;
            if (!once.empty()) {
                HTTPResponse response = std::move(once.front());
                once.pop_front();
                return response;
            }
            handler = always;
        }
    }
    return handler ? handler(request) : refused();
}

std::vector<HTTPRequest> FakeHTTPClient::requests() const {
    const LockGuard lock(mutex_);
    return requests_;
}

std::vector<std::string> FakeHTTPClient::urls() const {
    const LockGuard lock(mutex_);
    std::vector<std::string> urls;
    std::transform(requests_.begin(), requests_.end(), std::back_inserter(urls),
                   [](const HTTPRequest& request) { return request.url; });
    return urls;
}

HTTPResponse FakeHTTPClient::reply(std::string_view body, int status) {
    const auto bytes = std::as_bytes(std::span(body));
    return reply(Data(bytes.begin(), bytes.end()), status);
}

HTTPResponse FakeHTTPClient::reply(Data body, int status) {
    return {std::move(body), status, {}};
}

HTTPResponse FakeHTTPClient::cutShort(std::string_view body) {
    HTTPResponse response = reply(body);
    response.error = "The connection to the server was lost before the response was complete.";
    return response;
}

HTTPResponse FakeHTTPClient::refused() {
    return {{}, 0, "Could not connect to the server."};
}

HTTPResponse FakeHTTPClient::timedOut() {
    return {{}, 0, "The request timed out."};
}

}  // namespace krv

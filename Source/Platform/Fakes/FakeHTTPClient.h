#pragma once

#include <map>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Platform/HTTPRequest.h>

namespace krv {

/// A client that answers by address as a test says, and fails to connect to every other. One thread.
class FakeHTTPClient final : public HTTPClient {
public:
    void answer(std::string url, HTTPResponse response) {
        answers_.insert_or_assign(std::move(url), std::move(response));
    }

    HTTPResponse send(const HTTPRequest& request) override {
        requests_.push_back(request);
        const auto place = answers_.find(request.url);
        return place != answers_.end() ? place->second : HTTPResponse{std::nullopt, 0, "Could not connect to the server."};
    }

    [[nodiscard]] const std::vector<HTTPRequest>& requests() const { return requests_; }

private:
    std::map<std::string, HTTPResponse> answers_;
    std::vector<HTTPRequest> requests_;
};

}  // namespace krv

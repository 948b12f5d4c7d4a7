#include <new>

#include <curl/curl.h>

#include <KRVQTProcessClient/Foundation/ThreadOwned.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>

#include "CurlConnection.h"

namespace krv {
namespace {

class CurlHTTPClient final : public HTTPClient {
public:
    // Never undone, because the application may use curl too, and requests are sent until the process exits.
    CurlHTTPClient() { curl_global_init(CURL_GLOBAL_DEFAULT); }

    HTTPResponse send(const HTTPRequest& request) override {
        try {
            // Open until the thread exits.
            auto* const connection = threadOwned<CurlConnection>();
            return connection ? connection->send(request) : CurlConnection().send(request);
        } catch (const std::bad_alloc&) {
            HTTPResponse failed;
            failed.error = "Out of memory.";
            return failed;
        }
    }
};

}  // namespace

HTTPClient& HTTPClient::shared() {
    static auto* client = new CurlHTTPClient;
    return *client;
}

}  // namespace krv

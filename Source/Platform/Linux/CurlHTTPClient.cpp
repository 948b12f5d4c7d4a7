#include <memory>
#include <new>

#include <curl/curl.h>

#include <KRVQTProcessClient/Platform/HTTPClient.h>

#include "CurlConnection.h"

namespace krv {
namespace {

thread_local bool threadIsEnding = false;

/// The calling thread's connections, created with its first request and closed when the thread exits.
struct ThreadConnection {
    std::unique_ptr<CurlConnection> connection;
    ~ThreadConnection() {
        threadIsEnding = true;
        connection.reset();
    }
};

class CurlHTTPClient final : public HTTPClient {
public:
    // Never undone, because the application may use curl too, and requests are sent until the process exits.
    CurlHTTPClient() { curl_global_init(CURL_GLOBAL_DEFAULT); }

    HTTPResponse send(const HTTPRequest& request) override {
        try {
            if (threadIsEnding) {  // called by the destructor of another thread-local object
                return CurlConnection().send(request);
            }
            thread_local ThreadConnection mine;
            if (!mine.connection) {
                mine.connection = std::make_unique<CurlConnection>();
            }
            return mine.connection->send(request);
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

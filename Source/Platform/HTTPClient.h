#pragma once

#include <optional>
#include <string>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// One synchronous request to a server on this machine.
struct HTTPRequest {
    /// "http://localhost:PORT[/path]". Nothing else than http to the loopback addresses is sent.
    std::string url;
    /// Absent: GET. Present, also when empty: POST with this body. No content type is given.
    std::optional<Data> body;
    /// For the whole exchange, from the look-up to the last byte.
    Clock::Duration timeout;
};

struct HTTPResponse {
    /// Present as soon as a response head has come, whatever its status; holds the bytes that came.
    std::optional<Data> body;
    /// The status of the response head, 0 when none came.
    int status = 0;
    /// Why the exchange did not end as it should, as a sentence for people; absent when it did. May stand
    /// beside a body that was cut short.
    std::optional<std::string> error;
};

/// Sends requests over loopback connections that stay open between calls, one set for each calling thread.
///
/// No proxy, no redirect, no cookie, no cache, no signal; ports outside 1 to 65535 fail as a connection
/// error. After connecting and before anything is sent, the peer's socket must belong to this process's user;
/// otherwise the request fails as a connection error. Response bodies over 64 MiB are refused with an error.
///
/// Thread-safe; a call blocks its thread until it is done or the time-out has passed. Raises nothing.
class KRV_EXPORT HTTPClient {
public:
    virtual ~HTTPClient();
    [[nodiscard]] virtual HTTPResponse send(const HTTPRequest& request) = 0;

    /// The process's client. Lives as long as the process.
    [[nodiscard]] static HTTPClient& shared();
};

}  // namespace krv

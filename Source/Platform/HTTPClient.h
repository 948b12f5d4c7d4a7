#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// The header with which client and server tell each other the number of their pid namespace (see pidNamespace()), in
/// decimal.
inline constexpr std::string_view kPidNamespaceHeader = "KRV-Pid-Namespace";

/// One synchronous request to a server on this machine.
struct HTTPRequest {
    /// "http://localhost:PORT[/path]". Any URL other than http to a loopback address is refused.
    std::string url;
    /// Absent: GET. Present, even if empty: POST with this body, without a content type.
    std::optional<Data> body;
    /// Limit for the whole exchange, from the look-up to the last byte.
    Clock::Duration timeout;
};

struct HTTPResponse {
    /// The bytes that were received. Present if response headers were received, with any status.
    std::optional<Data> body;
    /// The HTTP status, 0 if no response headers were received.
    int status = 0;
    /// Why the exchange failed, as a sentence for people; absent on success. Both this and body are present if the
    /// body was cut short.
    std::optional<std::string> error;
};

/// Sends requests over loopback connections, which stay open between calls, one set per calling thread.
///
/// Uses no proxies, redirects, cookies, caches or signals. A port outside 1 to 65535 is a connection error. After
/// connecting and before sending, checks that the peer's socket belongs to this process's user, else fails with a
/// connection error. A response without the header "Server: KRVQuicktimeProcess/VERSION", with this build's major
/// version, is a connection error too: another program listens on the port. So is one that names another pid namespace
/// in the header kPidNamespaceHeader: that server cannot see this process. Refuses response bodies over 64 MiB with an
/// error. Every request has the header kPidNamespaceHeader.
///
/// Blocks the calling thread until the exchange ends or times out. Does not throw. Thread-safe.
class KRV_EXPORT HTTPClient {
public:
    virtual ~HTTPClient();
    [[nodiscard]] virtual HTTPResponse send(const HTTPRequest& request) = 0;

    /// Returns the process's client. Never destroyed.
    [[nodiscard]] static HTTPClient& shared();
};

}  // namespace krv

#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {

// Names of the transport's two ends and of its ping, "8081", "8082" and "kKRVQuicktimeProcessPing". Exported for
// applications that compare them; neither the library nor the media server uses them.

/// The client's end.
KRV_EXPORT extern const std::string_view kClientTransport;
/// The server's end.
KRV_EXPORT extern const std::string_view kServerTransport;
/// The ping.
KRV_EXPORT extern const std::string_view kKRVQTProcessPing;

/// Name of the exception for a server that cannot be reached.
KRV_EXPORT extern const std::string_view kHTTPServerNSURLConnectionError;

/// Carries one operation record to the server and its reply back. All calls are synchronous, block the calling
/// thread, and may be made from any thread.
class KRV_EXPORT KRVTransport {
public:
    virtual ~KRVTransport();

    /// Sends one operation and returns the reply as raw bytes, undecoded; may return null when the transport can
    /// succeed without a reply. Raises when the server could not be reached or the record cannot be sent.
    virtual std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) = 0;

    /// Whether the exception, raised by this transport, means that the server could not be reached, as opposed to the
    /// server having refused the work.
    [[nodiscard]] virtual bool isThisACommunicationsFailure(const Exception& exception) const = 0;

    /// Whether a server is known and answers right now. Asks it, and so takes up to about a second.
    [[nodiscard]] virtual bool serviceReadyToRock() = 0;

    /// For log lines.
    [[nodiscard]] virtual std::string description() const = 0;
};

}  // namespace krv

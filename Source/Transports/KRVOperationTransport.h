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

/// Sends an operation record to the server and receives the reply. All calls block the calling thread. Thread-safe.
class KRV_EXPORT KRVTransport {
public:
    virtual ~KRVTransport();

    /// Sends one operation and returns the reply as raw bytes. May return null if the transport can succeed without a
    /// reply. Throws an Exception if the server cannot be reached or the record cannot be sent. operation may be null:
    /// the server then receives an empty request, and refuses it.
    virtual std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) = 0;

    /// Returns whether an exception of this transport means that the server could not be reached, and not that it
    /// refused the work.
    [[nodiscard]] virtual bool isThisACommunicationsFailure(const Exception& exception) const = 0;

    /// Returns whether a server is known and responds. Sends it a request, so this can take about a second.
    [[nodiscard]] virtual bool serviceReadyToRock() = 0;

    /// For log lines.
    [[nodiscard]] virtual std::string description() const = 0;
};

}  // namespace krv

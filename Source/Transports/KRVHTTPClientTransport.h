#pragma once

#include <memory>

#include <KRVQTProcessClient/Discovery/ServicePort.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// Posts archived operations to the loopback HTTP server whose port the discovery knows.
///
/// Every failure to talk to the server raises Exception kHTTPServerNSURLConnectionError, the reply that says "cannot
/// take work now" (error domain "KRVQuicktimeProcess", code 1) included. Nothing is kept between calls.
class KRV_EXPORT KRVHTTPClientTransport final : public KRVTransport {
public:
    /// discovery: where to ask for the port, usually HTTPServerDiscovery::defaultInstance(); must not be empty.
    /// client: what sends the requests; must live as long as the transport.
    explicit KRVHTTPClientTransport(std::shared_ptr<ServicePort> discovery, HTTPClient& client = HTTPClient::shared());
    ~KRVHTTPClientTransport() override;

    /// Asks the server's status page, within a second. True when any reply came, whatever its status. Raises nothing.
    [[nodiscard]] bool canWeGetStatusFromServer();

    /// canWeGetStatusFromServer, but without asking when no port is known.
    [[nodiscard]] bool serviceReadyToRock() override;

    /// Posts the operation, within a minute, and returns the bytes of the reply even when they are no operation.
    std::shared_ptr<const Data> makeHTTPCallAndReturnData(const KRVOperationBase::Ref& operation);
    /// The same.
    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) override;

    /// Whether the exception has the name that this transport gives to all of its own.
    [[nodiscard]] bool isThisACommunicationsFailure(const Exception& exception) const override;

    [[nodiscard]] std::string description() const override;

private:
    std::shared_ptr<ServicePort> discovery_;
    HTTPClient& client_;
};

}  // namespace krv

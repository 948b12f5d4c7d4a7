#pragma once

#include <memory>

#include <KRVQTProcessClient/Discovery/ServicePort.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/HTTPClient.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

/// Posts archived operations to the media server on the loopback port that discovery provides.
///
/// Every failure to reach the server throws Exception kHTTPServerNSURLConnectionError. That includes the reply "cannot
/// accept work" (OperationErrorCode::CannotAcceptWork). Keeps no state between calls.
class KRV_EXPORT KRVHTTPClientTransport final : public KRVTransport {
public:
    /// discovery: provides the port, usually HTTPServerDiscovery::defaultInstance(); must not be null. The transport
    /// keeps a reference to it.
    /// client: sends the requests; must outlive the transport.
    explicit KRVHTTPClientTransport(std::shared_ptr<ServicePort> discovery, HTTPClient& client = HTTPClient::shared());
    ~KRVHTTPClientTransport() override;

    /// Requests the server's status page, with a time-out of one second. Returns true for a response of any status.
    /// Does not throw.
    [[nodiscard]] bool canWeGetStatusFromServer();

    /// Returns canWeGetStatusFromServer(), or false without a request if the port is not known.
    [[nodiscard]] bool serviceReadyToRock() override;

    /// Posts the operation, with a time-out of one minute, and returns the bytes of the reply, even if they are not an
    /// operation.
    std::shared_ptr<const Data> makeHTTPCallAndReturnData(const KRVOperationBase::Ref& operation);
    /// The same as makeHTTPCallAndReturnData.
    std::shared_ptr<const Data> sendOperation(const KRVOperationBase::Ref& operation) override;

    /// Returns whether the exception's name is kHTTPServerNSURLConnectionError.
    [[nodiscard]] bool isThisACommunicationsFailure(const Exception& exception) const override;

    [[nodiscard]] std::string description() const override;

private:
    std::shared_ptr<ServicePort> discovery_;
    HTTPClient& client_;
};

}  // namespace krv

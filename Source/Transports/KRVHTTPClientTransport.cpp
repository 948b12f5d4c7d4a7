#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>
#include <KRVQTProcessClient/Transports/KRVHTTPClientTransport.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr auto kStatusTimeout = 1s;
constexpr auto kOperationTimeout = 60s;
constexpr long kKnownToBeAbsent = -1;
constexpr std::uint32_t kLastHousekeepingType = OpAmIRegistered;
constexpr std::int32_t kLevelOfPayloads = 15;
constexpr auto kCannotAcceptWork = static_cast<std::int64_t>(OperationErrorCode::CannotAcceptWork);

constexpr LogSite kCallSite{"Source/Transports/KRVHTTPClientTransport", Selector("makeHTTPCallAndReturnData:")};
constexpr LogSite kCallMessagingSite{kCallSite.file, kCallSite.function, kLoggingHTTPMessaging};

[[noreturn]] void unreachable(std::string reason) {
    throw Exception(std::string(kHTTPServerNSURLConnectionError), std::move(reason));
}

}  // namespace

KRVHTTPClientTransport::KRVHTTPClientTransport(std::shared_ptr<ServicePort> discovery, HTTPClient& client)
    : discovery_(std::move(discovery))
    , client_(client) {}

KRVHTTPClientTransport::~KRVHTTPClientTransport() = default;

bool KRVHTTPClientTransport::canWeGetStatusFromServer() {
    const HTTPResponse response =
        client_.send({.url = fmt::format("http://localhost:{}/status", discovery_->servicePortNumber()),
                      .body = std::nullopt,
                      .timeout = kStatusTimeout});
    return response.body && !response.error;
}

bool KRVHTTPClientTransport::serviceReadyToRock() {
    return discovery_->servicePortNumber() >= 1 && canWeGetStatusFromServer();
}

std::shared_ptr<const Data> KRVHTTPClientTransport::makeHTTPCallAndReturnData(const KRVOperationBase::Ref& operation) {
    const long port = discovery_->servicePortNumber();
    if (port == kKnownToBeAbsent) {
        unreachable("Unable to talk to server. No port number.");
    }
    const std::string url = fmt::format("http://localhost:{}", port);
    const std::int32_t verbosity = Logging::quicktimeLoggingLevel();
    const std::int32_t type = operation ? operation->operationType() : 0;
    const std::string name = operation ? operation->nameFromType() : "(null)";
    const bool housekeeping = static_cast<std::uint32_t>(type) <= kLastHousekeepingType;
    if (!housekeeping || verbosity >= kLevelOfPayloads) {
        KRV_LOG(kLogFlagVerbose, kCallMessagingSite, "Making connection for {} to {}", name, url);
    }

    HTTPResponse response = client_.send(
        {.url = url, .body = operation ? operation->convertToData() : Data(), .timeout = kOperationTimeout});
    if (!response.body) {
        KRV_LOG(kLogFlagVerbose, kCallMessagingSite, "Received back nil for url: {}", url);
        unreachable(
            response.error
                ? fmt::format("No data was returned from the sendSynchronousRequest. Error from NSURLConnection: {}",
                              *response.error)
                : "No data was returned from the sendSynchronousRequest. Probably NSURLConnection problem.");
    }

    const auto body = std::make_shared<const Data>(std::move(*response.body));
    if (const auto reply = KRVOperationBase::operationFromData(body)) {
        if (verbosity >= kLevelOfPayloads) {
            KRV_LOG(kLogFlagVerbose, kCallMessagingSite, "Payload for {} is {}", url, reply->description());
        }
        const auto error = reply->error();
        if (error && error->domain() == kMediaServerErrorDomain && error->code() == kCannotAcceptWork) {
            std::string text = fmt::format("Command {} failed with {}", name, error->localizedDescription());
            KRV_LOG(kLogFlagWarning, kCallSite, "{}", text);
            unreachable(std::move(text));
        }
    } else {
        KRV_LOG(kLogFlagVerbose, kCallMessagingSite, "Could not convert response: {} into an operation payload",
                KRVOperationBase::valueFromData(body).description());
    }
    if (response.error) {
        unreachable(fmt::format("Unable to talk to server, error: {}", *response.error));
    }
    // Returns the bytes, not the record. The record was decoded for the check and the log only; the caller decodes too.
    return body;
}

std::shared_ptr<const Data> KRVHTTPClientTransport::sendOperation(const KRVOperationBase::Ref& operation) {
    return makeHTTPCallAndReturnData(operation);
}

bool KRVHTTPClientTransport::isThisACommunicationsFailure(const Exception& exception) const {
    return exception.name() == kHTTPServerNSURLConnectionError;
}

std::string KRVHTTPClientTransport::description() const {
    return fmt::format("<KRVHTTPClientTransport: port {}>", discovery_->servicePortNumber());
}

}  // namespace krv

#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

constinit const std::string_view kClientTransport = "8081";
constinit const std::string_view kServerTransport = "8082";
constinit const std::string_view kKRVQTProcessPing = "kKRVQuicktimeProcessPing";
constinit const std::string_view kHTTPServerNSURLConnectionError = "kHTTPServerNSURLConnectionError";

KRVTransport::~KRVTransport() = default;

}  // namespace krv

#include <KRVQTProcessClient/Platform/HTTPRequest.h>

namespace krv {

HTTPClient::~HTTPClient() = default;

}  // namespace krv

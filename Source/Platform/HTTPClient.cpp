#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

HTTPClient::~HTTPClient() = default;

}  // namespace krv

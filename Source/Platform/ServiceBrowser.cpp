#include <KRVQTProcessClient/Platform/ServiceBrowser.h>

namespace krv {

NetService::~NetService() = default;
ServiceBrowser::~ServiceBrowser() = default;

}  // namespace krv

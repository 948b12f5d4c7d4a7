#include <KRVQTProcessClient/Discovery/ServicePort.h>

namespace krv {

ServicePort::~ServicePort() = default;

}  // namespace krv

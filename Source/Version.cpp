#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Version.h>

namespace krv {

std::string_view libraryVersion() noexcept {
    return buildVersion();
}

}  // namespace krv

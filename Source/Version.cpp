#include <KRVQTProcessClient/Version.h>

namespace krv {

std::string_view libraryVersion() noexcept {
    return KRV_VERSION;
}

}  // namespace krv

#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Returns the version of the loaded library, such as "1.0.0". It may differ from the version of the headers with which
/// the application was built.
[[nodiscard]] KRV_EXPORT std::string_view libraryVersion() noexcept;

}  // namespace krv

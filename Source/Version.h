#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The version of the library that is loaded, such as "0.1.0". It may differ from that of the headers an application
/// was built with.
[[nodiscard]] KRV_EXPORT std::string_view libraryVersion() noexcept;

}  // namespace krv

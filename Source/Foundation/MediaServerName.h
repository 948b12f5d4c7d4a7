#pragma once

#include <string_view>

namespace krv {

/// The media server's name: that of its executable, its bundle, its service, its folders and its error domain.
inline constexpr std::string_view kMediaServerName = "KRVQuicktimeProcess";

}  // namespace krv

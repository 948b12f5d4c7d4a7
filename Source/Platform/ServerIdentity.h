#pragma once

#include <string>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

/// How client and server recognise each other. A client uses a server of its own major version only.
namespace krv {

/// Returns this build's version, such as "1.0.0".
[[nodiscard]] KRV_EXPORT std::string_view buildVersion() noexcept;

/// Returns the major version of a text such as "0.1.0", "0.1" or "0"; -1 for any other text. Pure.
[[nodiscard]] KRV_EXPORT int majorVersion(std::string_view version) noexcept;

/// Returns whether this is a version of which this build can use the server. Pure.
[[nodiscard]] KRV_EXPORT bool isCompatibleVersion(std::string_view version) noexcept;

/// Returns whether the value of a response's header "Server" is that of a media server that this build can use:
/// "KRVQuicktimeProcess/0.1.0", for instance. Pure.
[[nodiscard]] KRV_EXPORT bool isCompatibleServer(std::string_view header) noexcept;

/// Returns the name of a file in the runtime folder of which each server keeps its own: "KRVQuicktimeProcess" and the
/// suffix. Servers of another major version or pid namespace do not serve the same clients, so both are part of the
/// name: the pid namespace's number outside the machine's first one, the major version from 1.
[[nodiscard]] KRV_EXPORT std::string serverFileName(std::string_view suffix);

}  // namespace krv

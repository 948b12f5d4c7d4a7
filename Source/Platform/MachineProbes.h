#pragma once

#include <cstdint>

/// Tries what the library depends on, for diagnosis. Internal to the library. Thread-safe.
namespace krv {

/// Returns whether a multicast packet that is sent on the loopback interface arrives. Takes up to half a second.
[[nodiscard]] bool loopbackCarriesMulticast();

/// Returns whether the system bus accepts connections.
[[nodiscard]] bool systemBusResponds();

/// Returns how many TCP ports of a range, both ends included, are free on the loopback interface.
[[nodiscard]] int freePortsOnLoopback(std::int32_t lowest, std::int32_t highest);

}  // namespace krv

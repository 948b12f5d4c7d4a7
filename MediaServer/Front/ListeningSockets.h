#pragma once

#include <cstdint>
#include <optional>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The server's listening sockets: the same port on both loopback addresses, and nowhere else.
struct ListeningSockets {
    Descriptor ipv4;
    /// Empty on a machine without ::1.
    Descriptor ipv6;
    std::uint16_t port = 0;

    /// Listens on the first port from minimum to maximum that is free on both addresses. Returns nothing if no port is.
    [[nodiscard]] static std::optional<ListeningSockets> open(std::int32_t minimum, std::int32_t maximum);
};

}  // namespace krv::server

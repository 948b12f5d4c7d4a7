#pragma once

#include <cstdint>
#include <optional>

namespace krv::server {

/// What the transport knows about the process that sent a request.
struct RequestSender {
    /// The number of the pid namespace that the sender says it is in. Empty if it does not say.
    std::optional<std::uint64_t> pidNamespace{};
};

}  // namespace krv::server

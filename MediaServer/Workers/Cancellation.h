#pragma once

#include <atomic>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// Asks a running operation to end. Thread-safe.
class Cancellation {
public:
    Cancellation();
    void request();
    [[nodiscard]] bool requested() const noexcept { return requested_; }
    /// A descriptor that is readable after request(); borrowed.
    [[nodiscard]] int descriptor() const noexcept { return event_.get(); }

private:
    Descriptor event_;
    std::atomic<bool> requested_{false};
};

}  // namespace krv::server

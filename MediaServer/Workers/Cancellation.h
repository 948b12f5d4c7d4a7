#pragma once

#include <atomic>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// Asks a running operation to end. Any thread.
class Cancellation {
public:
    Cancellation();
    /// The descriptor becomes readable and stays so.
    void request();
    [[nodiscard]] bool requested() const noexcept { return requested_; }
    [[nodiscard]] int descriptor() const noexcept { return event_.get(); }

private:
    Descriptor event_;
    std::atomic<bool> requested_{false};
};

}  // namespace krv::server

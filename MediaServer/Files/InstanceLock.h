#pragma once

#include <filesystem>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The lock that admits one server per user: on a file in the runtime folder. The kernel releases it when the process
/// exits or is killed.
class InstanceLock {
public:
    enum class Result { Held, TakenByAnother, Failed };

    /// Tries to take the lock, without waiting. folder: the runtime folder; empty is Failed.
    [[nodiscard]] Result acquire(const std::filesystem::path& folder);

private:
    Descriptor file_;
};

}  // namespace krv::server

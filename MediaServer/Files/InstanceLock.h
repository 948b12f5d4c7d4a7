#pragma once

#include <filesystem>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// One server for each user: whoever holds the lock on a file in the runtime folder. The kernel releases it when the
/// process ends, however it ends.
class InstanceLock {
public:
    enum class Result { Held, TakenByAnother, Failed };

    /// Tries once, without waiting.
    [[nodiscard]] Result acquire(const std::filesystem::path& folder);

private:
    Descriptor file_;
};

}  // namespace krv::server

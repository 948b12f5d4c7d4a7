#pragma once

#include <chrono>
#include <memory>

#include <MediaServer/Files/InstalledProgram.h>

namespace krv::server {

/// Looks from time to time whether a program is still installed. It does so on a thread of its own, because the
/// program's drive may stop responding. If there is no thread for it, the program counts as present. Thread-safe.
class RemovalWatch {
public:
    RemovalWatch(InstalledProgram program, std::chrono::milliseconds interval);
    /// Does not wait for a drive.
    ~RemovalWatch();
    RemovalWatch(const RemovalWatch&) = delete;
    RemovalWatch& operator=(const RemovalWatch&) = delete;

    /// Returns whether the program was missing when it was last looked for.
    [[nodiscard]] bool removed() const;

private:
    struct Shared;

    /// The thread may outlive this object.
    const std::shared_ptr<Shared> shared_;
};

}  // namespace krv::server

#pragma once

#include <filesystem>
#include <string>

#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// The lock that admits one server per user, major version and pid namespace. The kernel releases it when the last
/// thread of the process has ended. If that takes long because a thread of a killed server is blocked on a drive, the
/// next server takes the lock from it; InstanceLock.cpp says how.
///
/// It is two locks, on a file in the runtime folder and on one in the state folder. When the user logs out, the runtime
/// folder is removed, although a server that still has work goes on. The next log-in makes a new one, and without the
/// second lock another server would start. The second file has the machine's id in its name, because a home folder may
/// be shared by several machines. Without a usable state folder, or on a file system without locks, the first lock is
/// enough. An abstract socket would need no folder, but any user can take its name first.
///
/// serverFileName() makes the names of both files.
class InstanceLock {
public:
    enum class Result { Held, TakenByAnother, Failed };

    /// Tries to take the lock. Waits for other servers that try at this moment only, for some seconds at most. An empty
    /// runtimeFolder is Failed. stateFolder may be empty.
    [[nodiscard]] Result acquire(const std::filesystem::path& runtimeFolder, const std::filesystem::path& stateFolder);

    /// Gives the lock up. The kernel does so only when all threads of the process have ended, and one that is blocked
    /// on a drive may outlive the others.
    void release();

    /// Returns a sentence for a person about the latest attempt that was Failed.
    [[nodiscard]] const std::string& failure() const noexcept { return failure_; }

private:
    [[nodiscard]] Result lock(const std::filesystem::path& path, Descriptor& file);

    Descriptor session_;
    Descriptor lasting_;
    std::string failure_;
};

}  // namespace krv::server

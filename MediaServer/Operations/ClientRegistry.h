#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv::server {

/// Identifies one client process. Process ids are reused, but not together with their start time.
struct ClientKey {
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    friend auto operator<=>(const ClientKey&, const ClientKey&) = default;
};

/// The processes that count as clients: those that have registered and those that have sent operations. Thread-safe.
class ClientRegistry {
public:
    explicit ClientRegistry(const ProcessTable& processes = ProcessTable::system())
        : processes_(processes) {}

    /// Returns the living process of this user with that id, or nothing. undecided: set if there may be such a process,
    /// but the process table cannot be read (this process is out of descriptors).
    [[nodiscard]] std::optional<ClientKey> identify(std::int64_t pid, bool* undecided = nullptr) const;

    void setRegistered(const ClientKey& client, bool registered);
    [[nodiscard]] bool isRegistered(const ClientKey& client) const;
    /// Adds a process that has sent an operation.
    void note(const ClientKey& client);
    /// Removes a process that has not registered. Call this when none of its operations is known any more.
    void forgetUnlessRegistered(const ClientKey& client);

    /// Removes the clients that are known to have exited and returns them.
    [[nodiscard]] std::vector<ClientKey> removeDead();
    [[nodiscard]] std::vector<pid_t> registeredPids() const;
    [[nodiscard]] bool empty() const;

private:
    [[nodiscard]] std::optional<ClientKey> knownClient(pid_t pid) const;

    const ProcessTable& processes_;
    mutable Mutex mutex_;
    /// Whether each client has registered.
    std::map<ClientKey, bool> clients_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::server

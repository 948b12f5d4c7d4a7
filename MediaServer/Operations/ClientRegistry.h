#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>

namespace krv::server {

/// One client for ever: a process id is used again one day, together with its start time it is not.
struct ClientKey {
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    friend auto operator<=>(const ClientKey&, const ClientKey&) = default;
};

/// The processes that the server knows: those that have registered, and those that have sent operations. Any thread.
class ClientRegistry {
public:
    explicit ClientRegistry(const ProcessTable& processes = ProcessTable::system())
        : processes_(processes) {}

    /// The living process of this user with that id, or nothing.
    [[nodiscard]] std::optional<ClientKey> identify(std::int64_t pid) const;

    void setRegistered(const ClientKey& client, bool registered);
    [[nodiscard]] bool isRegistered(const ClientKey& client) const;
    /// Notes a process that has sent an operation.
    void note(const ClientKey& client);
    /// A process that has not registered is only a client as long as an operation of it is known.
    void forgetUnlessRegistered(const ClientKey& client);

    /// Forgets the clients that have died and returns them.
    [[nodiscard]] std::vector<ClientKey> removeDead();
    [[nodiscard]] std::vector<pid_t> registeredPids() const;
    [[nodiscard]] bool empty() const;

private:
    const ProcessTable& processes_;
    mutable Mutex mutex_;
    /// Each client, and whether it has registered.
    std::map<ClientKey, bool> clients_ KRV_GUARDED_BY(mutex_);
};

}  // namespace krv::server

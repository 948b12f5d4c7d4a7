#include <iterator>
#include <limits>

#include <unistd.h>

#include <MediaServer/Operations/ClientRegistry.h>

namespace krv::server {

std::optional<ClientKey> ClientRegistry::identify(std::int64_t pid, bool* undecided) const {
    if (pid <= 0 || pid > std::numeric_limits<pid_t>::max()) {
        return std::nullopt;
    }
    // A client that is known has been looked at before, so this asks only whether it still lives.
    if (const auto known = knownClient(static_cast<pid_t>(pid));
        known && !processes_.hasExited(known->pid, known->startTime)) {
        return known;
    }
    const auto process = processes_.process(static_cast<pid_t>(pid));
    if (!process) {
        // No process has started at the beginning of time, so this asks only whether there is one, and whether the
        // table can be read.
        if (undecided) {
            *undecided = !processes_.hasExited(static_cast<pid_t>(pid), 0);
        }
        return std::nullopt;
    }
    if (process->user != ::getuid()) {
        return std::nullopt;
    }
    return ClientKey{process->pid, process->startTime};
}

std::optional<ClientKey> ClientRegistry::knownClient(pid_t pid) const {
    const LockGuard lock(mutex_);
    // The latest process with this id.
    const auto after = clients_.upper_bound({pid, std::numeric_limits<std::uint64_t>::max()});
    if (after == clients_.begin() || std::prev(after)->first.pid != pid) {
        return std::nullopt;
    }
    return std::prev(after)->first;
}

void ClientRegistry::setRegistered(const ClientKey& client, bool registered) {
    const LockGuard lock(mutex_);
    clients_[client] = registered;
}

bool ClientRegistry::isRegistered(const ClientKey& client) const {
    const LockGuard lock(mutex_);
    const auto place = clients_.find(client);
    return place != clients_.end() && place->second;
}

void ClientRegistry::note(const ClientKey& client) {
    const LockGuard lock(mutex_);
    clients_.try_emplace(client, false);
}

void ClientRegistry::forgetUnlessRegistered(const ClientKey& client) {
    const LockGuard lock(mutex_);
    if (const auto place = clients_.find(client); place != clients_.end() && !place->second) {
        clients_.erase(place);
    }
}

std::vector<ClientKey> ClientRegistry::removeDead() {
    std::vector<ClientKey> all;
    {
        const LockGuard lock(mutex_);
        for (const auto& [client, registered] : clients_) {
            all.push_back(client);
        }
    }
    std::erase_if(all, [this](const ClientKey& client) { return !processes_.hasExited(client.pid, client.startTime); });
    const LockGuard lock(mutex_);
    for (const ClientKey& dead : all) {
        clients_.erase(dead);
    }
    return all;
}

std::vector<pid_t> ClientRegistry::registeredPids() const {
    const LockGuard lock(mutex_);
    std::vector<pid_t> pids;
    for (const auto& [client, registered] : clients_) {
        if (registered) {
            pids.push_back(client.pid);
        }
    }
    return pids;
}

bool ClientRegistry::empty() const {
    const LockGuard lock(mutex_);
    return clients_.empty();
}

}  // namespace krv::server

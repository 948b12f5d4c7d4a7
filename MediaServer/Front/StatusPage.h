#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace krv::server {

/// The contents of the status page.
struct ServerStatus {
    std::string version;
    pid_t pid = 0;
    std::uint16_t port = 0;
    std::chrono::duration<double> uptime{};
    /// Process ids of the registered clients.
    std::vector<pid_t> clients;
    std::size_t queued = 0;
    std::size_t running = 0;
    std::size_t finished = 0;
    /// How many media operations can run at once.
    unsigned workers = 0;
    /// The kernel features that confine workers: the version of Landlock (0 for none) and seccomp filters.
    long landlock = 0;
    bool seccomp = false;
};

/// Returns the status as one JSON object with the keys name, version, pid, port, uptime (seconds), clients, queued,
/// running, finished, workers and sandbox (an object with landlock and seccomp).
[[nodiscard]] std::string statusPage(const ServerStatus& status);

}  // namespace krv::server

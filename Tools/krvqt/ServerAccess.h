#pragma once

#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// How a command reaches the media server.
struct ServerAccess {
    std::shared_ptr<krv::HTTPServerDiscovery> discovery;
    std::shared_ptr<krv::KRVTransport> transport;
    std::shared_ptr<krv::KRVQuicktimeProcessClient> client;

    /// Uses a client that launches a server if none is running, and keeps this process registered. Call on the main
    /// thread only.
    [[nodiscard]] static ServerAccess launching();
    /// Uses a client that only talks to a server that is already running.
    [[nodiscard]] static ServerAccess looking();
    /// Whether the client launches a server.
    bool launches = false;
};

/// Blocks until a server responds and this process is registered with it. Launches one at once if none is running, or
/// returns at once if the client does not launch any. After three seconds, prints on standard error what it is waiting for.
/// Fails immediately if the server's program is missing, cannot be executed or exits at once. Call on a second thread
/// while the main thread runs the main run loop.
///
/// Returns kDone, kNoServer with the reason printed, or kCancelled.
[[nodiscard]] ExitStatus reachServer(const ServerAccess& access, const CommonOptions& common);

}  // namespace krvqt

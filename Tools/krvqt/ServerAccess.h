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
    std::shared_ptr<krv::KRVQTProcessOperations> client;

    /// Uses the shared client, which launches a server if none is running and repeats failed calls. Call on the main
    /// thread only.
    [[nodiscard]] static ServerAccess launching();
    /// Uses a client that only talks to a server that is already running.
    [[nodiscard]] static ServerAccess looking();
    /// Whether the client launches a server.
    bool launches = false;
};

/// Blocks until a server responds. Prints on standard error what it is waiting for. Returns at once if no server is
/// running and the client does not launch one. Call on a second thread while the main thread runs the main run loop.
///
/// Returns kDone, kNoServer with the reason printed, or kCancelled.
[[nodiscard]] ExitStatus reachServer(const ServerAccess& access, const CommonOptions& common);

}  // namespace krvqt

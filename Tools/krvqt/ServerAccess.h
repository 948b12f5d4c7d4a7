#pragma once

#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// The way to the server.
struct ServerAccess {
    std::shared_ptr<krv::HTTPServerDiscovery> discovery;
    std::shared_ptr<krv::KRVTransport> transport;
    std::shared_ptr<krv::KRVQTProcessOperations> client;

    /// The application's shared client: it launches a server when none runs and repeats calls. On the main thread.
    [[nodiscard]] static ServerAccess launching();
    /// A client that only talks to a server that runs already.
    [[nodiscard]] static ServerAccess looking();
    /// Which of the two.
    bool launches = false;
};

/// Waits until a server answers, saying on standard error what it waits for and why. A client that launches none gives
/// up at once when no server runs. Not on the main thread, whose run loop must turn meanwhile.
///
/// kDone, kNoServer (and the reason has been printed), or kCancelled.
[[nodiscard]] ExitStatus reachServer(const ServerAccess& access, const CommonOptions& common);

}  // namespace krvqt

#pragma once

#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "ExitStatus.h"
#include "Options.h"

namespace krvqt {

/// The way to the server.
struct ServerAccess {
    std::shared_ptr<krv::HTTPServerDiscovery> discovery;
    std::shared_ptr<krv::KRVHTTPClientTransport> transport;
    std::shared_ptr<krv::KRVQuicktimeProcessClient> client;
};

enum class WhenAbsent : bool { GiveUp, Launch };

/// Waits until a server answers, saying on standard error what it waits for. Without a running server it starts one,
/// or gives up at once, as asked. Not on the main thread, whose run loop must turn meanwhile.
///
/// kDone, kNoServer (and the reason has been printed), or kCancelled.
[[nodiscard]] ExitStatus reachServer(ServerAccess& access, const CommonOptions& common, WhenAbsent whenAbsent);

}  // namespace krvqt

#pragma once

#include <memory>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::benchmarks {

/// A media server for one benchmark program, apart from the user's own, and a client that is registered with it. It
/// shuts down with the program. For the main thread.
class RunningServer {
public:
    /// Launches the server beside this program's build, and waits for it. Exits the process if it does not come.
    static RunningServer& instance();

    [[nodiscard]] KRVQuicktimeProcessClient& client() const { return *client_; }
    [[nodiscard]] long port() const { return discovery_->servicePortNumber(); }

private:
    RunningServer();

    std::shared_ptr<HTTPServerDiscovery> discovery_;
    std::shared_ptr<KRVQuicktimeProcessClient> client_;
};

}  // namespace krv::benchmarks

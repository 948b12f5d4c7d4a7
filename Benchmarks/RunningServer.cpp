#include "RunningServer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <unistd.h>

#include <fmt/format.h>

namespace krv::benchmarks {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 10s;

/// Keeps the server apart from the user's own. The folder stays until the next start of the machine, like the server's.
void useFolderOfOurOwn() {
    const auto folder = std::filesystem::temp_directory_path() / fmt::format("krv-benchmark-{}", ::getpid());
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    for (const char* name : {"XDG_RUNTIME_DIR", "XDG_STATE_HOME", "XDG_CONFIG_HOME"}) {
        ::setenv(name, folder.c_str(), 1);
    }
}

}  // namespace

RunningServer& RunningServer::instance() {
    static auto* server = new RunningServer;
    return *server;
}

RunningServer::RunningServer() {
    useFolderOfOurOwn();
    discovery_ = HTTPServerDiscovery::defaultInstance();
    const auto transport = std::make_shared<KRVHTTPClientTransport>(discovery_);
    client_ = KRVQuicktimeProcessClient::initWithTransport(transport, true);
    (void)client_->serverRunner()->launchIfMissing();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!transport->serviceReadyToRock()) {
        RunLoop::main().runUntil(Clock::steady().now() + 10ms);
        if (std::chrono::steady_clock::now() > deadline) {
            fmt::print(stderr, "The media server does not respond.\n");
            std::_Exit(1);
        }
    }
    client_->registerWithServer();
    std::atexit([] { (void)instance().client().queueShutdownOfCurrentServer(); });
}

}  // namespace krv::benchmarks

#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <MediaServer/Files/BlockingCalls.h>
#include <MediaServer/Files/InstalledProgram.h>
#include <MediaServer/Files/RemovalWatch.h>
#include <MediaServer/Front/ActivityPage.h>
#include <MediaServer/Front/HTTPFront.h>
#include <MediaServer/Front/ServicePublisher.h>
#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Operations/HeldReplies.h>
#include <MediaServer/Operations/MediaWorkflow.h>
#include <MediaServer/Operations/OperationDispatcher.h>
#include <MediaServer/Operations/OperationExecutors.h>
#include <MediaServer/Operations/OperationLedger.h>
#include <MediaServer/Worker/Sandbox.h>
#include <MediaServer/Workers/JobRunner.h>
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {

/// The server as a whole: connects its parts, checks its clients, and decides when to exit.
///
/// A signal or an operation of type 17 makes the server exit when all running operations have finished. A second signal
/// cancels them; operations of type 17 never do, however many arrive. Without clients and operations, the server exits
/// after a while.
///
/// If its program file is removed or replaced, the server shuts down in the same way, so that the next application
/// launches the one that is installed now.
class ServerProcess {
public:
    struct Settings {
        std::int32_t minimumPort;
        std::int32_t maximumPort;
        std::string serviceName;
        InstalledProgram program;
        std::string workerExecutable;
        /// Bytes of writable memory per worker; 0 for an equal share of the machine's memory.
        std::uint64_t workerMemory;
        /// How long a worker may report nothing before it is killed; 0 for ever.
        std::chrono::seconds workerStallLimit;
        /// Executor threads for long operations.
        unsigned executors;
        /// Opens, flushes and closes files. Must outlive the server.
        BlockingCalls& blockingCalls;
        /// How long the server keeps running without clients and operations; 0 for ever.
        std::chrono::seconds idleTimeout;
    };

    explicit ServerProcess(Settings settings);

    /// Serves until the server is to exit. signals: a signalfd for the signals that request it; borrowed. Returns the
    /// exit status.
    [[nodiscard]] int run(int signals);

private:
    [[nodiscard]] Page page(PageName name) const;
    [[nodiscard]] ServerStatus status() const;
    [[nodiscard]] ServerActivity activity() const;
    void requestShutDown();
    /// Stops accepting media operations. Called on the main thread after a signal or an operation of type 17.
    void beginShutDown();
    void shutDownIfRemoved();
    void removeDeadClients();
    [[nodiscard]] bool mayExit();

    const Settings settings_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    const SandboxSupport sandbox_ = sandboxSupport();
    std::uint16_t port_ = 0;
    Descriptor wake_;
    std::atomic<bool> shutDownRequested_{false};
    bool shuttingDown_ = false;
    bool signalled_ = false;
    std::chrono::steady_clock::time_point lastNeeded_ = start_;
    std::chrono::steady_clock::time_point workEnded_{};

    const RemovalWatch removal_;
    WorkerPool workers_;
    JobRunner runner_{workers_, settings_.workerStallLimit};
    ClientRegistry clients_;
    HeldReplies held_;
    OperationLedger ledger_;
    const MediaWorkflow workflow_{runner_, settings_.blockingCalls, std::make_shared<DescriptionCache>()};
    OperationExecutors executors_;
    OperationDispatcher dispatcher_;
    /// Destroyed first: all replies must be given while the other parts exist.
    HTTPFront front_;
};

}  // namespace krv::server

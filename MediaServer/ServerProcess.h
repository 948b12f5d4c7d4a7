#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <MediaServer/Front/HTTPFront.h>
#include <MediaServer/Front/ServicePublisher.h>
#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Operations/HeldReplies.h>
#include <MediaServer/Operations/OperationDispatcher.h>
#include <MediaServer/Operations/OperationExecutors.h>
#include <MediaServer/Operations/OperationLedger.h>
#include <MediaServer/Workers/JobRunner.h>
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {

/// The server as a whole: puts its parts together, looks after its clients, and knows when to end.
///
/// It ends when it is asked to (a signal, or an operation of type 17) and what runs has finished, or when nobody has
/// needed it for a while. A second signal cancels what runs; operations of type 17 never do, however many come.
class ServerProcess {
public:
    struct Settings {
        std::int32_t minimumPort;
        std::int32_t maximumPort;
        std::string serviceName;
        std::string workerExecutable;
        /// Bytes that each worker may write to; zero: what suits this machine.
        std::uint64_t workerMemory;
        /// Executor threads for long operations.
        unsigned executors;
        /// Zero: never.
        std::chrono::seconds idleTimeout;
    };

    explicit ServerProcess(Settings settings);

    /// Serves until the end. signals: a descriptor from signalfd with what asks for it. Returns the exit status.
    [[nodiscard]] int run(int signals);

private:
    [[nodiscard]] std::string statusText() const;
    void requestShutDown();
    /// A signal came, or type 17.
    void beginShutDown();
    void lookAfterClients();
    [[nodiscard]] bool mayEnd();

    const Settings settings_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::uint16_t port_ = 0;
    Descriptor wake_;
    std::atomic<bool> shutDownRequested_{false};
    bool shuttingDown_ = false;
    bool signalled_ = false;
    std::chrono::steady_clock::time_point lastNeeded_ = start_;
    std::chrono::steady_clock::time_point workEnded_{};

    WorkerPool workers_;
    JobRunner runner_{workers_};
    ClientRegistry clients_;
    HeldReplies held_;
    OperationLedger ledger_;
    OperationExecutors executors_;
    OperationDispatcher dispatcher_;
    /// Goes first: its replies must all be given while the rest still stands.
    HTTPFront front_;
};

}  // namespace krv::server

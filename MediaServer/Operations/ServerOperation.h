#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Operations/ShownProgress.h>
#include <MediaServer/Workers/Cancellation.h>

namespace krv::server {

/// A self-test operation: it does nothing but take time.
struct TimedRun {
    std::chrono::duration<double> timeToLive;
    /// Whether it completes when its time is over; otherwise it runs until it is cancelled.
    bool completes;
};

/// One entry of the ledger. Guarded by the ledger's lock, except the fields that never change: id, request, client and
/// timed.
struct ServerOperation {
    using Time = std::chrono::steady_clock::time_point;
    enum class State { Queued, Running, Finished };

    std::string id;
    /// What a media operation was asked to do. Null for self-tests and refusals.
    KRVOperationBase::Ref request;
    /// Who asked. Empty for a refusal: the sender may not be known.
    std::optional<ClientKey> client;
    std::optional<TimedRun> timed;

    /// Position in the order in which entries were made.
    std::uint64_t number = 0;
    State state = State::Queued;
    ShownProgress progress;
    /// Exists while a media operation runs.
    std::shared_ptr<Cancellation> cancellation;
    bool completed = false;
    bool cancelled = false;
    std::shared_ptr<const Error> error;
    /// The worker's record of a completed media operation.
    KRVOperationBase::Ref result;
    Time queuedAt{};
    Time startedAt{};
    /// When its worker last reported.
    Time livedAt{};
    Time finishedAt{};
    /// What the kept records take, in bytes.
    std::size_t requestBytes = 0;
    std::size_t resultBytes = 0;
    /// The latest reply about its progress.
    struct Told {
        Time when;
        double progress;
    };
    std::optional<Told> told;
    /// Whether a client has been told how it ended.
    bool endTold = false;
    /// Whether a client has fetched the finished record.
    bool resultFetched = false;
};

using OperationRef = std::shared_ptr<ServerOperation>;

}  // namespace krv::server

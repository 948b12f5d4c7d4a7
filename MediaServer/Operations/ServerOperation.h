#pragma once

#include <memory>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {

/// One operation that the server has taken on. All but the cancellation is guarded by the queue's lock.
struct ServerOperation {
    using Time = std::chrono::steady_clock::time_point;
    enum class State { Queued, Running, Finished };

    std::string id;
    KRVOperationBase::Ref request;
    ClientKey client;
    Cancellation cancellation;

    State state = State::Queued;
    /// What clients are shown: never goes backwards, and is 1 only when the output stands under its name.
    double progress = 0.0;
    /// Where progress stood when the work began; what the worker reports fills up the rest.
    double base = 0.0;
    bool completed = false;
    bool cancelled = false;
    std::shared_ptr<const Error> error;
    KRVOperationBase::Ref result;
    Time queuedAt{};
    Time startedAt{};
    /// When its worker was last heard of.
    Time livedAt{};
    Time finishedAt{};
    /// Whether the client has been told of the end.
    bool endTold = false;
};

/// A new identifier for a client to ask by.
[[nodiscard]] std::string newOperationId();

using OperationRef = std::shared_ptr<ServerOperation>;

}  // namespace krv::server

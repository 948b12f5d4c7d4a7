#pragma once

#include <functional>

#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Operations/HeldReplies.h>
#include <MediaServer/Operations/OperationQueue.h>
#include <MediaServer/Operations/RefusedRequests.h>
#include <MediaServer/Operations/SelfTests.h>

namespace krv::server {

/// Carries out what a record asks for: one handler for each type. Any thread.
class OperationDispatcher {
public:
    using Reply = std::function<void(const KRVOperationBase::Ref&)>;

    /// shutDown: begins the end of the server; called on the requesting thread.
    OperationDispatcher(ClientRegistry& clients, OperationQueue& queue, SelfTests& selfTests, HeldReplies& held,
                        std::function<void()> shutDown);

    /// Calls reply exactly once, now or a little later on another thread.
    void dispatch(const KRVOperationBase::Ref& request, const Reply& reply);

    /// From now on media operations are turned away.
    void refuseMediaWork();

private:
    using Ref = KRVOperationBase::Ref;
    using Handler = void (OperationDispatcher::*)(const Ref& request, const Reply& reply);
    struct Row {
        OperationType type;
        Handler handler;
    };
    [[nodiscard]] static Handler handlerFor(std::int32_t type);

    void numberOfOperations(const Ref& request, const Reply& reply);
    void ready(const Ref& request, const Reply& reply);
    void registration(const Ref& request, const Reply& reply);
    void amIRegistered(const Ref& request, const Reply& reply);
    void mediaWork(const Ref& request, const Reply& reply);
    void cancelOne(const Ref& request, const Reply& reply);
    void cancelAll(const Ref& request, const Reply& reply);
    void progress(const Ref& request, const Reply& reply);
    void returnResult(const Ref& request, const Reply& reply);
    void removeResult(const Ref& request, const Reply& reply);
    void shutDown(const Ref& request, const Reply& reply);
    void selfTest(const Ref& request, const Reply& reply);

    /// The asking client; answers with an error 9 when there is none.
    [[nodiscard]] std::optional<ClientKey> clientOf(const Ref& request, const Reply& reply);
    /// Answers with the error, and with an identifier under which it will be told again.
    void refuse(const Ref& request, const Reply& reply, std::shared_ptr<const Error> error);
    [[nodiscard]] std::optional<OperationQueue::Snapshot> stateOf(const std::string& id) const;
    void replyUnknown(const Ref& request, const Reply& reply) const;

    ClientRegistry& clients_;
    OperationQueue& queue_;
    SelfTests& selfTests_;
    HeldReplies& held_;
    RefusedRequests refused_;
    const std::function<void()> shutDown_;
    std::atomic<bool> refusing_{false};
};

}  // namespace krv::server

#pragma once

#include <functional>
#include <optional>
#include <string>

#include <MediaServer/Operations/ClientRegistry.h>
#include <MediaServer/Operations/HeldReplies.h>
#include <MediaServer/Operations/OperationLedger.h>
#include <MediaServer/Operations/RequestSender.h>

namespace krv::server {

/// Handles the records that clients send: one handler for each operation type. Thread-safe.
class OperationDispatcher {
public:
    using Reply = std::function<void(const KRVOperationBase::Ref&)>;

    /// shutDown: starts the end of the server; called on the requesting thread. All must outlive this object.
    OperationDispatcher(ClientRegistry& clients, OperationLedger& ledger, HeldReplies& held,
                        std::function<void()> shutDown);

    /// Calls reply exactly once, before it returns or up to 400 ms later on the thread of the held replies.
    /// Refuses every request of a sender in another pid namespace: neither could tell whether the other lives.
    void dispatch(const KRVOperationBase::Ref& request, const RequestSender& sender, const Reply& reply);

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
    void mediaOperation(const Ref& request, const Reply& reply);
    void cancelOne(const Ref& request, const Reply& reply);
    void cancelAll(const Ref& request, const Reply& reply);
    void progress(const Ref& request, const Reply& reply);
    void returnResult(const Ref& request, const Reply& reply);
    void removeResult(const Ref& request, const Reply& reply);
    void shutDown(const Ref& request, const Reply& reply);
    void selfTest(const Ref& request, const Reply& reply);

    /// Returns the client that the request names. Otherwise refuses the request and returns nothing.
    [[nodiscard]] std::optional<ClientKey> clientOf(const Ref& request, const Reply& reply);
    /// Replies with the failure and with an identifier under which the ledger repeats it.
    void refuse(const Ref& request, const Reply& reply, const Failure& failure);
    static void replyUnknown(const Ref& request, const Reply& reply);

    ClientRegistry& clients_;
    OperationLedger& ledger_;
    HeldReplies& held_;
    const std::uint64_t pidNamespace_ = pidNamespace();
    const std::function<void()> shutDown_;
};

}  // namespace krv::server

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <MediaServer/Operations/OperationDispatcher.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

/// How long the first reply is held, so that short work needs no second request.
constexpr auto kHoldFirstReply = 250ms;
/// How long a request for progress is held at most, until there is something new to report.
constexpr auto kHoldProgress = 400ms;

KRVOperationBase::Ref replyTo(const KRVOperationBase::Ref& request) {
    auto reply = std::make_shared<KRVOperationBase>();
    reply->setOperationType(request->operationType());
    reply->setUniqueID(request->uniqueID());
    return reply;
}

KRVOperationBase::Ref replyWith(const KRVOperationBase::Ref& request, std::shared_ptr<const Error> error) {
    auto reply = replyTo(request);
    reply->setError(std::move(error));
    return reply;
}

void put(KRVOperationBase& reply, const OperationLedger::Snapshot& state) {
    reply.setProgress(static_cast<float>(state.progress), state.completed);
    reply.setCancelled(state.cancelled);
    reply.setError(state.error);
}

}  // namespace

OperationDispatcher::OperationDispatcher(ClientRegistry& clients, OperationLedger& ledger, HeldReplies& held,
                                         std::function<void()> shutDown)
    : clients_(clients)
    , ledger_(ledger)
    , held_(held)
    , shutDown_(std::move(shutDown)) {}

OperationDispatcher::Handler OperationDispatcher::handlerFor(std::int32_t type) {
    using D = OperationDispatcher;
    static constexpr std::array<Row, 12> kHandlers{{
        {OpNumberOfOperations, &D::numberOfOperations},
        {OpReadyToProcessRequests, &D::ready},
        {OpRegisterWithServer, &D::registration},
        {OpUnregisterFromServer, &D::registration},
        {OpAmIRegistered, &D::amIRegistered},
        {OpCancelOperation, &D::cancelOne},
        {OpCancelAllOperations, &D::cancelAll},
        {OpProgressAndCompletion, &D::progress},
        {OpReturnResult, &D::returnResult},
        {OpRemoveReturnResult, &D::removeResult},
        {OpShutdownServer, &D::shutDown},
        {OpHTTPServerTesting, &D::selfTest},
    }};
    for (const Row& row : kHandlers) {
        if (row.type == type) {
            return row.handler;
        }
    }
    return server::mediaOperation(type) ? &D::mediaOperation : nullptr;
}

void OperationDispatcher::dispatch(const Ref& request, const RequestSender& sender, const Reply& reply) {
    if (sender.pidNamespace && *sender.pidNamespace != pidNamespace_) {
        refuse(request, reply, {.cause = FailureCause::OtherPidNamespace});
        return;
    }
    const Handler handler = handlerFor(request->operationType());
    if (!handler) {
        refuse(request, reply,
               {.cause = FailureCause::UnknownOperationType, .subject = std::to_string(request->operationType())});
        return;
    }
    try {
        (this->*handler)(request, reply);
    } catch (const std::exception& problem) {
        refuse(request, reply, {.cause = FailureCause::InternalError, .reason = problem.what()});
    }
}

void OperationDispatcher::refuse(const Ref& request, const Reply& reply, const Failure& failure) {
    const auto error = makeError(*request, failure);
    const auto answer = replyWith(request, error);
    answer->setUniqueID(ledger_.addRefused(error));
    reply(answer);
}

std::optional<ClientKey> OperationDispatcher::clientOf(const Ref& request, const Reply& reply) {
    const Value pid = request->regInfoPID();
    bool undecided = false;
    auto client = pid.kind() == Value::Kind::Integer ? clients_.identify(pid.integerValue(), &undecided) : std::nullopt;
    if (undecided) {
        refuse(request, reply, {.cause = FailureCause::OutOfDescriptors});
    } else if (!client) {
        refuse(request, reply, {.cause = FailureCause::NotAProcess, .subject = pid.description()});
    }
    return client;
}

void OperationDispatcher::replyUnknown(const Ref& request, const Reply& reply) {
    reply(replyWith(request, makeError(*request, {.cause = FailureCause::UnknownOperation,
                                                  .subject = request->uniqueID().value_or("(null)")})));
}

void OperationDispatcher::numberOfOperations(const Ref& request, const Reply& reply) {
    const auto answer = replyTo(request);
    Array names;
    for (std::string& name : ledger_.names()) {
        names.emplace_back(std::move(name));
    }
    answer->arguments()->set(kArgumentNumOpsNumberOnServer, static_cast<std::int64_t>(names.size()));
    answer->arguments()->set(kArgumentNumOpsNames, std::move(names));
    reply(answer);
}

void OperationDispatcher::ready(const Ref& request, const Reply& reply) {
    reply(replyTo(request));
}

void OperationDispatcher::registration(const Ref& request, const Reply& reply) {
    if (const auto client = clientOf(request, reply)) {
        const bool registering = request->operationType() == OpRegisterWithServer;
        clients_.setRegistered(*client, registering);
        const auto answer = replyTo(request);
        answer->setIsClientRegistered(registering);
        reply(answer);
    }
}

void OperationDispatcher::amIRegistered(const Ref& request, const Reply& reply) {
    bool undecided = false;
    const auto client = clients_.identify(request->regInfoPID().integerValue(), &undecided);
    if (undecided) {
        refuse(request, reply, {.cause = FailureCause::OutOfDescriptors});
        return;
    }
    const auto answer = replyTo(request);
    answer->setIsClientRegistered(client && clients_.isRegistered(*client));
    reply(answer);
}

void OperationDispatcher::mediaOperation(const Ref& request, const Reply& reply) {
    const auto client = clientOf(request, reply);
    if (!client) {
        return;
    }
    auto failure = checkMediaRequest(*request);
    const auto id = failure ? std::nullopt : ledger_.add(request, *client, failure);
    if (!id) {
        refuse(request, reply, *failure);
        return;
    }
    clients_.note(*client);
    // The request is not kept, because it may be large.
    const auto answer = replyTo(request);
    answer->setUniqueID(*id);
    held_.hold(
        kHoldFirstReply,
        [this, id = *id] {
            const auto state = ledger_.snapshot(id);
            return !state || state->ended;
        },
        // The first reply says only that the operation was accepted. The client asks how it ended.
        [answer, reply] { reply(answer); });
}

void OperationDispatcher::cancelOne(const Ref& request, const Reply& reply) {
    if (!ledger_.cancel(request->uniqueID().value_or(""))) {
        replyUnknown(request, reply);
        return;
    }
    const auto answer = replyTo(request);
    answer->setCancelled(true);
    reply(answer);
}

void OperationDispatcher::cancelAll(const Ref& request, const Reply& reply) {
    if (const auto client = clientOf(request, reply)) {
        ledger_.cancelAllOf(*client);
        const auto answer = replyTo(request);
        answer->setCancelled(true);
        reply(answer);
    }
}

void OperationDispatcher::progress(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    const auto before = ledger_.snapshot(id);
    if (!before) {
        replyUnknown(request, reply);
        return;
    }
    // Not the request itself, which may be large.
    const auto answer = [this, asked = replyTo(request), reply, id] {
        const auto state = ledger_.tell(id);
        if (!state) {
            replyUnknown(asked, reply);
            return;
        }
        const auto record = replyTo(asked);
        put(*record, *state);
        if (state->before) {
            record->arguments()->set(kArgumentQueuePosition, static_cast<std::int64_t>(*state->before));
        }
        reply(record);
    };
    if (before->ended) {
        answer();
        return;
    }
    // A client that waits half a second between its requests would learn that much later of the end, so such a client
    // is not told before it.
    const double news = ledger_.endsWithin(kHoldProgress, id) ? 1 : before->progress + OperationLedger::kVisibleChange;
    held_.hold(
        kHoldProgress,
        [this, id, news] {
            const auto state = ledger_.snapshot(id);
            return !state || state->ended || state->progress >= news;
        },
        answer);
}

void OperationDispatcher::returnResult(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    if (const auto record = ledger_.record(id)) {
        reply(*record);
    } else if (const auto state = ledger_.snapshot(id)) {
        const auto answer = replyTo(request);
        put(*answer, *state);
        reply(answer);
    } else {
        replyUnknown(request, reply);
    }
}

void OperationDispatcher::removeResult(const Ref& request, const Reply& reply) {
    if (!ledger_.remove(request->uniqueID().value_or(""))) {
        replyUnknown(request, reply);
        return;
    }
    reply(replyTo(request));
}

void OperationDispatcher::shutDown(const Ref& request, const Reply& reply) {
    reply(replyTo(request));
    shutDown_();
}

void OperationDispatcher::selfTest(const Ref& request, const Reply& reply) {
    const TestOpInfo& info = *request->testInfo();
    if (info.shouldCrash != 0) {
        std::abort();
    }
    if (info.shouldThrow != 0) {
        throw std::runtime_error("the self-test was asked to throw");
    }
    if (info.shouldError != 0) {
        refuse(request, reply, {.cause = FailureCause::InternalError, .reason = "the self-test was asked to fail"});
        return;
    }
    if (const auto client = clientOf(request, reply)) {
        const auto id = ledger_.addTimed({std::chrono::seconds(info.timeToLive), info.shouldComplete != 0}, *client);
        if (!id) {
            refuse(request, reply, {.cause = FailureCause::QueueFull});
            return;
        }
        clients_.note(*client);
        const auto answer = replyTo(request);
        answer->setUniqueID(*id);
        reply(answer);
    }
}

}  // namespace krv::server

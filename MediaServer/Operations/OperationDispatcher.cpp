#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include <MediaServer/Operations/OperationDispatcher.h>
#include <MediaServer/Protocol/MediaRequest.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

/// A first reply is held this long, so that short work needs no second question.
constexpr auto kHoldFirstReply = 250ms;
/// A question for progress is held this long, or until there is something new to tell.
constexpr auto kHoldProgress = 400ms;
constexpr double kVisibleChange = 0.005;

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

void put(KRVOperationBase& reply, const OperationQueue::Snapshot& state) {
    // A float may round what is nearly done up to one.
    const auto shown = static_cast<float>(state.progress);
    reply.setProgress(state.completed ? 1.0F : std::min(shown, 0.99999F), state.completed);
    reply.setCancelled(state.cancelled);
    reply.setError(state.error);
}

}  // namespace

OperationDispatcher::OperationDispatcher(ClientRegistry& clients, OperationQueue& queue, SelfTests& selfTests,
                                         HeldReplies& held, std::function<void()> shutDown)
    : clients_(clients)
    , queue_(queue)
    , selfTests_(selfTests)
    , held_(held)
    , shutDown_(std::move(shutDown)) {}

void OperationDispatcher::refuseMediaWork() {
    refusing_ = true;
}

OperationDispatcher::Handler OperationDispatcher::handlerFor(std::int32_t type) {
    using D = OperationDispatcher;
    static constexpr std::array<Row, 18> kHandlers{{
        {OpNumberOfOperations, &D::numberOfOperations},
        {OpReadyToProcessRequests, &D::ready},
        {OpRegisterWithServer, &D::registration},
        {OpUnregisterFromServer, &D::registration},
        {OpAmIRegistered, &D::amIRegistered},
        {OpEncodeVideo, &D::mediaWork},
        {OpCreateThumbnails, &D::mediaWork},
        {OpProvideMetadata, &D::mediaWork},
        {OpMuxAudioTo2ch, &D::mediaWork},
        {OpMergeSources, &D::mediaWork},
        {OpGetInterestingTimes, &D::mediaWork},
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
    return nullptr;
}

void OperationDispatcher::dispatch(const Ref& request, const Reply& reply) {
    const Handler handler = handlerFor(request->operationType());
    if (!handler) {
        refuse(request, reply,
               makeError(OperationErrorCode::InvalidArgument, "The media server does not know this operation.",
                         fmt::format("operation type {} ({}) is unknown", request->operationType(),
                                     request->nameFromType())));
        return;
    }
    try {
        (this->*handler)(request, reply);
    } catch (const std::exception& problem) {
        refuse(request, reply,
               makeError(OperationErrorCode::Internal,
                         fmt::format("{} failed in the media server.", request->nameFromType()), problem.what()));
    }
}

void OperationDispatcher::refuse(const Ref& request, const Reply& reply, std::shared_ptr<const Error> error) {
    const auto answer = replyWith(request, error);
    answer->setUniqueID(refused_.add(std::move(error)));
    reply(answer);
}

std::optional<ClientKey> OperationDispatcher::clientOf(const Ref& request, const Reply& reply) {
    const Value pid = request->regInfoPID();
    auto client = pid.kind() == Value::Kind::Integer ? clients_.identify(pid.integerValue()) : std::nullopt;
    if (!client) {
        refuse(request, reply,
               makeError(OperationErrorCode::InvalidArgument, "The media server does not know who is asking.",
                         fmt::format("\"{}\" is {}, which is no living process of this user", kArgumentPIDRegInfo,
                                     pid.description())));
    }
    return client;
}

std::optional<OperationQueue::Snapshot> OperationDispatcher::stateOf(const std::string& id) const {
    auto state = queue_.snapshot(id);
    if (!state) {
        state = selfTests_.snapshot(id);
    }
    if (auto error = state ? nullptr : refused_.find(id)) {
        state = OperationQueue::Snapshot{
            .progress = 0, .completed = false, .cancelled = false, .ended = true, .error = std::move(error)};
    }
    return state;
}

void OperationDispatcher::replyUnknown(const Ref& request, const Reply& reply) const {
    reply(replyWith(request, makeError(OperationErrorCode::UnknownOperation, "The media server has no such operation.",
                                       fmt::format("\"{}\" is unknown, or its result has been dropped",
                                                   request->uniqueID().value_or("(null)")))));
}

void OperationDispatcher::numberOfOperations(const Ref& request, const Reply& reply) {
    const auto answer = replyTo(request);
    Array names;
    for (std::string& name : queue_.names()) {
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
    const auto client = clients_.identify(request->regInfoPID().integerValue());
    const auto answer = replyTo(request);
    answer->setIsClientRegistered(client && clients_.isRegistered(*client));
    reply(answer);
}

void OperationDispatcher::mediaWork(const Ref& request, const Reply& reply) {
    const auto client = clientOf(request, reply);
    if (!client) {
        return;
    }
    if (auto error = checkMediaRequest(*request)) {
        refuse(request, reply, std::move(error));
        return;
    }
    const auto operation = refusing_ ? nullptr : queue_.add(request, *client);
    if (!operation) {
        refuse(request, reply,
               makeError(OperationErrorCode::CannotAcceptWork, "The media server takes no work now.",
                         refusing_ ? "it is shutting down" : "too many operations are waiting"));
        return;
    }
    clients_.note(*client);
    held_.hold(
        kHoldFirstReply,
        [this, id = operation->id] {
            const auto state = stateOf(id);
            return !state || state->ended;
        },
        [request, reply, id = operation->id] {
            // The first reply says only that the work was taken on; the end is told when it is asked for.
            const auto answer = replyTo(request);
            answer->setUniqueID(id);
            reply(answer);
        });
}

void OperationDispatcher::cancelOne(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    if (!queue_.cancel(id) && !selfTests_.cancel(id) && !refused_.find(id)) {
        replyUnknown(request, reply);
        return;
    }
    held_.lookAgain();
    const auto answer = replyTo(request);
    answer->setCancelled(true);
    reply(answer);
}

void OperationDispatcher::cancelAll(const Ref& request, const Reply& reply) {
    if (const auto client = clientOf(request, reply)) {
        queue_.cancelAllOf(*client);
        selfTests_.cancelAllOf(*client);
        held_.lookAgain();
        const auto answer = replyTo(request);
        answer->setCancelled(true);
        reply(answer);
    }
}

void OperationDispatcher::progress(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    const auto before = stateOf(id);
    if (!before) {
        replyUnknown(request, reply);
        return;
    }
    const auto answer = [this, request, reply, id] {
        auto state = queue_.tell(id);
        if (!state) {
            state = stateOf(id);
        }
        if (!state) {
            replyUnknown(request, reply);
            return;
        }
        const auto record = replyTo(request);
        put(*record, *state);
        reply(record);
    };
    if (before->ended) {
        answer();
        return;
    }
    held_.hold(
        kHoldProgress,
        [this, id, was = before->progress] {
            const auto state = stateOf(id);
            return !state || state->ended || state->progress - was >= kVisibleChange;
        },
        answer);
}

void OperationDispatcher::returnResult(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    if (const auto record = queue_.finishedRecord(id)) {
        reply(*record);
    } else if (const auto state = stateOf(id)) {
        const auto answer = replyTo(request);
        put(*answer, *state);
        reply(answer);
    } else {
        replyUnknown(request, reply);
    }
}

void OperationDispatcher::removeResult(const Ref& request, const Reply& reply) {
    const std::string id = request->uniqueID().value_or("");
    if (!queue_.remove(id) && !selfTests_.remove(id) && !refused_.remove(id)) {
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
        refuse(request, reply,
               makeError(OperationErrorCode::Internal, "The self-test failed, as it was asked to.",
                         "the self-test was asked to fail"));
        return;
    }
    if (const auto client = clientOf(request, reply)) {
        clients_.note(*client);
        const auto answer = replyTo(request);
        answer->setUniqueID(selfTests_.add(std::chrono::seconds(info.timeToLive), info.shouldComplete != 0, *client));
        reply(answer);
    }
}

}  // namespace krv::server

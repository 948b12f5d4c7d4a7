#include "FakeOperations.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "FakeResults.h"
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::test_kit {
namespace {

using namespace std::chrono_literals;

/// As long as the real server holds a reply about progress.
constexpr auto kHold = 400ms;
/// How often a closed gate is looked at. Another process opens it.
constexpr auto kGateInterval = 5ms;

/// Returns a failure of the real server with that code.
server::Failure failureWith(std::int64_t code, const KRVOperationBase& request) {
    using server::FailureCause;
    switch (static_cast<OperationErrorCode>(code)) {
    case OperationErrorCode::CannotAcceptWork:
        return {.cause = FailureCause::QueueFull};
    case OperationErrorCode::UnknownOperation:
        return {.cause = FailureCause::UnknownOperation, .subject = request.uniqueID().value_or("(null)")};
    case OperationErrorCode::UnreadableSource:
        return {.cause = FailureCause::UnreadableSource, .errorNumber = ENOENT};
    case OperationErrorCode::UnusableSource:
        return {.cause = FailureCause::UnknownFormat};
    case OperationErrorCode::UnwritableDestination:
        return {.cause = FailureCause::UnwritableDestination, .errorNumber = ENOSPC};
    case OperationErrorCode::Unsupported:
        return {.cause = FailureCause::UnsupportedEncodingType, .subject = "99"};
    case OperationErrorCode::WorkerFailed:
        return {.cause = FailureCause::WorkerCrashed, .reason = "the script asks for it"};
    case OperationErrorCode::Internal:
        break;
    case OperationErrorCode::InvalidArgument:
        return {.cause = FailureCause::InvalidArgument,
                .subject = std::string(kArgumentEncodingType),
                .detail = "is not an integer"};
    case OperationErrorCode::SameFile:
        return {.cause = FailureCause::SameFile};
    }
    return {.cause = FailureCause::InternalError, .reason = "the script asks for it"};
}

/// Returns the error that the rule asks for. What it leaves open is as the real server says it.
std::shared_ptr<const Error> makeError(std::int64_t code, const KRVOperationBase& request, const Rule& rule) {
    const auto usual = server::makeError(request, failureWith(code, request));
    Dictionary info = usual->userInfo() ? usual->userInfo()->mutableCopy() : Dictionary();
    const auto replace = [&info](std::string_view key, const std::string& text) {
        if (!text.empty()) {
            info.set(key, text);
        }
    };
    replace(NSLocalizedDescriptionKey, rule.sentence);
    replace(NSLocalizedFailureReasonErrorKey, rule.cause);
    replace(kErrorFilePath, rule.file);
    return Error::make(usual->domain(), usual->code(), std::move(info));
}

bool isMediaOperation(std::int32_t type) {
    return Rule{}.applies(type, 1);
}

}  // namespace

FakeOperations::FakeOperations(const Script& script, SharedState& shared, Report report,
                               std::function<void(bool crash)> die)
    : script_(script)
    , shared_(shared)
    , report_(std::move(report))
    , die_(std::move(die)) {}

Response FakeOperations::respond(const Ref& request) {
    const std::int32_t type = request->operationType();
    const std::uint32_t number = shared_.nextRequest(type);
    report_(*request, number);
    const Rule rule = script_.ruleFor(type, number);
    std::this_thread::sleep_for(std::max(rule.delay, delayOf(*request)));
    const LockGuard lock(mutex_);
    if (isMediaOperation(type)) {
        return begin(request, rule);
    }
    return rule.behaviour == Behaviour::Succeed ? respondAsUsual(request) : meet(rule, request, nullptr);
}

std::chrono::milliseconds FakeOperations::delayOf(const KRVOperationBase& request) {
    const LockGuard lock(mutex_);
    const Operation* const operation = find(request);
    return operation ? operation->rule.delay : 0ms;
}

Response FakeOperations::begin(const Ref& request, const Rule& rule) {
    request->setUniqueID(fmt::format("fake-{}", shared_.nextOperation()));
    const bool begins = rule.at || rule.behaviour == Behaviour::Succeed || rule.behaviour == Behaviour::Stall ||
                        rule.behaviour == Behaviour::Forget;
    if (!begins && rule.behaviour != Behaviour::Fail) {
        return meet(rule, request, nullptr);
    }
    auto& operation = operations_[*request->uniqueID()];
    operation = {.request = request, .rule = rule, .steps = stepsOf(rule)};
    // One that is refused is remembered, too, because clients ask how it has ended.
    return begins ? Response{.record = replyTo(*request)} : meet(rule, request, &operation);
}

std::vector<FakeOperations::Step> FakeOperations::stepsOf(const Rule& rule) {
    std::vector<Step> steps;
    for (const std::int64_t position : rule.queue) {
        steps.push_back({.progress = 0, .position = position});
    }
    for (const double number : rule.progress) {
        if (rule.behaviour == Behaviour::Succeed || (rule.at && number < *rule.at)) {
            steps.push_back({.progress = number});
        }
    }
    if (rule.at || rule.behaviour == Behaviour::Stall) {
        steps.push_back({.progress = rule.at.value_or(0)});
    }
    return steps;
}

/// Does what the rule asks for, now that its time has come. operation: null if there is none yet.
Response FakeOperations::meet(const Rule& rule, const Ref& request, Operation* operation) {
    switch (rule.behaviour) {
    case Behaviour::Succeed:
    case Behaviour::Stall:
        return {.record = operation ? stateOf(*request, *operation) : replyTo(*request)};
    case Behaviour::Fail: {
        const auto error = makeError(rule.errorCode, operation ? *operation->request : *request, rule);
        if (operation) {
            operation->ended = true;
            operation->error = error;
            return {.record = stateOf(*request, *operation)};
        }
        const Ref reply = replyTo(*request);
        reply->setError(error);
        return {.record = reply};
    }
    case Behaviour::Forget:
        if (operation) {
            operations_.erase(request->uniqueID().value_or(""));
        }
        return {.record = unknown(*request)};
    case Behaviour::Garbage:
        return {.kind = Response::Kind::Body, .body = rule.body.empty() ? "this is not a record" : rule.body};
    case Behaviour::Status:
        return {.kind = Response::Kind::Body, .status = rule.status, .body = rule.body};
    case Behaviour::Hang:
        return {.kind = Response::Kind::Hang};
    case Behaviour::Die:
    case Behaviour::Exit:
        return deathOf(rule, {.kind = Response::Kind::Drop});
    case Behaviour::Drop:
        break;
    }
    return {.kind = Response::Kind::Drop};
}

Response FakeOperations::deathOf(const Rule& rule, Response response) const {
    response.afterwards = [this, crash = rule.behaviour == Behaviour::Die] { die_(crash); };
    return response;
}

Response FakeOperations::progress(const Ref& request) {
    const auto deadline = std::chrono::steady_clock::now() + kHold;
    for (;;) {
        Operation* operation = find(*request);
        if (!operation) {
            return {.record = unknown(*request)};
        }
        if (operation->ended) {
            return {.record = stateOf(*request, *operation)};
        }
        if (operation->step < operation->steps.size() && !operation->shown) {
            return show(*operation, request);
        }
        const Rule& rule = operation->rule;
        const auto now = std::chrono::steady_clock::now();
        const auto next = operation->shown ? *operation->shown + rule.every : now;
        const bool stands = rule.behaviour == Behaviour::Stall && isAtLastStep(*operation);
        const bool atGate = isAtLastStep(*operation) && isClosed(rule);
        if (!stands && !atGate && now >= next) {
            if (const auto response = advance(*operation, request)) {
                return *response;
            }
            continue;
        }
        if (now >= deadline) {
            return {.record = stateOf(*request, *operation)};
        }
        const auto wake = atGate ? now + kGateInterval : stands ? deadline : next;
        changed_.wait_until(mutex_, std::min(wake, deadline));
    }
}

/// Reports the present number for the first time.
Response FakeOperations::show(Operation& operation, const Ref& request) const {
    operation.shown = std::chrono::steady_clock::now();
    const Rule& rule = operation.rule;
    const bool dies = rule.behaviour == Behaviour::Die || rule.behaviour == Behaviour::Exit;
    Response response{.record = stateOf(*request, operation)};
    return dies && isAtLastStep(operation) && !isClosed(rule) ? deathOf(rule, std::move(response)) : response;
}

bool FakeOperations::isAtLastStep(const Operation& operation) {
    return operation.step + 1 >= operation.steps.size();
}

/// Goes on to the next number or, after the last one, to the end. Returns the response if the rule's behaviour decides
/// about it.
std::optional<Response> FakeOperations::advance(Operation& operation, const Ref& request) {
    if (!isAtLastStep(operation)) {
        ++operation.step;
        operation.shown.reset();
    } else if (operation.rule.behaviour == Behaviour::Succeed) {
        finish(operation);
    } else {
        return meet(Rule(operation.rule), request, &operation);
    }
    return std::nullopt;
}

bool FakeOperations::isClosed(const Rule& rule) const {
    return rule.gate && !shared_.isOpen(*rule.gate);
}

void FakeOperations::finish(Operation& operation) {
    operation.ended = true;
    const Rule& rule = operation.rule;
    const Ref record = replyTo(*operation.request);
    try {
        fillRecord(*record, *operation.request, rule.contents);
    } catch (const std::exception& problem) {
        Rule failure;
        failure.cause = problem.what();
        operation.error = makeError(static_cast<std::int64_t>(OperationErrorCode::UnwritableDestination),
                                    *operation.request, failure);
        return;
    }
    record->setProgress(1, true);
    for (const auto& [key, value] : rule.result) {
        record->result()->set(*key, value);
    }
    for (const auto& [key, value] : rule.arguments) {
        record->arguments()->set(*key, value);
    }
    operation.record = record;
}

Response FakeOperations::respondAsUsual(const Ref& request) {
    switch (request->operationType()) {
    case OpProgressAndCompletion:
        return progress(request);
    case OpCancelOperation:
    case OpCancelAllOperations:
        return cancel(request);
    case OpReturnResult:
        return result(request);
    case OpRemoveReturnResult:
        return {.record =
                    operations_.erase(request->uniqueID().value_or("")) == 0 ? unknown(*request) : replyTo(*request)};
    case OpRegisterWithServer:
    case OpUnregisterFromServer:
    case OpAmIRegistered:
        return registration(request);
    case OpNumberOfOperations:
        return count(request);
    case OpShutdownServer: {
        Response farewell{.record = replyTo(*request)};
        farewell.afterwards = [this] { die_(false); };
        return farewell;
    }
    default:
        return {.record = replyTo(*request)};
    }
}

Response FakeOperations::cancel(const Ref& request) {
    const auto end = [](Operation& operation) {
        operation.cancelled = operation.cancelled || !operation.ended;
        operation.ended = true;
    };
    if (request->operationType() == OpCancelAllOperations) {
        for (auto& [identifier, operation] : operations_) {
            end(operation);
        }
    } else if (Operation* const operation = find(*request)) {
        end(*operation);
    } else {
        return {.record = unknown(*request)};
    }
    changed_.notify_all();
    const Ref reply = replyTo(*request);
    reply->setCancelled(true);
    return {.record = reply};
}

Response FakeOperations::result(const Ref& request) {
    const Operation* const operation = find(*request);
    if (!operation) {
        return {.record = unknown(*request)};
    }
    return {.record = operation->record ? operation->record : stateOf(*request, *operation)};
}

Response FakeOperations::registration(const Ref& request) {
    const std::int64_t client = request->regInfoPID().integerValue();
    if (request->operationType() == OpRegisterWithServer) {
        clients_.insert(client);
    } else if (request->operationType() == OpUnregisterFromServer) {
        clients_.erase(client);
    }
    const Ref reply = replyTo(*request);
    reply->setIsClientRegistered(clients_.contains(client));
    return {.record = reply};
}

Response FakeOperations::count(const Ref& request) const {
    Array names;
    for (const auto& [identifier, operation] : operations_) {
        if (!operation.ended) {
            names.emplace_back(operation.request->operationName());
        }
    }
    const Ref reply = replyTo(*request);
    reply->arguments()->set(kArgumentNumOpsNumberOnServer, static_cast<std::int64_t>(names.size()));
    reply->arguments()->set(kArgumentNumOpsNames, std::move(names));
    return {.record = reply};
}

FakeOperations::Operation* FakeOperations::find(const KRVOperationBase& request) {
    const auto place = operations_.find(request.uniqueID().value_or(""));
    return place == operations_.end() ? nullptr : &place->second;
}

KRVOperationBase::Ref FakeOperations::replyTo(const KRVOperationBase& request) {
    auto reply = std::make_shared<KRVOperationBase>();
    reply->setOperationType(request.operationType());
    reply->setUniqueID(request.uniqueID());
    return reply;
}

KRVOperationBase::Ref FakeOperations::stateOf(const KRVOperationBase& request, const Operation& operation) {
    const Ref reply = replyTo(request);
    reply->setError(operation.error);
    reply->setCancelled(operation.cancelled);
    if (operation.record) {
        reply->setProgress(1, true);
    } else if (operation.step < operation.steps.size()) {
        const Step& step = operation.steps[operation.step];
        reply->setProgress(static_cast<float>(step.progress), operation.ended);
        if (step.position && !operation.ended) {
            reply->arguments()->set(kArgumentQueuePosition, *step.position);
        }
    } else {
        reply->setCompleted(operation.ended);
    }
    return reply;
}

KRVOperationBase::Ref FakeOperations::unknown(const KRVOperationBase& request) {
    const Ref reply = replyTo(request);
    reply->setError(makeError(static_cast<std::int64_t>(OperationErrorCode::UnknownOperation), request, {}));
    return reply;
}

}  // namespace krv::test_kit

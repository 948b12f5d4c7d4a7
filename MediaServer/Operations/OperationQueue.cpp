#include <algorithm>

#include <fmt/format.h>
#include <gio/gio.h>

#include <MediaServer/Operations/OperationQueue.h>
#include <MediaServer/Operations/ServerLog.h>
#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {
namespace {

/// Shown at most before the output stands under its name.
constexpr double kNearlyDone = 0.99999;

/// What progress becomes after so much life. Where little is left the steps become smaller, so that it never arrives.
double crept(double progress, std::chrono::duration<double> life) {
    constexpr std::chrono::hours kTail{1};
    const double steady = life.count() * OperationQueue::kCreepPerSecond;
    const double towardsTheEnd = (kNearlyDone - progress) * std::min(life / kTail, 1.0);
    return progress + std::max(std::min(steady, towardsTheEnd), 0.0);
}

}  // namespace

std::string newOperationId() {
    char* const text = g_uuid_string_random();
    std::string id = text;
    g_free(text);
    std::transform(id.begin(), id.end(), id.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return id;
}

OperationQueue::Lane OperationQueue::laneFor(std::int32_t operationType) noexcept {
    return operationType == OpProvideMetadata || operationType == OpGetInterestingTimes ? Lane::Short : Lane::Long;
}

std::size_t OperationQueue::kindOf(const ServerOperation& operation) noexcept {
    return static_cast<std::size_t>(laneFor(operation.request->operationType()));
}

OperationQueue::OperationQueue(unsigned lanes, Work work, Changed changed, Clock clock)
    : work_(std::move(work))
    , changed_(std::move(changed))
    , clock_(std::move(clock)) {
    for (unsigned i = 0; i < std::max(lanes, 1U); ++i) {
        lanes_.emplace_back([this] { laneLoop(static_cast<std::size_t>(Lane::Long)); });
    }
    lanes_.emplace_back([this] { laneLoop(static_cast<std::size_t>(Lane::Short)); });
}

OperationQueue::~OperationQueue() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        closed_ = true;
        for (Kind& kind : kinds_) {
            kind.waiting.clear();
        }
    }
    cancelEverything();
    for (auto& wake : wake_) {
        wake.notify_all();
    }
    for (std::thread& lane : lanes_) {
        lane.join();
    }
}

OperationRef OperationQueue::add(const KRVOperationBase::Ref& request, const ClientKey& client) {
    const auto operation = std::make_shared<ServerOperation>();
    operation->id = newOperationId();
    operation->request = request;
    operation->client = client;
    const std::size_t kind = kindOf(*operation);
    {
        const LockGuard lock(mutex_);
        std::size_t waiting = 0;
        for (const Kind& each : kinds_) {
            waiting += each.waiting.size();
        }
        if (closed_ || waiting >= kLongestQueue) {
            return nullptr;
        }
        operation->queuedAt = clock_();
        kinds_.at(kind).waiting.push_back(operation);
        order_.push_back(operation);
        known_[operation->id] = operation;
    }
    wake_.at(kind).notify_one();
    return operation;
}

void OperationQueue::laneLoop(std::size_t kind) {
    for (;;) {
        OperationRef operation;
        {
            const LockGuard lock(mutex_);
            Kind& ours = kinds_.at(kind);
            while (ours.waiting.empty() && !stopping_) {
                wake_.at(kind).wait(mutex_);
            }
            if (stopping_) {
                return;
            }
            operation = ours.waiting.front();
            ours.waiting.pop_front();
            operation->state = ServerOperation::State::Running;
            operation->startedAt = clock_();
            operation->livedAt = operation->startedAt;
            operation->base = operation->progress;
            ours.lastLife = operation->startedAt;
        }
        carryOut(operation);
    }
}

void OperationQueue::carryOut(const OperationRef& operation) {
    Outcome outcome = work_(*operation, [&](double fraction) { reported(*operation, fraction); });
    {
        const LockGuard lock(mutex_);
        end(*operation, std::move(outcome));
        creep(kinds_.at(kindOf(*operation)));
        logOperation(*operation);
    }
    changed_();
}

void OperationQueue::reported(ServerOperation& operation, double fraction) {
    constexpr double kVisible = 0.005;
    bool visible = false;
    {
        const LockGuard lock(mutex_);
        const auto now = clock_();
        const double filled = operation.base + (1.0 - operation.base) * std::clamp(fraction, 0.0, 1.0);
        const double shown =
            std::max(crept(operation.progress, now - operation.livedAt), std::min(filled, kMostReported));
        visible = shown - operation.progress >= kVisible;
        operation.progress = shown;
        operation.livedAt = now;
        creep(kinds_.at(kindOf(operation)));
    }
    if (visible) {
        changed_();
    }
}

void OperationQueue::creep(Kind& kind) {
    const auto now = clock_();
    for (const OperationRef& each : kind.waiting) {
        each->progress = crept(each->progress, now - kind.lastLife);
    }
    kind.lastLife = now;
}

void OperationQueue::end(ServerOperation& operation, Outcome outcome) {
    operation.state = ServerOperation::State::Finished;
    operation.finishedAt = clock_();
    operation.result = std::move(outcome.record);
    switch (outcome.kind) {
    case Outcome::Kind::Completed:
        operation.completed = true;
        operation.progress = 1.0;
        break;
    case Outcome::Kind::Failed:
        operation.error = std::move(outcome.error);
        break;
    case Outcome::Kind::Cancelled:
        operation.cancelled = true;
        break;
    }
}

OperationRef OperationQueue::find(const std::string& id) const {
    const auto place = known_.find(id);
    return place == known_.end() ? nullptr : place->second;
}

std::optional<OperationQueue::Snapshot> OperationQueue::snapshot(const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return std::nullopt;
    }
    return Snapshot{operation->progress, operation->completed, operation->cancelled,
                    operation->state == ServerOperation::State::Finished, operation->error};
}

std::optional<OperationQueue::Snapshot> OperationQueue::tell(const std::string& id) {
    const auto told = snapshot(id);
    if (told && told->ended) {
        const LockGuard lock(mutex_);
        if (const auto operation = find(id)) {
            operation->endTold = true;
        }
    }
    return told;
}

std::optional<KRVOperationBase::Ref> OperationQueue::finishedRecord(const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return std::nullopt;
    }
    auto record = std::make_shared<KRVOperationBase>();
    record->setOperationType(operation->request->operationType());
    record->setUniqueID(operation->id);
    record->setProgress(static_cast<float>(operation->progress), operation->completed);
    record->setCancelled(operation->cancelled);
    record->setError(operation->error);
    record->setArguments(operation->request->arguments());
    if (operation->result) {
        record->setResult(operation->result->result());
        for (const auto& [key, value] : *operation->result->arguments()) {
            if (*key != kArgumentPIDRegInfo) {
                record->arguments()->set(*key, value);
            }
        }
    }
    return record;
}

bool OperationQueue::cancelLocked(ServerOperation& operation) {
    switch (operation.state) {
    case ServerOperation::State::Queued:
        std::erase_if(kinds_.at(kindOf(operation)).waiting,
                      [&](const OperationRef& each) { return each.get() == &operation; });
        end(operation, {Outcome::Kind::Cancelled, nullptr, nullptr});
        logOperation(operation);
        return true;
    case ServerOperation::State::Running:
        operation.cancellation.request();
        return true;
    case ServerOperation::State::Finished:
        break;
    }
    return false;
}

bool OperationQueue::cancel(const std::string& id) {
    bool changed = false;
    {
        const LockGuard lock(mutex_);
        const auto operation = find(id);
        if (!operation) {
            return false;
        }
        changed = cancelLocked(*operation);
    }
    if (changed) {
        changed_();
    }
    return true;
}

void OperationQueue::cancelAllOf(const ClientKey& client) {
    {
        const LockGuard lock(mutex_);
        for (const OperationRef& operation : order_) {
            if (operation->client == client) {
                (void)cancelLocked(*operation);
            }
        }
    }
    changed_();
}

void OperationQueue::cancelEverything() {
    {
        const LockGuard lock(mutex_);
        for (const OperationRef& operation : order_) {
            (void)cancelLocked(*operation);
        }
    }
    changed_();
}

bool OperationQueue::remove(const std::string& id) {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return false;
    }
    (void)cancelLocked(*operation);
    known_.erase(id);
    std::erase(order_, operation);
    return true;
}

void OperationQueue::removeAllOf(const ClientKey& client) {
    {
        const LockGuard lock(mutex_);
        std::erase_if(order_, [&](const OperationRef& operation) KRV_REQUIRES(mutex_) {
            if (operation->client != client) {
                return false;
            }
            (void)cancelLocked(*operation);
            known_.erase(operation->id);
            return true;
        });
    }
    changed_();
}

std::vector<ClientKey> OperationQueue::removeOld() {
    const LockGuard lock(mutex_);
    const auto now = clock_();
    std::vector<ClientKey> affected;
    std::erase_if(order_, [&](const OperationRef& operation) KRV_REQUIRES(mutex_) {
        if (operation->state != ServerOperation::State::Finished || now - operation->finishedAt < kResultsKept) {
            return false;
        }
        known_.erase(operation->id);
        affected.push_back(operation->client);
        return true;
    });
    std::erase_if(affected, [&](const ClientKey& client) KRV_REQUIRES(mutex_) {
        return std::any_of(order_.begin(), order_.end(),
                           [&](const OperationRef& operation) { return operation->client == client; });
    });
    return affected;
}

void OperationQueue::close() {
    {
        const LockGuard lock(mutex_);
        closed_ = true;
        for (Kind& kind : kinds_) {
            for (const OperationRef& operation : kind.waiting) {
                end(*operation, {Outcome::Kind::Failed,
                                 makeError(OperationErrorCode::CannotAcceptWork, "The media server is shutting down.",
                                           "the operation had not begun"),
                                 nullptr});
                logOperation(*operation);
            }
            kind.waiting.clear();
        }
    }
    changed_();
}

OperationQueue::Counts OperationQueue::counts() const {
    const LockGuard lock(mutex_);
    Counts counts;
    for (const OperationRef& operation : order_) {
        switch (operation->state) {
        case ServerOperation::State::Queued:
            ++counts.queued;
            break;
        case ServerOperation::State::Running:
            ++counts.running;
            break;
        case ServerOperation::State::Finished:
            ++counts.finished;
            counts.untold += operation->endTold ? 0U : 1U;
            break;
        }
    }
    return counts;
}

std::vector<std::string> OperationQueue::names() const {
    const LockGuard lock(mutex_);
    std::vector<std::string> names;
    for (const OperationRef& operation : order_) {
        if (operation->state != ServerOperation::State::Finished) {
            names.push_back(operation->request->nameFromType());
        }
    }
    return names;
}

}  // namespace krv::server

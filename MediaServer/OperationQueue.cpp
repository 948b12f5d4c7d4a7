#include "OperationQueue.h"

#include <algorithm>

#include <fmt/format.h>
#include <gio/gio.h>

#include "ServerError.h"
#include "ServerLog.h"

namespace krv::server {
namespace {

/// Shown at most before the output stands under its name.
constexpr double kNearlyDone = 0.99999;

std::string newId() {
    char* const text = g_uuid_string_random();
    std::string id = text;
    g_free(text);
    std::transform(id.begin(), id.end(), id.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return id;
}

double secondsBetween(ServerOperation::Time from, ServerOperation::Time to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

OperationQueue::OperationQueue(unsigned lanes, Work work, Changed changed, Clock clock)
    : work_(std::move(work))
    , changed_(std::move(changed))
    , clock_(std::move(clock))
    , lastLife_(clock_()) {
    for (unsigned i = 0; i < std::max(lanes, 1U); ++i) {
        lanes_.emplace_back([this] { laneLoop(); });
    }
}

OperationQueue::~OperationQueue() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        closed_ = true;
        waiting_.clear();
    }
    cancelEverything();
    wake_.notify_all();
    for (std::thread& lane : lanes_) {
        lane.join();
    }
}

OperationRef OperationQueue::add(const KRVOperationBase::Ref& request, const ClientKey& client) {
    const auto operation = std::make_shared<ServerOperation>();
    operation->id = newId();
    operation->request = request;
    operation->client = client;
    {
        const LockGuard lock(mutex_);
        if (closed_ || waiting_.size() >= kLongestQueue) {
            return nullptr;
        }
        operation->queuedAt = clock_();
        waiting_.push_back(operation);
        order_.push_back(operation);
        known_[operation->id] = operation;
    }
    wake_.notify_one();
    return operation;
}

void OperationQueue::laneLoop() {
    for (;;) {
        OperationRef operation;
        {
            const LockGuard lock(mutex_);
            while (waiting_.empty() && !stopping_) {
                wake_.wait(mutex_);
            }
            if (stopping_) {
                return;
            }
            operation = waiting_.front();
            waiting_.pop_front();
            operation->state = ServerOperation::State::Running;
            operation->startedAt = clock_();
            operation->base = operation->progress;
            lastLife_ = operation->startedAt;
        }
        carryOut(operation);
    }
}

void OperationQueue::carryOut(const OperationRef& operation) {
    Outcome outcome = work_(*operation, [&](double fraction) { reported(*operation, fraction); });
    {
        const LockGuard lock(mutex_);
        end(*operation, std::move(outcome));
        logOperation(*operation);
    }
    changed_();
}

void OperationQueue::reported(ServerOperation& operation, double fraction) {
    constexpr double kVisible = 0.005;
    bool visible = false;
    {
        const LockGuard lock(mutex_);
        const double filled = operation.base + (1.0 - operation.base) * std::clamp(fraction, 0.0, 1.0);
        const double shown = std::max(operation.progress, std::min(filled, kNearlyDone));
        visible = shown - operation.progress >= kVisible;
        operation.progress = shown;
        // What waits lives by what moves ahead of it.
        const auto now = clock_();
        const double creep = secondsBetween(lastLife_, now) * kCreepPerSecond;
        lastLife_ = now;
        for (const OperationRef& each : waiting_) {
            each->progress = std::min(each->progress + creep, kNearlyDone);
        }
    }
    if (visible) {
        changed_();
    }
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
        std::erase_if(waiting_, [&](const OperationRef& each) { return each.get() == &operation; });
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
        for (const OperationRef& operation : waiting_) {
            end(*operation, {Outcome::Kind::Failed,
                             makeError(ErrorCode::CannotTakeWorkNow, "The media server is shutting down.",
                                       "the operation had not begun"),
                             nullptr});
        }
        waiting_.clear();
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

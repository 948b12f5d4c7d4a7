#include <algorithm>
#include <iterator>
#include <utility>

#include <gio/gio.h>

#include <MediaServer/Operations/OperationLedger.h>
#include <MediaServer/Operations/ServerLog.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

std::string newIdentifier() {
    char* const text = g_uuid_string_random();
    std::string id = text;
    g_free(text);
    std::transform(id.begin(), id.end(), id.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return id;
}

using State = ServerOperation::State;

/// An estimate of the remaining time jumps about below this fraction and before this time.
constexpr double kSmallestFractionForEstimate = 0.01;
constexpr OperationActivity::Seconds kShortestTimeForEstimate{1};

std::optional<OperationActivity::Seconds> remaining(double fraction, OperationActivity::Seconds elapsed) {
    if (fraction < kSmallestFractionForEstimate || elapsed < kShortestTimeForEstimate) {
        return std::nullopt;
    }
    return elapsed * ((1 - fraction) / fraction);
}

/// Shortens a text in UTF-8 between two characters.
std::string shortened(std::string text, std::size_t longest) {
    constexpr std::string_view kEllipsis = "\u2026";
    if (text.size() <= longest) {
        return text;
    }
    std::size_t end = longest - kEllipsis.size();
    const auto continues = [&](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U; };
    while (end > 0 && continues(end)) {
        --end;
    }
    text.resize(end);
    return text.append(kEllipsis);
}

}  // namespace

OperationLedger::OperationLedger(Changed changed, Clock clock, std::size_t resultBudget)
    : changed_(std::move(changed))
    , clock_(std::move(clock))
    , resultBudget_(resultBudget) {}

std::size_t OperationLedger::kindOf(const ServerOperation& operation) noexcept {
    const MediaOperation* const row = mediaOperation(operation.request->operationType());
    return static_cast<std::size_t>(row ? row->duration : Duration::Long);
}

std::string OperationLedger::insert(const OperationRef& operation) {
    operation->id = newIdentifier();
    operation->number = ++lastNumber_;
    byId_[operation->id] = operation;
    inOrder_[operation->number] = operation;
    count(*operation);
    return operation->id;
}

void OperationLedger::erase(const ServerOperation& operation) {
    const std::string id = operation.id;
    uncount(operation);
    if (operation.client) {
        losers_.insert(*operation.client);
    }
    inOrder_.erase(operation.number);
    byId_.erase(id);
}

void OperationLedger::tally(const ServerOperation& operation, std::size_t one) const {
    switch (operation.state) {
    case State::Queued:
        counts_.queued += one;
        break;
    case State::Running:
        counts_.running += one;
        break;
    case State::Finished:
        counts_.finished += operation.request ? one : 0;
        counts_.untold += operation.request && !operation.endTold ? one : 0;
        counts_.finishedBytes += one * (kEntryCost + operation.requestBytes + operation.resultBytes);
        break;
    }
}

void OperationLedger::count(const ServerOperation& operation) const {
    tally(operation, 1);
}

void OperationLedger::uncount(const ServerOperation& operation) const {
    tally(operation, ~std::size_t{0});  // adds -1, modulo the size of the type
}

OperationRef OperationLedger::find(const std::string& id) const {
    const auto place = byId_.find(id);
    return place == byId_.end() ? nullptr : place->second;
}

std::optional<std::string> OperationLedger::add(const KRVOperationBase::Ref& request, const ClientKey& client,
                                                std::optional<Failure>& failure) {
    const auto operation = std::make_shared<ServerOperation>();
    operation->request = withKnownArguments(*request);
    operation->requestBytes = operation->request->convertToData().size();
    operation->client = client;
    const std::size_t kind = kindOf(*operation);
    std::string id;
    {
        const LockGuard lock(mutex_);
        Line& line = lines_.at(kind);
        const bool full = line.waiting.size() >= kLongestQueue || line.bytes + operation->requestBytes > kQueueBudget;
        if (closed_ || full) {
            failure = Failure{.cause = closed_ ? FailureCause::ShuttingDown : FailureCause::QueueFull};
            return std::nullopt;
        }
        operation->queuedAt = clock_();
        line.waiting.push_back(operation);
        line.bytes += operation->requestBytes;
        id = insert(operation);
    }
    wake_.at(kind).notify_one();
    return id;
}

std::optional<std::string> OperationLedger::addTimed(const TimedRun& run, const ClientKey& client) {
    const auto operation = std::make_shared<ServerOperation>();
    operation->client = client;
    operation->timed = TimedRun{std::max(run.timeToLive, std::chrono::duration<double>::zero()), run.completes};
    const LockGuard lock(mutex_);
    dropEndedTimedRuns();
    if (timed_.size() >= kMostTimedRuns) {
        return std::nullopt;
    }
    operation->state = State::Running;
    operation->queuedAt = operation->startedAt = clock_();
    timed_.insert(operation);
    return insert(operation);
}

std::string OperationLedger::addRefused(std::shared_ptr<const Error> error) {
    const auto operation = std::make_shared<ServerOperation>();
    operation->resultBytes = error->localizedDescription().size() + error->localizedFailureReason().size();
    operation->error = std::move(error);
    operation->state = State::Finished;
    const LockGuard lock(mutex_);
    operation->finishedAt = clock_();
    remember(*operation->error);
    if (refusals_.size() >= kMostRefusals) {
        if (const auto oldest = find(refusals_.front())) {
            erase(*oldest);
        }
        refusals_.pop_front();
    }
    refusals_.push_back(insert(operation));
    keepWithinBudget(*operation);
    return refusals_.back();
}

void OperationLedger::refresh(ServerOperation& operation) const {
    if (!operation.timed || operation.state == State::Finished) {
        return;
    }
    const TimedRun& run = *operation.timed;
    const std::chrono::duration<double> elapsed = clock_() - operation.startedAt;
    if (!run.completes) {
        // Approaches 1 without ever stopping.
        operation.progress.advanceTo(elapsed / (elapsed + run.timeToLive + std::chrono::seconds(1)));
    } else if (elapsed < run.timeToLive) {
        operation.progress.advanceTo(elapsed / run.timeToLive);
    } else {
        uncount(operation);
        operation.progress.complete();
        operation.completed = true;
        operation.state = State::Finished;
        operation.finishedAt = clock_();
        count(operation);
    }
}

OperationLedger::Snapshot OperationLedger::snapshotOf(const ServerOperation& operation) {
    return {operation.progress.value(), operation.completed, operation.cancelled, operation.state == State::Finished,
            operation.error};
}

std::optional<OperationLedger::Snapshot> OperationLedger::snapshot(const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return std::nullopt;
    }
    refresh(*operation);
    return snapshotOf(*operation);
}

std::optional<OperationLedger::Snapshot> OperationLedger::tell(const std::string& id) {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return std::nullopt;
    }
    refresh(*operation);
    uncount(*operation);
    operation->endTold |= operation->state == State::Finished;
    count(*operation);
    Snapshot snapshot = snapshotOf(*operation);
    operation->told = ServerOperation::Told{clock_(), snapshot.progress};
    if (operation->state == State::Queued) {
        snapshot.before = countBefore(*operation);
    }
    return snapshot;
}

bool OperationLedger::endsWithin(std::chrono::milliseconds time, const std::string& id) const {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation || operation->state != State::Running || !operation->told) {
        return false;
    }
    const auto& [when, progress] = *operation->told;
    const auto passed = clock_() - when;
    const double done = operation->progress.value() - progress;
    const double left = 1 - operation->progress.value();
    return passed >= kShortestPolling && left * std::chrono::duration<double>(passed) <= done * time;
}

std::size_t OperationLedger::countBefore(const ServerOperation& waiting) const {
    const Line& line = lines_.at(kindOf(waiting));
    const auto place =
        std::lower_bound(line.waiting.begin(), line.waiting.end(), waiting.number,
                         [](const OperationRef& each, std::uint64_t number) { return each->number < number; });
    return line.running.size() + static_cast<std::size_t>(place - line.waiting.begin());
}

std::optional<KRVOperationBase::Ref> OperationLedger::record(const std::string& id) {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation || !operation->request) {
        return std::nullopt;
    }
    operation->resultFetched |= operation->state == State::Finished;
    auto record = std::make_shared<KRVOperationBase>();
    record->setOperationType(operation->request->operationType());
    record->setUniqueID(operation->id);
    record->setProgress(static_cast<float>(operation->progress.value()), operation->completed);
    record->setCancelled(operation->cancelled);
    record->setError(operation->error);
    // A copy, because the caller archives the record without the lock.
    record->setArguments(std::make_shared<Dictionary>(operation->request->arguments()->mutableCopy()));
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

OperationLedger::Counts OperationLedger::counts() const {
    const LockGuard lock(mutex_);
    dropEndedTimedRuns();
    return counts_;
}

void OperationLedger::dropEndedTimedRuns() const {
    for (const OperationRef& operation : timed_) {
        refresh(*operation);
    }
    std::erase_if(timed_, [](const OperationRef& each) { return each->state == State::Finished; });
}

std::vector<std::string> OperationLedger::names() const {
    const LockGuard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [number, operation] : inOrder_) {
        if (operation->request && operation->state != State::Finished) {
            names.push_back(operation->request->nameFromType());
        }
    }
    return names;
}

OperationActivity OperationLedger::activity() const {
    const LockGuard lock(mutex_);
    const auto now = clock_();
    const auto describe = [](const ServerOperation& operation, ServerOperation::Time until) {
        return OperationActivity::Waiting{.number = operation.number,
                                          .request = operation.request,
                                          .client = operation.client.value_or(ClientKey{}),
                                          .waited = until - operation.queuedAt};
    };
    OperationActivity activity;
    for (const Line& line : lines_) {
        for (const OperationRef& each : line.running) {
            const OperationActivity::Seconds elapsed = now - each->startedAt;
            const double progress = each->progress.value();
            activity.running.push_back(
                {describe(*each, each->startedAt), progress, elapsed, remaining(progress, elapsed)});
        }
        activity.waitingInAll += line.waiting.size();
        const auto shown = std::min(line.waiting.size(), kMostDescribed);
        for (auto each = line.waiting.begin(); each != line.waiting.begin() + static_cast<std::ptrdiff_t>(shown);
             ++each) {
            activity.waiting.push_back(describe(**each, now));
        }
    }
    const auto inOrder = [](const auto& one, const auto& other) { return one.number < other.number; };
    std::sort(activity.running.begin(), activity.running.end(), inOrder);
    std::sort(activity.waiting.begin(), activity.waiting.end(), inOrder);
    activity.waiting.resize(std::min(activity.waiting.size(), kMostDescribed));
    std::for_each(problems_.rbegin(), problems_.rend(), [&](const Problem& each) {
        activity.problems.push_back({each.number, now - each.when, each.sentence});
    });
    return activity;
}

void OperationLedger::remember(const Error& problem) {
    if (problems_.size() >= kMostProblems) {
        problems_.pop_front();
    }
    problems_.push_back({++lastProblem_, clock_(), shortened(problem.localizedDescription(), kLongestSentence)});
}

bool OperationLedger::cancelLocked(ServerOperation& operation) {
    refresh(operation);
    if (operation.state == State::Finished) {
        return false;
    }
    if (operation.cancellation) {
        operation.cancellation->request();  // it ends when its executor thread has seen this
        return false;
    }
    if (!operation.timed) {
        Line& line = lines_.at(kindOf(operation));
        line.bytes -= operation.requestBytes;
        std::erase_if(line.waiting, [&](const OperationRef& each) { return each.get() == &operation; });
    }
    finishLocked(operation, {Outcome::Kind::Cancelled, nullptr, nullptr});
    return true;
}

bool OperationLedger::cancel(const std::string& id) {
    bool ended = false;
    {
        const LockGuard lock(mutex_);
        const auto operation = find(id);
        if (!operation) {
            return false;
        }
        ended = cancelLocked(*operation);
    }
    if (ended) {
        changed_();
    }
    return true;
}

void OperationLedger::cancelAllOf(const ClientKey& client) {
    {
        const LockGuard lock(mutex_);
        for (const auto& [number, operation] : inOrder_) {
            if (operation->client == client) {
                cancelLocked(*operation);
            }
        }
    }
    changed_();
}

void OperationLedger::cancelEverything() {
    {
        const LockGuard lock(mutex_);
        for (const auto& [number, operation] : inOrder_) {
            cancelLocked(*operation);
        }
    }
    changed_();
}

bool OperationLedger::remove(const std::string& id) {
    const LockGuard lock(mutex_);
    const auto operation = find(id);
    if (!operation) {
        return false;
    }
    cancelLocked(*operation);
    erase(*operation);
    return true;
}

void OperationLedger::removeAllOf(const ClientKey& client) {
    {
        const LockGuard lock(mutex_);
        std::vector<OperationRef> theirs;
        for (const auto& [number, operation] : inOrder_) {
            if (operation->client == client) {
                theirs.push_back(operation);
            }
        }
        for (const OperationRef& operation : theirs) {
            cancelLocked(*operation);
            erase(*operation);
        }
    }
    changed_();
}

std::vector<ClientKey> OperationLedger::removeOld() {
    const LockGuard lock(mutex_);
    const auto now = clock_();
    std::vector<OperationRef> old;
    std::set<ClientKey> remaining;
    for (const auto& [number, operation] : inOrder_) {
        refresh(*operation);
        if (operation->state == State::Finished && now - operation->finishedAt >= kResultsKept) {
            old.push_back(operation);
        } else if (operation->client) {
            remaining.insert(*operation->client);
        }
    }
    for (const OperationRef& operation : old) {
        erase(*operation);
    }
    std::erase_if(refusals_, [this](const std::string& id) KRV_REQUIRES(mutex_) { return !find(id); });
    std::vector<ClientKey> affected;
    std::set_difference(losers_.begin(), losers_.end(), remaining.begin(), remaining.end(),
                        std::back_inserter(affected));
    losers_.clear();
    return affected;
}

void OperationLedger::keepWithinBudget(const ServerOperation& newest) {
    if (counts_.finishedBytes <= resultBudget_) {
        return;
    }
    // Some room to spare, because every entry has to be looked at for this.
    const std::size_t aim = resultBudget_ - resultBudget_ / 8;
    using Droppable = bool (*)(const ServerOperation&);
    for (const Droppable droppable : {Droppable([](const ServerOperation& each) { return each.resultFetched; }),
                                      Droppable([](const ServerOperation& each) { return each.endTold; }),
                                      Droppable([](const ServerOperation&) { return true; })}) {
        for (auto next = inOrder_.begin(); next != inOrder_.end() && counts_.finishedBytes > aim;) {
            const OperationRef operation = (next++)->second;
            if (operation->state == State::Finished && operation.get() != &newest && droppable(*operation)) {
                erase(*operation);
            }
        }
    }
}

void OperationLedger::close() {
    {
        const LockGuard lock(mutex_);
        closed_ = true;
        for (Line& line : lines_) {
            for (const OperationRef& operation : line.waiting) {
                finishLocked(*operation,
                             {Outcome::Kind::Failed,
                              makeError(*operation->request, {.cause = FailureCause::ShuttingDown}), nullptr});
            }
            line.waiting.clear();
            line.bytes = 0;
        }
    }
    changed_();
}

OperationRef OperationLedger::takeNext(Duration duration) {
    const auto kind = static_cast<std::size_t>(duration);
    const LockGuard lock(mutex_);
    Line& line = lines_.at(kind);
    while (line.waiting.empty() && !stopping_) {
        wake_.at(kind).wait(mutex_);
    }
    if (stopping_) {
        return nullptr;
    }
    const OperationRef operation = line.waiting.front();
    line.waiting.pop_front();
    line.bytes -= operation->requestBytes;
    uncount(*operation);
    operation->state = State::Running;
    line.running.push_back(operation);
    count(*operation);
    operation->cancellation = std::make_shared<Cancellation>();
    operation->startedAt = clock_();
    operation->livedAt = operation->startedAt;
    operation->progress.start();
    line.lastLife = operation->startedAt;
    return operation;
}

void OperationLedger::report(ServerOperation& operation, double fraction) {
    bool visible = false;
    {
        const LockGuard lock(mutex_);
        const auto now = clock_();
        const double before = operation.progress.value();
        operation.progress.report(fraction, now - operation.livedAt);
        operation.livedAt = now;
        visible = operation.progress.value() - before >= kVisibleChange;
        creep(lines_.at(kindOf(operation)));
    }
    if (visible) {
        changed_();
    }
}

void OperationLedger::creep(Line& line) {
    const auto now = clock_();
    for (const OperationRef& each : line.waiting) {
        each->progress.creep(now - line.lastLife);
    }
    line.lastLife = now;
}

void OperationLedger::finish(ServerOperation& operation, Outcome outcome) {
    const std::size_t bytes = outcome.record ? outcome.record->convertToData().size() : 0;
    {
        const LockGuard lock(mutex_);
        operation.resultBytes = bytes;
        finishLocked(operation, std::move(outcome));
        creep(lines_.at(kindOf(operation)));
    }
    changed_();
}

void OperationLedger::finishLocked(ServerOperation& operation, Outcome outcome) {
    // An operation that has been removed while it ran is in no count any more.
    const bool known = inOrder_.contains(operation.number);
    if (known) {
        uncount(operation);
    }
    if (operation.state == State::Running && operation.request) {
        std::erase_if(lines_.at(kindOf(operation)).running,
                      [&](const OperationRef& each) { return each.get() == &operation; });
    }
    operation.state = State::Finished;
    operation.finishedAt = clock_();
    operation.cancellation.reset();
    operation.result = std::move(outcome.record);
    switch (outcome.kind) {
    case Outcome::Kind::Completed:
        operation.completed = true;
        operation.progress.complete();
        break;
    case Outcome::Kind::Failed:
        operation.error = std::move(outcome.error);
        remember(*operation.error);
        break;
    case Outcome::Kind::Cancelled:
        operation.cancelled = true;
        break;
    }
    if (known) {
        count(operation);
        keepWithinBudget(operation);
    }
    if (operation.request) {
        logOperation(operation);
    }
}

void OperationLedger::stop() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        closed_ = true;
    }
    cancelEverything();
    for (auto& wake : wake_) {
        wake.notify_all();
    }
}

}  // namespace krv::server

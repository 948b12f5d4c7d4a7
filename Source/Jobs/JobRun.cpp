// The course of a job.
//
//   waitForServer ─> send ─> ask ─> ask ─> ... ─> fetch ─> end
//        ^            │       │                    │
//        └────────────┴───────┴─── connection lost ┘
//
// The server replies to `send` with an identifier, or, if the work takes less than a quarter of a second, with the finished
// state. It holds each `ask` until there is news. `fetch` brings the record with its result, which the server is then told
// to forget.
//
// Losing the server. A broken connection alone says little. When a server responds again, the run continues where it was:
// it asks for the same identifier. The same server knows it, and nothing has been lost but a moment. A new one does not, so
// the operation is sent again, up to three times in all. That is safe, because each operation leaves its output complete or
// untouched. A reply that takes too long is not a loss: the server may be stopped, and is asked again until the stall
// time-out, because its process still holds the work.
//
// A server that takes no work now (its queue is full, or it is about to exit) is asked again until the patience is at an
// end. These attempts do not count.
//
// Cancelling. The caller gets his result within 100 ms in any case. What has to be done depends on the phase.
//   - Nothing has been sent: the job ends.
//   - The operation has been sent, and the reply with its identifier is on the way: the work cannot be named yet. The run
//     waits for the reply, if need be after the caller has his result, and then cancels on the server.
//   - The server works: it is told to cancel. An operation that had ended already keeps its outcome, so the run asks for
//     it, and a job that was completed in that moment ends with its result.
//   - The result is being fetched: the run waits for it.
// If the server does not respond at all, the request to cancel stays in its socket, and is carried out when it continues.
// And a server cancels by itself what a process that has exited had wanted.
#include <algorithm>
#include <exception>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Jobs/Failures.h>
#include <KRVQTProcessClient/Jobs/JobRun.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr int kAttempts = 3;
/// For requests that the server replies to at once, or after its work on them.
constexpr Clock::Duration kReplyTimeout = 60s;
/// For the state, whose reply the server holds for less than half a second.
constexpr Clock::Duration kStateTimeout = 5s;
constexpr Clock::Duration kBetweenRefusals = 250ms;
/// How long a cancelled job may take to end for the caller.
constexpr Clock::Duration kCancelTakes = 80ms;
/// An estimate of the remaining time jumps about below this fraction and before this time.
constexpr double kSmallestFractionForEstimate = 0.01;
constexpr Clock::Duration kShortestTimeForEstimate = 1s;
constexpr double kFinishing = 0.995;

bool isForgotten(const KRVOperationBase& reply) {
    const auto error = reply.error();
    return error && error->domain() == kMediaServerErrorDomain &&
           error->code() == static_cast<std::int64_t>(OperationErrorCode::UnknownOperation);
}

std::optional<std::int64_t> queuePosition(const KRVOperationBase& state) {
    const auto arguments = state.arguments();
    const Value* const position = arguments ? arguments->find(kArgumentQueuePosition) : nullptr;
    return position && position->kind() == Value::Kind::Integer ? std::optional(position->integerValue())
                                                                : std::nullopt;
}

}  // namespace

JobRun::JobRun(JobServices services, std::shared_ptr<JobState> state, JobPlan plan, JobLimits limits,
               std::function<void()> ended)
    : services_(services)
    , state_(std::move(state))
    , plan_(std::move(plan))
    , limits_(limits)
    , ended_(std::move(ended)) {}

/// A run that threw would never end.
template <typename Function>
void JobRun::guarded(const Function& function) {
    std::string what = "an exception of an unknown kind";
    try {
        function();
        return;
    } catch (const Exception& exception) {
        what = exception.reason();
    } catch (const std::exception& exception) {
        what = exception.what();
    } catch (...) {
    }
    fail({Failure::Kind::Internal,
          {.message = fmt::format("{} failed.", plan_.activity), .cause = what, .file = plan_.source}});
}

void JobRun::request(const KRVOperationBase& record, Clock::Duration timeout, ReplyStep step) {
    request_ = services_.http.send(requestTo(port_, record, timeout),
                                   [self = shared_from_this(), step](const HTTPResponse& response) {
                                       self->request_.reset();
                                       self->guarded([&] { (*self.*step)(replyIn(response)); });
                                   });
}

void JobRun::after(Clock::Duration delay, Step step) {
    timer_ = services_.http.after(delay, [self = shared_from_this(), step] {
        self->timer_.reset();
        self->guarded([&] { (*self.*step)(); });
    });
}

void JobRun::queued(std::int64_t position) {
    report(Progress::State::Queued, {}, position);
}

void JobRun::start() {
    guarded([this] { waitForServer(&JobRun::send); });
}

void JobRun::waitForServer(Step next) {
    phase_ = Phase::WaitingForServer;
    report(Progress::State::WaitingForServer);
    waiting_ = services_.link.whenReady(
        {.patience = limits_.patience,
         .answer =
             [self = shared_from_this(), next](std::optional<Failure> failure) {
                 self->waiting_.reset();
                 if (failure) {
                     self->fail(*std::move(failure));
                     return;
                 }
                 self->port_ = self->services_.link.port();
                 self->guarded([&] { (*self.*next)(); });
             },
         .waiting = [self = shared_from_this()](
                        const std::string& reason) { self->report(Progress::State::WaitingForServer, reason); }});
}

void JobRun::send() {
    phase_ = Phase::Sending;
    ++attempt_;
    fraction_ = 0;
    workBegan_.reset();
    record_ = plan_.makeRecord();
    request(*record_, kReplyTimeout, &JobRun::sent);
}

void JobRun::sent(const ServerReply& reply) {
    const bool accepted = reply.kind == ServerReply::Kind::Record && !reply.record->error();
    if (accepted) {
        record_->copyFrom(reply.record);
    }
    if (phase_ == Phase::Ended || cancelling_) {
        if (accepted) {
            cancelOnServer();
        } else {
            failCancelled();
        }
        return;
    }
    if (reply.kind == ServerReply::Kind::Refused) {
        refused(reply);
        return;
    }
    if (!requireRecord(reply, &JobRun::send)) {
        return;
    }
    if (!accepted) {
        fail(failureFrom(*reply.record->error()));
        return;
    }
    refusedSince_.reset();
    lastReply_ = services_.clock.now();
    wait_.emplace(record_, OperationWait::Pace::WithTheServer, services_.clock);
    if (record_->completed()) {
        fetch();
    } else {
        ask();
    }
}

void JobRun::refused(const ServerReply& reply) {
    const auto now = services_.clock.now();
    refusedSince_ = refusedSince_.value_or(now);
    if (now - *refusedSince_ >= limits_.patience) {
        fail(failureFrom(*reply.record->error()));
        return;
    }
    --attempt_;
    phase_ = Phase::WaitingForServer;
    report(Progress::State::WaitingForServer, reply.record->error()->localizedDescription());
    after(kBetweenRefusals, &JobRun::send);
}

void JobRun::serverWasLost(const ServerReply& reply, Step next) {
    services_.link.lost(port_);
    if (next == &JobRun::send && attempt_ >= kAttempts) {
        fail(serverLost(plan_.activity, plan_.source, reply.why));
        return;
    }
    waitForServer(next);
}

void JobRun::serverForgot() {
    if (attempt_ >= kAttempts) {
        fail(serverLost(plan_.activity, plan_.source, "another media server was started"));
        return;
    }
    send();
}

bool JobRun::requireRecord(const ServerReply& reply, Step again) {
    switch (reply.kind) {
    case ServerReply::Kind::Lost:
        serverWasLost(reply, again);
        break;
    case ServerReply::Kind::Refused:
        after(kBetweenRefusals, again);
        break;
    case ServerReply::Kind::Garbage:
        notUnderstood(reply);
        break;
    case ServerReply::Kind::Record:
        return true;
    }
    return false;
}

void JobRun::notUnderstood(const ServerReply& reply) {
    fail({Failure::Kind::Internal,
          {.message = fmt::format("{} failed, because the media server's response was not understood.", plan_.activity),
           .cause = reply.why,
           .suggestion = "Restart the application; if it fails again, reinstall it.",
           .file = plan_.source}});
}

void JobRun::usePortOfLink() {
    if (const long port = services_.link.port(); port > 0) {
        port_ = port;
    }
}

void JobRun::ask() {
    phase_ = Phase::Following;
    usePortOfLink();
    asked_ = services_.clock.now();
    wait_->aboutToAsk();
    request(*KRVOperationBase::progressAndCompletionOperation(record_->uniqueID()), kStateTimeout, &JobRun::asked);
}

void JobRun::asked(const ServerReply& reply) {
    const auto now = services_.clock.now();
    if (reply.kind == ServerReply::Kind::Lost && now - asked_ >= kStateTimeout) {
        serverIsSilent();
        return;
    }
    if (!requireRecord(reply, &JobRun::ask)) {
        return;
    }
    lastReply_ = now;
    if (isForgotten(*reply.record)) {
        serverForgot();
    } else {
        advance(reply.record);
    }
}

void JobRun::serverIsSilent() {
    const auto silence = services_.clock.now() - lastReply_;
    if (silence > limits_.stall) {
        cancelOnServer();
        fail(stalled(plan_.activity, plan_.source, silence));
        return;
    }
    report(Progress::State::Running, "the media server does not respond");
    ask();
}

void JobRun::advance(const KRVOperationBase::Ref& state) {
    switch (wait_->take(state, static_cast<float>(secondsFromDuration(limits_.stall)))) {
    case OperationWait::Next::AskAgain:
        fraction_ = std::max(fraction_, std::clamp(static_cast<double>(state->progress()), 0.0, 1.0));
        if (const auto position = queuePosition(*state)) {
            report(Progress::State::Queued, {}, position);
        } else {
            report(fraction_ < kFinishing ? Progress::State::Running : Progress::State::Finishing);
        }
        after(wait_->pause(), &JobRun::ask);
        break;
    case OperationWait::Next::Cancel:
        cancelOnServer();
        fail(stalled(plan_.activity, plan_.source, limits_.stall));
        break;
    case OperationWait::Next::Failed:
        if (const auto error = record_->error()) {
            fail(failureFrom(*error));
        } else {
            failCancelled();
        }
        break;
    case OperationWait::Next::Completed:
        fetch();
        break;
    }
}

void JobRun::fetch() {
    phase_ = Phase::Fetching;
    fraction_ = 1;
    report(Progress::State::Finishing);
    usePortOfLink();
    request(*KRVOperationBase::returnResultForOperation(record_->uniqueID()), kReplyTimeout, &JobRun::fetched);
}

void JobRun::fetched(const ServerReply& reply) {
    if (phase_ == Phase::Ended) {
        return;
    }
    if (!requireRecord(reply, &JobRun::fetch)) {
        return;
    }
    if (isForgotten(*reply.record)) {
        serverForgot();
    } else if (const auto error = reply.record->error()) {
        fail(failureFrom(*error));
    } else {
        succeed(reply.record);
    }
}

void JobRun::cancel() {
    if (phase_ == Phase::Ended || std::exchange(cancelling_, true)) {
        return;
    }
    if (timer_) {
        services_.http.drop(*std::exchange(timer_, std::nullopt));
    }
    switch (phase_) {
    case Phase::Sending:
    case Phase::Fetching:
        break;
    case Phase::Following:
        if (request_) {
            services_.http.drop(*std::exchange(request_, std::nullopt));
        }
        guarded([this] { cancelOnServer(); });
        break;
    case Phase::Queued:
    case Phase::WaitingForServer:
    case Phase::Ended:
        failCancelled();
        return;
    }
    after(kCancelTakes, &JobRun::failCancelled);
}

void JobRun::cancelOnServer() {
    if (const auto id = record_->uniqueID()) {
        request(*KRVOperationBase::cancelOperation(id), kReplyTimeout, &JobRun::askForOutcome);
    }
}

void JobRun::askForOutcome(const ServerReply& reply) {
    if (phase_ == Phase::Ended) {
        return;
    }
    if (reply.kind != ServerReply::Kind::Record) {
        failCancelled();
        return;
    }
    request(*KRVOperationBase::progressAndCompletionOperation(record_->uniqueID()), kStateTimeout,
            &JobRun::outcomeAfterCancel);
}

void JobRun::outcomeAfterCancel(const ServerReply& reply) {
    if (phase_ == Phase::Ended) {
        return;
    }
    const bool completed = reply.kind == ServerReply::Kind::Record && !reply.record->error() &&
                           reply.record->completed() && !reply.record->cancelled();
    if (completed) {
        fetch();
    } else {
        failCancelled();
    }
}

void JobRun::succeed(const KRVOperationBase::Ref& finished) {
    JobCore::Outcome outcome{.value = plan_.makeResult(finished)};
    (void)services_.http.send(
        requestTo(port_, *KRVOperationBase::removeReturnResultForOperation(record_->uniqueID()), kStateTimeout),
        [](const HTTPResponse&) {});
    end(std::move(outcome));
}

void JobRun::fail(Failure failure) {
    end({.value = nullptr, .failure = std::move(failure)});
}

void JobRun::failCancelled() {
    fail(cancelled(plan_.activity, plan_.source));
}

void JobRun::end(JobCore::Outcome outcome) {
    if (std::exchange(phase_, Phase::Ended) == Phase::Ended) {
        return;
    }
    // A request that is on its way goes on: its reply may bring the identifier with which to cancel the work.
    if (waiting_) {
        services_.link.drop(*std::exchange(waiting_, std::nullopt));
    }
    if (timer_) {
        services_.http.drop(*std::exchange(timer_, std::nullopt));
    }
    state_->end(std::move(outcome));
    ended_();
}

void JobRun::report(Progress::State state, std::string waitingFor, std::optional<std::int64_t> position) {
    if (phase_ == Phase::Ended) {
        return;
    }
    const auto now = services_.clock.now();
    Progress progress{.state = state,
                      .fraction = fraction_,
                      .position = position,
                      .waitingFor = std::move(waitingFor),
                      .attempt = std::max(attempt_, 1)};
    if (state == Progress::State::Running || state == Progress::State::Finishing) {
        workBegan_ = workBegan_.value_or(now);
    }
    if (workBegan_) {
        const auto elapsed = now - *workBegan_;
        progress.elapsed = elapsed;
        if (fraction_ >= kSmallestFractionForEstimate && elapsed >= kShortestTimeForEstimate) {
            progress.remaining = progress.elapsed * ((1 - fraction_) / fraction_);
        }
    }
    state_->report(progress);
}

}  // namespace krv

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaOperation.h>
#include <MediaServer/Workers/JobRunner.h>

namespace krv::server {
namespace {

/// How many workers are tried for one job if they exit before they have it.
constexpr int kAttempts = 3;

std::string howItEnded(int status) {
    return WIFSIGNALED(status)
               ? fmt::format("the worker was killed by signal {} ({})", WTERMSIG(status), ::strsignal(WTERMSIG(status)))
               : fmt::format("the worker exited with status {}", WEXITSTATUS(status));
}

Outcome failed(std::shared_ptr<const Error> error) {
    return {Outcome::Kind::Failed, std::move(error), nullptr};
}

/// Returns whether the request has an output, which is the last of its files.
bool hasOutput(const KRVOperationBase& request) {
    const MediaOperation* const operation = mediaOperation(request.operationType());
    return operation && operation->destination != MediaOperation::Destination::None;
}

/// Returns whether the request has an output and nothing is in it.
bool outputIsEmpty(const KRVOperationBase& request, const std::vector<int>& files) {
    struct stat status {};
    return hasOutput(request) && !files.empty() && (::fstat(files.back(), &status) != 0 || status.st_size == 0);
}

/// Returns the argument of poll() that waits until then.
int timeoutUntil(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

}  // namespace

class JobRunner::Busy {
public:
    Busy(const JobRunner& runner, const BusyWorker& worker)
        : runner_(runner)
        , request_(worker.request) {
        const LockGuard lock(runner_.mutex_);
        runner_.busy_.push_back(worker);
    }
    ~Busy() {
        const LockGuard lock(runner_.mutex_);
        std::erase_if(runner_.busy_, [this](const BusyWorker& each) { return each.request == request_; });
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

private:
    const JobRunner& runner_;
    const KRVOperationBase* const request_;
};

/// Watches a worker that is not to be waited for without an end.
class JobRunner::Watch {
public:
    Watch(const JobRunner& runner, const Cancellation& cancellation, const std::function<void()>& onSilence)
        : runner_(runner)
        , cancellation_(cancellation)
        , onSilence_(onSilence) {}

    /// To be called when the worker has done something.
    void advanced() { since_ = Clock::now(); }
    /// Waits for events of poll() on the worker's channel. Returns why the worker is to be given up, if it is.
    [[nodiscard]] std::optional<Followed> wait(int channel, short events) {
        std::array<pollfd, 2> waiting{{{channel, events, 0}, {cancellation_.descriptor(), POLLIN, 0}}};
        const auto next = silent() ? stalledAt() : std::min(stalledAt(), since_ + runner_.silence_);
        const int ready =
            ::poll(waiting.data(), waiting.size(), next == Clock::time_point::max() ? -1 : timeoutUntil(next));
        if (ready < 0 && errno != EINTR) {
            return Followed::Exited;
        }
        if (cancellation_.requested()) {
            return Followed::Cancelled;
        }
        return ready == 0 ? overdue() : std::nullopt;
    }
    /// Returns whether the worker has done nothing for too long. To be called only if nothing is waiting from it: this
    /// process may have been stopped itself.
    [[nodiscard]] std::optional<Followed> overdue() {
        const auto now = Clock::now();
        if (now >= stalledAt()) {
            return Followed::Stalled;
        }
        if (!silent() && now >= since_ + runner_.silence_) {
            told_ = true;
            onSilence_();
        }
        return std::nullopt;
    }

private:
    using Clock = std::chrono::steady_clock;

    /// Returns whether there is nobody to tell of silence, or no more.
    [[nodiscard]] bool silent() const { return told_ || !onSilence_; }
    [[nodiscard]] Clock::time_point stalledAt() const {
        return runner_.stallLimit_.count() > 0 ? since_ + runner_.stallLimit_ : Clock::time_point::max();
    }

    const JobRunner& runner_;
    const Cancellation& cancellation_;
    const std::function<void()>& onSilence_;
    Clock::time_point since_ = Clock::now();
    bool told_ = false;
};

std::vector<JobRunner::BusyWorker> JobRunner::busy() const {
    const LockGuard lock(mutex_);
    return busy_;
}

Outcome JobRunner::run(const KRVOperationBase& request, const std::vector<int>& files, const Cancellation& cancellation,
                       const std::function<void(double)>& onProgress, const std::function<void()>& onSilence) const {
    std::string failure;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        auto worker = workers_.take(cancellation, failure);
        if (!worker && cancellation.requested()) {
            return {Outcome::Kind::Cancelled, nullptr, nullptr};
        }
        if (!worker) {
            return failed(makeError(request, {.cause = FailureCause::WorkerDidNotStart, .reason = failure}));
        }
        bool begun = false;
        WorkerChannel::Message report;
        const Busy busy(*this, {worker->pid(), &request});
        Watch watch(*this, cancellation, onSilence);
        std::optional<Followed> givenUp;
        const auto waitForRoom = [&] {
            givenUp = watch.wait(worker->channel.descriptor(), POLLOUT);
            return !givenUp;
        };
        const Followed followed = worker->channel.send(request, files, waitForRoom)
                                      ? follow(worker->channel, watch, onProgress, begun, report)
                                      : givenUp.value_or(Followed::Exited);
        if (followed == Followed::Reported && !hasOutput(request)) {
            workers_.release(std::move(worker));
            return outcomeOf(request, *report.record, report.size);
        }
        // Before its output is looked at, so that it cannot change it any more.
        const int status = worker->end();
        switch (followed) {
        case Followed::Cancelled:
            return {Outcome::Kind::Cancelled, nullptr, nullptr};
        case Followed::Stalled: {
            const auto limit = std::chrono::duration_cast<std::chrono::seconds>(stallLimit_).count();
            return failed(makeError(
                request, {.cause = FailureCause::OutOfTime,
                          .subject = limit == 1 ? "1 second" : fmt::format("{} seconds", limit),
                          .reason = fmt::format("out of time: the worker reported nothing for {} s", limit)}));
        }
        case Followed::Reported: {
            Outcome outcome = outcomeOf(request, *report.record, report.size);
            if (outcome.kind == Outcome::Kind::Completed && outputIsEmpty(request, files)) {
                return failed(makeError(request, {.cause = FailureCause::InternalError,
                                                  .reason = "the worker reported completion and wrote nothing"}));
            }
            return outcome;
        }
        case Followed::Exited:
            failure = howItEnded(status);
            if (begun) {
                return failed(makeError(request, {.cause = FailureCause::WorkerCrashed, .reason = failure}));
            }
            // The worker exited before it had the job, so the job is not to blame.
            break;
        }
    }
    return failed(makeError(request, {.cause = FailureCause::WorkerDidNotStart, .reason = failure}));
}

JobRunner::Followed JobRunner::follow(WorkerChannel& channel, Watch& watch,
                                      const std::function<void(double)>& onProgress, bool& begun,
                                      WorkerChannel::Message& report) {
    for (;;) {
        if (const auto givenUp = watch.wait(channel.descriptor(), POLLIN)) {
            return *givenUp;
        }
        bool ended = false;
        auto message = channel.receiveAvailable(ended);
        if (ended) {
            return Followed::Exited;
        }
        if (!message) {
            if (const auto givenUp = watch.overdue()) {
                return *givenUp;
            }
            continue;
        }
        begun = true;
        watch.advanced();
        switch (message->record->operationType()) {
        case OpReadyToProcessRequests:
            break;
        case OpReturnResult:
            report = *std::move(message);
            return Followed::Reported;
        default:
            onProgress(static_cast<double>(message->record->progress()));
        }
    }
}

}  // namespace krv::server

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
        const Followed followed = worker->channel.send(request, files)
                                      ? follow(worker->channel, cancellation, onProgress, begun, report, onSilence)
                                      : Followed::Exited;
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

JobRunner::Followed JobRunner::follow(WorkerChannel& channel, const Cancellation& cancellation,
                                      const std::function<void(double)>& onProgress, bool& begun,
                                      WorkerChannel::Message& report, const std::function<void()>& onSilence) const {
    using Clock = std::chrono::steady_clock;
    auto reported = Clock::now();
    bool silent = !onSilence;
    for (;;) {
        const auto stalled = stallLimit_.count() > 0 ? reported + stallLimit_ : Clock::time_point::max();
        const auto next = silent ? stalled : std::min(stalled, reported + silence_);
        std::array<pollfd, 2> waiting{{{channel.descriptor(), POLLIN, 0}, {cancellation.descriptor(), POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), next == Clock::time_point::max() ? -1 : timeoutUntil(next)) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Followed::Exited;
        }
        if (cancellation.requested()) {
            return Followed::Cancelled;
        }
        bool ended = false;
        auto message = channel.receiveAvailable(ended);
        if (ended) {
            return Followed::Exited;
        }
        if (!message) {
            // Only now: if this process has been stopped itself, the worker's messages are waiting.
            const auto now = Clock::now();
            if (now >= stalled) {
                return Followed::Stalled;
            }
            if (!silent && now >= reported + silence_) {
                silent = true;
                onSilence();
            }
            continue;
        }
        begun = true;
        reported = Clock::now();
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

#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Protocol/FailureSentence.h>
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

}  // namespace

Outcome JobRunner::run(const KRVOperationBase& request, const std::vector<int>& files, const Cancellation& cancellation,
                       const std::function<void(double)>& onProgress) const {
    std::string failure;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const auto worker = workers_.take(failure);
        if (!worker) {
            return failed(makeError(request, {.cause = FailureCause::WorkerDidNotStart, .reason = failure}));
        }
        bool begun = false;
        if (worker->channel.send(request, files)) {
            if (auto outcome = follow(worker->channel, cancellation, onProgress, begun)) {
                return *std::move(outcome);
            }
        }
        failure = howItEnded(worker->end());
        if (begun) {
            return failed(makeError(request, {.cause = FailureCause::WorkerCrashed, .reason = failure}));
        }
        // The worker exited before it had the job, so the job is not to blame.
    }
    return failed(makeError(request, {.cause = FailureCause::WorkerDidNotStart, .reason = failure}));
}

std::optional<Outcome> JobRunner::follow(WorkerChannel& channel, const Cancellation& cancellation,
                                         const std::function<void(double)>& onProgress, bool& begun) {
    for (;;) {
        std::array<pollfd, 2> waiting{{{channel.descriptor(), POLLIN, 0}, {cancellation.descriptor(), POLLIN, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::nullopt;
        }
        if (cancellation.requested()) {
            return Outcome{Outcome::Kind::Cancelled, nullptr, nullptr};
        }
        bool ended = false;
        auto message = channel.receiveAvailable(ended);
        if (ended) {
            return std::nullopt;
        }
        if (!message) {
            continue;
        }
        begun = true;
        switch (message->record->operationType()) {
        case OpReadyToProcessRequests:
            break;
        case OpReturnResult: {
            auto error = message->record->error();
            return error ? failed(std::move(error))
                         : Outcome{Outcome::Kind::Completed, nullptr, std::move(message->record)};
        }
        default:
            onProgress(static_cast<double>(message->record->progress()));
        }
    }
}

}  // namespace krv::server

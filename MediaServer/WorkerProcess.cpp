#include "WorkerProcess.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include "ServerError.h"

namespace krv::server {
namespace {

std::string howItEnded(int status) {
    return WIFSIGNALED(status)
               ? fmt::format("the worker was ended by signal {} ({})", WTERMSIG(status), ::strsignal(WTERMSIG(status)))
               : fmt::format("the worker ended with status {}", WEXITSTATUS(status));
}

Outcome failed(std::shared_ptr<const Error> error) {
    return {Outcome::Kind::Failed, std::move(error), nullptr};
}

}  // namespace

Cancellation::Cancellation()
    : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Cancellation::request() {
    requested_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(event_.get(), &one, sizeof one);
}

Outcome WorkerProcess::run(const MediaJob& job, const Cancellation& cancellation,
                           const std::function<void(double)>& onProgress) const {
    const std::string source = job.request->encodingSourceFilename().value_or("");
    std::string failure;
    const auto worker = workers_.take(failure);
    if (!worker) {
        return failed(makeError(ErrorCode::Internal, "The media worker could not be started.", failure));
    }
    WorkerChannel& channel = worker->channel;

    std::vector<int> files;
    for (const Descriptor& each : job.sources) {
        files.push_back(each.get());
    }
    files.push_back(job.output->descriptor());
    if (channel.send(*job.request, files)) {
        for (;;) {
            std::array<pollfd, 2> waiting{{{channel.descriptor(), POLLIN, 0}, {cancellation.descriptor(), POLLIN, 0}}};
            if (::poll(waiting.data(), waiting.size(), -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                break;
            }
            if (cancellation.requested()) {
                return {Outcome::Kind::Cancelled, nullptr, nullptr};
            }
            auto message = channel.receive();
            if (!message) {
                break;
            }
            if (message->record->operationType() == OpReturnResult) {
                auto error = message->record->error();
                return error ? failed(std::move(error))
                             : Outcome{Outcome::Kind::Completed, nullptr, std::move(message->record)};
            }
            onProgress(static_cast<double>(message->record->progress()));
        }
    }
    return failed(makeError(ErrorCode::WorkerDied, fmt::format("The media worker crashed on {}.", source),
                            howItEnded(worker->end()), source));
}

}  // namespace krv::server

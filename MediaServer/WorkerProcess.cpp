#include "WorkerProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include "ServerError.h"

namespace krv::server {
namespace {

/// Where the worker looks for its end of the wire.
constexpr int kChannelDescriptor = 3;

/// A child that is killed and reaped when its owner goes, unless it has been reaped.
class Child {
public:
    explicit Child(pid_t pid)
        : pid_(pid) {}
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            (void)reap();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void kill() const { ::kill(pid_, SIGKILL); }
    /// The status of waitpid.
    int reap() {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_;
};

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

pid_t WorkerProcess::spawn(int channelEnd) const {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    posix_spawn_file_actions_adddup2(&files, channelEnd, kChannelDescriptor);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const std::string server = std::to_string(::getpid());
    const char* const arguments[] = {executable_.c_str(), server.c_str(), nullptr};
    pid_t pid = -1;
    const int failure =
        ::posix_spawn(&pid, executable_.c_str(), &files, &attributes, const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    errno = failure;
    return failure == 0 ? pid : -1;
}

Outcome WorkerProcess::run(const MediaJob& job, const Cancellation& cancellation,
                           const std::function<void(double)>& onProgress) const {
    const std::string source = job.request->encodingSourceFilename().value_or("");
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return failed(makeError(ErrorCode::Internal, "The media worker could not be started.", std::strerror(errno)));
    }
    WorkerChannel channel{Descriptor(ends[0])};
    Descriptor theirs(ends[1]);
    // Descriptor 3 itself would stay closed on exec: dup2 onto the same number changes nothing.
    if (theirs.get() == kChannelDescriptor) {
        theirs.reset(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, kChannelDescriptor + 1));
    }
    const pid_t pid = spawn(theirs.get());
    if (pid < 0) {
        return failed(makeError(ErrorCode::Internal, "The media worker could not be started.",
                                fmt::format("{}: {}", executable_, std::strerror(errno))));
    }
    Child child(pid);
    theirs.reset();

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
                child.kill();
                (void)child.reap();
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
    child.kill();  // one that sends rubbish is alive still
    return failed(makeError(ErrorCode::WorkerDied, fmt::format("The media worker crashed on {}.", source),
                            howItEnded(child.reap()), source));
}

}  // namespace krv::server

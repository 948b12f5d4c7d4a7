// Launching a program that is nobody's child.
//
// A library cannot simply fork and exec. The program would be the application's child. Its exit raises SIGCHLD in an
// application that may have a handler, the application's wait() for any child would consume its status (or be confused
// by it), and until it is reaped it remains as a zombie. So an intermediate process, the courier, launches the program,
// reports, and exits. The program is then adopted by the system, which reaps it.
//
//     application ── fork ──> courier ── posix_spawn ──> program
//          │  <── pid, errno ─────┘│                        │
//          │  pidfd_open(pid)      │                        │ adopted by init when the courier exits
//          └── shutdown ─────────> └─ exits                 │
//
// - The courier reads its end of the socket until end of file before it exits. Until then it is the program's parent
//   and does not reap it, so the pid cannot be reused before the application has opened its pidfd.
// - The application signals end of file with shutdown(), not with close(). A process that another thread forks at the
//   same time has a copy of our end of the socket. The couriers of two simultaneous launches would have each other's
//   ends open and wait forever. For the same reason a courier closes every inherited descriptor.
// - Between fork and posix_spawn only functions are called that are safe in a process whose other threads no longer
//   exist. Everything that allocates memory (arguments, attributes) is prepared before.
// - posix_spawn instead of exec, because it reports at once why a program file is refused.
// - If the application dies in the middle, the courier reads end of file and exits. The program continues to run.
//
// Rejected: a plain child with a thread or a SIGCHLD handler that reaps it, because the host application would see
// both. A pidfd source on the main loop, because an application that does not run its loop would collect zombies. A
// program that forks itself into the background, because a person who starts it in a terminal could not control it.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/Task.h>

namespace krv {
namespace {

constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;

/// The courier's message.
struct Report {
    int failure = 0;
    pid_t pid = 0;
};

class LaunchedTask final : public Task {
public:
    LaunchedTask(pid_t pid, int process)
        : pid_(pid)
        , process_(process) {}
    ~LaunchedTask() override {
        if (process_ >= 0) {
            ::close(process_);
        }
    }
    LaunchedTask(const LaunchedTask&) = delete;
    LaunchedTask& operator=(const LaunchedTask&) = delete;

    [[nodiscard]] pid_t processIdentifier() const override { return pid_; }
    [[nodiscard]] bool isRunning() const override {
        pollfd waiting{process_, POLLIN, 0};
        return process_ >= 0 && ::poll(&waiting, 1, 0) == 0;
    }

private:
    const pid_t pid_;
    const int process_;  // pidfd, readable when the process has exited
};

/// The arguments of posix_spawn, prepared before the fork.
class SpawnPlan {
public:
    explicit SpawnPlan(const Task::Launch& what)
        : executable_(what.executable)
        , arguments_(what.arguments)
        , standardError_(what.standardErrorFile) {
        arguments_.insert(arguments_.begin(), executable_);
        for (std::string& argument : arguments_) {
            argv_.push_back(argument.data());
        }
        argv_.push_back(nullptr);

        posix_spawn_file_actions_init(&files_);
        posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        const bool toFile = openStandardError();
        posix_spawn_file_actions_addopen(&files_, STDERR_FILENO, toFile ? standardError_.c_str() : "/dev/null",
                                         toFile ? O_WRONLY | O_APPEND : O_WRONLY, 0);
        posix_spawn_file_actions_addchdir_np(&files_, "/");
        posix_spawn_file_actions_addclosefrom_np(&files_, kFirstOtherDescriptor);

        posix_spawnattr_init(&attributes_);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes_, &none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    [[nodiscard]] int spawn(pid_t& pid) {
        return ::posix_spawn(&pid, executable_.c_str(), &files_, &attributes_, argv_.data(), environ);
    }

private:
    /// Creates the file before the launch, so that an unwritable folder does not make the launch fail.
    [[nodiscard]] bool openStandardError() const {
        if (standardError_.empty()) {
            return false;
        }
        const int file =
            ::open(standardError_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
        if (file >= 0) {
            ::close(file);
        }
        return file >= 0;
    }

    std::string executable_;
    std::vector<std::string> arguments_;
    std::string standardError_;
    std::vector<char*> argv_;
    posix_spawn_file_actions_t files_{};
    posix_spawnattr_t attributes_{};
};

/// Moves the descriptor to the first number after the standard streams and closes all others. Returns its new number.
int keepOnly(int descriptor) {
    if (descriptor != kFirstOtherDescriptor) {
        descriptor = ::dup3(descriptor, kFirstOtherDescriptor, O_CLOEXEC);
    }
    ::close_range(kFirstOtherDescriptor + 1, ~0U, 0);
    return descriptor;
}

/// Runs the courier, from the fork to its exit.
[[noreturn]] void runCourier(SpawnPlan& plan, int line) {
    line = keepOnly(line);
    Report report;
    report.failure = plan.spawn(report.pid);
    (void)::send(line, &report, sizeof report, MSG_NOSIGNAL);
    char endOfFile = 0;
    while (::recv(line, &endOfFile, sizeof endOfFile, 0) < 0 && errno == EINTR) {
    }
    ::_exit(0);
}

void waitFor(pid_t courier) {
    while (::waitpid(courier, nullptr, 0) < 0 && errno == EINTR) {
    }
}

Exception cannotLaunch(std::string_view name, const std::string& executable, int failure) {
    return {std::string(name), fmt::format("{} cannot be launched: {}", executable, std::strerror(failure))};
}

}  // namespace

Task::~Task() = default;

std::shared_ptr<Task> Task::launch(const Launch& what) {
    SpawnPlan plan(what);
    int line[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, line) != 0) {
        throw cannotLaunch(kTaskLaunchException, what.executable, errno);
    }
    const pid_t courier = ::fork();
    if (courier == 0) {
        ::close(line[0]);
        runCourier(plan, line[1]);
    }
    const int forkFailure = errno;
    ::close(line[1]);
    if (courier < 0) {
        ::close(line[0]);
        throw cannotLaunch(kTaskLaunchException, what.executable, forkFailure);
    }

    Report report;
    ssize_t count = 0;
    while ((count = ::recv(line[0], &report, sizeof report, MSG_WAITALL)) < 0 && errno == EINTR) {
    }
    const bool launched = count == static_cast<ssize_t>(sizeof report) && report.failure == 0;
    const int process = launched ? static_cast<int>(::syscall(SYS_pidfd_open, report.pid, 0)) : -1;
    ::shutdown(line[0], SHUT_RDWR);
    ::close(line[0]);
    waitFor(courier);
    if (count != static_cast<ssize_t>(sizeof report)) {
        throw cannotLaunch(kTaskLaunchException, what.executable, ECHILD);
    }
    if (!launched) {
        throw cannotLaunch(kInvalidArgumentException, what.executable, report.failure);
    }
    return std::make_shared<LaunchedTask>(report.pid, process);
}

}  // namespace krv

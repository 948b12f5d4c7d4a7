// Launching a program that belongs to nobody.
//
// A library cannot simply fork and exec. The child would be the application's: its death raises SIGCHLD in a program
// that may have a handler for it, a wait() for any child would take our status away (or be confused by it), and until
// somebody waits it stays in the table as a zombie. So there is a process in between, which launches the program,
// reports, and ends; the program then belongs to the system, which reaps it.
//
//     application ── fork ──> courier ── posix_spawn ──> program
//          │  <── pid, errno ─────┘│                        │
//          │  pidfd_open(pid)      │                        │ adopted by init when the courier ends
//          └── shutdown ─────────> └─ exits                 │
//
// - The courier waits for the end of what it can read before it exits. Until then it is the program's parent and never
//   waits for it, so the pid cannot be given to another process before our descriptor of the process is open.
// - That end is made with shutdown(), not with close(): a process that another thread forks meanwhile holds a copy of
//   our end of the line. Two couriers of two launches at the same time would hold each other's, and wait for ever. For
//   the same reason a courier closes whatever it was born with.
// - Between fork and posix_spawn only calls that are safe in a process whose other threads have vanished are made;
//   everything that needs memory (arguments, attributes) is made before.
// - posix_spawn, not exec: it reports why a program file is refused, by itself and at once.
// - If the application dies in the middle, the courier reads the end of file and ends; the program runs on.
//
// Rejected: a plain child with a thread or a SIGCHLD handler to reap it (both are visible to the host); a pidfd source
// on the main loop (an application that does not turn its loop collects zombies); letting the program itself fork
// into the background (then whoever starts it by hand loses sight of it).
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

/// What the courier says.
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
    const int process_;  // becomes readable when the process ends
};

/// Everything posix_spawn needs, made before the fork.
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
    /// Makes the file now, so that a place that cannot be written does not fail the launch.
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

/// Moves the descriptor to the first place behind the standard ones and closes all others.
int keepOnly(int descriptor) {
    if (descriptor != kFirstOtherDescriptor) {
        descriptor = ::dup3(descriptor, kFirstOtherDescriptor, O_CLOEXEC);
    }
    ::close_range(kFirstOtherDescriptor + 1, ~0U, 0);
    return descriptor;
}

/// The courier's whole life.
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

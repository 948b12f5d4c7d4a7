// Launching a program that is nobody's child.
//
// A library cannot simply fork and exec. The program would be the application's child. Its exit raises SIGCHLD in an
// application that may have a handler, the application's wait() for any child would consume its status (or be confused
// by it), and until it is reaped it remains as a zombie. So an intermediate process, the courier, launches the program,
// reports, and exits. The program is then adopted by the system, which reaps it.
//
//     application ── clone ──> courier ── posix_spawn ──> program
//          │ suspended          │  pidfd_open(program)      │
//          │ <───────────────── └─ exits                    │ adopted by init when the courier exits
//          └ reaps the courier                              │
//
// - The courier is cloned like the child of vfork: it uses the application's memory on a stack of its own, and the
//   calling thread is suspended until it exits. So a launch takes as long for an application of many gigabytes as for a
//   small one, and the report is a structure on the caller's stack.
// - It is cloned without an exit signal. So its end raises nothing, and only a wait() for such children finds it
//   (__WALL); the application's own does not.
// - It shares the application's descriptors, so that the pidfd it opens is the application's. It opens the pidfd while
//   it is the program's parent and has not reaped it; until then the kernel cannot reuse the pid. It opens and closes
//   nothing else. The program gets a copy of the table, in which posix_spawn closes everything.
// - All signals are blocked around the clone. A signal that is sent to the application's process group also reaches the
//   courier, where the application's handler would run in the application's memory.
// - posix_spawn instead of exec, because it reports at once why a program file is refused.
//
// Rejected: a plain child with a thread or a SIGCHLD handler that reaps it, because the host application would see
// both. fork(), because it copies the page tables of the whole application: 70 to 90 ms for one gibibyte, during which
// every thread that writes memory stands still. A pidfd source on the main loop, because an application that does not
// run its loop would collect zombies. A program that forks itself into the background, because a person who starts it
// in a terminal could not control it.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>
#include <KRVQTProcessClient/Platform/Task.h>

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer replaces clone() and takes every call for a fork. This is the same function under another name.
extern "C" int __clone(int (*)(void*), void*, int, void*, ...) noexcept;  // NOLINT(bugprone-reserved-identifier)
#define KRV_CLONE __clone
#else
#define KRV_CLONE ::clone
#endif

namespace krv {
namespace {

constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;

/// posix_spawn allocates the program's stack itself, so the courier needs little.
constexpr std::size_t kStackOfTheCourier = std::size_t{64} * 1024;

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
        if (process_ < 0) {
            return ::kill(pid_, 0) == 0 || errno != ESRCH;
        }
        pollfd waiting{process_, POLLIN, 0};
        return ::poll(&waiting, 1, 0) == 0;
    }

private:
    const pid_t pid_;
    const int process_;  // pidfd, readable when the process has exited; -1 if there was no descriptor for it
};

/// The arguments of posix_spawn.
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

/// What the courier does, and its report.
struct Delivery {
    SpawnPlan& plan;
    int failure = 0;
    pid_t pid = 0;
    int process = -1;
};

/// The courier. It uses the memory of the calling thread, thread-local variables included, while that is suspended.
/// Sanitizers would take what it does for the calling thread's own, and miss its return.
__attribute__((no_sanitize("address", "thread"))) int runCourier(void* argument) {
    auto& delivery = *static_cast<Delivery*>(argument);
    delivery.failure = delivery.plan.spawn(delivery.pid);
    if (delivery.failure == 0) {
        delivery.process = static_cast<int>(::syscall(SYS_pidfd_open, delivery.pid, 0));
    }
    // Not _exit(): in a sanitized program that also ends the run of the sanitizer, which is the application's.
    ::syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

class Stack {
public:
    Stack()
        : bottom_(::mmap(nullptr, kStackOfTheCourier, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                         -1, 0)) {}
    ~Stack() {
        if (bottom_ != MAP_FAILED) {
            ::munmap(bottom_, kStackOfTheCourier);
        }
    }
    Stack(const Stack&) = delete;
    Stack& operator=(const Stack&) = delete;

    /// Returns the end from which the stack grows downwards, null if there is no memory.
    [[nodiscard]] void* top() const {
        return bottom_ == MAP_FAILED ? nullptr : static_cast<std::byte*>(bottom_) + kStackOfTheCourier;
    }

private:
    void* const bottom_;
};

/// Returns the error with which no courier could be started, 0 if it has delivered.
int sendCourier(Delivery& delivery) {
    const Stack stack;
    if (!stack.top()) {
        return errno;
    }
    const SignalsBlocked blocked;
    const pid_t courier = KRV_CLONE(&runCourier, stack.top(), CLONE_VM | CLONE_VFORK | CLONE_FILES, &delivery);
    if (courier < 0) {
        return errno;
    }
    while (::waitpid(courier, nullptr, __WALL) < 0 && errno == EINTR) {
    }
    return 0;
}

bool isShortage(int failure) {
    return failure == EAGAIN || failure == ENOMEM || failure == EMFILE || failure == ENFILE;
}

Exception cannotLaunch(std::string_view name, const std::string& executable, int failure) {
    return {std::string(name), fmt::format("{} cannot be launched: {}", executable, std::strerror(failure))};
}

}  // namespace

Task::~Task() = default;

std::shared_ptr<Task> Task::launch(const Launch& what) {
    SpawnPlan plan(what);
    Delivery delivery{plan};
    if (const int failure = sendCourier(delivery); failure != 0) {
        throw cannotLaunch(kTaskLaunchException, what.executable, failure);
    }
    if (delivery.failure != 0) {
        throw cannotLaunch(isShortage(delivery.failure) ? kTaskLaunchException : kInvalidArgumentException,
                           what.executable, delivery.failure);
    }
    return std::make_shared<LaunchedTask>(delivery.pid, delivery.process);
}

}  // namespace krv

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Workers/KilledProcesses.h>
#include <MediaServer/Workers/TemplateProcess.h>

namespace krv::server {
namespace {

/// The descriptor at which the template expects its end of the control channel.
constexpr int kControlDescriptor = 3;
/// A template that takes longer than this to fork has stopped.
constexpr std::chrono::seconds kPatience{5};
/// Before the first worker, the template loads the libraries, which takes seconds from a slow disk.
constexpr std::chrono::seconds kPatienceAtStart{30};

/// Returns the program opened for execution only, above the descriptors that the template expects.
Descriptor openProgram(const std::string& path) {
    const Descriptor program(::open(path.c_str(), O_PATH | O_CLOEXEC));
    return Descriptor(program ? ::fcntl(program.get(), F_DUPFD_CLOEXEC, kControlDescriptor + 1) : -1);
}

/// Starts the program with its end of the channel. Returns -1 and sets errno if it cannot be started.
pid_t spawn(int program, const std::string& name, std::uint64_t memoryLimit, int controlEnd) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    posix_spawn_file_actions_adddup2(&files, controlEnd, kControlDescriptor);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Signals that end a session reach whole process groups. The server decides what they mean for an operation.
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&blocked, number);
    }
    posix_spawnattr_setsigmask(&attributes, &blocked);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    const std::string server = std::to_string(::getpid());
    const std::string memory = std::to_string(memoryLimit);
    const char* const arguments[] = {name.c_str(), server.c_str(), memory.c_str(), nullptr};
    // The user's environment may contain secrets, which a decoder must not see.
    char* const environment[] = {nullptr};
    const std::string path = fmt::format("/proc/self/fd/{}", program);
    pid_t pid = -1;
    const int failure =
        ::posix_spawn(&pid, path.c_str(), &files, &attributes, const_cast<char* const*>(arguments), environment);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    errno = failure;
    return failure == 0 ? pid : -1;
}

bool isChild(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace

TemplateProcess::TemplateProcess(std::string executable, std::uint64_t memoryLimit)
    : executable_(std::move(executable))
    , memoryLimit_(memoryLimit)
    , program_(openProgram(executable_)) {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

TemplateProcess::~TemplateProcess() {
    end();
}

bool TemplateProcess::start(std::string& failure) {
    const auto failed = [&] {
        failure = fmt::format("{}: {}", executable_, std::strerror(errno));
        return false;
    };
    if (!program_ && !(program_ = openProgram(executable_))) {
        return failed();
    }
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return failed();
    }
    channel_.emplace(Descriptor(ends[0]));
    Descriptor theirs(ends[1]);
    // Descriptor 3 itself would stay closed on exec: dup2 onto the same number changes nothing.
    if (theirs.get() == kControlDescriptor) {
        theirs.reset(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, kControlDescriptor + 1));
    }
    responded_ = false;
    pid_ = spawn(program_.get(), executable_, memoryLimit_, theirs.get());
    return pid_ > 0 || failed();
}

void TemplateProcess::end() {
    channel_.reset();
    if (pid_ <= 0) {
        return;
    }
    // With its process group. What it has forked is in this group until forkWorker() has its process id, and becomes
    // a child of this process when its parent dies.
    ::kill(-pid_, SIGKILL);
    int status = 0;
    (void)reapKilled(-pid_, status);
    pid_ = -1;
}

pid_t TemplateProcess::forkWorker(int workerEnd, int stop, std::string& failure) {
    // A template that has died or stopped since the last worker is replaced once.
    for (const bool mayHaveDied : {pid_ > 0, false}) {
        if (pid_ <= 0 && !start(failure)) {
            return -1;
        }
        const pid_t worker = channel_->requestWorker(workerEnd, responded_ ? kPatience : kPatienceAtStart, stop);
        if (worker > 0 && isChild(worker)) {
            ::setpgid(worker, worker);
            responded_ = true;
            return worker;
        }
        const int problem = worker > 0 ? ECHILD : errno;
        failure = fmt::format("the template process forks no worker: {}", std::strerror(problem));
        end();
        if (!mayHaveDied || problem == ECANCELED) {
            break;
        }
    }
    return -1;
}

}  // namespace krv::server

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {
namespace {

/// The descriptor at which the worker expects its end of the channel.
constexpr int kChannelDescriptor = 3;

/// Starts the program with its end of the channel. Returns -1 and sets errno if it cannot be started.
pid_t spawn(const std::string& executable, std::uint64_t memoryLimit, int channelEnd) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
    }
    posix_spawn_file_actions_adddup2(&files, channelEnd, kChannelDescriptor);
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
    const char* const arguments[] = {executable.c_str(), server.c_str(), memory.c_str(), nullptr};
    // The user's environment may contain secrets, which a decoder must not see.
    char* const environment[] = {nullptr};
    pid_t pid = -1;
    const int failure =
        ::posix_spawn(&pid, executable.c_str(), &files, &attributes, const_cast<char* const*>(arguments), environment);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    errno = failure;
    return failure == 0 ? pid : -1;
}

}  // namespace

bool Worker::isAlive() const {
    siginfo_t info{};
    return pid_ > 0 && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

int Worker::end() {
    if (pid_ <= 0) {
        return 0;
    }
    // A process that has exited keeps its status. One that has closed the channel is about to exit.
    int status = 0;
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
}

WorkerPool::WorkerPool(std::string executable, unsigned spares, std::uint64_t memoryLimit)
    : executable_(std::move(executable))
    , spares_(spares)
    , memoryLimit_(memoryLimit)
    , keeper_([this] { keep(); }) {}

WorkerPool::~WorkerPool() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    keeper_.join();
}

std::unique_ptr<Worker> WorkerPool::start(std::string& failure) const {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        failure = std::strerror(errno);
        return nullptr;
    }
    WorkerChannel channel{Descriptor(ends[0])};
    Descriptor theirs(ends[1]);
    // Descriptor 3 itself would stay closed on exec: dup2 onto the same number changes nothing.
    if (theirs.get() == kChannelDescriptor) {
        theirs.reset(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, kChannelDescriptor + 1));
    }
    const pid_t pid = spawn(executable_, memoryLimit_, theirs.get());
    if (pid < 0) {
        failure = fmt::format("{}: {}", executable_, std::strerror(errno));
        return nullptr;
    }
    return std::make_unique<Worker>(pid, std::move(channel));
}

void WorkerPool::keep() {
    mutex_.lock();
    while (!stopping_) {
        if (ready_.size() >= spares_ + waiting_ || !failure_.empty()) {
            changed_.wait(mutex_);
            continue;
        }
        mutex_.unlock();
        std::string failure;
        auto worker = start(failure);
        mutex_.lock();
        if (worker) {
            ready_.push_back(std::move(worker));
        } else {
            failure_ = std::move(failure);
        }
        changed_.notify_all();
    }
    // On this thread, whose exit would kill them anyway.
    ready_.clear();
    mutex_.unlock();
}

std::unique_ptr<Worker> WorkerPool::take(std::string& failure) {
    std::deque<std::unique_ptr<Worker>> dead;  // reaped after unlocking
    const LockGuard lock(mutex_);
    failure_.clear();
    ++waiting_;
    changed_.notify_all();
    std::unique_ptr<Worker> worker;
    while (!worker && !stopping_ && failure_.empty()) {
        if (ready_.empty()) {
            changed_.wait(mutex_);
            continue;
        }
        worker = std::move(ready_.front());
        ready_.pop_front();
        if (!worker->isAlive()) {
            dead.push_back(std::move(worker));
            changed_.notify_all();
        }
    }
    --waiting_;
    changed_.notify_all();
    failure = worker ? std::string() : stopping_ ? "the server is shutting down" : failure_;
    return worker;
}

std::size_t WorkerPool::ready() const {
    const LockGuard lock(mutex_);
    return ready_.size();
}

}  // namespace krv::server

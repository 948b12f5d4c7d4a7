#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {
namespace {

/// A killed process is gone within milliseconds, unless it is blocked in the kernel.
constexpr std::chrono::seconds kPatience{2};

/// The killed processes that have not been reaped.
class Leftovers {
public:
    void add(pid_t process) {
        const LockGuard lock(mutex_);
        processes_.push_back(process);
    }
    void reap() {
        const LockGuard lock(mutex_);
        std::erase_if(processes_, [](pid_t process) { return ::waitpid(process, nullptr, WNOHANG) != 0; });
    }

private:
    Mutex mutex_;
    std::vector<pid_t> processes_ KRV_GUARDED_BY(mutex_);
};

Leftovers& leftovers() {
    static auto* const all = new Leftovers;  // never destroyed: threads may still end workers when the process exits
    return *all;
}

/// Waits for a killed process. Returns false if it is still there after a moment.
bool waitBriefly(pid_t process, int& status) {
    const Descriptor end(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
        const pid_t ended = ::waitpid(process, &status, WNOHANG);
        if (ended > 0 || (ended < 0 && errno != EINTR)) {
            return true;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        // Without a descriptor to wait for, it looks again every millisecond.
        pollfd waiting{end.get(), POLLIN, 0};
        ::poll(&waiting, 1, end ? static_cast<int>(left.count()) : 1);
    }
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
    leftovers().reap();
    if (!waitBriefly(pid_, status)) {
        leftovers().add(pid_);
        status = SIGKILL;
    }
    pid_ = -1;
    return status;
}

WorkerPool::WorkerPool(std::string executable, unsigned spares, std::uint64_t memoryLimit)
    : spares_(spares)
    , template_(std::move(executable), memoryLimit)
    , keeper_([this] { keep(); }) {}

WorkerPool::~WorkerPool() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    keeper_.join();
}

std::unique_ptr<Worker> WorkerPool::start(std::string& failure) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        failure = std::strerror(errno);
        return nullptr;
    }
    WorkerChannel channel{Descriptor(ends[0])};
    const Descriptor theirs(ends[1]);
    const pid_t pid = template_.forkWorker(theirs.get(), failure);
    if (pid < 0) {
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
        const std::uint64_t before = taken_;
        mutex_.unlock();
        std::string failure;
        auto worker = start(failure);
        mutex_.lock();
        if (worker) {
            ready_.push_back(std::move(worker));
        } else if (taken_ == before) {  // otherwise this attempt is older than what a caller waits for
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
    ++taken_;
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

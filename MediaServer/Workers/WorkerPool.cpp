#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Workers/KilledProcesses.h>
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {
namespace {

/// For a worker to close its files, in milliseconds.
constexpr int kPatience = 2000;

}  // namespace

bool Worker::isAlive() const {
    siginfo_t info{};
    return pid_ > 0 && ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

void Worker::dismiss() {
    pollfd closed{channel.descriptor(), POLLRDHUP, 0};
    ::poll(&closed, 1, kPatience);
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
    }
}

int Worker::end() {
    if (pid_ <= 0) {
        return 0;
    }
    // A process that has exited keeps its status. One that has closed the channel is about to exit.
    int status = 0;
    ::kill(pid_, SIGKILL);
    if (!reapKilled(pid_, status)) {
        status = SIGKILL;
    }
    pid_ = -1;
    return status;
}

WorkerPool::WorkerPool(std::string executable, unsigned spares, std::uint64_t memoryLimit)
    : spares_(spares)
    , stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , template_(std::move(executable), memoryLimit)
    , keeper_(threadWithoutSignals("KRVWorkerPool", [this] { keep(); })) {}

WorkerPool::~WorkerPool() {
    {
        const LockGuard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(stop_.get(), &one, sizeof one);
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
    const pid_t pid = template_.forkWorker(theirs.get(), stop_.get(), failure);
    if (pid < 0) {
        return nullptr;
    }
    return std::make_unique<Worker>(pid, std::move(channel));
}

void WorkerPool::keep() {
    mutex_.lock();
    while (!stopping_) {
        if (ready_.size() >= spares_ + waiting_ || !failure_.empty()) {
            const auto released = std::exchange(released_, {});
            if (released.empty()) {
                changed_.wait(mutex_);
                continue;
            }
            mutex_.unlock();
            for (const auto& worker : released) {
                (void)worker->end();
            }
            mutex_.lock();
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
    released_.clear();
    mutex_.unlock();
}

void WorkerPool::release(std::unique_ptr<Worker> worker) {
    worker->dismiss();
    const LockGuard lock(mutex_);
    released_.push_back(std::move(worker));
    changed_.notify_all();
}

std::unique_ptr<Worker> WorkerPool::take(const Cancellation& cancellation, std::string& failure) {
    std::deque<std::unique_ptr<Worker>> dead;  // reaped after unlocking
    const Cancellation::Observer observer(cancellation, [this] {
        const LockGuard lock(mutex_);
        changed_.notify_all();
    });
    const LockGuard lock(mutex_);
    failure_.clear();
    ++taken_;
    ++waiting_;
    changed_.notify_all();
    std::unique_ptr<Worker> worker;
    while (!worker && !stopping_ && !cancellation.requested() && failure_.empty()) {
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
    if (worker) {
        failure.clear();
    } else {
        failure = stopping_                  ? "the server is shutting down"
                  : cancellation.requested() ? "the operation was cancelled"
                                             : failure_;
    }
    return worker;
}

std::size_t WorkerPool::ready() const {
    const LockGuard lock(mutex_);
    return ready_.size();
}

std::vector<pid_t> WorkerPool::idle() const {
    const LockGuard lock(mutex_);
    std::vector<pid_t> pids;
    for (const auto& worker : ready_) {
        pids.push_back(worker->pid());
    }
    return pids;
}

}  // namespace krv::server

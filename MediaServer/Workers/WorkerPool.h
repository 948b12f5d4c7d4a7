#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Protocol/WorkerChannel.h>
#include <MediaServer/Workers/Cancellation.h>
#include <MediaServer/Workers/TemplateProcess.h>

namespace krv::server {

/// A worker process and the server's end of the channel to it. The destructor kills and reaps the process.
class Worker {
public:
    Worker(pid_t process, WorkerChannel serverEnd)
        : channel(std::move(serverEnd))
        , pid_(process) {}
    ~Worker() { (void)end(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Returns its process id, −1 after end().
    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    /// Returns whether the process is still running.
    [[nodiscard]] bool isAlive() const;
    /// Waits until the process has closed its files, or for a moment if a drive does not respond. Then kills it unless
    /// it has exited, and does not wait for that.
    void dismiss();
    /// Kills the process unless it has exited, and returns its status as from waitpid. Returns 0 after the first call.
    ///
    /// A process that is blocked on a drive that does not respond is left to itself after a moment and reported as
    /// killed; see reapKilled().
    int end();

    WorkerChannel channel;

private:
    pid_t pid_;
};

/// Keeps some idle workers ready, forked from a template process, so that an operation begins at once.
///
/// A worker performs one operation and exits, and with it whatever a hostile file may have done to it. The pool's own
/// thread starts the next one in the meantime. Thread-safe.
class WorkerPool {
public:
    /// executable: path of the worker program, which is opened now. spares: how many idle workers to keep; they are
    /// started at once.
    /// memoryLimit: bytes of writable memory per worker; 0 for a default that depends on the machine.
    WorkerPool(std::string executable, unsigned spares, std::uint64_t memoryLimit = 0);
    /// Kills the idle workers. All workers handed out by take() must already be destroyed.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Returns an idle worker, or waits until one has been started. Returns null and sets failure to the reason if none
    /// can be started, or after a cancellation.
    [[nodiscard]] std::unique_ptr<Worker> take(const Cancellation& cancellation, std::string& failure);

    /// Ends a worker that has reported its result and has not written a file. Waits until it has closed its files. The
    /// pool's own thread reaps it.
    void release(std::unique_ptr<Worker> worker);

    /// Returns how many idle workers there are.
    [[nodiscard]] std::size_t ready() const;
    /// Returns their process ids.
    [[nodiscard]] std::vector<pid_t> idle() const;

private:
    void keep();
    [[nodiscard]] std::unique_ptr<Worker> start(std::string& failure);

    const unsigned spares_;
    /// Readable when the keeper thread is to end.
    const Descriptor stop_;
    /// Used by the keeper thread only.
    TemplateProcess template_;
    mutable Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<std::unique_ptr<Worker>> ready_ KRV_GUARDED_BY(mutex_);
    std::vector<std::unique_ptr<Worker>> released_ KRV_GUARDED_BY(mutex_);
    unsigned waiting_ KRV_GUARDED_BY(mutex_) = 0;
    /// How often take() has been called.
    std::uint64_t taken_ KRV_GUARDED_BY(mutex_) = 0;
    /// Why the latest attempt to start a worker failed; empty if it succeeded.
    std::string failure_ KRV_GUARDED_BY(mutex_);
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    /// Has the template fork every worker. The kernel kills the template when the thread that started it exits, so one
    /// thread that runs as long as the pool starts it. The workers' parent is the process's main thread, so they must
    /// not outlive it.
    std::thread keeper_;
};

}  // namespace krv::server

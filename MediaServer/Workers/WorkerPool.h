#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>

#include <sys/types.h>

#include <KRVQTProcessClient/Foundation/Mutex.h>

#include <MediaServer/Protocol/WorkerChannel.h>

namespace krv::server {

/// A worker process and the server's end of the wire to it. It is killed and reaped when the object goes.
class Worker {
public:
    Worker(pid_t process, WorkerChannel wire)
        : channel(std::move(wire))
        , pid_(process) {}
    ~Worker() { (void)end(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Whether it still lives.
    [[nodiscard]] bool isAlive() const;
    /// Kills it, unless it has ended by itself, and returns its status as waitpid tells it; 0 after the first call.
    int end();

    WorkerChannel channel;

private:
    pid_t pid_;
};

/// Keeps some workers started ahead of need, because starting one takes longer than many an operation.
///
/// A worker carries out one operation and ends with it: what a hostile file may have done to it ends there too. The
/// pool's own thread starts the next one meanwhile. Any thread.
class WorkerPool {
public:
    /// executable: the worker program. spares: how many to keep ready; they are started at once. memoryLimit: the bytes
    /// that each worker may write to; zero for what suits this machine.
    WorkerPool(std::string executable, unsigned spares, std::uint64_t memoryLimit = 0);
    /// Ends the spares. Workers that were taken must have gone.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// A live worker, from the spares if there is one, else as soon as one has been started. Null with the reason when
    /// none can be started.
    [[nodiscard]] std::unique_ptr<Worker> take(std::string& failure);

    /// How many are ready now.
    [[nodiscard]] std::size_t ready() const;

private:
    void keep();
    [[nodiscard]] std::unique_ptr<Worker> start(std::string& failure) const;

    const std::string executable_;
    const unsigned spares_;
    const std::uint64_t memoryLimit_;
    mutable Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<std::unique_ptr<Worker>> ready_ KRV_GUARDED_BY(mutex_);
    unsigned waiting_ KRV_GUARDED_BY(mutex_) = 0;
    /// Why the latest attempt to start one failed; empty when it did not.
    std::string failure_ KRV_GUARDED_BY(mutex_);
    bool stopping_ KRV_GUARDED_BY(mutex_) = false;
    /// Starts every worker: a worker ends with the thread that started it, so this one lives as long as the pool.
    std::thread keeper_;
};

}  // namespace krv::server
